#include "clirun.h"
#include "fileserviceprocess.h"
#include "scriptedserver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QFile>
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
// A pseudo-terminal of a given width whose output the test reads raw (no
// newline translation), with the device path a process can write to.
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
        for (int fd : {master, slave}) {
            if (fd >= 0)
                ::close(fd);
        }
    }
    void read()
    {
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::read(master, buffer, sizeof buffer)) > 0)
            shown.append(buffer, int(n));
    }

    int master = -1;
    int slave = -1; // kept open, so that reading never sees the end early
    QString path;
    QByteArray shown;
};
} // namespace

// Transfers through ztcli and the plugin: round trips against the reference
// file service, the existence query, Ctrl-C and resume, and the demo.
class tst_ZtcliTransfers : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void uploadThenDownload_data();
    void uploadThenDownload();
    void secondDownloadGetsAFreeName();
    void existsTellsStoredFromMissing_data();
    void existsTellsStoredFromMissing();
    void interruptedDownloadResumes();
    void manyFilesUnderASmallDescriptorLimit();
    void interruptedMergeResumes();
    void secondInterruptDiscardsThePartialDownload_data();
    void secondInterruptDiscardsThePartialDownload();
    void stalledDownloadTimesOut_data();
    void stalledDownloadTimesOut();
    void guardedService_data();
    void guardedService();
    void fullDiskThenResume_data();
    void fullDiskThenResume();
    void demoRunsEndToEnd();
    void barFitsANarrowTerminal_data();
    void barFitsANarrowTerminal();
    void progressLinesArriveWhileItRuns();

private:
    static QByteArray randomBytes(qint64 size);
    // The service's answer to "/download/pathList" for one stored file.
    static ScriptedResponse listingOf(const QByteArray &name, qint64 size, const QByteArray &etag = QByteArray());
    static QByteArray readFile(const QString &path);
    static qint64 bytesUnder(const QString &folder);
    QString writeLocal(const QString &name, const QByteArray &content);

    QTemporaryDir m_home;
    QTemporaryDir m_store;
    QTemporaryDir m_local;
    CliRun *m_service = nullptr;
    QString m_url;
};

QByteArray tst_ZtcliTransfers::randomBytes(qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    auto *words = reinterpret_cast<quint32 *>(data.data());
    QRandomGenerator::global()->fillRange(words, data.size() / 4);
    for (int i = data.size() / 4 * 4; i < data.size(); ++i)
        data[i] = char(QRandomGenerator::global()->generate());
    return data;
}

ScriptedResponse tst_ZtcliTransfers::listingOf(const QByteArray &name, qint64 size, const QByteArray &etag)
{
    const QByteArray version = etag.isEmpty() ? QByteArray() : R"(, "etag": ")" + etag + R"(", "modified": 0)";
    return ScriptedResponse::json(R"({"status": "success", "result": [{"fileName": ")" + name + R"(", "fileSize": )"
                                  + QByteArray::number(size) + version + "}]}");
}

QByteArray tst_ZtcliTransfers::readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

qint64 tst_ZtcliTransfers::bytesUnder(const QString &folder)
{
    qint64 sum = 0;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        sum += it.fileInfo().size();
    }
    return sum;
}

QString tst_ZtcliTransfers::writeLocal(const QString &name, const QByteArray &content)
{
    const QString path = QDir(m_local.path()).filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return path;
}

void tst_ZtcliTransfers::initTestCase()
{
    QVERIFY(m_home.isValid() && m_store.isValid() && m_local.isValid());
    m_service = new CliRun(m_home.path());
    m_service->start({"serve", "--root", m_store.path(), "--port", "0"});
    m_url = m_service->firstLine();
    QVERIFY2(m_url.startsWith(QLatin1String("http://127.0.0.1:")), qPrintable(m_service->output()));
}

void tst_ZtcliTransfers::cleanupTestCase()
{
    delete m_service;
}

