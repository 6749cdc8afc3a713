#include "download/downloadglobal.h"
#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

// Downloads through the plugin, as a host drives them, from the reference file
// service on loopback (chunks of 1 MiB): every file must arrive byte-identical.
class tst_DownloadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void sizesAroundTheChunkSize();
    void sameContentThreeDestinations();
    void secondDownloadTakesAFreeName();
    void serviceGoneMidBatch();
    void refusals_data();
    void refusals();
    void notEnoughSpace();
    void isExist();

private:
    static constexpr qint64 C = 1024 * 1024;

    QByteArray storeFile(const QString &name, qint64 size);
    QVariantMap fileEntry(const QString &name, const QString &folder) const;
    QString chunkFolderCount() const;

    TestEnvironment m_environment;
    QTemporaryDir m_temporary; // the engine's chunk folders
    QScopedPointer<QTemporaryDir> m_store;
    QScopedPointer<QTemporaryDir> m_target;
    QScopedPointer<FileServiceProcess> m_service;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
};

void tst_DownloadEndToEnd::initTestCase()
{
    QVERIFY(m_temporary.isValid());
}

void tst_DownloadEndToEnd::init()
{
    // Each test starts with no chunk folders.
    for (const QFileInfo &folder : QDir(m_temporary.path()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot))
        QDir(folder.filePath()).removeRecursively();
    m_store.reset(new QTemporaryDir);
    m_target.reset(new QTemporaryDir);
    m_service.reset(new FileServiceProcess(m_store->path()));
    QVERIFY(m_service->start());
    m_host.reset(new Zephyrtide::Manager);
    m_host->setConfigData({{"startDownload", QVariantMap{{"chunkSize", 1},
                                                         {"temporaryStoragePath", m_temporary.path()}}}});
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                      Q_ARG(Zephyrtide::Manager *, m_host.data())));
    HostCall call(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}});
    QVERIFY(call.succeeded());
}

void tst_DownloadEndToEnd::cleanup()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_root.reset();
    m_host.reset();
    m_service.reset();
}

QByteArray tst_DownloadEndToEnd::storeFile(const QString &name, qint64 size)
{
    QByteArray content(int(size), Qt::Uninitialized);
    QRandomGenerator generator(quint32(size) + 17);
    for (int i = 0; i < content.size(); ++i)
        content[i] = char(generator.generate());
    QFile file(m_store->filePath(name));
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256);
}

QVariantMap tst_DownloadEndToEnd::fileEntry(const QString &name, const QString &folder) const
{
    return {{"filename", name}, {"path", folder + "/" + name}};
}

