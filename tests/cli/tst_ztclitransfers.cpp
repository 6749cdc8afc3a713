#include "clirun.h"
#include "filedigest.h"
#include "fileserviceprocess.h"
#include "randomfile.h"
#include "scriptedserver.h"

#include <QtTest>

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {
constexpr qint64 MiB = 1024 * 1024; // --chunk-size-mb 1: the download chunk

// A pseudo-terminal of a given width; the test reads what it shows.
struct Terminal
{
    explicit Terminal(int columns)
    {
        struct winsize size {};
        size.ws_col = ushort(columns);
        char name[128] = {};
        if (::openpty(&master, &slave, name, nullptr, &size) == 0)
            path = QString::fromLocal8Bit(name);
        ::fcntl(master, F_SETFL, O_NONBLOCK);
    }
    ~Terminal()
    {
        ::close(master);
        ::close(slave);
    }
    void read() // as ztcli wrote it: the terminal's "\r\n" for "\n" undone
    {
        char buffer[4096];
        for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;)
            shown.append(buffer, int(n));
        shown.replace("\r\n", "\n");
    }
    int master = -1;
    int slave = -1; // kept open, so that reading never sees the end early
    QString path;
    QByteArray shown;
};

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

// Runs ztcli in sh after these commands, e.g. "ulimit -Sn 256" (for CliRun::setWrapper).
QStringList shellFirst(const QString &commands)
{
    return {"/bin/sh", "-c", commands + " && exec \"$0\" \"$@\""};
}

QStringList download(const QString &temp, const QString &name, const QString &target)
{
    return {"--temp", temp, "--chunk-size-mb", "1", "download", name, "--to", target};
}
} // namespace

// Transfers through ztcli and the plugin: round trips, guarded services, Ctrl-C and resume,
// time-outs, full disks, many files at once, memory bounds and progress on a terminal.
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
    void largeFileStaysWithinMemoryBounds();
    void barFitsANarrowTerminal_data();
    void barFitsANarrowTerminal();

private:

    ServedStore m_served;
};

void tst_ZtcliTransfers::initTestCase()
{
    QVERIFY2(m_served.start(), qPrintable(m_served.service.output()));
}

void tst_ZtcliTransfers::uploadThenDownload_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("guard");   // empty: the service `ztcli serve` runs
    QTest::addColumn<QString>("refusal"); // what ztcli says without the keys
    QTest::newRow("empty") << qint64(0) << "" << "";
    QTest::newRow("one chunk and a byte") << MiB + 1 << "" << "";
    QTest::newRow("token") << qint64(5 * 65536 + 17) << "token" << "AuthError (20706)";
    QTest::newRow("tls, private authority, token") << qint64(5 * 65536 + 17) << "tls" << "certificate was refused";
}

