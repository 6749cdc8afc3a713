#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadsinglefile.h"
#include "download/downloadtask.h"
#include "filedigest.h"
#include "hostcall.h"
#include "network/networkmanager.h"
#include "core/globalmanager.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QProcess>
#include <QScopeGuard>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <memory>

// A download's life as a host lives it, against a scripted server that states
// each file's SHA-256: stopped and started again at once (in other chunks, or
// after the file changed), a server without ranges, the same content asked for
// twice, the host's time-out in the middle of a call, every way a batch ends
// (once), what a batch that brings no file leaves behind (nothing), how the
// files of a batch are probed (several at a time, decided in order), a merge
// stopped half way, and the room a resumed download asks for.
class tst_DownloadLifeCycle : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void stopThenRestartAtOnce_data();
    void stopThenRestartAtOnce();
    void serverWithoutRanges_data();
    void serverWithoutRanges();
    void sameContentTwice_data();
    void sameContentTwice();
    void hostTimeOut_data();
    void hostTimeOut();
    void batchEndsOnce_data();
    void batchEndsOnce();
    void batchLeavesNoLitter_data();
    void batchLeavesNoLitter();
    void probesOfABatch_data();
    void probesOfABatch();
    void mergeStoppedThenResumed_data();
    void mergeStoppedThenResumed();
    void roomForWhatIsLeft_data();
    void roomForWhatIsLeft();
    void onlyChunkKeptWhenPlacingFails_data();
    void onlyChunkKeptWhenPlacingFails();
    void smallFileStoppedResumes();

private:
    static constexpr qint64 MiB = 1024 * 1024;
    // Serves files of this size, by the name the body asks for, with ranges;
    // m_shape then changes an answer as a test needs.
    void serve(qint64 size);
    QByteArray contentOf(const QByteArray &name) const;
    QByteArray digestOf(const QByteArray &name) const; // SHA-256, taken once per content
    QString chunkFolder(const QByteArray &tag) const;
    QVariantMap batch(const QStringList &names, const QString &folder) const;
    qint64 bytesIn(const QString &folder) const;
    // One file through a downloader of its own; whenStarted runs once the
    // batch has started. The batch's code, or -1 when it did not end in time.
    int downloadOne(const QString &destination, const QString &name,
                    const std::function<void(Downloader &)> &whenStarted = nullptr);

    TestEnvironment m_environment;
    QScopedPointer<QTemporaryDir> m_temporary; // the engine's chunk folders
    QScopedPointer<QTemporaryDir> m_target;
    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
    mutable QMap<QByteArray, QByteArray> m_contents;
    mutable QMap<QByteArray, QByteArray> m_digests;
    qint64 m_size = 0;
    std::function<void(const ScriptedRequest &, ScriptedResponse &)> m_shape;
};

void tst_DownloadLifeCycle::init()
{
    m_temporary.reset(new QTemporaryDir);
    m_target.reset(new QTemporaryDir);
    m_server.reset(new ScriptedServer);
    QVERIFY(m_server->start());
    m_contents.clear();
    m_digests.clear();
    m_shape = nullptr;
    DownloadGlobal::instance()->setChunkSizeInBytes(MiB);
    m_host.reset(new Zephyrtide::Manager);
    m_host->setConfigData({{"startDownload", QVariantMap{{"temporaryStoragePath", m_temporary->path()}}}});
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager", Q_ARG(Zephyrtide::Manager *, m_host.data())));
    QVERIFY(HostCall(m_root.data(), "zt_apply_setIP", {{"ip", m_server->baseUrl()}}).succeeded());
    DownloadGlobal::instance()->setTemporaryStoragePath(m_temporary->path()); // for the rows without a host
}

void tst_DownloadLifeCycle::cleanup()
{
    m_server->release();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_root.reset();
    m_host.reset();
    m_server.reset();
}

void tst_DownloadLifeCycle::serve(qint64 size)
{
    m_size = size;
    m_server->setHandler([this](const ScriptedRequest &r) {
        const QByteArray name = QJsonDocument::fromJson(r.body).object().value("fileName").toString().toUtf8();
        ScriptedResponse response = ScriptedResponse::file(contentOf(name), r, "\"" + name + "\"", name);
        response.header("Repr-Digest", "sha-256=:" + digestOf(name).toBase64() + ":");
        if (m_shape)
            m_shape(r, response);
        return response;
    });
}

QByteArray tst_DownloadLifeCycle::contentOf(const QByteArray &name) const
{
    if (!m_contents.contains(name)) {
        QByteArray content(int(m_size), '\0');
        QRandomGenerator(qHash(name)).fillRange(reinterpret_cast<quint32 *>(content.data()), content.size() / 4);
        m_contents.insert(name, content);
    }
    return m_contents.value(name);
}

QByteArray tst_DownloadLifeCycle::digestOf(const QByteArray &name) const
{
    if (!m_digests.contains(name))
        m_digests.insert(name, QCryptographicHash::hash(contentOf(name), QCryptographicHash::Sha256));
    return m_digests.value(name);
}

QString tst_DownloadLifeCycle::chunkFolder(const QByteArray &tag) const
{
    const QByteArray identity = QByteArray::number(m_size) + tag;
    return m_temporary->path() + "/" + QCryptographicHash::hash(identity, QCryptographicHash::Md5).toHex();
}

