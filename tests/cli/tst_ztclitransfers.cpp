#include "clirun.h"
#include "fileserviceprocess.h"
#include "scriptedserver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

namespace {
constexpr qint64 MiB = 1024 * 1024; // --chunk-size-mb 1: the download chunk

// A raw pseudo-terminal of a given width; the test reads what it shows.
struct Terminal
{
    explicit Terminal(int columns)
    {
        struct winsize size {};
        size.ws_col = ushort(columns);
        size.ws_row = 24;
        char name[128] = {};
        if (::openpty(&master, &slave, name, nullptr, &size) != 0)
            return;
        path = QString::fromLocal8Bit(name);
        struct termios raw {};
        ::tcgetattr(slave, &raw);
        ::cfmakeraw(&raw);
        ::tcsetattr(slave, TCSANOW, &raw);
        ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    }
    ~Terminal()
    {
        ::close(master);
        ::close(slave);
    }
    void read()
    {
        char buffer[4096];
        for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;)
            shown.append(buffer, int(n));
    }
    int master = -1;
    int slave = -1; // kept open, so that reading never sees the end early
    QString path;
    QByteArray shown;
};

QByteArray randomBytes(qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(data.data()), data.size() / 4);
    return data;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

qint64 bytesUnder(const QString &folder)
{
    qint64 sum = 0;
    for (QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        sum += QFileInfo(it.next()).size();
    return sum;
}

// A scripted service holding one file: its listing, and its bytes as rewrite() leaves them.
void serveOne(ScriptedServer &server, const QByteArray &name, const QByteArray &content,
              const std::function<void(const ScriptedRequest &, ScriptedResponse &)> &rewrite = nullptr)
{
    server.setHandler([=](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return ScriptedResponse::json(R"({"status": "success", "result": [{"fileName": ")" + name + R"(", "fileSize": )"
                                          + QByteArray::number(content.size()) + R"(, "etag": "v1", "modified": 0}]})");
        ScriptedResponse response = ScriptedResponse::file(content, request, "\"v1\"", name);
        if (rewrite)
            rewrite(request, response);
        return response;
    });
}

QStringList download(const QString &server, const QString &temp, const QString &name, const QString &target)
{
    return {"--server", server, "--temp", temp, "--chunk-size-mb", "1", "download", name, "--to", target};
}
} // namespace

// Transfers through ztcli and the plugin: round trips against the reference
// file service, Ctrl-C and resume, time-outs, full disks, guarded services,
// progress on a terminal and off it, and the demo.
class tst_ZtcliTransfers : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void uploadThenDownload_data();
    void uploadThenDownload();
    void stopThenResume_data();
    void stopThenResume();
    void manyFilesUnderASmallDescriptorLimit();
    void guardedService_data();
    void guardedService();
    void demoRunsEndToEnd();
    void barFitsANarrowTerminal_data();
    void barFitsANarrowTerminal();
    void progressLinesArriveWhileItRuns();

private:
    QString store(const QString &name, const QByteArray &content, const QString &folder = QString());

    QTemporaryDir m_home;
    QTemporaryDir m_store;
    QScopedPointer<CliRun> m_service; // kills the service at the end
    QString m_url;
};

QString tst_ZtcliTransfers::store(const QString &name, const QByteArray &content, const QString &folder)
{
    const QString path = QDir(folder.isEmpty() ? m_store.path() : folder).filePath(name);
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? path : QString();
}

void tst_ZtcliTransfers::initTestCase()
{
    QVERIFY(m_home.isValid() && m_store.isValid());
    m_service.reset(new CliRun(m_home.path()));
    m_service->start({"serve", "--root", m_store.path(), "--port", "0"});
    m_url = m_service->firstLine();
    QVERIFY2(m_url.startsWith(QLatin1String("http://127.0.0.1:")), qPrintable(m_service->output()));
}

void tst_ZtcliTransfers::uploadThenDownload_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("one chunk and a byte") << MiB + 1;
    QTest::newRow("several chunks, odd size") << 3 * MiB + 3;
}

