#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "logcapture.h"
#include "plugin/globalmanager.h"
#include "plugin/ztserver.h"
#include "testenvironment.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QCryptographicHash>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QSettings>
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
    void damagedCacheStartsAfresh_data();
    void damagedCacheStartsAfresh();
    void expiredSessionStartsAfresh_data();
    void expiredSessionStartsAfresh();

private:
    static constexpr qint64 ChunkSize = 64 * 1024;
    // The resume cases move 24 MiB: parts of 1 MiB keep their count (and the
    // cache writes after every part) modest, also in sanitizer builds.
    static constexpr qint64 LargeChunkSize = 1024 * 1024;

    QString makeFile(const QString &name, qint64 size);
    bool startService(qint64 chunkSize = ChunkSize, const QStringList &options = QStringList());
    void useLargeParts();
    void setAddress();
    QVariantMap filesParam(const QStringList &paths) const;
    // Waits until the running upload has sent at least bytes.
    bool waitForProgress(HostCall &call, qint64 bytes);
    // Starts an upload of path and stops it once an eighth of it went out.
    void stopPartWay(const QString &path);
    // The plugin's one cached session, as the next start reads it.
    FileItem cachedItem() const;
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

bool tst_UploadEndToEnd::startService(qint64 chunkSize, const QStringList &options)
{
    m_service.reset(new FileServiceProcess(m_store->path(),
                                           QStringList{"--chunk-size", QString::number(chunkSize)} + options));
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

void tst_UploadEndToEnd::stopPartWay(const QString &path)
{
    HostCall first(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    QVERIFY(waitForProgress(first, QFileInfo(path).size() / 8));
    Q_EMIT first.reply()->stop();
    first.wait();
    QCOMPARE(first.errorCode(), int(Zephyrtide::Error::Stopped));
    QTest::qWait(300); // let the service finish with the cut bodies
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), 1);
}

FileItem tst_UploadEndToEnd::cachedItem() const
{
    FileItem item;
    item.fromCacheMap(UploadGlobal::instance()->readValue("uploadInfo").toMap().first().toMap());
    return item;
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
    stopPartWay(path);
    if (QTest::currentTestFailed())
        return;
    const qint64 firstRun = m_service->partBytesReceived();
    QVERIFY(firstRun > 0 && firstRun < size);

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

void tst_UploadEndToEnd::damagedCacheStartsAfresh_data()
{
    QTest::addColumn<QString>("damage");
    QTest::newRow("not base64") << "not base64";
    QTest::newRow("base64 of random bytes") << "random";
    QTest::newRow("whole blocks of the record: a cipher of cut JSON") << "cut blocks";
    QTest::newRow("the text cut mid-block") << "cut text";
    QTest::newRow("empty") << "empty";
}

// The cache text is damaged between a stop and the next start. Read as empty,
// it costs the plugin its own record of the session, never the upload: the
// service still tells which parts it lacks, and the next write replaces the
// damage.
void tst_UploadEndToEnd::damagedCacheStartsAfresh()
{
    QFETCH(QString, damage);
    const qint64 size = 8 * 1024 * 1024;
    useLargeParts();
    const QString path = makeFile("damaged.bin", size);
    stopPartWay(path);
    if (QTest::currentTestFailed())
        return;
    {
        QSettings store(QSettings::NativeFormat, QSettings::UserScope, "Marbelnix", "Zephyrtide");
        const QByteArray record = QByteArray::fromBase64(store.value("uploadInfo").toByteArray());
        QVERIFY(record.size() > 64 && record.size() % 16 == 0);
        QByteArray random(96, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(random.data()), random.size() / 4);
        const QHash<QString, QByteArray> texts{
            {"not base64", "{\"this\": \"is no record\"}"},
            {"random", random.toBase64()},
            // AES-ECB blocks decipher one by one: the first ones give the start
            // of the JSON, which then does not parse.
            {"cut blocks", record.left(record.size() - 32).toBase64()},
            {"cut text", record.toBase64().left(record.toBase64().size() / 2 + 1)},
            {"empty", QByteArray()}};
        store.setValue("uploadInfo", QString::fromLatin1(texts.value(damage)));
    }

    LogCapture log;
    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(120000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    QCOMPARE(sha256OfFile(m_store->filePath("damaged.bin")), sha256OfFile(path));
    QVERIFY(log.count("upload cache unreadable", QtCriticalMsg) > 0);

    log.clear();
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo"), QVariant(QVariantMap()));
    QCOMPARE(log.count("upload cache unreadable"), 0);
}

void tst_UploadEndToEnd::expiredSessionStartsAfresh_data()
{
    QTest::addColumn<bool>("serviceOnly");
    QTest::newRow("expired on both sides") << false;
    // As with a service whose clock runs ahead, or that lost its sessions: the
    // plugin's own count of the lifetime says there is time left.
    QTest::newRow("expired at the service only") << true;
}

// A session stopped part-way expires before the next start. The service then
// hands out a new one; the next start must take it and send the whole file
// there, since nothing of the old session is kept.
void tst_UploadEndToEnd::expiredSessionStartsAfresh()
{
    QFETCH(bool, serviceOnly);
    const qint64 size = 8 * 1024 * 1024;
    const int lifetime = 4; // seconds: long enough to stop part-way, short to wait for
    QVERIFY(startService(LargeChunkSize, {"--expires", QString::number(lifetime)}));
    setAddress();
    const QString path = makeFile("expired.bin", size);
    stopPartWay(path);
    if (QTest::currentTestFailed())
        return;
    const QSet<QString> firstSession = uploadIdsInLog();
    QCOMPARE(firstSession.size(), 1);
    const QString port = QString::number(QUrl(m_service->baseUrl()).port());
    m_service->stop();

    if (serviceOnly) {
        QSaveFile file(m_store->filePath(".uploads/" + *firstSession.begin() + "/session.json"));
        QFile current(file.fileName());
        QVERIFY(current.open(QIODevice::ReadOnly));
        QJsonObject session = QJsonDocument::fromJson(current.readAll()).object();
        session.insert("created", session.value("created").toDouble() - lifetime - 1);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(session).toJson());
        QVERIFY(file.commit());
        QVERIFY(cachedItem().sessionValid());
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(!cachedItem().sessionValid(), 3000 * lifetime);
    }
    // The same address, and a lifetime long enough for the whole file this time.
    QVERIFY(startService(LargeChunkSize, {"--port", port}));
    QCOMPARE(m_service->baseUrl(), QStringLiteral("http://127.0.0.1:") + port);

    HostCall second(m_root.data(), "zt_apply_startUpload", filesParam({path}));
    second.wait(120000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    QCOMPARE(sha256OfFile(m_store->filePath("expired.bin")), sha256OfFile(path));
    // One new session took the whole file.
    const QSet<QString> secondSession = uploadIdsInLog();
    QCOMPARE(secondSession.size(), 1);
    QVERIFY(!secondSession.contains(*firstSession.begin()));
    QCOMPARE(m_service->partBytesReceived(), size);
}

QTEST_MAIN(tst_UploadEndToEnd)
#include "tst_uploadendtoend.moc"