QVariantMap tst_DownloadLifeCycle::batch(const QStringList &names, const QString &folder) const
{
    QVariantList files;
    for (const QString &name : names)
        files << QVariantMap{{"filename", name}, {"path", folder + "/" + name}};
    return {{"files", files}};
}

qint64 tst_DownloadLifeCycle::bytesIn(const QString &folder) const
{
    qint64 sum = 0;
    for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files))
        sum += file.size();
    return sum;
}

int tst_DownloadLifeCycle::downloadOne(const QString &destination, const QString &name,
                                       const std::function<void(Downloader &)> &whenStarted)
{
    Downloader downloader;
    auto task = QSharedPointer<DownloadTask>::create();
    if (task->isValid(destination, m_server->baseUrl() + "/download", name) != 0 || !downloader.addTask(task))
        return -1;
    int code = -1;
    connect(&downloader, &Downloader::finished, this, [&](ZTErrorCode status) { code = status; });
    if (downloader.start() != 0)
        return -1;
    if (whenStarted)
        whenStarted(downloader);
    return QTest::qWaitFor([&] { return code >= 0; }, 30000) ? code : -1;
}

void tst_DownloadLifeCycle::stopThenRestartAtOnce_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<qint64>("chunkSize");
    QTest::addColumn<int>("stops"); // each at a tenth more than the one before
    QTest::addColumn<bool>("abort"); // the host's abort, which keeps the chunks as a stop does
    QTest::addColumn<qint64>("restartChunkSize"); // the host's chunk size for the last run
    QTest::addColumn<bool>("changed"); // the file is rewritten on the server before the last run, same tag
    QTest::newRow("64 MiB in 1 MiB chunks") << 64 * MiB << MiB << 1 << false << MiB << false;
    QTest::newRow("512 chunks of 16 KiB") << 8 * MiB << 16 * 1024LL << 1 << false << 16 * 1024LL << false;
    QTest::newRow("stopped and restarted three times") << 16 * MiB + 5 << 256 * 1024LL << 3 << false << 256 * 1024LL << false;
    QTest::newRow("aborted, then restarted") << 16 * MiB << MiB << 1 << true << MiB << false;
    QTest::newRow("restarted in chunks three times as large") << 16 * MiB + 5 << MiB << 1 << false << 3 * MiB << false;
    QTest::newRow("restarted in chunks a quarter as large") << 16 * MiB + 5 << MiB << 1 << false << MiB / 4 << false;
    QTest::newRow("restarted after the file changed, same tag") << 16 * MiB << MiB << 1 << false << MiB << true;
}

