#include "downloadfixture.h"

#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadtask.h"
#include "hostcall.h"
#include "randomfile.h"
#include "plugin/ztserver.h"

#include <zephyrtide/manager.h>

#include <QtTest>

bool DownloadFixture::setUp(const QString &address)
{
    temporary.reset(new QTemporaryDir);
    target.reset(new QTemporaryDir);
    server.reset(new ScriptedServer);
    m_contents.clear();
    m_digests.clear();
    shape = nullptr;
    statesDigest = true;
    DownloadGlobal::instance()->setChunkSizeInBytes(MiB);
    host.reset(new Zephyrtide::Manager);
    host->setConfigData({{"startDownload", QVariantMap{{"temporaryStoragePath", temporary->path()}}}});
    root.reset(new ZTServer);
    DownloadGlobal::instance()->setTemporaryStoragePath(temporary->path()); // for the runs without a host
    return server->start()
        && QMetaObject::invokeMethod(root.data(), "zt_set_manager", Q_ARG(Zephyrtide::Manager *, host.data()))
        && HostCall(root.data(), "zt_apply_setIP", {{"ip", address.isEmpty() ? server->baseUrl() : address}}).succeeded();
}

void DownloadFixture::tearDown()
{
    server->release();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    root.reset();
    host.reset();
    server.reset();
}

void DownloadFixture::serve(qint64 size)
{
    m_size = size;
    server->setHandler([this](const ScriptedRequest &r) {
        const QByteArray name = QJsonDocument::fromJson(r.body).object().value("fileName").toString().toUtf8();
        ScriptedResponse response = ScriptedResponse::file(contentOf(name), r, "\"" + name + "\"", name);
        if (statesDigest)
            response.header("Repr-Digest", "sha-256=:" + digestOf(name).toBase64() + ":");
        if (shape)
            shape(r, response);
        return response;
    });
}

QByteArray DownloadFixture::contentOf(const QByteArray &name) const
{
    if (!m_contents.contains(name))
        m_contents.insert(name, randomBytes(m_size, qHash(name)));
    return m_contents.value(name);
}

QByteArray DownloadFixture::digestOf(const QByteArray &name) const
{
    if (!m_digests.contains(name))
        m_digests.insert(name, QCryptographicHash::hash(contentOf(name), QCryptographicHash::Sha256));
    return m_digests.value(name);
}

QString DownloadFixture::chunkFolder(const QByteArray &tag) const
{
    const QByteArray identity = QByteArray::number(m_size) + tag;
    return temporary->path() + "/" + QCryptographicHash::hash(identity, QCryptographicHash::Md5).toHex();
}

QVariantMap DownloadFixture::batch(const QStringList &names, const QString &folder) const
{
    QVariantList files;
    for (const QString &name : names)
        files << QVariantMap{{"filename", name.section('/', -1)}, {"path", folder + "/" + name}};
    return {{"files", files}};
}

QSharedPointer<DownloadTask> DownloadFixture::addTask(Downloader &downloader, const QString &destination,
                                                      const QString &name) const
{
    auto task = QSharedPointer<DownloadTask>::create();
    const bool added = task->isValid(destination, server->baseUrl() + "/download", name) == 0 && downloader.addTask(task);
    return added ? task : nullptr;
}

qint64 DownloadFixture::bytesIn(const QString &folder)
{
    qint64 sum = 0;
    for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files))
        sum += file.size();
    return sum;
}

bool DownloadFixture::writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

ZTErrorCode DownloadFixture::downloadOne(const QString &destination, const QString &name,
                                         const std::function<void(Downloader &)> &whenStarted)
{
    const auto none = DownloadFixture::NotEnded;
    Downloader downloader;
    if (!addTask(downloader, destination, name))
        return none;
    ZTErrorCode code = none;
    QObject::connect(&downloader, &Downloader::finished, &downloader, [&](ZTErrorCode status) { code = status; });
    if (downloader.start() != 0)
        return none;
    if (whenStarted)
        whenStarted(downloader);
    return QTest::qWaitFor([&] { return code != none; }, 30000) ? code : none;
}