// Each file goes up and comes back whole; --output replaces what it names. A service may ask for a token (ZT_TOKEN
// or --token) and speak TLS with a certificate of a private authority (--cacert); without them ztcli says why.
void tst_ZtcliTransfers::uploadThenDownload()
{
    QFETCH(qint64, size);
    QFETCH(QString, guard);
    QFETCH(QString, refusal);
    const QString name = QStringLiteral("round-%1.bin").arg(size);
    const QByteArray content = randomBytes(size);
    QTemporaryDir local, guardedRoot;
    QStringList server{"--server", m_served.url};
    QString root = m_served.store.path();
    CliRun cli(m_served.home.path());
    QScopedPointer<FileServiceProcess> guarded; // parts of 64 KiB, so that an upload has several
    if (!guard.isEmpty()) {
        QStringList options{"--chunk-size", "65536", "--token", "s3cret"};
        if (guard == QLatin1String("tls")) {
            const QString cert = local.filePath("cert.pem");
            QProcess openssl;
            openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                                      "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                                      local.filePath("key.pem"), "-out", cert});
            QVERIFY(openssl.waitForFinished(30000) && openssl.exitCode() == 0);
            options << "--tls-cert" << cert << "--tls-key" << local.filePath("key.pem");
            server << "--cacert" << cert;
        }
        guarded.reset(new FileServiceProcess(root = guardedRoot.path(), options));
        QVERIFY2(guarded->start(), guarded->log().constData());
        QCOMPARE(cli.run({"--server", guarded->baseUrl(), "list"}), ExitServer);
        QVERIFY2(cli.err().contains(refusal), qPrintable(cli.output()));
        server[1] = guarded->baseUrl();
        cli.setEnv("ZT_TOKEN", "s3cret");
    }
    const QString source = local.filePath(name);
    QVERIFY(writeFile(source, content));
    QCOMPARE(cli.run(server + QStringList{"upload", source}), ExitSuccess);
    // The address the service gave the file comes back through the plugin's result.
    QVERIFY2(cli.out().contains(QStringLiteral("uploaded %1 as %2 (").arg(source, name))
                 && cli.out().contains(", " + server[1] + "/download?fileName="),
             qPrintable(cli.output()));
    QVERIFY(readFile(QDir(root).filePath(name)) == content);
    // Off a terminal progress is whole lines on stderr; stdout carries only the results.
    QVERIFY2(cli.err().contains("done:") && !cli.err().contains('\r') && !cli.out().contains("done:"),
             qPrintable(cli.output()));

    cli.unsetEnv("ZT_TOKEN"); // --token from here on
    const QString back = local.filePath("back");
    QCOMPARE(cli.run(QStringList{"-q", "--token", "s3cret"} + server + download(local.filePath("partial"), name, back)),
             ExitSuccess);
    QVERIFY2(cli.out().contains(QStringLiteral("downloaded %1 to %2/%1").arg(name, back)), qPrintable(cli.output()));
    QVERIFY(readFile(back + '/' + name) == content);
    QVERIFY2(!cli.output().contains("done:"), qPrintable(cli.output())); // quiet
    const QString replaced = back + "/replaced.bin";
    QVERIFY(writeFile(replaced, "old"));
    QCOMPARE(cli.run(server + QStringList{"--token", "s3cret", "download", name, "-o", replaced}), ExitSuccess);
    QVERIFY(readFile(replaced) == content);
    QCOMPARE(QDir(back).entryList(QDir::Files).size(), 2);
}

// How the first run of stopThenResume() ends early; the service's handler there holds back what each needs.
enum Ending { CtrlC, CtrlCTwice, CtrlCTwiceAfterStop, CtrlCAtMerge, Stall, FullDisk };

void tst_ZtcliTransfers::stopThenResume_data()
{
    QTest::addColumn<int>("ending");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<qint64>("blocks");  // FullDisk: the limit in 512-byte blocks
    QTest::addColumn<bool>("clear");     // partial --clear before the next run
    QTest::addColumn<ExitCode>("status");
    QTest::addColumn<QString>("says");
    const auto row = [](const char *tag, Ending ending, ExitCode status, const QString &says,
                        const QStringList &options = {}, qint64 blocks = -1, bool clear = false) {
        QTest::newRow(tag) << int(ending) << options << blocks << clear << status << says;
    };
    const QString stopped = QStringLiteral("Stopped (20716)");
    row("Ctrl-C mid-download", CtrlC, ExitInterrupted, stopped);
    row("Ctrl-C twice while it runs", CtrlCTwice, ExitInterrupted, "Aborting; partial data is discarded.");
    row("Ctrl-C twice at a terminal, after the stop", CtrlCTwiceAfterStop, ExitInterrupted, "Aborted (20717)");
    row("Ctrl-C during the merge", CtrlCAtMerge, ExitInterrupted, stopped);
    row("Ctrl-C during the merge, then partial --clear", CtrlCAtMerge, ExitInterrupted, stopped, {}, -1, true);
    row("no progress: --timeout", Stall, ExitTransfer, "no progress for 2 s", {"--timeout", "2"});
    row("no progress: --retry", Stall, ExitSuccess, "retrying in 1 s (1 of 1)", {"--timeout", "2", "--retry", "1"});
    row("no room for a byte", FullDisk, ExitTransfer, "FileError (20699)", {}, 0);
    row("room for half a chunk", FullDisk, ExitTransfer, "FileError (20699)", {}, 1000);
    row("room for every chunk, not for the merged file", FullDisk, ExitTransfer, "MergeError (20735)", {}, 3000);
}