// The host stops the reply from its progress handler at a tenth and starts the
// same batch again at once: the stopped run falls silent (no more progress, so
// no chunk running) while the new one writes the same chunk files.
void tst_DownloadLifeCycle::stopThenRestartAtOnce()
{
    QFETCH(qint64, size);
    QFETCH(qint64, chunkSize);
    QFETCH(int, stops);
    QFETCH(bool, abort);
    QFETCH(qint64, restartChunkSize);
    QFETCH(bool, changed);
    DownloadGlobal::instance()->setChunkSizeInBytes(chunkSize);
    serve(size);
    const QVariantMap params = batch({"big.bin"}, m_target->path());
    struct Stopped { std::unique_ptr<HostCall> call; int reports = 0; int reportsAtStop = -1; };
    std::vector<Stopped> runs(stops);
    for (int round = 1; round <= stops; ++round) {
        Stopped &run = runs[round - 1];
        run.call.reset(new HostCall(m_root.data(), "zt_apply_startDownload", params, [&](Zephyrtide::Reply *reply) {
            connect(reply, &Zephyrtide::Reply::downloadProgress, reply, [&run, round, abort, reply](qint64 done, qint64 total) {
                ++run.reports;
                if (run.reportsAtStop >= 0 || done < total / 10 * round)
                    return;
                run.reportsAtStop = run.reports;
                abort ? Q_EMIT reply->abort() : Q_EMIT reply->stop();
            });
        }));
        QVERIFY(QTest::qWaitFor([&] { return run.reportsAtStop >= 0; }, 30000));
        QCOMPARE(run.call->errorCode(), int(Zephyrtide::Error::Stopped));
    }
    DownloadGlobal::instance()->setChunkSizeInBytes(restartChunkSize);
    if (changed) {
        QByteArray content = contentOf("big.bin");
        std::reverse(content.begin(), content.end());
        m_contents.insert("big.bin", content);
        m_digests.remove("big.bin");
    }
    HostCall last(m_root.data(), "zt_apply_startDownload", params);
    last.wait(60000);
    QVERIFY2(last.succeeded(), qPrintable(QString::number(last.errorCode())));
    QCOMPARE(sha256OfFile(last.result().value("result").toList().value(0).toMap().value("path").toString()),
             digestOf("big.bin"));
    QVERIFY(m_server->waitUntilQuiet());
    for (const Stopped &run : runs)
        QCOMPARE(run.reports, run.reportsAtStop);
    QCOMPARE(QDir(m_temporary->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
}

void tst_DownloadLifeCycle::serverWithoutRanges_data()
{
    QTest::addColumn<bool>("stop"); // else the server cuts the answer off
    QTest::newRow("stopped part way") << true;
    QTest::newRow("cut off part way") << false;
}

// A server that ignores ranges answers a resumed chunk with the whole file:
// the next run starts over from byte 0, in one request, and joins the right bytes.
void tst_DownloadLifeCycle::serverWithoutRanges()
{
    QFETCH(bool, stop);
    const qint64 size = 3 * MiB + 77;
    serve(size);
    m_shape = [&, first = true](const ScriptedRequest &r, ScriptedResponse &response) mutable {
        response = ScriptedResponse();
        response.body = contentOf("d.bin");
        response.header("ETag", "\"d\"");
        if (r.header("Range") != "bytes=0-1" && first) {
            (stop ? response.holdAfterBytes : response.dropAfterBytes) = size / 4;
            first = false;
        }
    };
    {
        HostCall run(m_root.data(), "zt_apply_startDownload", batch({"d.bin"}, m_target->path()));
        QTRY_COMPARE_WITH_TIMEOUT(bytesIn(chunkFolder("d")), size / 4, 10000);
        if (stop)
            Q_EMIT run.reply()->stop();
        run.wait();
        QCOMPARE(run.errorCode(), int(stop ? Zephyrtide::Error::Stopped : Zephyrtide::Error::GeneralFailure));
    }
    const int before = m_server->requestCount();
    HostCall run(m_root.data(), "zt_apply_startDownload", batch({"d.bin"}, m_target->path()));
    run.wait(20000);
    QVERIFY2(run.succeeded(), qPrintable(QString::number(run.errorCode())));
    QCOMPARE(sha256OfFile(m_target->filePath("d.bin")), digestOf("d.bin"));
    QCOMPARE(m_server->requestCount() - before, 2); // the probe and one chunk
    QVERIFY(m_server->requests().last().header("Range").startsWith("bytes=0-"));
}

void tst_DownloadLifeCycle::sameContentTwice_data()
{
    QTest::addColumn<QString>("holder"); // of the content's folder when the second batch starts
    QTest::addColumn<int>("code");
    QTest::newRow("a running batch of this process") << "batch" << int(Zephyrtide::Error::AlreadyRunning);
    QTest::newRow("another process") << "process" << int(Zephyrtide::Error::AlreadyRunning);
    QTest::newRow("a process that died holding it") << "dead" << 0;
}

// One writer per content folder: a second batch of the same content fails at
// once and writes nothing (it gives up the name it reserved beside the user's
// same.bin), while a lock whose holder is gone holds nothing.
void tst_DownloadLifeCycle::sameContentTwice()
{
    QFETCH(QString, holder);
    QFETCH(int, code);
    serve(4 * MiB + 77);
    m_shape = [](const ScriptedRequest &r, ScriptedResponse &response) { response.hold = r.header("Range") != "bytes=0-1"; };
    QScopedPointer<HostCall> first;
    QProcess other;
    if (holder == "batch") {
        first.reset(new HostCall(m_root.data(), "zt_apply_startDownload", batch({"same.bin"}, m_target->filePath("a"))));
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 10000);
    } else {
        other.start(QCoreApplication::applicationFilePath(),
                    {"--hold-lock", DownloadSingleFile::lockPath(chunkFolder("same.bin"))});
        QVERIFY(other.waitForReadyRead(10000));
        QCOMPARE(other.readLine(), QByteArray("locked\n"));
        if (holder == "dead") {
            other.kill();
            QVERIFY(other.waitForFinished(10000));
        }
    }
    m_shape = nullptr;
    QDir().mkpath(m_target->filePath("b"));
    QFile mine(m_target->filePath("b/same.bin"));
    QVERIFY(mine.open(QIODevice::WriteOnly) && mine.write("mine") == 4);
    mine.close();
    HostCall second(m_root.data(), "zt_apply_startDownload", batch({"same.bin"}, m_target->filePath("b")));
    second.wait(20000);
    QCOMPARE(second.finishedCount(), 1);
    QCOMPARE(second.errorCode(), code);
    const QStringList left = code != 0 ? QStringList{"same.bin"} : QStringList{"same(1).bin", "same.bin"};
    QCOMPARE(QDir(m_target->filePath("b")).entryList(QDir::Files | QDir::Hidden, QDir::Name), left);
    QCOMPARE(QFileInfo(mine.fileName()).size(), 4);
    if (code == 0)
        QCOMPARE(sha256OfFile(m_target->filePath("b/same(1).bin")), digestOf("same.bin"));
    if (first) {
        m_server->release();
        QVERIFY(first->wait(20000).value("status") == "success");
        QCOMPARE(sha256OfFile(m_target->filePath("a/same.bin")), digestOf("same.bin"));
    }
    other.kill();
    other.waitForFinished(10000);
}

void tst_DownloadLifeCycle::hostTimeOut_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<int>("at"); // the request during which the host gives up
    QTest::newRow("the only file's probe") << QStringList{"a.bin"} << 1;
    QTest::newRow("the second file's probe") << QStringList{"a.bin", "b.bin"} << 2;
    QTest::newRow("four chunks running") << QStringList{"a.bin"} << 5; // the probe, then chunks 1 to 4
}