// Each file goes up and comes back whole; a second download of it lands
// beside the first under a free name, and --output replaces what it names.
void tst_ZtcliTransfers::uploadThenDownload()
{
    QFETCH(qint64, size);
    const QString name = QStringLiteral("round-%1.bin").arg(size);
    const QByteArray content = randomBytes(size);
    QTemporaryDir local;
    const QString source = store(name, content, local.path());
    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--server", m_url, "upload", source}), ExitSuccess);
    QVERIFY2(cli.out().contains(QStringLiteral("uploaded %1").arg(source)), qPrintable(cli.output()));
    QVERIFY(readFile(QDir(m_store.path()).filePath(name)) == content);
    // Progress goes to stderr; stdout carries only the results.
    QVERIFY2(cli.err().contains(QLatin1String("done:")) && !cli.out().contains(QLatin1String("done:")), qPrintable(cli.output()));

    const QString back = local.filePath("back");
    const QStringList args = QStringList{"-q"} + download(m_url, local.filePath("partial"), name, back);
    QCOMPARE(cli.run(args), ExitSuccess);
    QVERIFY2(cli.out().contains(QStringLiteral("downloaded %1 to %2/%1").arg(name, back)), qPrintable(cli.output()));
    QVERIFY(readFile(QDir(back).filePath(name)) == content);
    QVERIFY2(!cli.output().contains(QLatin1String("done:")), qPrintable(cli.output())); // quiet
    // A name the service does not have is reported; the others still come.
    QCOMPARE(cli.run(args + QStringList{"nope.dat"}), ExitNotFound);
    QVERIFY2(cli.err().contains(QLatin1String("nope.dat: not on the service")), qPrintable(cli.output()));
    const QString second = QDir(back).filePath(QStringLiteral("round-%1(1).bin").arg(size));
    QVERIFY2(cli.out().contains(second), qPrintable(cli.output()));
    QVERIFY(readFile(QDir(back).filePath(name)) == content && readFile(second) == content);
    QVERIFY(!store(second, "old", back).isEmpty());
    QCOMPARE(cli.run({"--server", m_url, "download", name, "-o", second}), ExitSuccess);
    QVERIFY(readFile(second) == content);
    QCOMPARE(QDir(back).entryList(QDir::Files).size(), 2);
}

// How the first run of stopThenResume() ends early, and what the service holds back for it.
enum Ending {
    CtrlC,               // after two chunks; the others are held
    CtrlCTwice,          // while the probe is held
    CtrlCTwiceAfterStop, // at a terminal, once the stop has ended the transfer; chunks are held after 1000 bytes
    CtrlCAtMerge,        // from inside ztcli, at the fourth copy of the merge
    Stall,               // the second chunk is held, once
    FullDisk             // a file-size limit
};

void tst_ZtcliTransfers::stopThenResume_data()
{
    QTest::addColumn<int>("ending");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<qint64>("blocks");  // FullDisk: the limit in 512-byte blocks
    QTest::addColumn<bool>("clear");     // partial --clear before the next run
    QTest::addColumn<ExitCode>("status");
    QTest::addColumn<QString>("says");
    QTest::addColumn<qint64>("largest"); // the largest chunk file left; -1: not checked
    const auto row = [](const char *tag, Ending ending, ExitCode status, const QString &says, const QStringList &options = {},
                        qint64 blocks = -1, qint64 largest = -1, bool clear = false) {
        QTest::newRow(tag) << int(ending) << options << blocks << clear << status << says << largest;
    };
    const QString stopped = QStringLiteral("Stopped (20716)");
    row("Ctrl-C mid-download", CtrlC, ExitInterrupted, stopped);
    row("Ctrl-C twice while it runs", CtrlCTwice, ExitInterrupted, "Aborting; partial data is discarded.");
    row("Ctrl-C twice at a terminal, after the stop", CtrlCTwiceAfterStop, ExitInterrupted, "Aborted (20717)");
    row("Ctrl-C during the merge", CtrlCAtMerge, ExitInterrupted, stopped);
    row("Ctrl-C during the merge, then partial --clear", CtrlCAtMerge, ExitInterrupted, stopped, {}, -1, -1, true);
    row("no progress: --timeout", Stall, ExitTransfer, "no progress for 2 s", {"--timeout", "2"});
    row("no progress: --retry", Stall, ExitSuccess, "retrying in 1 s (1 of 1)", {"--timeout", "2", "--retry", "1"});
    // The write that met the limit kept what fitted, or the chunk was whole when the merge failed.
    row("no room for a byte", FullDisk, ExitTransfer, "FileError (20699)", {}, 0, 0);
    row("room for half a chunk", FullDisk, ExitTransfer, "FileError (20699)", {}, 1000, 512000);
    row("room for every chunk, not for the merged file", FullDisk, ExitTransfer, "MergeError (20735)", {}, 3000, MiB + 1);
}

