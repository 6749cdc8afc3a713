#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadsinglefile.h"
#include "download/downloadtask.h"
#include "downloadfixture.h"
#include "filedigest.h"
#include "hostcall.h"
#include "core/globalmanager.h"

#include <QtTest>

#include <cstdio>

using Error = Zephyrtide::Error;
constexpr qint64 MiB = DownloadFixture::MiB;

// One file's run and what it leaves for the next.
class tst_DownloadSingleFile : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { GlobalManager::instance(); }
    void init() { QVERIFY(f.setUp()); }
    void cleanup() { f.tearDown(); }

    void sameContentTwice_data()
    {
        QTest::addColumn<QString>("holder"); // of the content's folder when the second batch starts
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("a running batch of this process") << "batch" << Error::AlreadyRunning;
        QTest::newRow("another process") << "process" << Error::AlreadyRunning;
        QTest::newRow("a process that died holding it") << "dead" << Error::NoError;
    }

    // One writer per content folder: a second batch of the same content fails at
    // once and gives up the name it reserved; a lock whose holder died holds nothing.
    void sameContentTwice()
    {
        QFETCH(QString, holder);
        QFETCH(ZTErrorCode, code);
        f.serve(4 * MiB + 77);
        f.shape = [](const ScriptedRequest &r, ScriptedResponse &response) { response.hold = r.header("Range") != "bytes=0-1"; };
        QScopedPointer<HostCall> first;
        QProcess other;
        if (holder == "batch") {
            first.reset(new HostCall(f.root.data(), "zt_apply_startDownload", f.batch({"same.bin"}, f.target->filePath("a"))));
            QTRY_COMPARE_WITH_TIMEOUT(f.server->heldCount(), 4, 10000);
        } else {
            other.start(QCoreApplication::applicationFilePath(), {"--hold-lock", DownloadSingleFile::lockPath(f.chunkFolder("same.bin"))});
            QVERIFY(other.waitForReadyRead(10000));
            QCOMPARE(other.readLine(), QByteArray("locked\n"));
            if (holder == "dead")
                QVERIFY((other.kill(), other.waitForFinished(10000)));
        }
        f.shape = nullptr;
        QVERIFY(f.writeFile(f.target->filePath("b/same.bin"), "mine"));
        HostCall second(f.root.data(), "zt_apply_startDownload", f.batch({"same.bin"}, f.target->filePath("b")));
        second.wait(20000);
        QCOMPARE(second.finishedCount(), 1);
        QCOMPARE(second.error(), code);
        const bool ran = code == Error::NoError;
        QCOMPARE(f.filesIn(f.target->filePath("b")), (ran ? QStringList{"same(1).bin", "same.bin"} : QStringList{"same.bin"}));
        QCOMPARE(QFileInfo(f.target->filePath("b/same.bin")).size(), 4);
        QVERIFY(!ran || sha256OfFile(f.target->filePath("b/same(1).bin")) == f.digestOf("same.bin"));
        if (first) {
            f.server->release();
            QVERIFY(first->wait(20000).value("status") == "success");
            QCOMPARE(sha256OfFile(f.target->filePath("a/same.bin")), f.digestOf("same.bin"));
        }
        other.kill();
        other.waitForFinished(10000);
    }

    void firstRunEndsShort_data()
    {
        QTest::addColumn<qint64>("size"); // in chunks of 1 MiB
        QTest::addColumn<bool>("ranges"); // the server honours them
        QTest::addColumn<bool>("digest"); // the server states the file's SHA-256
        QTest::addColumn<QString>("ending"); // of one chunk's answer: "stop", "cut", "etag" (another), "taken" (the name)
        QTest::addColumn<int>("chunk"); // the one it befalls
        QTest::addColumn<qint64>("kept"); // bytes of it in its file after the first run
        QTest::addColumn<ZTErrorCode>("code");
        const qint64 small = 100 * 1024, large = 3 * MiB + 77;
        QTest::newRow("one small chunk, stopped: goes on from the bytes held") << 6 * small << true << true << "stop"
            << 1 << small << Error::Stopped;
        QTest::newRow("no ranges, stopped: starts over") << large << false << false << "stop" << 1 << small << Error::Stopped;
        QTest::newRow("no ranges, cut off: starts over") << large << false << false << "cut" << 1 << small << Error::GeneralFailure;
        QTest::newRow("only chunk not placed: kept whole") << small << true << true << "taken" << 1 << small << Error::MergeError;
        QTest::newRow("only chunk not placed, no digest: kept whole") << small << true << false << "taken" << 1 << small
            << Error::MergeError;
        QTest::newRow("206 whose tag changed since the probe") << large << true << true << "etag" << 2 << 0LL << Error::GeneralFailure;
        QTest::newRow("cut at the first byte") << large << true << true << "cut" << 2 << 0LL << Error::GeneralFailure;
        QTest::newRow("cut mid-chunk") << large << true << true << "cut" << 2 << 300000LL << Error::GeneralFailure;
    }

    // Nothing of a refused answer is written, what came of a good one stays, and
    // the next run fetches only what the chunk files lack. A small file of one
    // chunk writes its plan record only now. A server that ignores ranges sends a
    // resumed chunk whole, so that chunk starts over. A file of one chunk is placed
    // by renaming its chunk file: when a folder has taken the name, it comes back.
    void firstRunEndsShort()
    {
        QFETCH(qint64, size);
        QFETCH(bool, ranges);
        QFETCH(bool, digest);
        QFETCH(QString, ending);
        QFETCH(int, chunk);
        QFETCH(qint64, kept);
        QFETCH(ZTErrorCode, code);
        f.serve(size);
        f.statesDigest = digest;
        const QString destination = f.target->filePath("d.bin"), folder = f.chunkFolder("d.bin");
        const QByteArray faulted = "bytes=" + QByteArray::number((chunk - 1) * MiB) + "-";
        f.shape = [&, done = false](const ScriptedRequest &r, ScriptedResponse &response) mutable {
            if (!ranges)
                response = ScriptedResponse::file(f.contentOf("d.bin"), ScriptedRequest(), "\"d.bin\"");
            if (r.header("Range") == "bytes=0-1" || !r.header("Range").startsWith(faulted) || std::exchange(done, true))
                return;
            if (ending == "taken")
                QDir().mkpath(destination + "/inside");
            if (ending == "etag")
                response.headers.replace(response.headers.indexOf({"ETag", "\"d.bin\""}), {"ETag", "\"e\""});
            (ending == "stop" ? response.holdAfterBytes : response.dropAfterBytes) = ending == "stop" || ending == "cut" ? kept : -1;
        };
        QCOMPARE(f.downloadOne(destination, "d.bin", [&](Downloader &downloader) {
            if (ending == "stop" && QTest::qWaitFor([&] { return f.bytesIn(folder) == kept; }, 10000))
                Q_EMIT downloader.stopAll();
        }), code);
        QVERIFY(QFileInfo::exists(folder + "/.plan"));
        QCOMPARE(QFileInfo(folder + "/" + QString::number(chunk)).size(), kept);
        QVERIFY(ending == "taken" || QFileInfo(destination).size() == 0);
        QVERIFY(!QFileInfo::exists(destination + ".ztmerge"));
        QVERIFY(QDir(destination).removeRecursively()); // the folder that took the name
        f.server->release();
        QVERIFY(f.server->waitUntilQuiet()); // the requests of the run that ended, answered
        const int before = f.server->requestCount();
        const qint64 sent = f.server->bodyBytesSent(), held = f.bytesIn(folder);
        QCOMPARE(f.downloadOne(destination, "d.bin"), Error::NoError);
        QCOMPARE(sha256OfFile(destination), f.digestOf("d.bin"));
        QVERIFY(!QDir(folder).exists());
        if (ranges) { // only what the chunk files lacked travelled again, and the probe's two bytes
            QCOMPARE(f.server->bodyBytesSent() - sent, size + (size - 1) / MiB - held + 2);
        } else {
            const QList<ScriptedRequest> requests = f.server->requests().mid(before);
            QCOMPARE(requests.size(), 2); // the probe, then the whole file
            QVERIFY2(requests.last().header("Range").startsWith("bytes=0-"), requests.last().header("Range").constData());
        }
    }

    void mergeStoppedThenResumed_data()
    {
        QTest::addColumn<bool>("digest"); // the server states the file's SHA-256
        QTest::addColumn<QString>("between"); // what befalls the first run's leftovers before the next
        QTest::newRow("stopped half way, no digest") << false << "";
        QTest::newRow("aborted half way: nothing stays") << true << "abort";
        QTest::newRow("a chunk not merged yet vanished: fetched again") << true << "vanish";
        QTest::newRow("junk appended to the merged part: cut off") << false << "junk";
        QTest::newRow("merged part cut short: the chunks it lost fetched again") << false << "cut";
    }

    // A stop at a progress report of the merge, half way, leaves the merged part
    // and the chunks not in it; the next run fetches only what is no longer on
    // disk. The folder and the merged part never hold more than the file and two chunks.
    void mergeStoppedThenResumed()
    {
        QFETCH(bool, digest);
        QFETCH(QString, between);
        const qint64 chunk = 64 * 1024, size = 16 * chunk + 77; // 17 chunks
        DownloadGlobal::instance()->setChunkSizeInBytes(chunk);
        f.serve(size);
        f.statesDigest = digest;
        const QString destination = f.target->filePath("m.bin"), merged = destination + ".ztmerge";
        const QString folder = f.chunkFolder("m.bin");
        qint64 peak = 0;
        const auto run = [&](const QString &ending) {
            return f.downloadOne(destination, "m.bin", [&](Downloader &downloader) {
                connect(&downloader, &Downloader::downloadProgress, this, [&, ended = false](DownloadTask *task) mutable {
                    if (!QFileInfo::exists(merged))
                        return; // not merging yet
                    peak = qMax(peak, QFileInfo(merged).size() + f.bytesIn(folder));
                    if (ended || ending.isEmpty() || QFileInfo(merged).size() < size / 2)
                        return;
                    ended = true;
                    ending == "abort" ? Q_EMIT downloader.abort(task) : Q_EMIT downloader.stopAll();
                });
            });
        };
        QCOMPARE(run(between == "abort" ? "abort" : "stop"), between == "abort" ? Error::Aborted : Error::Stopped);
        QVERIFY(!QFileInfo::exists(destination));
        QCOMPARE(QFileInfo::exists(merged), between != "abort");
        const qint64 mergedBytes = QFileInfo(merged).size();
        const int mergedChunks = int(mergedBytes / chunk);
        QVERIFY2(between == "abort" || (mergedBytes >= size / 2 && mergedBytes == mergedChunks * chunk && mergedChunks < 15),
                 qPrintable(QString::number(mergedBytes)));
        int refetched = 0;
        QFile part(merged);
        if (between == "abort") {
            QVERIFY(!QDir(folder).exists());
            refetched = 17;
        } else if (between == "vanish") {
            QVERIFY(QFile::remove(folder + "/" + QString::number(mergedChunks + 2)));
            refetched = 1;
        } else if (between == "junk") {
            QVERIFY(part.open(QIODevice::Append) && part.write(QByteArray(1000, '#')) == 1000);
            part.close();
        } else if (between == "cut") {
            QVERIFY(part.resize(2 * chunk + 5)); // in chunk 3, whose file went
            for (int i = 3; i <= mergedChunks; ++i)
                refetched += QFileInfo::exists(folder + "/" + QString::number(i)) ? 0 : 1;
            QVERIFY(refetched > 3);
        }
        QVERIFY(f.server->waitUntilQuiet());
        const int before = f.server->requestCount();
        QCOMPARE(run(QString()), Error::NoError);
        QCOMPARE(f.server->requestCount() - before - 1, refetched); // the probe, then the chunks fetched again
        QCOMPARE(sha256OfFile(destination), f.digestOf("m.bin"));
        QVERIFY(!QFileInfo::exists(merged) && !QDir(folder).exists());
        QVERIFY2(peak <= size + 2 * chunk, qPrintable(QStringLiteral("%1 bytes held, %2 in the file").arg(peak).arg(size)));
    }

    void chunkFilesLeftBehind_data()
    {
        QTest::addColumn<QByteArray>("chunk1"); // what its file holds
        QTest::addColumn<qint64>("plannedIn"); // the chunk size the folder records; 0: no record
        QTest::addColumn<QByteArray>("askedFor"); // a range the run asks for; "bytes=0-..." fetches chunk 1 anew
        QTest::addColumn<ZTErrorCode>("code"); // of the first run; a second one then brings the file
        QTest::newRow("cut to exactly the chunk size: asks for the overlap byte")
            << QByteArray("share") << MiB << QByteArray("bytes=1048576-1048576") << Error::NoError;
        QTest::newRow("garbage past its range: left out of the merge") << QByteArray("garbage") << MiB << QByteArray() << Error::NoError;
        QTest::newRow("begun in chunks of 512 KiB: resumed in them") << QByteArray("half") << MiB / 2
                                                                     << QByteArray("bytes=524288-1048576") << Error::NoError;
        QTest::newRow("no plan recorded: begun afresh") << QByteArray("share") << 0LL << QByteArray("bytes=0-1048576") << Error::NoError;
        QTest::newRow("damaged in place, size unchanged: the digest refuses it")
            << QByteArray("damaged") << MiB << QByteArray("bytes=0-1048576") << Error::GeneralFailure;
    }
    void chunkFilesLeftBehind()
    {
        QFETCH(QByteArray, chunk1);
        QFETCH(qint64, plannedIn);
        QFETCH(QByteArray, askedFor);
        QFETCH(ZTErrorCode, code);
        f.serve(3 * MiB + 77);
        const QString folder = f.chunkFolder("d.bin"), destination = f.target->filePath("d.bin");
        const QByteArray content = f.contentOf("d.bin");
        QVERIFY(plannedIn == 0 || DownloadSingleFile::recordPlan(folder, plannedIn, QByteArray()));
        QByteArray damaged = content.left(MiB + 1);
        damaged[4711] = ~damaged[4711];
        const QMap<QByteArray, QByteArray> contents{{"share", content.left(MiB)}, {"half", content.left(MiB / 2 + 1)},
                                                    {"garbage", content.left(MiB + 1) + QByteArray(100, '#')}, {"damaged", damaged}};
        QVERIFY(f.writeFile(folder + "/1", contents.value(chunk1)));
        QCOMPARE(f.downloadOne(destination, "d.bin"), code);
        if (code != Error::NoError) { // nothing under the file's name, and nothing of the folder for the next run
            QCOMPARE(f.filesIn(f.target->path()), QStringList());
            QVERIFY(!QDir(folder).exists());
            QCOMPARE(f.downloadOne(destination, "d.bin"), Error::NoError);
        }
        QCOMPARE(sha256OfFile(destination), f.digestOf("d.bin"));
        QStringList ranges;
        for (const ScriptedRequest &r : f.server->requests())
            ranges << QString::fromLatin1(r.header("Range"));
        QCOMPARE(ranges.contains(QString::fromLatin1(askedFor)), !askedFor.isEmpty());
        // Chunk 1 is fetched anew only from a folder that cannot be resumed.
        QCOMPARE(ranges.filter(QRegularExpression("^bytes=0-\\d{3,}$")).size(), askedFor.startsWith("bytes=0-") ? 1 : 0);
    }

private:
    DownloadFixture f;
};

// "--hold-lock <path>": a second process that holds a content folder's lock
// until it is killed, as a second host running the same download would.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--hold-lock") == 0) {
        QLockFile lock(QFile::decodeName(argv[2]));
        if (!lock.tryLock(5000))
            return 1;
        std::fputs("locked\n", stdout);
        std::fflush(stdout);
        return std::getchar(); // until killed
    }
    tst_DownloadSingleFile test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_downloadsinglefile.moc"