// The host finishes the reply with its time-out code while the plugin waits in
// the call, or while transfers run: no crash, and no request stays in flight.
void tst_DownloadLifeCycle::hostTimeOut()
{
    QFETCH(QStringList, files);
    QFETCH(int, at);
    serve(3 * MiB + 77);
    Zephyrtide::Reply *hostReply = nullptr;
    int asked = -1; // requests made when the host gave up
    m_shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
        if (m_server->requestCount() == at) {
            QMetaObject::invokeMethod(this, [&] {
                asked = m_server->requestCount();
                GlobalManager::instance()->finish(hostReply, "fail", {}, Zephyrtide::Error::Timeout);
            }, Qt::QueuedConnection);
        }
        response.hold = m_server->requestCount() == at || r.header("Range") != "bytes=0-1"; // chunks wait
    };
    QElapsedTimer clock;
    clock.start();
    HostCall call(m_root.data(), "zt_apply_startDownload", batch(files, m_target->path()),
                  [&](Zephyrtide::Reply *reply) { hostReply = reply; });
    // A probe the host no longer waits for is given up, not left to its own
    // 30 s transfer time-out.
    QVERIFY2(clock.elapsed() < 15000, qPrintable(QString::number(clock.elapsed())));
    QTRY_VERIFY_WITH_TIMEOUT(asked >= 0, 10000);
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), int(Zephyrtide::Error::Timeout));
    QTRY_COMPARE_WITH_TIMEOUT(m_server->openRequests(), 0, 10000);
    QVERIFY(m_server->waitUntilQuiet());
    QCOMPARE(m_server->requestCount(), asked);
}

void tst_DownloadLifeCycle::batchEndsOnce_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<qint64>("size"); // of each file
    QTest::addColumn<qint64>("chunkSize");
    QTest::addColumn<QString>("ending"); // what befalls the batch once a chunk has come, chunk 2 held
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("chunksKept");
    const qint64 size = 4 * MiB + 77;
    QTest::newRow("all arrive") << 2 << size << MiB << "" << 0 << false;
    QTest::newRow("three empty files") << 3 << qint64(0) << MiB << "" << 0 << false;
    QTest::newRow("stopAll") << 1 << size << MiB << "stopAll" << 20716 << true;
    QTest::newRow("stopAll twice") << 1 << size << MiB << "stopAll stopAll" << 20716 << true;
    QTest::newRow("abortAll keeps the chunks") << 1 << size << MiB << "abortAll" << 20716 << true;
    QTest::newRow("abort of the task deletes them") << 1 << size << MiB << "abort stopAll" << 20717 << false;
    QTest::newRow("stop of the task") << 1 << size << MiB << "stop" << 20716 << true;
    QTest::newRow("404 for chunk 2") << 1 << size << MiB << "404" << 20630 << true;
    QTest::newRow("chunks 1 and 2 cannot be opened") << 1 << size << MiB << "folders 1 2" << 20699 << true;
    QTest::newRow("chunks 6 and 7 of 300 cannot be opened")
        << 1 << qint64(300 * 16 * 1024 - 5) << 16 * 1024LL << "folders 6 7" << 20699 << true;
}

// However a batch ends, Downloader::finished comes once, and from then on no
// chunk file changes. Cancels come from a progress handler, as a host's do.
void tst_DownloadLifeCycle::batchEndsOnce()
{
    QFETCH(int, files);
    QFETCH(qint64, size);
    QFETCH(qint64, chunkSize);
    QFETCH(QString, ending);
    QFETCH(int, code);
    QFETCH(bool, chunksKept);
    DownloadGlobal::instance()->setChunkSizeInBytes(chunkSize);
    serve(size);
    const QByteArray second = "bytes=" + QByteArray::number(chunkSize) + "-";
    const QStringList steps = ending.split(' ');
    const bool cancels = ending.contains("stop") || ending.contains("abort");
    m_shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
        if (r.header("Range").startsWith(second) && ending == "404")
            response = ScriptedResponse::json("{}", 404);
        response.hold = cancels && r.header("Range").startsWith(second);
    };
    Downloader downloader;
    QList<QSharedPointer<DownloadTask>> tasks;
    for (int i = 0; i < files; ++i) {
        tasks << QSharedPointer<DownloadTask>::create();
        const QString name = QStringLiteral("f%1").arg(i);
        QCOMPARE(tasks.last()->isValid(m_target->filePath(name), m_server->baseUrl() + "/download", name), 0);
        QVERIFY(downloader.addTask(tasks.last()));
    }
    for (const QString &number : steps.mid(1)) // chunk files that cannot be opened
        QVERIFY(steps.first() != "folders" || QDir().mkpath(chunkFolder("f0") + "/" + number));
    const QMap<QString, std::function<void()>> act{
        {"stopAll", [&] { Q_EMIT downloader.stopAll(); }},
        {"abortAll", [&] { Q_EMIT downloader.abortAll(); }},
        {"stop", [&] { Q_EMIT downloader.stop(tasks.first().data()); }},
        {"abort", [&] { Q_EMIT downloader.abort(tasks.first().data()); }}};
    connect(&downloader, &Downloader::progress, this, [&, acted = false](qlonglong done) mutable {
        for (const QString &step : steps) {
            if (!acted && done >= chunkSize && act.contains(step))
                act.value(step)();
        }
        acted = acted || done >= chunkSize;
    });
    QSignalSpy finished(&downloader, &Downloader::finished);
    qint64 keptAtEnd = -1;
    connect(&downloader, &Downloader::finished, this, [&] {
        if (keptAtEnd < 0)
            keptAtEnd = bytesIn(chunkFolder("f0"));
    });
    QCOMPARE(downloader.start(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(finished.count() > 0, 20000);
    m_server->release();
    QVERIFY(m_server->waitUntilQuiet());
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finished.first().first().value<ZTErrorCode>(), ZTErrorCode(code));
    QCOMPARE(QDir(chunkFolder("f0")).exists(), chunksKept);
    QCOMPARE(bytesIn(chunkFolder("f0")), keptAtEnd);
    for (int i = 0; code == 0 && i < files; ++i)
        QCOMPARE(sha256OfFile(m_target->filePath(QStringLiteral("f%1").arg(i))), digestOf("f" + QByteArray::number(i)));
}