QString tst_DownloadEndToEnd::chunkFolderCount() const
{
    return QString::number(QDir(m_temporary.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

void tst_DownloadEndToEnd::sizesAroundTheChunkSize()
{
    QMap<QString, QByteArray> digests;
    QVariantList files;
    for (qint64 size : {qint64(0), qint64(1), C - 1, C, C + 1, 2 * C, 2 * C + 1, 5 * C + 12345}) {
        const QString name = QStringLiteral("f%1.bin").arg(size);
        digests.insert(name, storeFile(name, size));
        files.append(fileEntry(name, m_target->path() + "/in"));
    }
    HostCall call(m_root.data(), "zt_apply_startDownload", {{"files", files}});
    call.wait(60000);
    QVERIFY2(call.succeeded(), qPrintable(QString::number(call.errorCode())));
    const QVariantList results = call.result().value("result").toList();
    QCOMPARE(results.size(), files.size());
    for (const QVariant &entry : results) {
        const QVariantMap map = entry.toMap();
        QCOMPARE(map.keys(), QStringList({"fileSize", "filename", "path", "url"}));
        QCOMPARE(map.value("path").toString(), m_target->path() + "/in/" + map.value("filename").toString());
        QCOMPARE(map.value("url").toString(), m_service->baseUrl() + "/download");
    }
    for (auto it = digests.cbegin(); it != digests.cend(); ++it)
        QCOMPARE(sha256OfFile(m_target->path() + "/in/" + it.key()), it.value());
    QCOMPARE(chunkFolderCount(), QStringLiteral("0")); // merged and cleared
    QVERIFY(call.keepAlives > 0);
    QVERIFY(!call.progress.isEmpty());
    QCOMPARE(call.progress.last().first, call.progress.last().second);
}

void tst_DownloadEndToEnd::sameContentThreeDestinations()
{
    const QByteArray digest = storeFile("same.bin", 3 * C + 5);
    QVariantList files;
    for (const QString &folder : QStringList{"a", "b", "c"})
        files.append(fileEntry("same.bin", m_target->path() + "/" + folder));
    HostCall call(m_root.data(), "zt_apply_startDownload", {{"files", files}});
    call.wait(60000);
    QVERIFY(call.succeeded());
    for (const QString &folder : QStringList{"a", "b", "c"})
        QCOMPARE(sha256OfFile(m_target->path() + "/" + folder + "/same.bin"), digest);
    // One transfer: one probe per task, then four chunk requests in all.
    QCOMPARE(call.result().value("result").toList().size(), 2); // once per further destination
}

void tst_DownloadEndToEnd::secondDownloadTakesAFreeName()
{
    const QByteArray digest = storeFile("twice.txt", C + 3);
    for (const QString &expected : QStringList{"twice.txt", "twice(1).txt"}) {
        HostCall call(m_root.data(), "zt_apply_startDownload",
                      {{"files", QVariantList{fileEntry("twice.txt", m_target->path())}}});
        call.wait(60000);
        QVERIFY2(call.succeeded(), qPrintable(QString::number(call.errorCode())));
        QCOMPARE(call.result().value("result").toList().first().toMap().value("filename").toString(), expected);
        QCOMPARE(sha256OfFile(m_target->path() + "/" + expected), digest);
    }
}

// Small files end before the service is killed, the large one is cut: the
// batch fails, the finished files stay whole, and the next run (at the
// service's new address) brings every file identical.
void tst_DownloadEndToEnd::serviceGoneMidBatch()
{
    const QMap<QString, QByteArray> digests{{"gone-mid.bin", storeFile("gone-mid.bin", 64 * C)},
                                            {"gone-small.bin", storeFile("gone-small.bin", 2 * C + 5)},
                                            {"gone-byte.bin", storeFile("gone-byte.bin", 1)}};
    QVariantList files;
    for (const QString &name : digests.keys())
        files << fileEntry(name, m_target->path());
    const QVariantMap params{{"files", files}};
    const auto whole = [&](const QString &name) {
        return sha256OfFile(m_target->path() + "/" + name) == digests.value(name);
    };
    {
        HostCall first(m_root.data(), "zt_apply_startDownload", params);
        QVERIFY(QTest::qWaitFor([&] { return whole("gone-small.bin") && whole("gone-byte.bin"); }, 30000));
        m_service->kill();
        first.wait(60000);
        QCOMPARE(first.finishedCount(), 1);
        QVERIFY(!first.succeeded());
        QVERIFY(first.errorCode() > 0);
    }
    QCOMPARE(chunkFolderCount(), QStringLiteral("1")); // what came stays
    QVERIFY(whole("gone-small.bin") && whole("gone-byte.bin"));

    // The service comes back over the same files, at another address.
    m_service.reset(new FileServiceProcess(m_store->path()));
    QVERIFY(m_service->start());
    HostCall ip(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}});
    HostCall second(m_root.data(), "zt_apply_startDownload", params);
    second.wait(60000);
    QVERIFY2(second.succeeded(), qPrintable(QString::number(second.errorCode())));
    const QVariantList results = second.result().value("result").toList();
    QCOMPARE(results.size(), digests.size());
    for (const QVariant &entry : results) {
        const QString path = entry.toMap().value("path").toString();
        const QString requested = entry.toMap().value("filename").toString().remove(QStringLiteral("(1)"));
        QVERIFY2(sha256OfFile(path) == digests.value(requested), qPrintable(path));
    }
    QCOMPARE(chunkFolderCount(), QStringLiteral("0"));
}

void tst_DownloadEndToEnd::refusals_data()
{
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<int>("code");
    QTest::newRow("empty files: 20695") << QVariantMap{{"files", QVariantList()}} << 20695;
    // The probe takes a 404's error page for the file; its chunks then fail.
    QTest::newRow("unknown file: the chunks fail, 20630")
        << QVariantMap{{"files", QVariantList{QVariantMap{{"filename", "nope.bin"}, {"path", QDir::tempPath() + "/nope.bin"}}}}}
        << 20630;
}

void tst_DownloadEndToEnd::refusals()
{
    QFETCH(QVariantMap, params);
    QFETCH(int, code);
    HostCall call(m_root.data(), "zt_apply_startDownload", params);
    call.wait(20000);
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), code);
}