void tst_ZtcliTransfers::uploadThenDownload_data()
{
    QTest::addColumn<qint64>("size");
    const qint64 chunk = 1024 * 1024; // --chunk-size-mb 1 for downloads
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("one byte") << qint64(1);
    QTest::newRow("one chunk less a byte") << chunk - 1;
    QTest::newRow("one chunk and a byte") << chunk + 1;
    QTest::newRow("several chunks, odd size") << 5 * chunk + 3;
}

void tst_ZtcliTransfers::uploadThenDownload()
{
    QFETCH(qint64, size);
    const QString name = QStringLiteral("round-%1.bin").arg(size);
    const QByteArray content = randomBytes(size);
    const QString source = writeLocal(name, content);
    QVERIFY(!source.isEmpty());

    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--server", m_url, "upload", source}), 0);
    QVERIFY2(cli.out().contains(QStringLiteral("uploaded %1").arg(source)), qPrintable(cli.output()));
    QVERIFY(readFile(QDir(m_store.path()).filePath(name)) == content);
    // Progress goes to stderr; stdout carries only the results.
    QVERIFY2(cli.err().contains(QLatin1String("done:")) && !cli.out().contains(QLatin1String("done:")),
             qPrintable(cli.output()));

    QTemporaryDir target;
    QCOMPARE(cli.run({"-q", "--server", m_url, "--chunk-size-mb", "1", "download", name, "--to", target.path()}), 0);
    const QString path = QDir(target.path()).filePath(name);
    QVERIFY2(cli.out().contains(QStringLiteral("downloaded %1 to %2").arg(name, path)), qPrintable(cli.output()));
    QVERIFY(readFile(path) == content);
    QVERIFY2(!cli.output().contains(QLatin1String("done:")), qPrintable(cli.output())); // quiet
}

void tst_ZtcliTransfers::secondDownloadGetsAFreeName()
{
    const QByteArray content = randomBytes(300000);
    QFile stored(QDir(m_store.path()).filePath(QStringLiteral("twice.dat")));
    QVERIFY(stored.open(QIODevice::WriteOnly));
    stored.write(content);
    stored.close();

    QTemporaryDir target;
    CliRun cli(m_home.path());
    const QStringList args{"--server", m_url, "download", "twice.dat", "--to", target.path()};
    QCOMPARE(cli.run(args), 0);
    // A name the service does not have is reported; the others still come,
    // and the exit status tells that one was missing.
    QCOMPARE(cli.run(args + QStringList{"nope.dat"}), 1);
    QVERIFY2(cli.err().contains(QLatin1String("nope.dat: not on the service")), qPrintable(cli.output()));
    // The first copy is kept; the second lands beside it and ztcli says where.
    const QString second = QDir(target.path()).filePath(QStringLiteral("twice(1).dat"));
    QVERIFY2(cli.out().contains(second), qPrintable(cli.output()));
    QVERIFY(readFile(QDir(target.path()).filePath(QStringLiteral("twice.dat"))) == content);
    QVERIFY(readFile(second) == content);

    // --output replaces the file it names, and leaves no copy under a free name.
    QFile old(second);
    QVERIFY(old.open(QIODevice::WriteOnly | QIODevice::Truncate) && old.write("old") == 3);
    old.close();
    QCOMPARE(cli.run({"--server", m_url, "download", "twice.dat", "-o", second}), 0);
    QVERIFY(readFile(second) == content);
    QCOMPARE(QDir(target.path()).entryList(QDir::Files).size(), 2);
}

void tst_ZtcliTransfers::existsTellsStoredFromMissing_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("says");
    QTest::newRow("stored") << "exists-here.txt" << 0 << "exists-here.txt: stored, 11 bytes";
    QTest::newRow("not stored") << "exists-nowhere.txt" << 1 << "exists-nowhere.txt: not on the service";
    QTest::newRow("name with a blank and umlaut") << QString::fromUtf8("ä b.txt") << 0
                                                  << QString::fromUtf8("ä b.txt: stored, 11 bytes");
}