void tst_DownloadLifeCycle::batchLeavesNoLitter_data()
{
    QTest::addColumn<QString>("ending");
    QTest::addColumn<int>("code");
    QTest::newRow("arrives, as a(1).bin") << "" << 0;
    QTest::newRow("stopped by the host") << "stop" << 20716;
    QTest::newRow("aborted by the host") << "abort" << 20716;
    QTest::newRow("the merged file is not the server's") << "digest" << 20630;
}

// The user's a.bin is in the folder, so the batch reserves a(1).bin for the
// download. A batch that brings no file gives that name up again and leaves the
// user's file as it was (a refusal for a content held elsewhere: in
// sameContentTwice); and since the host configured its own temporary folder,
// none is made in the user's documents.
void tst_DownloadLifeCycle::batchLeavesNoLitter()
{
    QFETCH(QString, ending);
    QFETCH(int, code);
    serve(3 * MiB + 77);
    QFile mine(m_target->filePath("a.bin"));
    QVERIFY(mine.open(QIODevice::WriteOnly) && mine.write("mine") == 4);
    mine.close();
    const bool cancels = ending == "stop" || ending == "abort";
    m_shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
        for (auto &header : response.headers) {
            if (ending == "digest" && header.first == "Repr-Digest")
                header.second = "sha-256=:" + QCryptographicHash::hash("other", QCryptographicHash::Sha256).toBase64() + ":";
        }
        response.hold = cancels && r.header("Range") != "bytes=0-1";
    };
    HostCall call(m_root.data(), "zt_apply_startDownload", batch({"a.bin"}, m_target->path()));
    if (cancels) {
        QTRY_VERIFY_WITH_TIMEOUT(m_server->heldCount() > 0, 10000);
        ending == "stop" ? Q_EMIT call.reply()->stop() : Q_EMIT call.reply()->abort();
    }
    call.wait();
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), code);
    const QStringList left = code == 0 ? QStringList{"a(1).bin", "a.bin"} : QStringList{"a.bin"};
    QCOMPARE(QDir(m_target->path()).entryList(QDir::Files | QDir::Hidden, QDir::Name), left);
    QCOMPARE(sha256OfFile(mine.fileName()), QCryptographicHash::hash("mine", QCryptographicHash::Sha256));
    if (code == 0)
        QCOMPARE(sha256OfFile(m_target->filePath("a(1).bin")), digestOf("a.bin"));
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    QVERIFY2(documents.startsWith(m_environment.homePath()), qPrintable(documents));
    QVERIFY(!QFileInfo::exists(documents + "/Zephyrtide"));
}

void tst_DownloadLifeCycle::probesOfABatch_data()
{
    QTest::addColumn<int>("files"); // f1.bin to fN.bin; the user's f1.bin is there already
    QTest::addColumn<Zephyrtide::Manager::NetLimit>("limit");
    QTest::addColumn<int>("refused"); // the file whose probe is answered 403; 0 for none
    QTest::addColumn<int>("unmade");  // the file whose folder cannot be made; 0 for none
    QTest::addColumn<int>("probes");  // that reach the server
    QTest::addColumn<int>("atOnce");  // the most in flight
    QTest::addColumn<int>("code");
    const auto normal = Zephyrtide::Manager::Normal;
    QTest::newRow("12 files, four at a time") << 12 << normal << 0 << 0 << 12 << 4 << 0;
    QTest::newRow("12 files, two at a time") << 12 << Zephyrtide::Manager::Low << 0 << 0 << 12 << 2 << 0;
    QTest::newRow("one file") << 1 << normal << 0 << 0 << 1 << 1 << 0;
    QTest::newRow("file 3 refused: 20695 for all") << 12 << normal << 3 << 0 << 12 << 4 << 20695;
    // The first file that cannot run decides, as when probed one by one; none is sent after a folder fails.
    QTest::newRow("file 3 refused, file 7's folder: 20695") << 12 << normal << 3 << 7 << 6 << 4 << 20695;
    QTest::newRow("file 3's folder, file 2 refused: 20695") << 12 << normal << 2 << 3 << 2 << 2 << 20695;
    QTest::newRow("file 3's folder, file 7 refused: 20699") << 12 << normal << 7 << 3 << 2 << 2 << 20699;
}

