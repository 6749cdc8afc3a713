#include "cloudchunkuploader.h"

#include "chunkitem.h"
#include "filechunkbody.h"
#include "network/networkmanager.h"
#include "network/networkreply.h"
#include "core/globalmanager.h"
#include "core/logging.h"
#include "uploadglobal.h"

#include <QCryptographicHash>
#include <QNetworkRequest>

CloudChunkUploader::CloudChunkUploader(QObject *parent)
    : QObject(parent)
{
}

CloudChunkUploader::~CloudChunkUploader()
{
    qCDebug(ztLog) << "CloudChunkUploader destructing...";
}

bool CloudChunkUploader::setItem(const QSharedPointer<ChunkItem> &item)
{
    stop();
    m_index = -1;
    m_item.reset();
    if (!item || item->partNumber < 0 || item->chunkSize < 1) {
        qCCritical(ztLog) << "chunk item error " << (item ? item->partNumber : -1)
                          << (item ? item->chunkSize : 0);
        return false;
    }
    m_item = item;
    return true;
}

bool CloudChunkUploader::start()
{
    if (!m_item || m_item->chunkSize == 0 || m_item->url.isEmpty()) {
        qCCritical(ztLog) << "chunk item error ";
        if (m_item)
            m_item->state = Upload::Failed;
        Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
        return false;
    }
    if (m_item->state == Upload::Running) {
        Q_EMIT errorOccurred(Zephyrtide::Error::AlreadyRunning);
        return false;
    }
    m_item->state = Upload::Running;
    m_sentBefore = m_item->bytesSent;
    const ZTErrorCode code = send();
    if (code != Zephyrtide::Error::NoError) {
        qCCritical(ztLog) << "chunk error" << code;
        m_item->state = Upload::Failed;
        Q_EMIT errorOccurred(code);
        return false;
    }
    return true;
}

ZTErrorCode CloudChunkUploader::send()
{
    const QUrl url(m_item->url, QUrl::TolerantMode);
    if (!url.isValid()) {
        qCCritical(ztLog) << "url not valid";
        return Zephyrtide::Error::InvalidChunkUrl;
    }
    QNetworkRequest request;
    for (auto it = m_item->headers.cbegin(); it != m_item->headers.cend(); ++it) {
        qCDebug(ztLog) << "chunk header" << it.key() << it.value();
        request.setRawHeader(it.key().toUtf8(), it.value().toString().toUtf8());
    }
    // The service reads the body as raw bytes whatever this says.
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setUrl(url);
    GlobalManager::instance()->applyHostConfiguration(request);
    UploadGlobal *global = UploadGlobal::instance();
    request.setTransferTimeout(global->partStallTimeoutMs());

    QSharedPointer<NetworkManager> manager = global->networkManager();
    if (!manager) {
        // One queue for all chunks of all files, so they share its limit.
        manager = QSharedPointer<NetworkManager>::create();
        global->setNetworkManager(manager);
    }
    NetworkReply *reply = nullptr;
    if (m_item->data.isEmpty() && !m_item->filePath.isEmpty()) {
        // Read from the file only when the queue starts this transfer.
        reply = manager->requestRemote(
            request, QSharedPointer<FileChunkBody>::create(m_item->filePath, m_item->offset, m_item->length), 0);
    } else {
        request.setRawHeader("fileMD5",
                             QCryptographicHash::hash(m_item->data, QCryptographicHash::Md5).toBase64());
        reply = manager->requestRemote(request, m_item->data, 0);
    }
    m_reply = QSharedPointer<NetworkReply>(reply, &QObject::deleteLater);
    connect(this, &CloudChunkUploader::abort, m_reply.data(), &NetworkReply::abort);
    connect(m_reply.data(), &NetworkReply::finished, this, &CloudChunkUploader::onReplyFinished);
    connect(m_reply.data(), &NetworkReply::errorOccurred, this, &CloudChunkUploader::onReplyError);
    connect(m_reply.data(), &NetworkReply::uploadProgress, this,
            &CloudChunkUploader::onUploadProgress, Qt::DirectConnection);
    return Zephyrtide::Error::NoError;
}

void CloudChunkUploader::stop()
{
    qCDebug(ztLog) << "stop chunk " << m_index;
    if (m_reply) {
        m_reply->disconnect(this);
        Q_EMIT abort();
        releaseReply();
    }
    if (m_index >= 0 && m_item && m_item->state == Upload::Running)
        m_item->state = Upload::Stopped;
}

void CloudChunkUploader::onUploadProgress(qlonglong bytesSent, qlonglong bytesTotal)
{
    if (bytesSent > bytesTotal || bytesTotal <= 0)
        return;
    if (m_item && m_index < 1) {
        m_item->state = Upload::Running;
        // A request restarted on a new connection counts from 0 again; what
        // went out before stays counted.
        m_item->bytesSent = qMax(m_item->bytesSent, m_sentBefore + bytesSent);
    }
    Q_EMIT progress(bytesSent, bytesTotal);
}

void CloudChunkUploader::onReplyError(QNetworkReply::NetworkError error)
{
    qCCritical(ztLog) << "error" << (m_item ? m_item->partNumber : -1) << (m_item ? m_item->url : QString())
                      << error;
    if (m_item)
        m_item->state = Upload::Failed;
    releaseReply();
    // Our own cancels disconnect before they abort, so a cancelled transfer
    // that reaches here is one that moved nothing for the stall time: a
    // time-out, said as the host says one.
    if (error == QNetworkReply::OperationCanceledError) {
        qCCritical(ztLog) << "part stalled" << (m_item ? m_item->partNumber : -1);
        Q_EMIT errorOccurred(Zephyrtide::Error::Timeout);
        return;
    }
    Q_EMIT errorOccurred(static_cast<ZTErrorCode>(20480 + int(error)));
}

void CloudChunkUploader::onReplyFinished()
{
    if (m_item && m_item->state == Upload::Running)
        m_item->state = Upload::Finished;
    releaseReply();
    Q_EMIT finished();
}

void CloudChunkUploader::releaseReply()
{
    if (!m_reply)
        return;
    disconnect(this, nullptr, m_reply.data(), nullptr);
    m_reply->disconnect(this);
    m_reply.reset(); // deleteLater: it may be the one emitting
}