void tst_ZtcliTransfers::existsTellsStoredFromMissing()
{
    QFETCH(QString, name);
    QFETCH(int, status);
    QFETCH(QString, says);
    for (const char *stored : {"exists-here.txt", "ä b.txt"}) {
        QFile file(QDir(m_store.path()).filePath(QString::fromUtf8(stored)));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("hello world");
    }
    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--server", m_url, "exists", name}), status);
    QVERIFY2(cli.out().contains(says), qPrintable(cli.output()));
    if (status == 0)
        QVERIFY2(cli.out().contains(QLatin1String("no partial download under")), qPrintable(cli.output()));
}

// Ctrl-C mid-download stops through the reply's stop(): the chunks stay, the
// existence query sees them, and the next run fetches only what is missing.
// The server is scripted so that the first run is certain to be mid-way:
// two chunks are answered, the others held until the interrupt.
void tst_ZtcliTransfers::interruptedDownloadResumes()
{
    const qint64 chunk = 1024 * 1024;
    const QByteArray content = randomBytes(6 * chunk + 123);
    const QByteArray etag = "\"v1\"";
    bool holdAfterTwo = true;
    int chunksAnswered = 0;

    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return listingOf("big.bin", content.size(), "v1");
        if (request.path() != QLatin1String("/download"))
            return ScriptedResponse::json("{}", 404);
        ScriptedResponse response = ScriptedResponse::file(content, request, etag, "big.bin");
        if (request.header("Range") != "bytes=0-1" && holdAfterTwo && ++chunksAnswered > 2)
            response.hold = true;
        return response;
    });

    QTemporaryDir temp;
    QTemporaryDir target;
    const QString result = QDir(target.path()).filePath(QStringLiteral("big.bin"));
    const QStringList args{"--server", server.baseUrl(), "--temp", temp.path(), "--chunk-size-mb", "1",
                           "download", "big.bin", "--to", target.path()};

    CliRun first(m_home.path());
    first.start(args);
    QTRY_VERIFY_WITH_TIMEOUT(bytesUnder(temp.path()) >= 2 * chunk && server.heldCount() > 0, 30000);
    first.interrupt();
    QVERIFY(first.finish(20000));
    QCOMPARE(first.exitCode(), 130);
    QVERIFY2(first.err().contains(QLatin1String("Stopped (20716)")), qPrintable(first.output()));
    QVERIFY(!QFile::exists(result));
    const qint64 kept = bytesUnder(temp.path());
    QVERIFY(kept >= 2 * chunk);

    CliRun exists(m_home.path());
    QCOMPARE(exists.run({"--server", server.baseUrl(), "--temp", temp.path(), "exists", "big.bin"}), 0);
    QVERIFY2(exists.out().contains(QStringLiteral("%1 bytes").arg(kept)), qPrintable(exists.output()));
    QCOMPARE(exists.run({"--temp", temp.path(), "partial"}), 0); // names the file, from the plugin's plan
    QVERIFY2(exists.out().startsWith(QLatin1String("big.bin  ")) && exists.out().contains(QLatin1String(" of 6.0 MiB (")),
             qPrintable(exists.output()));

    holdAfterTwo = false;
    const qint64 sentBefore = server.bodyBytesSent();
    CliRun second(m_home.path());
    QCOMPARE(second.run(args), 0);
    QVERIFY(readFile(result) == content);
    // It says how far the first run had come, from what was on disk.
    const QString resumedAt = QStringLiteral("(resumed at %1%)").arg(int(100.0 * double(kept) / content.size()));
    QVERIFY2(second.err().contains(resumedAt), qPrintable(resumedAt + " in " + second.output()));
    // Only the missing chunks travelled again, plus their overlap bytes, the
    // probe's two bytes and the listing ztcli asks for before it downloads.
    const qint64 resent = server.bodyBytesSent() - sentBefore;
    QVERIFY2(resent <= content.size() - kept + 512,
             qPrintable(QStringLiteral("resent %1 of %2 bytes").arg(resent).arg(content.size())));
    QCOMPARE(bytesUnder(temp.path()), qint64(0)); // the merged chunks are gone
}