// The probes of a batch go out several at a time, never more than the
// download queue's limit. Each is held until as many as may be in flight have
// come (or the last one has): probes sent one after the other would wait for
// an answer that never comes. A batch that fails leaves the user's folder as
// it was; one that arrives brings every file, f1.bin under a free name.
void tst_DownloadLifeCycle::probesOfABatch()
{
    QFETCH(int, files);
    QFETCH(Zephyrtide::Manager::NetLimit, limit);
    QFETCH(int, refused);
    QFETCH(int, unmade);
    QFETCH(int, probes);
    QFETCH(int, atOnce);
    QFETCH(int, code);
    NetworkManager &queue = *DownloadGlobal::instance()->networkManager();
    queue.setNetLimit(limit);
    const auto restore = qScopeGuard([&] { queue.setNetLimit(Zephyrtide::Manager::High); });
    serve(10 * 1024 + 3);
    QFile mine(m_target->filePath("f1.bin"));
    QVERIFY(mine.open(QIODevice::WriteOnly) && mine.write("mine") == 4);
    mine.close();
    QFile blocker(m_target->filePath("blocker")); // where a folder should be
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    int seen = 0;
    int mostOpen = 0;
    m_shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
        if (r.header("Range") != "bytes=0-1")
            return; // a chunk
        mostOpen = qMax(mostOpen, m_server->openRequests());
        if (refused > 0 && r.body.contains("\"f" + QByteArray::number(refused) + ".bin\""))
            response = ScriptedResponse::json("{}", 403);
        response.hold = true;
        if (++seen == probes || m_server->heldCount() + 1 == queue.netLimit() + 1)
            QMetaObject::invokeMethod(m_server.data(), [this] { m_server->release(); }, Qt::QueuedConnection);
    };
    QVariantList list;
    QStringList expected{"blocker", "f1.bin"};
    for (int i = 1; i <= files; ++i) {
        const QString name = QStringLiteral("f%1.bin").arg(i);
        const QString folder = i == unmade ? blocker.fileName() : m_target->path();
        list << QVariantMap{{"filename", name}, {"path", folder + "/" + name}};
        expected << (i == 1 ? "f1(1).bin" : name);
    }
    HostCall call(m_root.data(), "zt_apply_startDownload", {{"files", list}});
    call.wait();
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), code);
    QCOMPARE(seen, probes);
    QCOMPARE(mostOpen, atOnce);
    QCOMPARE(sha256OfFile(mine.fileName()), QCryptographicHash::hash("mine", QCryptographicHash::Sha256));
    if (code != 0)
        expected = QStringList{"blocker", "f1.bin"};
    expected.sort();
    QCOMPARE(QDir(m_target->path()).entryList(QDir::Files | QDir::Hidden, QDir::Name), expected);
    QStringList paths;
    for (const QVariant &entry : call.result().value("result").toList())
        paths << entry.toMap().value("path").toString();
    QCOMPARE(paths.size(), code == 0 ? files : 0);
    for (int i = 1; code == 0 && i <= files; ++i) {
        const QString path = m_target->filePath(i == 1 ? "f1(1).bin" : QStringLiteral("f%1.bin").arg(i));
        QCOMPARE(paths.count(path), 1);
        QCOMPARE(sha256OfFile(path), digestOf("f" + QByteArray::number(i) + ".bin"));
    }
}

void tst_DownloadLifeCycle::mergeStoppedThenResumed_data()
{
    QTest::addColumn<bool>("digest");     // the server states the file's SHA-256
    QTest::addColumn<QString>("between"); // what befalls the first run's leftovers before the next
    QTest::newRow("stopped half way") << true << "";
    QTest::newRow("stopped half way, no digest") << false << "";
    QTest::newRow("aborted half way: nothing stays") << true << "abort";
    QTest::newRow("a chunk not merged yet vanished: fetched again") << true << "vanish";
    QTest::newRow("junk appended to the merged part: cut off") << false << "junk";
    QTest::newRow("merged part cut short: the chunks it lost fetched again") << false << "cut";
}