// A download that ends early leaves only true bytes of the file behind, which
// exists and partial count and the next run resumes from, fetching only what
// is missing; a second Ctrl-C leaves nothing. The service holds chunks and the
// Ctrl-C during the merge comes from inside ztcli (a preloaded
// copy_file_range sends it), so no run races the test.
void tst_ZtcliTransfers::stopThenResume()
{
    QFETCH(int, ending);
    QFETCH(QStringList, options);
    QFETCH(qint64, blocks);
    QFETCH(bool, clear);
    QFETCH(ExitCode, status);
    QFETCH(QString, says);
    QFETCH(qint64, largest);
    const QByteArray content = randomBytes(4 * MiB + 5);
    const QByteArray digest = "sha-256=:" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64() + ':';
    bool holding = ending != CtrlCAtMerge && ending != FullDisk;
    int chunks = 0;
    ScriptedServer server;
    QVERIFY(server.start());
    serveOne(server, "r.bin", content, [&](const ScriptedRequest &request, ScriptedResponse &response) {
        response.header("Repr-Digest", digest);
        // Only CtrlCTwice holds the probe, only the others chunks.
        const bool probe = request.header("Range") == "bytes=0-1";
        if (!holding || probe != (ending == CtrlCTwice))
            return;
        if (ending == CtrlCTwice || (ending == CtrlC && ++chunks > 2))
            response.hold = true;
        else if (ending == CtrlCTwiceAfterStop)
            response.holdAfterBytes = 1000; // the content folder is this run's by then
        else if (ending == Stall && request.header("Range").startsWith("bytes=1048576-"))
            response.hold = true;
        if (ending == Stall && response.hold)
            holding = false; // once
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    const QString result = QDir(target.path()).filePath(QStringLiteral("r.bin"));
    const QStringList args = download(server.baseUrl(), temp.path(), "r.bin", target.path());

    Terminal terminal(80);
    CliRun first(m_home.path());
    first.setFileSizeLimit(blocks);
    if (ending == CtrlCTwiceAfterStop)
        first.setStdinFile(terminal.path);
    if (ending == CtrlCAtMerge) {
        first.setEnv("LD_PRELOAD", ZT_INTERRUPT_SHIM);
        first.setEnv("ZT_INTERRUPT_AT_COPY", "4");
        first.setEnv("ASAN_OPTIONS", qEnvironmentVariable("ASAN_OPTIONS") + ":verify_asan_link_order=0");
    }
    first.start(options + args);
    if (ending <= CtrlCTwiceAfterStop) {
        QTRY_VERIFY_WITH_TIMEOUT(server.heldCount() > 0 && (ending != CtrlC || bytesUnder(temp.path()) >= 2 * MiB), 30000);
        first.interrupt();
        holding = false;
    }
    if (ending == CtrlCTwice || ending == CtrlCTwiceAfterStop) {
        QTRY_VERIFY_WITH_TIMEOUT(first.err().contains(QLatin1String("Press Ctrl-C again")), 10000);
        if (ending == CtrlCTwiceAfterStop) // the stop has ended the transfer: its last line is out
            QTRY_VERIFY_WITH_TIMEOUT(first.err().contains(QLatin1String("ended at")), 10000);
        QVERIFY(first.isRunning());
        first.interrupt();
        if (ending == CtrlCTwice)
            QTRY_VERIFY_WITH_TIMEOUT(first.err().contains(says), 10000);
        server.release();
    }
    QVERIFY(first.finish(60000));
    QCOMPARE(first.exitCode(), status);
    QVERIFY2(first.err().contains(says), qPrintable(first.output()));
    QCOMPARE(holding, false);
    if (status == ExitSuccess) {
        QVERIFY(readFile(result) == content);
        return;
    }
    QVERIFY(!QFile::exists(result));
    if (ending == CtrlCTwice || ending == CtrlCTwiceAfterStop) {
        QVERIFY2(first.err().contains(QStringLiteral("Removed the partial download in %1/").arg(temp.path())), qPrintable(first.output()));
        QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    }
    // Chunk n starts at (n - 1) MiB; each file must be a prefix of its range, as the merged part is of the file.
    qint64 largestLeft = 0;
    for (QDirIterator it(temp.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = it.next();
        const qint64 start = (it.fileName().toLongLong() - 1) * MiB;
        const QByteArray kept = readFile(path);
        QVERIFY2(start >= 0 && kept == content.mid(int(start), kept.size()) && kept.size() <= MiB + 1, qPrintable(path));
        largestLeft = qMax<qint64>(largestLeft, kept.size());
    }
    if (largest >= 0)
        QCOMPARE(largestLeft, largest);
    const QByteArray merged = QFile::exists(result + ".ztmerge") ? readFile(result + ".ztmerge") : QByteArray();
    QVERIFY(content.startsWith(merged));
    QCOMPARE(merged.size() >= 3 * MiB, ending == CtrlCAtMerge);
    CliRun ask(m_home.path());
    if (clear) { // a merged part goes with its folder
        QCOMPARE(ask.run({"--temp", temp.path(), "partial", "--clear"}), ExitSuccess);
        QVERIFY(!QFile::exists(result + ".ztmerge"));
        QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
    }
    // Chunk files overlap by a byte, and a failed merge keeps its chunks.
    const qint64 kept = clear ? 0 : qMin<qint64>(bytesUnder(temp.path()) + merged.size(), content.size());
    if (kept > 0) {
        QCOMPARE(ask.run({"--temp", temp.path(), "partial"}), ExitSuccess); // names the file, from the plugin's plan
        QVERIFY2(ask.out().startsWith(QLatin1String("r.bin  ")) && ask.out().contains(QLatin1String(" of 4.0 MiB (")),
                 qPrintable(ask.output()));
        QCOMPARE(ask.run({"--server", server.baseUrl(), "--temp", temp.path(), "exists", "r.bin"}), ExitSuccess);
        QVERIFY2(!merged.isEmpty() || ask.out().contains(QStringLiteral("; %1 bytes").arg(kept)), qPrintable(ask.output()));
    }

    const qint64 sentBefore = server.bodyBytesSent();
    CliRun second(m_home.path());
    QCOMPARE(second.run(args), ExitSuccess);
    QVERIFY(readFile(result) == content);
    // It says how far the first run had come, from what was on disk.
    const QString resumedAt = QStringLiteral("(resumed at %1%)").arg(int(100.0 * double(kept) / content.size()));
    QVERIFY2(kept == 0 || !merged.isEmpty() || second.err().contains(resumedAt), qPrintable(resumedAt + " in " + second.output()));
    // Only the missing bytes travelled again, plus the chunks' overlap bytes,
    // the probe's two bytes and the listing ztcli asks for before it downloads.
    const qint64 resent = server.bodyBytesSent() - sentBefore;
    QVERIFY2(resent <= content.size() - kept + 512, qPrintable(QStringLiteral("resent %1 bytes").arg(resent)));
    QVERIFY(!QFile::exists(result + ".ztmerge"));
    QCOMPARE(bytesUnder(temp.path()), qint64(0));
}

// A batch of 400 files holds more descriptors at once than the soft limit of
// 256 that ztcli starts with here; it takes the hard limit, as a shell's 1024
// would otherwise stop a batch of a thousand.
void tst_ZtcliTransfers::manyFilesUnderASmallDescriptorLimit()
{
    QMap<QString, QByteArray> contents;
    for (int i = 0; i < 400; ++i) {
        const QString name = QStringLiteral("limit-%1.bin").arg(i, 3, 10, QLatin1Char('0'));
        contents.insert(name, randomBytes(1000 + 4 * i));
        QVERIFY(!store(name, contents.value(name)).isEmpty());
    }
    QTemporaryDir temp;
    QTemporaryDir target;
    struct rlimit limit {};
    QVERIFY(::getrlimit(RLIMIT_NOFILE, &limit) == 0);
    QVERIFY2(limit.rlim_max > 2048, "the hard limit leaves no room to show this");
    const rlim_t soft = limit.rlim_cur;
    limit.rlim_cur = 256; // inherited by ztcli
    QVERIFY(::setrlimit(RLIMIT_NOFILE, &limit) == 0);
    CliRun cli(m_home.path());
    cli.start(QStringList{"-q", "--server", m_url, "--temp", temp.path(), "download"} + contents.keys()
              + QStringList{"--to", target.path()});
    limit.rlim_cur = soft;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    QVERIFY(cli.finish(120000));
    QVERIFY2(cli.exitCode() == ExitSuccess, qPrintable(cli.output()));
    for (auto it = contents.cbegin(); it != contents.cend(); ++it) {
        QVERIFY2(readFile(QDir(target.path()).filePath(it.key())) == it.value(), qPrintable(it.key()));
        QFile::remove(QDir(m_store.path()).filePath(it.key())); // the store stays as the other tests know it
    }
}

void tst_ZtcliTransfers::guardedService_data()
{
    QTest::addColumn<QString>("guard");
    QTest::addColumn<QString>("refusal"); // what ztcli says without the guard's key
    QTest::newRow("token") << "token" << "AuthError (20706)";
    QTest::newRow("tls, private authority") << "tls" << "certificate was refused";
}

// A service that asks for a token, or one that speaks TLS with a certificate
// of a private authority: with the key (ZT_TOKEN or --token, --cacert) an
// upload of many parts and its download go through byte for byte; without it
// ztcli says why.
void tst_ZtcliTransfers::guardedService()
{
    QFETCH(QString, guard);
    QFETCH(QString, refusal);
    QTemporaryDir root;
    QTemporaryDir keys;
    QStringList serviceOptions{"--chunk-size", "65536"};
    QStringList key;
    CliRun cli(m_home.path());
    if (guard == QLatin1String("token")) {
        serviceOptions << "--token" << "s3cret";
        key << "--token" << "s3cret";
    } else {
        const QString cert = keys.filePath("cert.pem");
        const QString privateKey = keys.filePath("key.pem");
        QProcess openssl;
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                                  "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", privateKey, "-out", cert});
        QVERIFY(openssl.waitForFinished(30000) && openssl.exitCode() == 0);
        serviceOptions << "--tls-cert" << cert << "--tls-key" << privateKey;
        key << "--cacert" << cert;
    }
    FileServiceProcess service(root.path(), serviceOptions);
    QVERIFY2(service.start(), service.log().constData());
    const QStringList server{"--server", service.baseUrl()};
    QCOMPARE(cli.run(server + QStringList{"list"}), ExitServer);
    QVERIFY2(cli.err().contains(refusal), qPrintable(cli.output()));

    const QString name = QStringLiteral("guarded-%1.bin").arg(guard);
    const QByteArray content = randomBytes(5 * 65536 + 17);
    QTemporaryDir local;
    const QString source = store(name, content, local.path());
    if (guard == QLatin1String("token")) { // the upload takes it from the environment
        cli.setEnv("ZT_TOKEN", "s3cret");
        QCOMPARE(cli.run(server + QStringList{"upload", source}), ExitSuccess);
        cli.unsetEnv("ZT_TOKEN");
    } else {
        QCOMPARE(cli.run(server + key + QStringList{"upload", source}), ExitSuccess);
    }
    QVERIFY(readFile(QDir(root.path()).filePath(name)) == content);
    QCOMPARE(cli.run(server + key + QStringList{"download", name, "--to", local.filePath("back")}), ExitSuccess);
    QVERIFY(readFile(local.filePath("back/" + name)) == content);
}

// The demo leaves nothing behind: its work folder is gone and its service stopped.
void tst_ZtcliTransfers::demoRunsEndToEnd()
{
    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"demo", "--size-mb", "1"}, 300000), ExitSuccess);
    const QString out = cli.out();
    QVERIFY2(out.contains(QLatin1String("all 3 files came back identical (SHA-256)")), qPrintable(cli.output()));
    QVERIFY2(out.contains(QRegularExpression(QStringLiteral("archive\\.bin +1048576 +[0-9a-f]{16} +identical"))), qPrintable(out));
    QVERIFY(out.contains(QRegularExpression(QStringLiteral("upload +4\\.0 MiB in [0-9.]+ s, [0-9.]+ [KM]iB/s"))));
    const QString work = QRegularExpression(QStringLiteral("working in (\\S+)")).match(out).captured(1);
    QVERIFY(!work.isEmpty() && !QFileInfo::exists(work));
    const QUrl service(QRegularExpression(QStringLiteral("file service at (\\S+)")).match(out).captured(1));
    QVERIFY(service.port() > 0);
    QTcpSocket probe;
    probe.connectToHost(QStringLiteral("127.0.0.1"), quint16(service.port()));
    QVERIFY(!probe.waitForConnected(2000));
}

