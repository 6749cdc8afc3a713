#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "core/globalmanager.h"
#include "plugin/ztserver.h"
#include "randomfile.h"
#include "testenvironment.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QtTest>

#include <sys/resource.h>

// Uploads through the plugin, as the host drives it, to the reference file
// service on loopback; the stored files must be byte-identical to the sources.
class tst_UploadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void sizesAroundTheChunkSize();
    void manyPartsUnderFileLimit();
    void interruptedThenResumed_data();
    void interruptedThenResumed();
    void serviceKilledThenResume();

private:
    // The resume cases: 32 parts, four of them in flight at a cut.
    static constexpr qint64 LargeChunkSize = 256 * 1024;
    static constexpr qint64 ResumeSize = 32 * LargeChunkSize;

    QString makeFile(const QString &name, qint64 size);
    // Starts the service over the store, in parts of chunkSize, and points the plugin at it.
    bool startService(qint64 chunkSize);
    QVariantMap filesParam(const QStringList &paths) const;
    // Starts an upload of path and stops (or aborts) it once bytes of it went out.
    void interruptPartWay(const QString &path, qint64 bytes, bool abort = false);
    QSet<QString> uploadIdsInLog();
    // Waits until the service logged that it stored name: its log arrives
    // through the event loop, every part line of the file before that one.
    bool waitForStored(const QString &name);

    TestEnvironment m_environment;
    QScopedPointer<QTemporaryDir> m_sources;
    QScopedPointer<QTemporaryDir> m_store;
    QScopedPointer<FileServiceProcess> m_service;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
};

void tst_UploadEndToEnd::init()
{
    m_sources.reset(new QTemporaryDir);
    m_store.reset(new QTemporaryDir);
    m_host.reset(new Zephyrtide::Manager);
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                      Q_ARG(Zephyrtide::Manager *, m_host.data())));
    UploadGlobal::instance()->removeAll();
}

void tst_UploadEndToEnd::cleanup()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_root.reset();
    m_host.reset();
    m_service.reset();
}

bool tst_UploadEndToEnd::startService(qint64 chunkSize)
{
    m_service.reset(new FileServiceProcess(m_store->path(), {"--chunk-size", QString::number(chunkSize)}));
    if (!m_service->start())
        return false;
    HostCall call(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}});
    return call.succeeded();
}

QString tst_UploadEndToEnd::makeFile(const QString &name, qint64 size)
{
    const QString path = m_sources->filePath(name);
    return writeRandomFile(path, size, quint32(size)) ? path : QString();
}

QVariantMap tst_UploadEndToEnd::filesParam(const QStringList &paths) const
{
    QVariantList files;
    for (const QString &path : paths)
        files.append(QVariantMap{{"filePath", path}, {"userID", "tester"}, {"private", true}});
    return {{"files", files}};
}

// The host's side acts on the progress report that passes bytes, on the next
// turn of the event loop: the cut does not depend on how fast the parts go.
void tst_UploadEndToEnd::interruptPartWay(const QString &path, qint64 bytes, bool abort)
{
    HostCall run(m_root.data(), "zt_apply_startUpload", filesParam({path}), [&](Zephyrtide::Reply *reply) {
        connect(reply, &Zephyrtide::Reply::uploadProgress, reply, [reply, bytes, abort](qint64 sent) {
            if (sent >= bytes)
                Q_EMIT(abort ? reply->abort() : reply->stop());
        }, Qt::QueuedConnection);
    });
    run.wait(60000);
    QCOMPARE(run.error(), abort ? Zephyrtide::Error::Aborted : Zephyrtide::Error::Stopped);
    // A stopped file keeps its session on this side; an aborted one leaves nothing to resume from.
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), abort ? 0 : 1);
}

QSet<QString> tst_UploadEndToEnd::uploadIdsInLog()
{
    QSet<QString> ids;
    static const QRegularExpression line(QStringLiteral("part \\d+ of (\\w+):"));
    auto it = line.globalMatch(QString::fromUtf8(m_service->log()));
    while (it.hasNext())
        ids.insert(it.next().captured(1));
    return ids;
}

bool tst_UploadEndToEnd::waitForStored(const QString &name)
{
    return QTest::qWaitFor([&] { return m_service->log().contains("stored " + name.toUtf8() + " ("); }, 10000);
}

void tst_UploadEndToEnd::sizesAroundTheChunkSize()
{
    const qint64 c = 64 * 1024;
    QVERIFY(startService(c));
    QStringList paths;
    for (qint64 size : {qint64(0), qint64(1), c - 1, c, c + 1, 2 * c + 1, 32 * c + 3})
        paths << makeFile(QStringLiteral("size-%1.bin").arg(size), size);

    HostCall call(m_root.data(), "zt_apply_startUpload", filesParam(paths));
    call.wait(60000);
    QCOMPARE(call.error(), Zephyrtide::Error::NoError);
    const QVariantList results = call.result().value("result").toList();
    QCOMPARE(results.size(), paths.size());
    for (const QVariant &entry : results) {
        const QVariantMap map = entry.toMap();
        QCOMPARE(map.keys(), QStringList({"bucket", "category", "cdnURL", "contentType", "dfsID",
                                          "filePath", "preview", "private"}));
        QCOMPARE(map.value("private").toBool(), true);
        QVERIFY(map.value("cdnURL").toString().startsWith(m_service->baseUrl() + "/download?fileName="));
    }
    qint64 total = 0;
    for (const QString &path : paths) {
        const QString name = QFileInfo(path).fileName();
        QCOMPARE(sha256OfFile(m_store->filePath(name)), sha256OfFile(path));
        QVERIFY(waitForStored(name));
        total += QFileInfo(path).size();
    }
    QCOMPARE(m_service->partBytesReceived(), total);
    QCOMPARE(call.progress.last(), qMakePair(total, total));
}