// A stop from a progress report of the merge, once half the file is in it,
// leaves the merged part and the chunks not yet in it; the next run goes on
// from there, fetching only what is no longer on disk, and ends with the
// server's bytes. At every report of the merge, the content folder and the
// merged file hold at most the file's size and two chunks.
void tst_DownloadLifeCycle::mergeStoppedThenResumed()
{
    QFETCH(bool, digest);
    QFETCH(QString, between);
    const qint64 chunk = 64 * 1024;
    const qint64 size = 64 * chunk + 77; // 65 chunks
    const int chunks = 65;
    DownloadGlobal::instance()->setChunkSizeInBytes(chunk);
    serve(size);
    m_shape = [digest](const ScriptedRequest &, ScriptedResponse &response) {
        for (int i = response.headers.size() - 1; !digest && i >= 0; --i) {
            if (response.headers.at(i).first == "Repr-Digest")
                response.headers.removeAt(i);
        }
    };
    const QString destination = m_target->filePath("m.bin");
    const QString merged = destination + ".ztmerge";
    const QString folder = chunkFolder("m.bin");
    const auto held = [&] {
        qint64 sum = QFileInfo(merged).size();
        for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden))
            sum += file.size();
        return sum;
    };
    qint64 peak = 0;
    const auto run = [&](const QString &ending) {
        Downloader downloader;
        auto task = QSharedPointer<DownloadTask>::create();
        if (task->isValid(destination, m_server->baseUrl() + "/download", "m.bin") != 0 || !downloader.addTask(task))
            return -1;
        connect(&downloader, &Downloader::downloadProgress, this, [&, ended = false]() mutable {
            if (!QFileInfo::exists(merged))
                return; // not merging yet
            peak = qMax(peak, held());
            if (ended || ending.isEmpty() || QFileInfo(merged).size() < size / 2)
                return;
            ended = true;
            ending == "abort" ? Q_EMIT downloader.abort(task.data()) : Q_EMIT downloader.stopAll();
        });
        int code = -1;
        connect(&downloader, &Downloader::finished, this, [&](ZTErrorCode status) { code = status; });
        if (downloader.start() != 0 || !QTest::qWaitFor([&] { return code >= 0; }, 30000))
            return -1;
        return code;
    };

    QCOMPARE(run(between == "abort" ? "abort" : "stop"), between == "abort" ? 20717 : 20716);
    QVERIFY(!QFileInfo::exists(destination));
    QCOMPARE(QFileInfo::exists(merged), between != "abort");
    const qint64 mergedBytes = QFileInfo(merged).size();
    const int mergedChunks = int(mergedBytes / chunk);
    QVERIFY2(between == "abort" || (mergedBytes >= size / 2 && mergedBytes == mergedChunks * chunk),
             qPrintable(QString::number(mergedBytes)));
    int refetched = 0;
    QFile part(merged);
    if (between == "abort") {
        QVERIFY(!QDir(folder).exists());
        refetched = chunks;
    } else if (between == "vanish") {
        QVERIFY(QFile::remove(folder + "/" + QString::number(mergedChunks + 2)));
        refetched = 1;
    } else if (between == "junk") {
        QVERIFY(part.open(QIODevice::Append) && part.write(QByteArray(1000, '#')) == 1000);
        part.close();
    } else if (between == "cut") {
        QVERIFY(part.resize(10 * chunk + 5)); // in chunk 11, whose file went
        for (int i = 11; i <= mergedChunks; ++i)
            refetched += QFileInfo::exists(folder + "/" + QString::number(i)) ? 0 : 1;
        QVERIFY(refetched > 10);
    }
    QVERIFY(m_server->waitUntilQuiet());
    const int before = m_server->requestCount();
    QCOMPARE(run(QString()), 0);
    QCOMPARE(m_server->requestCount() - before - 1, refetched); // the probe, then the chunks fetched again
    QCOMPARE(sha256OfFile(destination), digestOf("m.bin"));
    QVERIFY(!QFileInfo::exists(merged));
    QVERIFY(!QDir(folder).exists());
    QVERIFY2(peak <= size + 2 * chunk, qPrintable(QStringLiteral("%1 bytes held, %2 in the file").arg(peak).arg(size)));
}

void tst_DownloadLifeCycle::onlyChunkKeptWhenPlacingFails_data()
{
    QTest::addColumn<bool>("digest"); // the server states the file's SHA-256
    QTest::newRow("with a digest") << true;
    QTest::newRow("without") << false;
}

// A file of one chunk is placed by renaming its chunk file, not by a copy. When
// the destination's name cannot be taken (a folder stands there by then), the
// batch fails with 20735 and the chunk file is back in its folder, whole: the
// next run places it without fetching it again.
void tst_DownloadLifeCycle::onlyChunkKeptWhenPlacingFails()
{
    QFETCH(bool, digest);
    const qint64 size = 100 * 1024; // one chunk of the 1 MiB ones
    serve(size);
    const QString destination = m_target->filePath("one.bin");
    bool blocked = false;
    m_shape = [&](const ScriptedRequest &request, ScriptedResponse &response) {
        for (int i = response.headers.size() - 1; !digest && i >= 0; --i) {
            if (response.headers.at(i).first == "Repr-Digest")
                response.headers.removeAt(i);
        }
        if (request.header("Range") == "bytes=0-1" || blocked)
            return;
        blocked = true; // the chunk's request: the name is taken meanwhile
        QFile::remove(destination);
        QDir().mkpath(destination + "/inside");
    };
    QCOMPARE(downloadOne(destination, "one.bin"), 20735);
    const QString chunk = chunkFolder("one.bin") + "/1";
    QCOMPARE(QFileInfo(chunk).size(), size);
    QVERIFY(!QFileInfo::exists(destination + ".ztmerge"));

    QVERIFY(QDir(destination).removeRecursively());
    QVERIFY(m_server->waitUntilQuiet());
    const int before = m_server->requestCount();
    QCOMPARE(downloadOne(destination, "one.bin"), 0);
    QCOMPARE(m_server->requestCount() - before, 1); // the probe alone
    QCOMPARE(sha256OfFile(destination), digestOf("one.bin"));
    QVERIFY(!QDir(chunkFolder("one.bin")).exists());
}