void tst_ZtcliTransfers::barFitsANarrowTerminal_data()
{
    QTest::addColumn<int>("columns");
    QTest::newRow("40 columns") << 40;
    QTest::newRow("20 columns, narrower than the name") << 20;
}

// On a terminal the bar is one row redrawn in place: every redraw starts with
// a carriage return and stays within the width, so that none wraps into a row
// of its own, and still shows how far it is, however long the file's name.
// The summary after it is a line like any other.
void tst_ZtcliTransfers::barFitsANarrowTerminal()
{
    QFETCH(int, columns);
    const QString name = QStringLiteral("a-file-name-longer-than-the-terminal-%1.bin").arg(columns);
    QVERIFY(!store(name, randomBytes(4 * MiB)).isEmpty());
    Terminal terminal(columns);
    QVERIFY(!terminal.path.isEmpty());
    QTemporaryDir target;
    CliRun cli(m_home.path());
    cli.setStderrFile(terminal.path);
    cli.start(download(m_url, target.filePath("partial"), name, target.path()));
    QVERIFY(QTest::qWaitFor([&] { terminal.read(); return !cli.isRunning(); }, 60000));
    QVERIFY(cli.finish());
    terminal.read();
    QCOMPARE(cli.exitCode(), ExitSuccess);

    // The bar's row, then the summary's: no row left behind by a redraw.
    const QStringList rows = QString::fromUtf8(terminal.shown).remove(QStringLiteral("\033[K")).split('\n');
    QVERIFY2(rows.size() == 3 && rows.at(1).contains(QLatin1String("done:")) && rows.at(2).isEmpty(),
             qPrintable(rows.join(QLatin1String("<NL>"))));
    const QStringList redraws = rows.at(0).split(QLatin1Char('\r'), Qt::SkipEmptyParts);
    QVERIFY2(!redraws.isEmpty() && rows.at(0).startsWith(QLatin1Char('\r')), qPrintable(rows.at(0)));
    for (const QString &redraw : redraws)
        QVERIFY2(redraw.size() <= columns && redraw.contains(QLatin1Char('%')), qPrintable(redraw));
}