// A download that ends early leaves only true bytes of the file behind, which exists and partial
// count (and partial --clear removes, unless the download still runs) and the next run resumes
// from, fetching only what is missing; a second Ctrl-C leaves nothing. The service holds chunks and
// the Ctrl-C during the merge comes from inside ztcli (a preloaded copy_file_range sends it), so no
// run races the test.
void tst_ZtcliTransfers::stopThenResume()
{
    QFETCH(int, ending);
    QFETCH(QStringList, options);
    QFETCH(qint64, blocks);
    QFETCH(bool, clear);
    QFETCH(ExitCode, status);
    QFETCH(QString, says);
    const QByteArray content = randomBytes(4 * MiB + 5);
    const QByteArray digest =
        "sha-256=:" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64() + ':';
    bool holding = ending != CtrlCAtMerge && ending != FullDisk;
    int chunks = 0;
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([&](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/download/pathList"))
            return ScriptedResponse::json(R"({"status": "success", "result": [{"fileName": "r.bin",)"
                                          R"( "fileSize": 4194309, "etag": "v1", "modified": 0}]})");
        ScriptedResponse response = ScriptedResponse::file(content, request, "\"v1\"", "r.bin");
        response.header("Repr-Digest", digest);
        const QByteArray range = request.header("Range");
        if (!holding || (range == "bytes=0-1") != (ending == CtrlCTwice)) // only CtrlCTwice holds the probe
            return response;
        if (ending == CtrlCTwice || (ending == CtrlC && ++chunks > 2)) // CtrlC: once two chunks came
            response.hold = true;
        else if (ending == CtrlCTwiceAfterStop)
            response.holdAfterBytes = 1000; // the content folder is this run's by then
        else if (ending == Stall && range.startsWith("bytes=1048576-")) // the second chunk
            response.hold = true;
        holding = !(ending == Stall && response.hold); // Stall: once
        return response;
    });
    QTemporaryDir temp, target;
    const QString result = QDir(target.path()).filePath(QStringLiteral("r.bin"));
    const QStringList args = QStringList{"--server", server.baseUrl()} + download(temp.path(), "r.bin", target.path());

    Terminal terminal(80);
    CliRun first(m_served.home.path());
    // A write past the limit then fails with EFBIG, as on a full disk; an ignored SIGXFSZ stays ignored across exec.
    if (blocks >= 0)
        first.setWrapper(shellFirst(QStringLiteral("trap '' XFSZ; ulimit -f %1").arg(blocks)));
    if (ending == CtrlCTwiceAfterStop)
        first.setStdinFile(terminal.path);
    if (ending == CtrlCAtMerge) {
        first.setEnv("LD_PRELOAD", ZT_INTERRUPT_SHIM);
        first.setEnv("ZT_INTERRUPT_AT_COPY", "4");
        first.setEnv("ASAN_OPTIONS", qEnvironmentVariable("ASAN_OPTIONS") + ":verify_asan_link_order=0");
    }
    first.start(options + args);
    CliRun ask(m_served.home.path());
    const QStringList partial{"--temp", temp.path(), "partial"};
    if (ending <= CtrlCTwiceAfterStop) {
        QTRY_VERIFY_WITH_TIMEOUT(server.heldCount() > 0 && (ending != CtrlC || bytesUnder(temp.path()) >= 2 * MiB),
                                 30000);
        if (ending == CtrlC) { // a running download's folder is never taken from under it
            QCOMPARE(ask.run(partial + QStringList{"--clear"}), ExitSuccess);
            QVERIFY2(ask.err().contains("kept r.bin: being downloaded by process "), qPrintable(ask.output()));
        }
        first.interrupt();
        holding = false;
    }
    if (ending == CtrlCTwice || ending == CtrlCTwiceAfterStop) {
        // After the stop at a terminal, the transfer's last line is out before the second Ctrl-C.
        const QString before = ending == CtrlCTwice ? QStringLiteral("Press Ctrl-C again") : QStringLiteral("ended at");
        QTRY_VERIFY_WITH_TIMEOUT(first.err().contains("Press Ctrl-C again") && first.err().contains(before), 10000);
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
    QVERIFY(status == ExitSuccess ? readFile(result) == content : !QFile::exists(result));
    if (status == ExitSuccess)
        return;
    if (ending == CtrlCTwice || ending == CtrlCTwiceAfterStop) {
        QVERIFY2(first.err().contains(QStringLiteral("Removed the partial download in %1/").arg(temp.path())),
                 qPrintable(first.output()));
        QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    }
    // Chunk n starts at (n - 1) MiB; each file must be a prefix of its range, as the merged part is of the file.
    qint64 largestLeft = 0;
    for (QDirIterator it(temp.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = it.next();
        const qint64 start = (it.fileName().toLongLong() - 1) * MiB;
        const QByteArray kept = readFile(path);
        QVERIFY2(start >= 0 && kept == content.mid(int(start), kept.size()) && kept.size() <= MiB + 1,
                 qPrintable(path));
        largestLeft = qMax<qint64>(largestLeft, kept.size());
    }
    // The write that met the limit kept what fitted; when the merge failed, the chunk was whole.
    if (blocks >= 0)
        QCOMPARE(largestLeft, qMin(blocks * 512, MiB + 1));
    const QByteArray merged = QFile::exists(result + ".ztmerge") ? readFile(result + ".ztmerge") : QByteArray();
    QVERIFY(content.startsWith(merged));
    QCOMPARE(merged.size() >= 3 * MiB, ending == CtrlCAtMerge);
    if (clear) { // a merged part goes with its folder; a folder of an older plugin, whose plan names no file, goes too
        QVERIFY(QDir(temp.path()).mkpath("old")
                && writeFile(temp.path() + "/old/.plan", R"({"chunkSize": 50, "sha256": ""})")
                && writeFile(temp.path() + "/old/1", "0123456789"));
        QCOMPARE(ask.run(partial), ExitSuccess);
        QVERIFY2(ask.out().contains("(unnamed) old  10 B") && ask.out().contains("2 partial download(s)"),
                 qPrintable(ask.output()));
        QCOMPARE(ask.run(partial + QStringList{"--clear", "nope.bin"}), ExitNotFound);
        QCOMPARE(ask.run(partial + QStringList{"--clear", "r.bin"}), ExitSuccess);
        QVERIFY(!QFile::exists(result + ".ztmerge"));
        QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList{"old"});
        QCOMPARE(ask.run(partial + QStringList{"--clear"}), ExitSuccess);
        QCOMPARE(QDir(temp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
    }
    // Chunk files overlap by a byte, and a failed merge keeps its chunks.
    const qint64 kept = clear ? 0 : qMin<qint64>(bytesUnder(temp.path()) + merged.size(), content.size());
    if (kept > 0) {
        QCOMPARE(ask.run(partial), ExitSuccess); // names the file, from the plugin's plan
        QVERIFY2(ask.out().startsWith("r.bin  ") && ask.out().contains(" of 4.0 MiB ("), qPrintable(ask.output()));
        QCOMPARE(ask.run({"--server", server.baseUrl(), "--temp", temp.path(), "exists", "r.bin"}), ExitSuccess);
        QVERIFY2(!merged.isEmpty() || ask.out().contains(QStringLiteral("; %1 bytes").arg(kept)),
                 qPrintable(ask.output()));
    }

    const qint64 sentBefore = server.bodyBytesSent();
    CliRun second(m_served.home.path());
    QCOMPARE(second.run(args), ExitSuccess);
    QVERIFY(readFile(result) == content);
    // It says how far the first run had come, from what was on disk.
    const QString resumedAt = QStringLiteral("(resumed at %1%)").arg(int(100.0 * double(kept) / content.size()));
    QVERIFY2(kept == 0 || !merged.isEmpty() || second.err().contains(resumedAt),
             qPrintable(resumedAt + " in " + second.output()));
    // Only the missing bytes travelled again, plus the chunks' overlap bytes, the probe's two bytes and the listing.
    const qint64 resent = server.bodyBytesSent() - sentBefore;
    QVERIFY2(resent <= content.size() - kept + 512, qPrintable(QStringLiteral("resent %1 bytes").arg(resent)));
    QVERIFY(!QFile::exists(result + ".ztmerge"));
    QCOMPARE(bytesUnder(temp.path()), qint64(0));
}

// A batch of 400 files holds more descriptors at once than a soft limit of 256; ztcli takes the hard limit, as a
// shell's 1024 would otherwise stop a batch of a thousand.
void tst_ZtcliTransfers::manyFilesUnderASmallDescriptorLimit()
{
    struct rlimit limit {};
    QVERIFY2(::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_max > 1024,
             "the hard limit leaves no room to show this");
    QStringList names;
    for (int i = 0; i < 400; ++i) {
        names << QStringLiteral("limit-%1.bin").arg(i, 3, 10, QLatin1Char('0'));
        QVERIFY(writeFile(m_served.path(names.last()), randomBytes(1000 + 4 * i, quint32(i))));
    }
    QTemporaryDir temp, target;
    CliRun cli(m_served.home.path());
    cli.setWrapper(shellFirst("ulimit -Sn 256"));
    QCOMPARE(cli.run(QStringList{"-q", "--server", m_served.url, "--temp", temp.path(), "download"} + names
                     + QStringList{"--to", target.path()}, 120000), ExitSuccess);
    for (const QString &name : names)
        QVERIFY2(readFile(QDir(target.path()).filePath(name)) == readFile(m_served.path(name)), qPrintable(name));
}

// Peak memory of ztcli moving a file larger than its bounds must not follow the file: an upload that reads a whole
// file, or a download whose reply buffers what the disk has not taken yet, grows with it.
void tst_ZtcliTransfers::largeFileStaysWithinMemoryBounds()
{
#if defined(__SANITIZE_ADDRESS__)
    QSKIP("the sanitizer's shadow memory and quarantine are not the program's own");
#endif
    QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/time")), "make deps installs it");
    QTemporaryDir local;
    // A sparse file: large on the wire, past both bounds by far; cheap on this disk.
    const QString source = local.filePath(QStringLiteral("large.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(256 * MiB));
    CliRun cli(m_served.home.path());
    cli.setWrapper({"/usr/bin/time", "-f", "%M"}); // the peak in KiB, as the last line on stderr
    const auto peakMiB = [&cli] { return cli.err().trimmed().section('\n', -1).toDouble() / 1024; };
    QCOMPARE(cli.run({"-q", "--server", m_served.url, "upload", source}, 300000), ExitSuccess);
    // At most 4 transfers at once x 8 MiB parts (the service's) + 64 MiB.
    QVERIFY2(peakMiB() > 0 && peakMiB() <= 4 * 8 + 64, qPrintable(cli.err()));
    QCOMPARE(sha256OfFile(m_served.path("large.bin")), sha256OfFile(source));
    QCOMPARE(cli.run({"-q", "--server", m_served.url, "--temp", local.filePath("partial"), "download", "large.bin",
                      "--to", local.path()}, 300000),
             ExitSuccess); // beside the source: "large(1).bin"
    QVERIFY2(peakMiB() > 0 && peakMiB() <= 128, qPrintable(cli.err()));
    QCOMPARE(sha256OfFile(local.filePath(QStringLiteral("large(1).bin"))), sha256OfFile(source));
}

void tst_ZtcliTransfers::barFitsANarrowTerminal_data()
{
    QTest::addColumn<int>("columns");
    QTest::newRow("40 columns") << 40;
    QTest::newRow("20 columns, narrower than the name") << 20;
}

// On a terminal the bar is one row redrawn in place: every redraw starts with a carriage return and stays within the
// width, so that none wraps into a row of its own, and shows how far it is however long the name. Then the summary.
void tst_ZtcliTransfers::barFitsANarrowTerminal()
{
    QFETCH(int, columns);
    const QString name = QStringLiteral("a-file-name-longer-than-the-terminal-%1.bin").arg(columns);
    QVERIFY(writeFile(m_served.path(name), randomBytes(4 * MiB)));
    Terminal terminal(columns);
    QVERIFY(!terminal.path.isEmpty());
    QTemporaryDir target;
    CliRun cli(m_served.home.path());
    cli.setStderrFile(terminal.path);
    cli.start(QStringList{"--server", m_served.url} + download(target.filePath("partial"), name, target.path()));
    QVERIFY(QTest::qWaitFor([&] { terminal.read(); return !cli.isRunning(); }, 60000));
    terminal.read();
    QCOMPARE(cli.exitCode(), ExitSuccess);

    // The bar's row, then the summary's: no row left behind by a redraw.
    const QStringList rows = QString::fromUtf8(terminal.shown).remove(QStringLiteral("\033[K")).split('\n');
    QVERIFY2(rows.size() == 3 && rows.at(1).contains("done:") && rows.at(2).isEmpty(), qPrintable(rows.join("<NL>")));
    const QStringList redraws = rows.at(0).split('\r', Qt::SkipEmptyParts);
    QVERIFY2(!redraws.isEmpty() && rows.at(0).startsWith('\r'), qPrintable(rows.at(0)));
    for (const QString &redraw : redraws)
        QVERIFY2(redraw.size() <= columns && redraw.contains('%'), qPrintable(redraw));
}

QTEST_GUILESS_MAIN(tst_ZtcliTransfers)
#include "tst_ztclitransfers.moc"