// A small file of one chunk writes its plan record only when its run ends
// short of the file; a stop does, so the next run goes on from the bytes held.
void tst_DownloadLifeCycle::smallFileStoppedResumes()
{
    const qint64 size = 600 * 1024, sent = 100 * 1024;
    serve(size);
    bool held = false;
    m_shape = [&](const ScriptedRequest &request, ScriptedResponse &response) {
        if (request.header("Range") != "bytes=0-1" && !held) {
            held = true;
            response.holdAfterBytes = sent;
        }
    };
    const QString destination = m_target->filePath("small.bin");
    const QString folder = chunkFolder("small.bin");
    // Stopped once the bytes sent before the hold are in the chunk file.
    QCOMPARE(downloadOne(destination, "small.bin", [&](Downloader &downloader) {
                 if (QTest::qWaitFor([&] { return QFileInfo(folder + "/1").size() == sent; }, 10000))
                     Q_EMIT downloader.stopAll();
             }),
             20716);
    QVERIFY(QFileInfo::exists(folder + "/.plan"));
    const qint64 kept = QFileInfo(folder + "/1").size();
    QCOMPARE(kept, sent);
    m_server->release();
    QVERIFY(m_server->waitUntilQuiet());
    const int before = m_server->requestCount();
    QCOMPARE(downloadOne(destination, "small.bin"), 0);
    const QList<ScriptedRequest> requests = m_server->requests().mid(before);
    QCOMPARE(requests.size(), 2); // the probe, then the rest of the chunk
    QVERIFY2(requests.last().header("Range").startsWith("bytes=" + QByteArray::number(kept) + "-"),
             requests.last().header("Range").constData());
    QCOMPARE(sha256OfFile(destination), digestOf("small.bin"));
}

void tst_DownloadLifeCycle::roomForWhatIsLeft_data()
{
    QTest::addColumn<int>("chunkFiles"); // of the file's eight chunks, the first ones on disk
    QTest::addColumn<int>("merged");     // of those, the ones a stopped merge holds instead
    QTest::addColumn<int>("code");
    QTest::newRow("nothing on disk: refused, saying what it needs") << 0 << 0 << 20721;
    QTest::newRow("seven chunks on disk: started") << 7 << 0 << 0;
    QTest::newRow("five chunks merged, two on disk: started") << 7 << 5 << 0;
}

// A file a tenth larger than the free space fits when most of it is on disk
// already: the check asks for what is left and two chunks for the merge. The
// chunk files and the merged part are sparse, so they take no room themselves.
void tst_DownloadLifeCycle::roomForWhatIsLeft()
{
    QFETCH(int, chunkFiles);
    QFETCH(int, merged);
    QFETCH(int, code);
    const qint64 free = QStorageInfo(m_temporary->path()).bytesFree();
    QVERIFY(QStorageInfo(m_target->path()).rootPath() == QStorageInfo(m_temporary->path()).rootPath());
    const qint64 chunk = (free + free / 10) / 8 + 1;
    m_size = 8 * chunk;
    m_server->setHandler([&](const ScriptedRequest &r) {
        ScriptedResponse response;
        response.status = 206;
        response.body = "ab";
        response.header("Content-Range", "bytes 0-1/" + QByteArray::number(m_size)).header("ETag", "\"s.bin\"");
        response.hold = r.header("Range") != "bytes=0-1"; // no chunk comes
        return response;
    });
    const QString folder = chunkFolder("s.bin");
    const QString destination = m_target->filePath("s.bin");
    QVERIFY(DownloadSingleFile::recordPlan(folder, chunk, QByteArray()));
    for (int i = merged + 1; i <= chunkFiles; ++i) {
        QFile file(folder + "/" + QString::number(i));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(chunk + 1));
    }
    if (merged > 0) {
        QFile part(destination + ".ztmerge");
        QVERIFY(part.open(QIODevice::WriteOnly) && part.resize(merged * chunk));
        QFile record(folder + "/.merge");
        const QJsonObject fields{{"path", part.fileName()}, {"chunkSize", chunk}, {"sha256", ""}, {"mergedBytes", merged * chunk}};
        QVERIFY(record.open(QIODevice::WriteOnly) && record.write(QJsonDocument(fields).toJson()) > 0);
    }
    if (code != 0) {
        const QString needs = QString::number(m_size + 2 * chunk);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^size error .* needs " + needs + " bytes on .* where \\d+ are free$"));
    }
    Downloader downloader;
    auto task = QSharedPointer<DownloadTask>::create();
    QCOMPARE(task->isValid(destination, m_server->baseUrl() + "/download", "s.bin"), 0);
    QVERIFY(downloader.addTask(task));
    const int started = downloader.start();
    Q_EMIT downloader.stopAll(); // before the merge of sparse chunks could begin
    QCOMPARE(started, code);
}

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
        std::getchar(); // until killed
        return 0;
    }
    tst_DownloadLifeCycle test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_downloadlifecycle.moc"