// Ctrl-C while the chunks are being merged stops the merge (exit 130) and
// keeps what it merged, which "partial" counts; the next run fetches no chunk
// again and goes on from there, and "partial --clear" drops a merged part with
// its folder. The interrupt comes from inside ztcli, as the merge copies its
// fourth chunk (a preloaded copy_file_range sends it), so the test never races
// the merge.
void tst_ZtcliTransfers::interruptedMergeResumes()
{
    const qint64 chunk = 1024 * 1024;
    const QByteArray content = randomBytes(24 * chunk + 5);
    const QByteArray digest = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64();
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return listingOf("m.bin", content.size(), "m1");
        return ScriptedResponse::file(content, request, "\"m1\"", "m.bin").header("Repr-Digest", "sha-256=:" + digest + ":");
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    const QString result = QDir(target.path()).filePath(QStringLiteral("m.bin"));
    const QStringList args{"--server", server.baseUrl(), "--temp", temp.path(), "--chunk-size-mb", "1",
                           "download", "m.bin", "--to", target.path()};

    const auto interrupted = [&] {
        CliRun run(m_home.path());
        run.setEnv("LD_PRELOAD", ZT_INTERRUPT_SHIM);
        run.setEnv("ZT_INTERRUPT_AT_COPY", "4");
        run.setEnv("ASAN_OPTIONS", qEnvironmentVariable("ASAN_OPTIONS") + ":verify_asan_link_order=0");
        const int status = run.run(args);
        return status == 130 && run.err().contains(QLatin1String("Stopped (20716)")) ? QString() : run.output();
    };
    QCOMPARE(interrupted(), QString());
    QVERIFY(!QFile::exists(result));
    const qint64 merged = QFileInfo(result + ".ztmerge").size();
    QVERIFY2(merged >= 3 * chunk && merged < content.size(), qPrintable(QString::number(merged)));
    CliRun partial(m_home.path());
    QCOMPARE(partial.run({"--temp", temp.path(), "partial"}), 0);
    QVERIFY2(partial.out().startsWith(QLatin1String("m.bin  24.0 MiB of 24.0 MiB (100%)")), qPrintable(partial.output()));

    const qint64 sentBefore = server.bodyBytesSent();
    CliRun second(m_home.path());
    QCOMPARE(second.run(args), 0);
    QVERIFY(readFile(result) == content);
    QVERIFY(!QFile::exists(result + ".ztmerge"));
    // The probe's two bytes and the listing: not one chunk again.
    QVERIFY2(server.bodyBytesSent() - sentBefore <= 512, qPrintable(QString::number(server.bodyBytesSent() - sentBefore)));
    QCOMPARE(bytesUnder(temp.path()), qint64(0));

    QCOMPARE(interrupted(), QString()); // into m(1).bin this time
    const QString again = QDir(target.path()).filePath(QStringLiteral("m(1).bin.ztmerge"));
    QVERIFY(QFile::exists(again));
    QCOMPARE(partial.run({"--temp", temp.path(), "partial", "--clear"}), 0);
    QVERIFY(!QFile::exists(again));
    QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
}

// A service that stops sending mid-download: --timeout stops the transfer
// (exit 4, resumable) and --retry runs it again, from what is on disk.
void tst_ZtcliTransfers::stalledDownloadTimesOut_data()
{
    QTest::addColumn<QString>("retries");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("says");
    QTest::newRow("no retry") << "0" << 4 << "no progress for 2 s";
    QTest::newRow("one retry") << "1" << 0 << "retrying in 1 s (1 of 1)";
}