void tst_DownloadEndToEnd::notEnoughSpace()
{
    // A probe that announces more than any disk holds.
    ScriptedServer server;
    QVERIFY(server.start());
    server.setHandler([](const ScriptedRequest &) {
        ScriptedResponse response;
        response.status = 206;
        response.body = "ab";
        response.header("Content-Range", "bytes 0-1/" + QByteArray::number(Q_INT64_C(1) << 60));
        response.header("ETag", "\"huge\"");
        return response;
    });
    HostCall ip(m_root.data(), "zt_apply_setIP", {{"ip", server.baseUrl()}});
    HostCall call(m_root.data(), "zt_apply_startDownload",
                  {{"files", QVariantList{fileEntry("huge.bin", m_target->path())}}});
    call.wait(20000);
    QCOMPARE(call.errorCode(), int(Zephyrtide::Error::NotEnoughDiskSpace));
    QCOMPARE(server.requestCount(), 1); // the probe, nothing else
}

void tst_DownloadEndToEnd::isExist()
{
    storeFile("probe.bin", 64 * C);
    QObject *command = m_root->findChild<QObject *>(QString(), Qt::FindDirectChildrenOnly);
    for (QObject *child : m_root->children()) {
        if (QByteArray(child->metaObject()->className()) == "StartDownload")
            command = child;
    }
    const QVariantMap query{{"url", m_service->baseUrl() + "/download?fileName=probe.bin"}};
    HostCall before(command, "zt_apply_isExist", query);
    QVERIFY(before.succeeded());
    QCOMPARE(before.result().value("result").toMap().value("bytesReceived").toLongLong(), 0LL);
    QCOMPARE(before.result().value("result").toMap().value("bytesTotal").toLongLong(), 64 * C);

    HostCall download(m_root.data(), "zt_apply_startDownload",
                      {{"files", QVariantList{fileEntry("probe.bin", m_target->path())}}});
    QVERIFY(QTest::qWaitFor([&] { return !download.progress.isEmpty() && download.progress.last().first > 0; }, 30000));
    Q_EMIT download.reply()->stop();
    download.wait();
    HostCall during(command, "zt_apply_isExist", query);
    const qint64 partial = during.result().value("result").toMap().value("bytesReceived").toLongLong();
    qint64 onDisk = 0;
    const QString folder = QDir(m_temporary.path()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot).first().filePath();
    for (const QFileInfo &chunk : QDir(folder).entryInfoList(QDir::Files))
        onDisk += chunk.size();
    QVERIFY(partial > 0);
    QCOMPARE(partial, onDisk);

    // After the download completes, its chunks are merged and gone.
    HostCall resumed(m_root.data(), "zt_apply_startDownload",
                     {{"files", QVariantList{fileEntry("probe.bin", m_target->path())}}});
    resumed.wait(60000);
    QVERIFY(resumed.succeeded());
    HostCall after(command, "zt_apply_isExist", query);
    QCOMPARE(after.result().value("result").toMap().value("bytesReceived").toLongLong(), 0LL);
    QCOMPARE(after.result().value("result").toMap().value("bytesTotal").toLongLong(), 64 * C);

    HostCall empty(command, "zt_apply_isExist", {{"url", ""}});
    QCOMPARE(empty.errorCode(), 20693);
    // A 403 to the probe: nothing to restore, the fresh task's values.
    HostCall unknown(command, "zt_apply_isExist", {{"url", m_service->baseUrl() + "/download?fileName=..%2Fx"}});
    QVERIFY(unknown.succeeded());
    QCOMPARE(unknown.result().value("result").toMap().value("bytesReceived").toLongLong(), 0LL);
    QCOMPARE(unknown.result().value("result").toMap().value("bytesTotal").toLongLong(), -1LL);
}

QTEST_MAIN(tst_DownloadEndToEnd)
#include "tst_downloadendtoend.moc"