// Elsewhere progress is whole lines, each written as it is made, about one a
// second. The service drips the first chunk over about three seconds and
// holds the second until the lines have been read, so ztcli is certain to
// run while they arrive.
void tst_ZtcliTransfers::progressLinesArriveWhileItRuns()
{
    const QByteArray content = randomBytes(MiB + 4096);
    ScriptedServer server;
    QVERIFY(server.start());
    serveOne(server, "d.bin", content, [](const ScriptedRequest &request, ScriptedResponse &response) {
        const QByteArray range = request.header("Range");
        if (range.startsWith("bytes=0-") && range != "bytes=0-1") {
            response.dripBytes = 16 * 1024;
            response.dripIntervalMs = 50;
        }
        response.hold = range.startsWith("bytes=" + QByteArray::number(MiB) + "-");
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    CliRun cli(m_home.path());
    const QRegularExpression progressLine(QStringLiteral("^download d\\.bin .*%.*\n"), QRegularExpression::MultilineOption);
    const auto linesSoFar = [&] { return int(cli.err().count(progressLine)); };
    QElapsedTimer clock;
    clock.start();
    cli.start(download(server.baseUrl(), temp.path(), "d.bin", target.path()));
    QTRY_VERIFY2_WITH_TIMEOUT(linesSoFar() >= 3, qPrintable(cli.err()), 30000);
    QVERIFY(cli.isRunning());
    const int lines = linesSoFar();
    const double seconds = clock.elapsed() / 1000.0;
    QVERIFY2(lines <= 2 * seconds + 1, qPrintable(QStringLiteral("%1 lines in %2 s").arg(lines).arg(seconds)));

    QTRY_COMPARE_WITH_TIMEOUT(server.heldCount(), 1, 20000);
    server.release();
    QVERIFY(cli.finish());
    QCOMPARE(cli.exitCode(), ExitSuccess);
    QVERIFY(readFile(QDir(target.path()).filePath(QStringLiteral("d.bin"))) == content);
    QVERIFY2(cli.err().endsWith(QLatin1Char('\n')) && !cli.err().contains(QLatin1Char('\r')), qPrintable(cli.err()));
}

QTEST_GUILESS_MAIN(tst_ZtcliTransfers)
#include "tst_ztclitransfers.moc"