namespace {
// Lowers this process's limit of open files while it lives.
struct FileLimit
{
    explicit FileLimit(rlim_t files)
    {
        if (getrlimit(RLIMIT_NOFILE, &saved) != 0)
            return;
        rlimit limit = saved;
        limit.rlim_cur = qMin(files, saved.rlim_cur);
        lowered = setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }
    ~FileLimit()
    {
        if (lowered)
            setrlimit(RLIMIT_NOFILE, &saved);
    }
    rlimit saved{};
    bool lowered = false;
};
} // namespace

// A file of 200 parts under a limit of 96 open files: each part's file must
// be closed when its transfer ends, not when the whole job does.
void tst_UploadEndToEnd::manyPartsUnderFileLimit()
{
    const qint64 part = 4096;
    QVERIFY(startService(part)); // before the limit: the service has its own
    const QString path = makeFile("many.bin", 200 * part - 123);
    const FileLimit limit(96);
    QVERIFY(limit.lowered);
    HostCall call(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    call.wait(60000);
    QCOMPARE(call.error(), Zephyrtide::Error::NoError);
    QCOMPARE(sha256OfFile(m_store->filePath("many.bin")), sha256OfFile(path));
}

void tst_UploadEndToEnd::interruptedThenResumed_data()
{
    QTest::addColumn<QStringList>("interruptions");
    QTest::newRow("stop, resume") << QStringList{"stop"};
    QTest::newRow("stop, resume, stop again, resume") << QStringList{"stop", "stop"};
    QTest::newRow("abort, start again") << QStringList{"abort"};
}

// Each run is cut once another eighth of the file went out; the last one runs
// to the end. The service keeps the session throughout, also for an aborted
// run, and a part resumes where both sides agree it got to: only parts in
// flight at a cut (four at most) can go again, and no byte may be skipped.
void tst_UploadEndToEnd::interruptedThenResumed()
{
    QFETCH(QStringList, interruptions);
    const qint64 size = ResumeSize;
    QVERIFY(startService(LargeChunkSize));
    const QString path = makeFile("interrupted.bin", size);
    for (int i = 0; i < interruptions.size() && !QTest::currentTestFailed(); ++i)
        interruptPartWay(path, size / 8 * (i + 1), interruptions.at(i) == QLatin1String("abort"));
    if (QTest::currentTestFailed())
        return;
    // The service's log arrives through the event loop.
    QTRY_VERIFY_WITH_TIMEOUT(m_service->partBytesReceived() > 0, 10000);
    QVERIFY(m_service->partBytesReceived() < size);

    HostCall last(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    last.wait(60000);
    QCOMPARE(last.error(), Zephyrtide::Error::NoError);
    QCOMPARE(sha256OfFile(m_store->filePath("interrupted.bin")), sha256OfFile(path));
    QVERIFY(waitForStored("interrupted.bin"));
    QCOMPARE(uploadIdsInLog().size(), 1);
    const qint64 resent = m_service->partBytesReceived() - size;
    QVERIFY2(resent >= 0 && resent <= interruptions.size() * 4 * LargeChunkSize, qPrintable(QString::number(resent)));
}

void tst_UploadEndToEnd::serviceKilledThenResume()
{
    const qint64 size = ResumeSize;
    QVERIFY(startService(LargeChunkSize));
    const QString path = makeFile("killed.bin", size);
    {
        // Killed as soon as a part is stored, so that there is something to resume from.
        m_service->onLog([this](const QByteArray &log) {
            if (log.contains("part "))
                m_service->kill();
        });
        HostCall first(m_root.data(), "zt_apply_startUpload", filesParam({path}));
        first.wait();
        QCOMPARE(first.finishedCount(), 1);
        QVERIFY(!first.succeeded());
    }
    // The stored file is never a half-written one.
    QVERIFY(!QFileInfo::exists(m_store->filePath("killed.bin")));

    QVERIFY(startService(LargeChunkSize)); // same folder, another port
    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(60000);
    QCOMPARE(second.error(), Zephyrtide::Error::NoError);
    QCOMPARE(sha256OfFile(m_store->filePath("killed.bin")), sha256OfFile(path));
    QVERIFY(m_service->partBytesReceived() < size); // only what the first run did not leave
}

QTEST_MAIN(tst_UploadEndToEnd)
#include "tst_uploadendtoend.moc"
