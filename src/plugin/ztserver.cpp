#include "ztserver.h"

#include "commands/startdownload.h"
#include "commands/startupload.h"
#include "core/globalmanager.h"
#include "core/logging.h"
#include "download/downloadtask.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QEventLoop>
#include <QTimer>

namespace {
constexpr int SetAddressDelayMs = 50;
}

ZTServer::ZTServer(QObject *parent)
    : QObject(parent)
{
    // Suffixed, so that like-named types of other plugins of the host don't collide.
    qRegisterMetaType<DownloadTask>("DownloadTask_ZTServer");
    qRegisterMetaType<QList<DownloadTask>>("QList<DownloadTask>_ZTServer");
    m_startDownload = new StartDownload(this);
    m_startUpload = new StartUpload(this);
    GlobalManager::instance();
}

ZTServer::~ZTServer()
{
    qCDebug(ztLog) << "__cdecl ZTServer::~ZTServer(void)" << "ZTServer unload";
    GlobalManager::destroy();
    UploadGlobal::destroy();
}

void ZTServer::zt_set_manager(Zephyrtide::Manager *manager)
{
    UploadGlobal::instance()->setManager(manager);
    GlobalManager::instance()->setManager(manager);
}

void ZTServer::zt_apply(Zephyrtide::Reply *reply, QVariantMap params)
{
    zt_apply_fileList(reply, params);
}

void ZTServer::zt_apply_startUpload(Zephyrtide::Reply *reply, QVariantMap params)
{
    if (!m_startUpload) {
        qCCritical(ztLog) << "upload is not available";
        GlobalManager::instance()->fail(reply, Zephyrtide::Error::NoManager);
        return;
    }
    m_startUpload->zt_apply_start(reply, params);
}

void ZTServer::zt_apply_startDownload(Zephyrtide::Reply *reply, QVariantMap params)
{
    QVariantList files = params.value(QStringLiteral("files")).toList();
    if (files.isEmpty()) {
        qCCritical(ztLog) << "files is empty";
        GlobalManager::instance()->fail(reply, Zephyrtide::Error::ParseError);
        return;
    }
    const QString url = GlobalManager::instance()->fileServiceAddress() + QLatin1String("/download");
    for (QVariant &file : files) {
        QVariantMap map = file.toMap();
        map.insert(QStringLiteral("url"), url);
        file = map;
    }
    params.insert(QStringLiteral("files"), files);

    if (!m_startDownload) {
        qCCritical(ztLog) << "download is not available";
        GlobalManager::instance()->fail(reply, Zephyrtide::Error::NoManager);
        return;
    }
    m_startDownload->zt_apply_start(reply, params);
}

void ZTServer::zt_apply_fileList(Zephyrtide::Reply *reply, QVariantMap params)
{
    qCDebug(ztLog) << "report address" << GlobalManager::instance()->fileServiceAddress();
    requestFileService(reply, QStringLiteral("/download/pathList"), params);
}

void ZTServer::zt_apply_delete(Zephyrtide::Reply *reply, QVariantMap params)
{
    // The service reads "fileName"; hosts send "filename".
    params.insert(QStringLiteral("fileName"), params.value(QStringLiteral("filename")));
    requestFileService(reply, QStringLiteral("/delete"), params);
}

void ZTServer::zt_apply_setIP(Zephyrtide::Reply *reply, QVariantMap params)
{
    GlobalManager::instance()->setFileServiceAddress(params.value(QStringLiteral("ip")).toString());

    // Answered from a nested loop a moment later, never from within the call.
    QTimer timer;
    QEventLoop loop;
    timer.setInterval(SetAddressDelayMs);
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &loop, [&] {
        GlobalManager::instance()->success(reply, QVariant());
        loop.quit();
    });
    timer.start();
    loop.exec();
}

void ZTServer::requestFileService(Zephyrtide::Reply *reply, const QString &path,
                                  const QVariantMap &body)
{
    const QString url = GlobalManager::instance()->fileServiceAddress() + path;
    QPointer<ZTServer> self(this);
    QVariant result;
    const ZTErrorCode code = GlobalManager::instance()->request(
        this, result, url, Zephyrtide::Manager::Post, Zephyrtide::Manager::NoEncryption,
        QVariantMap(), body, QVariantMap(), Zephyrtide::Manager::NoAuthentication, 0);
    if (!self)
        return; // the host unloaded us while we waited; nobody to report to
    GlobalManager *global = GlobalManager::instance();
    if (code != Zephyrtide::Error::NoError)
        global->fail(reply, code);
    else
        global->success(reply, result);
}
