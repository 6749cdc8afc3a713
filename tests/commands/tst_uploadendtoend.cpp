#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "plugin/globalmanager.h"
#include "plugin/ztserver.h"
#include "testenvironment.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

// Uploads through the plugin, as the host drives it, to the reference file
// service on loopback; the stored files must be byte-identical to the sources.
class tst_UploadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void sizesAroundTheChunkSize();
    void stopThenResume();
    void serviceKilledThenResume();
    void abortStartsAfresh();

private:
    static constexpr qint64 ChunkSize = 64 * 1024;
    // The resume cases move 24 MiB: parts of 1 MiB keep their count (and the
    // cache writes after every part) modest, also in sanitizer builds.
    static constexpr qint64 LargeChunkSize = 1024 * 1024;

    QString makeFile(const QString &name, qint64 size);
    bool startService(qint64 chunkSize = ChunkSize);
    void useLargeParts();
    void setAddress();
    QVariantMap filesParam(const QStringList &paths) const;
    // Waits until the running upload has sent at least bytes.
    bool waitForProgress(HostCall &call, qint64 bytes);
    QSet<QString> uploadIdsInLog();

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
    QVERIFY(startService());
    m_host.reset(new Zephyrtide::Manager);
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                      Q_ARG(Zephyrtide::Manager *, m_host.data())));
    setAddress();
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
    m_service.reset(new FileServiceProcess(m_store->path(),
                                           {"--chunk-size", QString::number(chunkSize)}));
    return m_service->start();
}

void tst_UploadEndToEnd::useLargeParts()
{
    QVERIFY(startService(LargeChunkSize));
    setAddress();
}

void tst_UploadEndToEnd::setAddress()
{
    HostCall call(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}});
    QVERIFY(call.succeeded());
}

QString tst_UploadEndToEnd::makeFile(const QString &name, qint64 size)
{
    const QString path = m_sources->filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return QString();
    QRandomGenerator generator(quint32(size) ^ 0x5eed);
    QByteArray block(64 * 1024, Qt::Uninitialized);
    for (qint64 left = size; left > 0; left -= block.size()) {
        generator.fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
        file.write(block.constData(), qMin<qint64>(left, block.size()));
    }
    return path;
}

QVariantMap tst_UploadEndToEnd::filesParam(const QStringList &paths) const
{
    QVariantList files;
    for (const QString &path : paths)
        files.append(QVariantMap{{"filePath", path}, {"userID", "tester"}, {"private", true}});
    return {{"files", files}};
}

bool tst_UploadEndToEnd::waitForProgress(HostCall &call, qint64 bytes)
{
    return QTest::qWaitFor([&] { return !call.progress.isEmpty() && call.progress.last().first >= bytes; },
                           60000);
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

void tst_UploadEndToEnd::sizesAroundTheChunkSize()
{
    const qint64 c = ChunkSize;
    QStringList paths;
    for (qint64 size : {qint64(0), qint64(1), c - 1, c, c + 1, 2 * c + 1, qint64(5 * 1024 * 1024 + 3)})
        paths << makeFile(QStringLiteral("size-%1.bin").arg(size), size);

    HostCall call(m_root.data(), "zt_apply_startUpload", filesParam(paths));
    call.wait(120000);
    QVERIFY2(call.succeeded(), qPrintable(QString::number(call.errorCode())));
    const QVariantList results = call.result().value("result").toList();
    QCOMPARE(results.size(), paths.size());
    for (const QVariant &entry : results) {
        const QVariantMap map = entry.toMap();
        QCOMPARE(map.keys(), QStringList({"bucket", "category", "cdnURL", "contentType", "dfsID",
                                          "filePath", "preview", "private"}));
        QCOMPARE(map.value("private").toBool(), true);
        QVERIFY(map.value("cdnURL").toString().startsWith(m_service->baseUrl() + "/download?fileName="));
    }
    for (const QString &path : paths) {
        const QString stored = m_store->filePath(QFileInfo(path).fileName());
        QVERIFY2(QFileInfo::exists(stored), qPrintable(stored));
        QCOMPARE(sha256OfFile(stored), sha256OfFile(path));
    }
    qint64 total = 0;
    for (const QString &path : paths)
        total += QFileInfo(path).size();
    QCOMPARE(m_service->partBytesReceived(), total);
    QCOMPARE(call.progress.last(), qMakePair(total, total));
}

void tst_UploadEndToEnd::stopThenResume()
{
    const qint64 size = 24 * 1024 * 1024;
    useLargeParts();
    const QString path = makeFile("stopped.bin", size);
    {
        HostCall first(m_root.data(), "zt_apply_startUpload", filesParam({path}));
        QVERIFY(waitForProgress(first, size / 8));
        Q_EMIT first.reply()->stop();
        first.wait();
        QCOMPARE(first.errorCode(), int(Zephyrtide::Error::Stopped));
    }
    QTest::qWait(300); // let the service finish with the cut bodies
    const qint64 firstRun = m_service->partBytesReceived();
    QVERIFY(firstRun > 0 && firstRun < size);
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), 1);

    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(120000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    QCOMPARE(sha256OfFile(m_store->filePath("stopped.bin")), sha256OfFile(path));
    // One session throughout, and no byte travelled twice.
    QCOMPARE(uploadIdsInLog().size(), 1);
    QCOMPARE(m_service->partBytesReceived(), size);
}

void tst_UploadEndToEnd::serviceKilledThenResume()
{
    const qint64 size = 24 * 1024 * 1024;
    useLargeParts();
    const QString path = makeFile("killed.bin", size);
    {
        HostCall first(m_root.data(), "zt_apply_startUpload", filesParam({path}));
        // Killed once a part is stored, so that there is something to resume from.
        QTRY_COMPARE_WITH_TIMEOUT(uploadIdsInLog().size(), 1, 60000);
        m_service->kill();
        first.wait();
        QCOMPARE(first.finishedCount(), 1);
        QVERIFY(!first.succeeded());
    }
    // The stored file is never a half-written one.
    QVERIFY(!QFileInfo::exists(m_store->filePath("killed.bin")));

    QVERIFY(startService(LargeChunkSize)); // same folder, another port
    setAddress();
    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(120000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    QCOMPARE(sha256OfFile(m_store->filePath("killed.bin")), sha256OfFile(path));
    QVERIFY(m_service->partBytesReceived() < size); // only what the first run did not leave
}

void tst_UploadEndToEnd::abortStartsAfresh()
{
    const qint64 size = 24 * 1024 * 1024;
    useLargeParts();
    const QString path = makeFile("aborted.bin", size);
    {
        HostCall first(m_root.data(), "zt_apply_startUpload", filesParam({path}));
        QVERIFY(waitForProgress(first, size / 8));
        Q_EMIT first.reply()->abort();
        first.wait();
        QCOMPARE(first.errorCode(), int(Zephyrtide::Error::Aborted));
    }
    // Nothing left to resume from on this side.
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), 0);

    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(120000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    QCOMPARE(sha256OfFile(m_store->filePath("aborted.bin")), sha256OfFile(path));
}

QTEST_MAIN(tst_UploadEndToEnd)
#include "tst_uploadendtoend.moc"
