#include "startupload.h"

#include "core/globalmanager.h"
#include "core/logging.h"
#include "upload/clouduploader.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QFileInfo>
#include <QMetaEnum>

namespace {

Zephyrtide::Manager::NetLimit netLimitOf(const QVariant &value)
{
    if (value.userType() == qMetaTypeId<Zephyrtide::Manager::NetLimit>())
        return value.value<Zephyrtide::Manager::NetLimit>();
    bool ok = false;
    const int level = value.toInt(&ok);
    return static_cast<Zephyrtide::Manager::NetLimit>(ok ? level : 0);
}

} // namespace

StartUpload::StartUpload(QObject *parent)
    : QObject(parent)
    , m_global(GlobalManager::instance())
{
}

StartUpload::~StartUpload()
{
    qCDebug(ztLog) << "__cdecl StartUpload::~StartUpload(void)" << "zt StartUpload unload";
}

CloudUploader *StartUpload::uploadJob()
{
    // Lives for the process; never given files by zt_apply_start.
    static CloudUploader *job = new CloudUploader;
    return job;
}

void StartUpload::zt_apply(Zephyrtide::Reply *reply, QVariantMap params)
{
    zt_apply_start(reply, params);
}

void StartUpload::zt_set_manager(Zephyrtide::Manager *manager)
{
    UploadGlobal::instance()->setManager(manager);
    GlobalManager::instance()->setManager(manager);
}

void StartUpload::zt_apply_start(Zephyrtide::Reply *reply, QVariantMap params)
{
    qCDebug(ztLog) << "upload dll startttttttttttt";
    const QVariantList files = params.value(QStringLiteral("files")).toList();
    if (files.isEmpty()) {
        qCCritical(ztLog) << "files error" << files;
        m_global->fail(reply, Zephyrtide::Error::MissingParameter);
        return;
    }
    if (params.contains(QStringLiteral("netLimit"))) {
        qCDebug(ztLog) << "netlimittttttt"
                       << "void __cdecl StartUpload::zt_apply_start(class Zephyrtide::Reply *,class QMap<class QString,class QVariant>)"
                       << netLimitOf(params.value(QStringLiteral("netLimit")));
    }

    auto *uploader = new CloudUploader; // lives until the reply goes, see below
    connect(reply, &QObject::destroyed, uploader, &QObject::deleteLater);
    if (!uploader->setFiles(files)) {
        m_global->fail(reply, Zephyrtide::Error::ParseError);
        return;
    }
    connect(reply, &Zephyrtide::Reply::stop, uploader, &CloudUploader::stop);
    connect(reply, &Zephyrtide::Reply::abort, uploader, &CloudUploader::abort);
    connect(uploader, &CloudUploader::progress, reply, &Zephyrtide::Reply::uploadProgress);
    // The reply gets one outcome: the first of the job's finished() and
    // errorOccurred() ends it, and what the job reports afterwards (an abort
    // after a stop, a file failing after the stop) no longer reaches it.
    connect(uploader, &CloudUploader::finished, reply, [this, reply, uploader](const QVariantList &results) {
        uploader->disconnect(reply);
        m_global->success(reply, results);
    });
    connect(uploader, &CloudUploader::errorOccurred, reply, [this, reply, uploader](ZTErrorCode error) {
        uploader->disconnect(reply);
        m_global->fail(reply, error);
    });
    uploader->start();
    qCDebug(ztLog) << "upload dll starttttttttttttedddddddddddddd";
}

void StartUpload::zt_apply_removeAll(Zephyrtide::Reply *reply, QVariantMap params)
{
    Q_UNUSED(params)
    const ZTErrorCode code = UploadGlobal::instance()->removeAll();
    if (code != Zephyrtide::Error::NoError)
        m_global->fail(reply, code);
    m_global->success(reply, QString());
}

void StartUpload::zt_apply_uploadList(Zephyrtide::Reply *reply, QVariantMap params)
{
    Q_UNUSED(params)
    QVariantList list;
    const auto items = uploadJob()->fileItems();
    for (const QSharedPointer<FileItem> &item : items) {
        const bool present = QFileInfo::exists(item->filePath);
        list.append(QVariantMap{
            {QStringLiteral("category"), present ? item->category : QString()},
            {QStringLiteral("private"), present ? item->isPrivate : false},
            {QStringLiteral("userID"), present ? item->userID : QString()},
            {QStringLiteral("filePath"), present ? item->filePath : QString()},
            {QStringLiteral("source"), present ? item->source : 0u}});
    }
    m_global->success(reply, list);
}