void tst_ZtcliTransfers::stalledDownloadTimesOut()
{
    QFETCH(QString, retries);
    QFETCH(int, status);
    QFETCH(QString, says);
    const QByteArray content = randomBytes(3 * 1024 * 1024 + 5);
    bool held = false;
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return listingOf("s.bin", content.size(), "s");
        ScriptedResponse response = ScriptedResponse::file(content, request, "\"s\"", "s.bin");
        if (request.header("Range").startsWith("bytes=1048576-") && !held)
            response.hold = held = true; // the second chunk, once
        return response;
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--server", server.baseUrl(), "--temp", temp.path(), "--chunk-size-mb", "1", "--timeout", "2",
                      "--retry", retries, "download", "s.bin", "--to", target.path()}, 60000),
             status);
    QVERIFY2(cli.err().contains(says), qPrintable(cli.output()));
    QVERIFY(held);
    if (status == 0)
        QVERIFY(readFile(QDir(target.path()).filePath(QStringLiteral("s.bin"))) == content);
    else
        QVERIFY(bytesUnder(temp.path()) > 0); // kept for the next run
}

// Two Ctrl-C while the plugin still probes: the download is aborted as soon as
// it has started, and ztcli removes the folder of partial data it promised to
// discard, naming it. Nothing of the content is left under --temp.
// A batch of 400 files holds more descriptors at once than the soft limit of
// 256 that ztcli starts with here; it takes the hard limit, as a shell's 1024
// would otherwise stop a batch of a thousand.
void tst_ZtcliTransfers::manyFilesUnderASmallDescriptorLimit()
{
    QStringList names;
    QMap<QString, QByteArray> contents;
    for (int i = 0; i < 400; ++i) {
        const QString name = QStringLiteral("limit-%1.bin").arg(i, 3, 10, QLatin1Char('0'));
        QFile stored(QDir(m_store.path()).filePath(name));
        const QByteArray content = randomBytes(1000 + i);
        QVERIFY(stored.open(QIODevice::WriteOnly) && stored.write(content) == content.size());
        contents.insert(name, content);
        names << name;
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
    cli.start(QStringList{"-q", "--server", m_url, "--temp", temp.path(), "download"} + names
              + QStringList{"--to", target.path()});
    limit.rlim_cur = soft;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    QVERIFY(cli.finish(120000));
    QVERIFY2(cli.exitCode() == 0, qPrintable(cli.output()));
    for (auto it = contents.cbegin(); it != contents.cend(); ++it) {
        QVERIFY2(readFile(QDir(target.path()).filePath(it.key())) == it.value(), qPrintable(it.key()));
        QFile::remove(QDir(m_store.path()).filePath(it.key())); // the store stays as the other tests know it
    }
}

void tst_ZtcliTransfers::secondInterruptDiscardsThePartialDownload_data()
{
    QTest::addColumn<bool>("afterStop"); // the second Ctrl-C comes once the stop has ended the transfer
    QTest::newRow("while the transfer still runs") << false;
    QTest::newRow("after the stop, at a terminal") << true;
}

// A second Ctrl-C aborts and removes the partial data of the download: while
// it still runs, or, for someone at a terminal, within two seconds of the
// first one, when the stop has long ended the transfer.
void tst_ZtcliTransfers::secondInterruptDiscardsThePartialDownload()
{
    QFETCH(bool, afterStop);
    const QByteArray content = randomBytes(3 * 1024 * 1024 + 5);
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return listingOf("a.bin", content.size());
        ScriptedResponse response = ScriptedResponse::file(content, request, "\"v1\"", "a.bin");
        if (request.header("Range") == "bytes=0-1")
            response.hold = !afterStop;
        else if (afterStop)
            response.holdAfterBytes = 1000; // the content folder is this run's by then
        return response;
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    Terminal terminal(80);
    CliRun cli(m_home.path());
    if (afterStop)
        cli.setStdinFile(terminal.path);
    cli.start({"--server", server.baseUrl(), "--temp", temp.path(), "--chunk-size-mb", "1", "download", "a.bin",
               "--to", target.path()});
    QTRY_VERIFY_WITH_TIMEOUT(server.heldCount() >= 1, 20000);
    cli.interrupt();
    QTRY_VERIFY_WITH_TIMEOUT(cli.err().contains(QLatin1String("Press Ctrl-C again")), 10000);
    if (afterStop) // the stop has ended the transfer: its last line is out
        QTRY_VERIFY_WITH_TIMEOUT(cli.err().contains(QLatin1String("ended at")), 10000);
    QVERIFY(cli.isRunning());
    cli.interrupt();
    if (!afterStop)
        QTRY_VERIFY_WITH_TIMEOUT(cli.err().contains(QLatin1String("Aborting")), 10000);
    server.release();
    QVERIFY(cli.finish(20000));
    QCOMPARE(cli.exitCode(), 130);
    QVERIFY2(cli.err().contains(QStringLiteral("Removed the partial download in %1/").arg(temp.path())),
             qPrintable(cli.output()));
    QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
}

void tst_ZtcliTransfers::guardedService_data()
{
    QTest::addColumn<QString>("guard");
    QTest::addColumn<QString>("refusal"); // what ztcli says without the guard's key
    QTest::newRow("token") << "token" << "AuthError (20706)";
    QTest::newRow("tls, private authority") << "tls" << "certificate was refused";
}

// A service that asks for a token, or one that speaks TLS with a certificate
// of a private authority: with the key (--token, --cacert) an upload of many
// parts and its download go through byte for byte; without it ztcli says why.
void tst_ZtcliTransfers::guardedService()
{
    QFETCH(QString, guard);
    QFETCH(QString, refusal);
    QTemporaryDir root;
    QTemporaryDir keys;
    QStringList serviceOptions{"--chunk-size", "65536"};
    QStringList key;
    if (guard == QLatin1String("token")) {
        serviceOptions << "--token" << "s3cret";
        key << "--token" << "s3cret";
    } else {
        const QString cert = keys.filePath("cert.pem");
        const QString privateKey = keys.filePath("key.pem");
        QProcess openssl;
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                                  "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                                  privateKey, "-out", cert});
        QVERIFY(openssl.waitForFinished(30000) && openssl.exitCode() == 0);
        serviceOptions << "--tls-cert" << cert << "--tls-key" << privateKey;
        key << "--cacert" << cert;
    }
    FileServiceProcess service(root.path(), serviceOptions);
    QVERIFY2(service.start(), service.log().constData());

    const QString name = QStringLiteral("guarded-%1.bin").arg(guard);
    const QByteArray content = randomBytes(5 * 65536 + 17);
    const QString source = writeLocal(name, content);
    QTemporaryDir target;
    CliRun cli(m_home.path());
    const QStringList server{"--server", service.baseUrl()};
    QCOMPARE(cli.run(server + QStringList{"list"}), 3);
    QVERIFY2(cli.err().contains(refusal), qPrintable(cli.output()));

    QCOMPARE(cli.run(server + key + QStringList{"upload", source}), 0);
    QVERIFY(readFile(QDir(root.path()).filePath(name)) == content);
    QCOMPARE(cli.run(server + key + QStringList{"download", name, "--to", target.path()}), 0);
    QVERIFY(readFile(QDir(target.path()).filePath(name)) == content);
}

void tst_ZtcliTransfers::fullDiskThenResume_data()
{
    QTest::addColumn<qint64>("blocks"); // the file-size limit, in 512-byte blocks
    QTest::addColumn<QString>("says");
    QTest::newRow("no room for a byte") << qint64(0) << "FileError (20699)";
    QTest::newRow("room for half a chunk") << qint64(1000) << "FileError (20699)";
    QTest::newRow("room for every chunk, not for the merged file") << qint64(3000) << "MergeError (20735)";
}

// A write that fails for want of room (here a file-size limit, so the test
// needs no mount and no full disk) ends the download with a code; every chunk
// file holds only true bytes of its range, so the next run, with room again,
// resumes from them and ends with an identical file.
void tst_ZtcliTransfers::fullDiskThenResume()
{
    QFETCH(qint64, blocks);
    QFETCH(QString, says);
    const qint64 chunk = 1024 * 1024;
    const QString name = QStringLiteral("full-%1.bin").arg(blocks);
    const QByteArray content = randomBytes(3 * chunk + 77);
    QFile stored(QDir(m_store.path()).filePath(name));
    QVERIFY(stored.open(QIODevice::WriteOnly) && stored.write(content) == content.size());
    stored.close();

    QTemporaryDir temp;
    QTemporaryDir target;
    const QStringList args{"--server", m_url, "--temp", temp.path(), "--chunk-size-mb", "1",
                           "download", name, "--to", target.path()};
    CliRun limited(m_home.path());
    limited.setFileSizeLimit(blocks);
    QCOMPARE(limited.run(args), 4);
    QVERIFY2(limited.err().contains(QStringLiteral("download of %1 failed: ").arg(name) + says), qPrintable(limited.output()));

    // Chunk n starts at (n - 1) MiB; each file must be a prefix of its range.
    qint64 largest = 0;
    QDirIterator it(temp.path(), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const qint64 first = (it.fileName().toLongLong() - 1) * chunk;
        const QByteArray kept = readFile(path);
        QVERIFY2(first >= 0 && kept == content.mid(int(first), kept.size()), qPrintable(path));
        QVERIFY(kept.size() <= chunk + 1);
        largest = qMax<qint64>(largest, kept.size());
    }
    // The write that met the limit kept what fitted: no chunk went past it, and
    // one reached it, or was whole when the merge was what failed.
    QCOMPARE(largest, qMin(blocks * 512, chunk + 1));
    const QString destination = QDir(target.path()).filePath(name);
    QVERIFY2(!QFileInfo::exists(destination), qPrintable(QString::number(QFileInfo(destination).size())));

    CliRun again(m_home.path());
    QCOMPARE(again.run(args), 0);
    const QString result =
        QRegularExpression(QStringLiteral("downloaded \\S+ to (\\S+) \\(")).match(again.out()).captured(1);
    QVERIFY2(!result.isEmpty(), qPrintable(again.output()));
    QVERIFY(readFile(result) == content);
    QCOMPARE(bytesUnder(temp.path()), qint64(0));
}

void tst_ZtcliTransfers::demoRunsEndToEnd()
{
    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"demo", "--size-mb", "8"}, 300000), 0);
    const QString out = cli.out();
    QVERIFY2(out.contains(QLatin1String("all 3 files came back identical (SHA-256)")), qPrintable(cli.output()));
    QVERIFY2(out.contains(QRegularExpression(QStringLiteral("archive\\.bin +8388608 +[0-9a-f]{16} +identical"))),
             qPrintable(out));
    QVERIFY(out.contains(QRegularExpression(QStringLiteral("upload +11\\.0 MiB in [0-9.]+ s, [0-9.]+ [KM]iB/s"))));

    // Nothing left behind: the work folder is gone and the service stopped.
    const QString work = QRegularExpression(QStringLiteral("working in (\\S+)")).match(out).captured(1);
    QVERIFY(!work.isEmpty());
    QVERIFY2(!QFileInfo::exists(work), qPrintable(work));
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
    QFile stored(QDir(m_store.path()).filePath(name));
    QVERIFY(stored.open(QIODevice::WriteOnly));
    stored.write(randomBytes(64 * 1024 * 1024));
    stored.close();

    Terminal terminal(columns);
    QVERIFY(!terminal.path.isEmpty());
    QTemporaryDir target;
    CliRun cli(m_home.path());
    cli.setStderrFile(terminal.path);
    cli.start({"--server", m_url, "--chunk-size-mb", "1", "download", name, "--to", target.path()});
    QVERIFY(QTest::qWaitFor([&] { terminal.read(); return !cli.isRunning(); }, 60000));
    QVERIFY(cli.finish());
    terminal.read();
    QCOMPARE(cli.exitCode(), 0);

    // The bar's row, then the summary's: no row left behind by a redraw.
    const QStringList rows = QString::fromUtf8(terminal.shown).remove(QStringLiteral("\033[K")).split('\n');
    QVERIFY2(rows.size() == 3 && rows.at(1).contains(QLatin1String("done:")) && rows.at(2).isEmpty(),
             qPrintable(rows.join(QLatin1String("<NL>"))));
    const QStringList redraws = rows.at(0).split(QLatin1Char('\r'), Qt::SkipEmptyParts);
    QVERIFY2(!redraws.isEmpty() && rows.at(0).startsWith(QLatin1Char('\r')), qPrintable(rows.at(0)));
    for (const QString &redraw : redraws) {
        QVERIFY2(redraw.size() <= columns && redraw.contains(QLatin1Char('%')),
                 qPrintable(QStringLiteral("%1 columns: \"%2\"").arg(columns).arg(redraw)));
    }
}

