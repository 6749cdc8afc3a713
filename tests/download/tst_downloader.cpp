#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadsinglefile.h"
#include "download/downloadtask.h"
#include "downloadfixture.h"
#include "filedigest.h"
#include "hostcall.h"
#include "core/globalmanager.h"

#include <zephyrtide/reply.h>

#include <QtTest>

#include <algorithm>
#include <memory>

using Error = Zephyrtide::Error;
constexpr qint64 MiB = DownloadFixture::MiB, KiB = 1024;

// A batch stopped and started again at once, every way it ends, the host's
// time-out mid-call, and the room a resumed batch asks for.
class tst_Downloader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        GlobalManager::instance(); // registers "ZTErrorCode" for the spies
        qRegisterMetaType<QList<DownloadTask *>>();
    }
    void init() { QVERIFY(f.setUp()); }
    void cleanup() { f.tearDown(); }

    void stopThenRestartAtOnce_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("chunkSize");
        QTest::addColumn<int>("stops"); // each at a tenth more than the one before
        QTest::addColumn<QString>("twist"); // "abort": the host's, which keeps the chunks as a stop does;
                                            // "changed": the file rewritten on the server before the last run, same tag
        QTest::newRow("256 chunks of 16 KiB, stopped and restarted three times") << 4 * MiB << 16 * KiB << 3 << "";
        QTest::newRow("aborted, then restarted") << 4 * MiB + 5 << 256 * KiB << 1 << "abort";
        QTest::newRow("restarted after the file changed, same tag") << 4 * MiB << 256 * KiB << 1 << "changed";
    }

    // The host stops the reply from its progress handler and starts the same
    // batch again at once: the stopped run falls silent while the new one writes
    // the same chunk files.
    void stopThenRestartAtOnce()
    {
        QFETCH(qint64, size);
        QFETCH(qint64, chunkSize);
        QFETCH(int, stops);
        QFETCH(QString, twist);
        DownloadGlobal::instance()->setChunkSizeInBytes(chunkSize);
        f.serve(size);
        const QVariantMap params = f.batch({"big.bin"}, f.target->path());
        struct Stopped { std::unique_ptr<HostCall> call; int reports = 0; int reportsAtStop = -1; };
        std::vector<Stopped> runs(stops);
        for (int round = 1; round <= stops; ++round) {
            Stopped &run = runs[round - 1];
            run.call.reset(new HostCall(f.root.data(), "zt_apply_startDownload", params, [&](Zephyrtide::Reply *reply) {
                connect(reply, &Zephyrtide::Reply::downloadProgress, reply, [&run, &twist, round, reply](qint64 done, qint64 total) {
                    ++run.reports;
                    if (run.reportsAtStop >= 0 || done < total / 10 * round)
                        return;
                    run.reportsAtStop = run.reports;
                    twist == "abort" ? Q_EMIT reply->abort() : Q_EMIT reply->stop();
                });
            }));
            QVERIFY(QTest::qWaitFor([&] { return run.reportsAtStop >= 0; }, 30000));
            QCOMPARE(run.call->error(), Error::Stopped);
        }
        if (twist == "changed") {
            QByteArray content = f.contentOf("big.bin");
            std::reverse(content.begin(), content.end());
            f.setContent("big.bin", content);
        }
        HostCall last(f.root.data(), "zt_apply_startDownload", params);
        last.wait(60000);
        QCOMPARE(last.error(), Error::NoError);
        QCOMPARE(sha256OfFile(f.target->filePath("big.bin")), f.digestOf("big.bin"));
        for (const Stopped &run : runs) // the last run's end is later than any report a stopped one still had
            QCOMPARE(run.reports, run.reportsAtStop);
        QCOMPARE(QDir(f.temporary->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
        // The host configured its own temporary folder: none is made in the (test's own) documents.
        const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
        QVERIFY(documents.startsWith(f.environment.homePath()) && !QFileInfo::exists(documents + "/Zephyrtide"));
    }

    void batchEndsOnce_data()
    {
        QTest::addColumn<int>("files");
        QTest::addColumn<qint64>("size"); // of each file
        QTest::addColumn<qint64>("chunkSize");
        QTest::addColumn<QString>("ending"); // what befalls the batch once a chunk has come, chunk 2 held
        QTest::addColumn<ZTErrorCode>("code");
        QTest::addColumn<bool>("chunksKept");
        const qint64 size = 4 * MiB + 77;
        QTest::newRow("all arrive") << 2 << size << MiB << "" << Error::NoError << false;
        QTest::newRow("three empty files") << 3 << qint64(0) << MiB << "" << Error::NoError << false;
        QTest::newRow("stopAll twice") << 1 << size << MiB << "stopAll stopAll" << Error::Stopped << true;
        QTest::newRow("abortAll keeps the chunks") << 1 << size << MiB << "abortAll" << Error::Stopped << true;
        QTest::newRow("abort of the task deletes them") << 1 << size << MiB << "abort stopAll" << Error::Aborted << false;
        QTest::newRow("stop of the task") << 1 << size << MiB << "stop" << Error::Stopped << true;
        QTest::newRow("404 for chunk 2") << 1 << size << MiB << "404" << Error::GeneralFailure << true;
        QTest::newRow("merged file not the server's: folder goes") << 1 << size << MiB << "digest" << Error::GeneralFailure << false;
        QTest::newRow("chunks 1 and 2 cannot be opened") << 1 << size << MiB << "folders 1 2" << Error::FileError << true;
        QTest::newRow("chunks 6 and 7 of 300 cannot be opened") << 1 << 300 * 16 * KiB - 5 << 16 * KiB << "folders 6 7"
            << Error::FileError << true;
    }

    // However a batch ends, finished comes once and no chunk file changes after.
    // Cancels come from a progress handler, as a host's do. The user's f0.bin
    // makes the batch reserve f0(1).bin: a batch that brings no file gives it up.
    void batchEndsOnce()
    {
        QFETCH(int, files);
        QFETCH(qint64, size);
        QFETCH(qint64, chunkSize);
        QFETCH(QString, ending);
        QFETCH(ZTErrorCode, code);
        QFETCH(bool, chunksKept);
        DownloadGlobal::instance()->setChunkSizeInBytes(chunkSize);
        f.serve(size);
        QVERIFY(f.writeFile(f.target->filePath("f0.bin"), "mine"));
        const QByteArray second = "bytes=" + QByteArray::number(chunkSize) + "-";
        const QStringList steps = ending.split(' ');
        const QString folder = f.chunkFolder("f0.bin");
        f.shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
            if (ending == "digest")
                response.headers.last().second = "sha-256=:" + f.digestOf("other").toBase64() + ":";
            if (r.header("Range").startsWith(second) && ending == "404")
                response = ScriptedResponse::json("{}", 404);
            response.hold = r.header("Range").startsWith(second) && (ending.contains("stop") || ending.contains("abort"));
        };
        Downloader downloader;
        QStringList names;
        QList<QSharedPointer<DownloadTask>> tasks;
        for (int i = 0; i < files; ++i) {
            names << QStringLiteral("f%1.bin").arg(i);
            tasks << f.addTask(downloader, f.target->filePath(names.last()), names.last());
            QVERIFY(tasks.last());
        }
        for (const QString &number : steps.mid(1)) // chunk files that cannot be opened
            QVERIFY(steps.first() != "folders" || QDir().mkpath(folder + "/" + number));
        DownloadTask *first = tasks.first().data();
        const QMap<QString, std::function<void()>> act{{"stopAll", [&] { Q_EMIT downloader.stopAll(); }},
                                                      {"abortAll", [&] { Q_EMIT downloader.abortAll(); }},
                                                      {"stop", [&] { Q_EMIT downloader.stop(first); }},
                                                      {"abort", [&] { Q_EMIT downloader.abort(first); }}};
        connect(&downloader, &Downloader::progress, this, [&, acted = false](qlonglong done) mutable {
            for (const QString &step : steps) {
                if (!acted && done >= chunkSize && act.contains(step))
                    act.value(step)();
            }
            acted = acted || done >= chunkSize;
        });
        QSignalSpy finished(&downloader, &Downloader::finished);
        qint64 keptAtEnd = -1;
        connect(&downloader, &Downloader::finished, this, [&] { keptAtEnd = keptAtEnd < 0 ? f.bytesIn(folder) : keptAtEnd; });
        QCOMPARE(downloader.start(), Error::NoError);
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() > 0, 20000);
        f.server->release();
        // A later download through the same loop: what the batch still had coming has come by its end.
        f.shape = nullptr;
        DownloadGlobal::instance()->setChunkSizeInBytes(MiB);
        QCOMPARE(f.downloadOne(f.target->filePath("later/z"), "z"), Error::NoError);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.first().first().value<ZTErrorCode>(), code);
        QCOMPARE(QDir(folder).exists(), chunksKept);
        QCOMPARE(f.bytesIn(folder), keptAtEnd);
        // A chunk file holds the file's bytes from its chunk's start on, never an error page.
        for (const QFileInfo &chunk : QDir(folder).entryInfoList(QDir::Files)) {
            QFile file(chunk.filePath());
            const qint64 start = (chunk.fileName().toLongLong() - 1) * chunkSize;
            QVERIFY2(file.open(QIODevice::ReadOnly) && f.contentOf("f0.bin").mid(start).startsWith(file.readAll()),
                     qPrintable(chunk.fileName()));
        }
        QCOMPARE(sha256OfFile(f.target->filePath("f0.bin")), QCryptographicHash::hash("mine", QCryptographicHash::Sha256));
        QStringList arrived = names.mid(1) << "f0(1).bin" << "f0.bin";
        arrived.sort();
        QCOMPARE(f.filesIn(f.target->path()), code == Error::NoError ? arrived : QStringList{"f0.bin"});
        for (int i = 0; code == Error::NoError && i < files; ++i)
            QCOMPARE(sha256OfFile(f.target->filePath(i == 0 ? "f0(1).bin" : names.at(i))), f.digestOf(names.at(i).toUtf8()));
    }

    void hostTimeOut_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<int>("at"); // the request during which the host gives up
        QTest::newRow("the second file's probe") << QStringList{"a.bin", "b.bin"} << 2;
        QTest::newRow("four chunks running") << QStringList{"a.bin"} << 5; // the probe, then chunks 1 to 4
    }

    // The host finishes the reply with its time-out code while the plugin waits
    // in the call, or while transfers run: no request stays in flight.
    void hostTimeOut()
    {
        QFETCH(QStringList, files);
        QFETCH(int, at);
        f.serve(3 * MiB + 77);
        Zephyrtide::Reply *hostReply = nullptr;
        int asked = -1; // requests made when the host gave up
        f.shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
            if (f.server->requestCount() == at) {
                QMetaObject::invokeMethod(this, [&] {
                    asked = f.server->requestCount();
                    GlobalManager::instance()->finish(hostReply, "fail", {}, Error::Timeout);
                }, Qt::QueuedConnection);
            }
            response.hold = f.server->requestCount() == at || r.header("Range") != "bytes=0-1"; // chunks wait
        };
        QElapsedTimer clock;
        clock.start();
        HostCall call(f.root.data(), "zt_apply_startDownload", f.batch(files, f.target->path()),
                      [&](Zephyrtide::Reply *reply) { hostReply = reply; });
        // A probe the host no longer waits for is given up, not left to its own 30 s transfer time-out.
        QVERIFY2(clock.elapsed() < 15000, qPrintable(QString::number(clock.elapsed())));
        QTRY_VERIFY_WITH_TIMEOUT(asked >= 0, 10000);
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.error(), Error::Timeout);
        QTRY_COMPARE_WITH_TIMEOUT(f.server->openRequests(), 0, 10000);
        f.shape = nullptr;
        QCOMPARE(f.downloadOne(f.target->filePath("later/z"), "z"), Error::NoError);
        for (const ScriptedRequest &r : f.server->requests().mid(asked)) // only the later run's
            QVERIFY2(r.body.contains("\"z\""), r.body.constData());
    }

    void roomForWhatIsLeft_data()
    {
        QTest::addColumn<int>("chunkFiles"); // of the file's eight chunks, the first ones on disk
        QTest::addColumn<int>("merged"); // of those, the ones a stopped merge holds instead
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("nothing on disk: refused, saying what it needs") << 0 << 0 << Error::NotEnoughDiskSpace;
        QTest::newRow("seven chunks on disk: started") << 7 << 0 << Error::NoError;
        QTest::newRow("five chunks merged, two on disk: started") << 7 << 5 << Error::NoError;
    }

    // A file a tenth larger than the free space fits when most of it is on disk:
    // the check asks for what is left and two chunks for the merge. The files
    // are sparse, so they take no room themselves.
    void roomForWhatIsLeft()
    {
        QFETCH(int, chunkFiles);
        QFETCH(int, merged);
        QFETCH(ZTErrorCode, code);
        const qint64 free = QStorageInfo(f.temporary->path()).bytesFree();
        QVERIFY(QStorageInfo(f.target->path()).rootPath() == QStorageInfo(f.temporary->path()).rootPath());
        const qint64 chunk = (free + free / 10) / 8 + 1, size = 8 * chunk;
        f.serve(size); // for the content folder's name; the answers are these, and no chunk comes:
        f.server->setHandler([&](const ScriptedRequest &r) {
            ScriptedResponse response;
            response.status = 206;
            response.body = "ab";
            response.header("Content-Range", "bytes 0-1/" + QByteArray::number(size)).header("ETag", "\"s.bin\"");
            response.hold = r.header("Range") != "bytes=0-1";
            return response;
        });
        const QString folder = f.chunkFolder("s.bin"), destination = f.target->filePath("s.bin");
        QVERIFY(DownloadSingleFile::recordPlan(folder, chunk, QByteArray()));
        for (int i = merged + 1; i <= chunkFiles; ++i) {
            QFile file(folder + "/" + QString::number(i));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(chunk + 1));
        }
        QFile part(destination + ".ztmerge");
        QVERIFY(merged == 0 || (part.open(QIODevice::WriteOnly) && part.resize(merged * chunk)));
        const QJsonObject fields{{"path", part.fileName()}, {"chunkSize", chunk}, {"sha256", ""}, {"mergedBytes", merged * chunk}};
        QVERIFY(merged == 0 || f.writeFile(folder + "/.merge", QJsonDocument(fields).toJson()));
        if (code != Error::NoError)
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("^size error .* needs %1 bytes on .* where \\d+ are free$")
                                                                       .arg(size + 2 * chunk)));
        Downloader downloader;
        QVERIFY(f.addTask(downloader, destination, "s.bin"));
        const ZTErrorCode started = downloader.start();
        Q_EMIT downloader.stopAll(); // before the merge of sparse chunks could begin
        QCOMPARE(started, code);
    }

private:
    DownloadFixture f;
};

QTEST_MAIN(tst_Downloader)
#include "tst_downloader.moc"