// Elsewhere progress is whole lines, each written as it is made, about one a
// second. The service drips the first chunk over about three seconds and
// holds the second until the lines have been read, so ztcli is certain to
// run while they arrive.
void tst_ZtcliTransfers::progressLinesArriveWhileItRuns()
{
    const int chunk = 1024 * 1024;
    const QByteArray content = randomBytes(chunk + 4096);
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return listingOf("d.bin", content.size(), "d");
        ScriptedResponse response = ScriptedResponse::file(content, request, "\"d\"", "d.bin");
        const QByteArray range = request.header("Range");
        if (range.startsWith("bytes=0-") && range != "bytes=0-1") {
            response.dripBytes = 16 * 1024;
            response.dripIntervalMs = 50;
        }
        response.hold = range.startsWith("bytes=" + QByteArray::number(chunk) + "-");
        return response;
    });
    QTemporaryDir temp;
    QTemporaryDir target;
    CliRun cli(m_home.path());
    const QRegularExpression progressLine(QStringLiteral("^download d\\.bin .*%.*\n"), QRegularExpression::MultilineOption);
    const auto linesSoFar = [&] { return int(cli.err().count(progressLine)); };
    QElapsedTimer clock;
    clock.start();
    cli.start({"--server", server.baseUrl(), "--temp", temp.path(), "--chunk-size-mb", "1", "download", "d.bin",
               "--to", target.path()});
    QTRY_VERIFY2_WITH_TIMEOUT(linesSoFar() >= 3, qPrintable(cli.err()), 30000);
    QVERIFY(cli.isRunning());
    const int lines = linesSoFar();
    const double seconds = clock.elapsed() / 1000.0;
    QVERIFY2(lines <= 2 * seconds + 1, qPrintable(QStringLiteral("%1 lines in %2 s").arg(lines).arg(seconds)));

    QTRY_COMPARE_WITH_TIMEOUT(server.heldCount(), 1, 20000);
    server.release();
    QVERIFY(cli.finish());
    QCOMPARE(cli.exitCode(), 0);
    QVERIFY(readFile(QDir(target.path()).filePath(QStringLiteral("d.bin"))) == content);
    QVERIFY2(cli.err().endsWith(QLatin1Char('\n')) && !cli.err().contains(QLatin1Char('\r')), qPrintable(cli.err()));
}

QTEST_GUILESS_MAIN(tst_ZtcliTransfers)
#include "tst_ztclitransfers.moc"
