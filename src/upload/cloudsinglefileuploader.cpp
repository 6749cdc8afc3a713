#include "cloudsinglefileuploader.h"

#include "chunkitem.h"
#include "cloudchunkuploader.h"
#include "fileitem.h"
#include "core/globalmanager.h"
#include "core/logging.h"
#include "uploadglobal.h"

#include <QFile>
#include <QHash>
#include <QPointer>
#include <QUrlQuery>
#include <QVector>

#include <algorithm>

namespace {

int partNumberOf(const QString &url)
{
    return QUrlQuery(QUrl(url, QUrl::TolerantMode)).queryItemValue(QStringLiteral("partNumber")).toInt();
}

int partNumberOf(const QVariant &descriptor)
{
    return partNumberOf(descriptor.toMap().value(QStringLiteral("url")).toString());
}

} // namespace

CloudSingleFileUploader::CloudSingleFileUploader(QObject *parent)
    : QObject(parent)
{
}

CloudSingleFileUploader::~CloudSingleFileUploader()
{
    qCDebug(ztLog) << "CloudSingleFileUploader destructing...";
}

void CloudSingleFileUploader::setFileItem(const QSharedPointer<FileItem> &item)
{
    m_item = item;
}

bool CloudSingleFileUploader::start()
{
    if (!m_item) {
        qCCritical(ztLog) << "error file item";
        Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
        return false;
    }
    if (m_item->state == Upload::Running) {
        qCWarning(ztLog) << "error file item";
        Q_EMIT errorOccurred(Zephyrtide::Error::AlreadyRunning);
        return false;
    }
    m_item->state = Upload::Running;
    const int run = ++m_run;

    QPointer<CloudSingleFileUploader> self(this);
    QVariantMap answer;
    const ZTErrorCode code = requestCloudUploadInfo(answer);
    if (!self)
        return false; // the job was dropped while the service answered
    if (!stillRunning(run)) {
        // Stopped or aborted while the service answered: nothing is sent and
        // nothing is written. stop() left the cache entry as it stood, abort()
        // removed it, and so it stays.
        qCInfo(ztLog) << "upload ended while asking for its session" << m_item->fileName << m_item->state;
        return false;
    }
    if (code != Zephyrtide::Error::NoError) {
        qCCritical(ztLog) << "get uploadinfo error";
        m_item->state = Upload::Failed;
        Q_EMIT errorOccurred(code);
        return false;
    }
    qCInfo(ztLog) << "get upload success" << m_item->fileName;
    UploadGlobal::instance();

    // A valid cached session is kept; the service's answer replaces it only
    // when it names another session (it expired there, or was lost).
    const QString answeredID =
        answer.value(QStringLiteral("uploadInfo")).toMap().value(QStringLiteral("uploadID")).toString();
    if (m_item->uploadID.isEmpty() || !m_item->sessionValid() || answeredID != m_item->uploadID)
        applyUploadInfo(answer);
    else
        resumeKeptSession(answer);

    const bool exist = answer.value(QStringLiteral("exist")).toBool();
    qCInfo(ztLog) << "upload infofofo" << m_item->fileName << m_item->chunks.size()
                  << m_item->pendingChunks.size() << m_item->bytesSent << m_item->totalChunks
                  << m_item->uploadedChunk << m_item->chunkSize << m_item->category << m_item->expires
                  << m_item->currentRequestTime
                  << static_cast<Zephyrtide::Manager::HttpRequestSource>(m_item->source)
                  << m_item->totalSize;
    if (exist) {
        qCInfo(ztLog) << "get upload exist" << m_item->fileName;
        finishUpload();
        return true;
    }
    if (!m_item->chunks.isEmpty()) {
        const ZTErrorCode prepared = prepareChunks();
        if (prepared != Zephyrtide::Error::NoError) {
            m_item->state = Upload::Failed;
            Q_EMIT errorOccurred(prepared);
            return false;
        }
        return launchChunks();
    }

    // Every chunk went in an earlier run.
    qCInfo(ztLog) << "get upload complete" << m_item->fileName;
    const ZTErrorCode completed = requestCloudCompleteUpload();
    if (!self || !stillRunning(run))
        return false;
    if (completed != Zephyrtide::Error::NoError) {
        qCCritical(ztLog) << "complete errro";
        m_item->state = Upload::Failed;
        Q_EMIT errorOccurred(completed);
        return false;
    }
    finishUpload();
    return true;
}

bool CloudSingleFileUploader::stillRunning(int run) const
{
    return run == m_run && m_item->state == Upload::Running;
}

bool CloudSingleFileUploader::launchChunks()
{
    m_chunkUploaders.clear();
    const auto pending = m_item->pendingChunks;
    for (const QSharedPointer<ChunkItem> &chunk : pending) {
        auto uploader = QSharedPointer<CloudChunkUploader>::create();
        uploader->setItem(chunk);
        // The chunk travels with the connection: QObject::sender() walks every
        // connection into this object, thousands in a file of many parts.
        connect(uploader.data(), &CloudChunkUploader::finished, this, [this, chunk] { onFinished(chunk); });
        connect(uploader.data(), &CloudChunkUploader::progress, this, [this, chunk] { onUploadProgress(chunk); });
        connect(uploader.data(), &CloudChunkUploader::errorOccurred, this,
                &CloudSingleFileUploader::onErrorOccurred);
        m_chunkUploaders.append(uploader);
        if (!uploader->start()) {
            stop();
            qCCritical(ztLog) << "error" << "bool __cdecl CloudSingleFileUploader::start(void)";
            return false;
        }
        if (m_item->state != Upload::Running && m_item->state != Upload::Finished) {
            qCCritical(ztLog) << "errorrrrrrrrrrrrrrr";
            break;
        }
    }
    ++m_runs;
    return true;
}

void CloudSingleFileUploader::finishUpload()
{
    m_item->state = Upload::Finished;
    m_item->bytesSent = m_item->totalSize;
    Q_EMIT progress(m_item->totalSize, m_item->totalSize);
    Q_EMIT finished();
}

void CloudSingleFileUploader::stop()
{
    if (!m_item || m_item->state != Upload::Running)
        return;
    m_item->state = Upload::Stopped;
    for (const auto &uploader : qAsConst(m_chunkUploaders))
        uploader->stop();
    writeCache();
}

void CloudSingleFileUploader::writeCache()
{
    UploadGlobal::instance()->setInfo(*m_item);
}

void CloudSingleFileUploader::applyUploadInfo(const QVariantMap &answer)
{
    m_item->dfsID = QStringLiteral("Zephyrtide");
    m_item->bucket = QStringLiteral("Zephyrtide");
    m_item->cdnURL = answer.value(QStringLiteral("cdnURL")).toString();
    if (answer.value(QStringLiteral("exist")).toBool()) {
        writeCache();
        return;
    }
    if (!m_item->uploadID.isEmpty())
        qCInfo(ztLog) << "upload session replaced" << m_item->uploadID;
    const QVariantMap info = answer.value(QStringLiteral("uploadInfo")).toMap();
    m_item->bytesSent = 0; // nothing of an earlier session counts in a new one
    m_item->chunkSize = info.value(QStringLiteral("chunkSize")).toLongLong();
    m_item->expires = info.value(QStringLiteral("expires")).toInt();
    m_item->method = info.value(QStringLiteral("method")).toString();
    m_item->uploadID = info.value(QStringLiteral("uploadID")).toString();
    m_item->setChunks(info.value(QStringLiteral("chunks")).toList());
    m_item->currentRequestTime = QDateTime::currentDateTime();

    if (m_item->chunkSize < 1)
        m_item->chunkSize = m_item->totalSize; // one chunk; none at all for an empty file
    m_item->totalChunks = m_item->chunkSize > 0
        ? int((m_item->totalSize + m_item->chunkSize - 1) / m_item->chunkSize)
        : 0;
    qCDebug(ztLog) << "size" << m_item->totalSize << m_item->chunkSize << m_item->chunks.size();
    writeCache();
}

void CloudSingleFileUploader::resumeKeptSession(const QVariantMap &answer)
{
    // The session stays the cached one. The service lists the parts it still
    // lacks, each with the bytes it holds of it without a gap ("bytesSent");
    // a part it no longer lists is done. The cache counts the bytes of a part
    // this side handed to the socket, which is where a part resumes, but never
    // after what the service holds: it writes a body as the part's tail, so
    // starting further on would leave a hole. A part the cache counts as done
    // but the service still lists goes on from what the service holds.
    // The service's addresses are taken, as it may listen elsewhere by now.
    QHash<int, qint64> sent;
    const QVariantList kept = m_item->remainingChunks();
    for (const QVariant &entry : kept)
        sent.insert(partNumberOf(entry), entry.toMap().value(QStringLiteral("bytesSent")).toLongLong());
    QVariantList chunks;
    const QVariantList listed =
        answer.value(QStringLiteral("uploadInfo")).toMap().value(QStringLiteral("chunks")).toList();
    for (const QVariant &entry : listed) {
        QVariantMap descriptor = entry.toMap();
        const qint64 held = descriptor.value(QStringLiteral("bytesSent")).toLongLong();
        const qint64 resumeAt = qMin(sent.value(partNumberOf(entry), held), held);
        if (resumeAt > 0)
            descriptor.insert(QStringLiteral("bytesSent"), resumeAt);
        else
            descriptor.remove(QStringLiteral("bytesSent"));
        chunks.append(descriptor);
    }
    m_item->setChunks(chunks);
    writeCache();
}

ZTErrorCode CloudSingleFileUploader::prepareChunks()
{
    QFile file(m_item->filePath);
    if (!file.open(QIODevice::ReadOnly)) {
        qCCritical(ztLog) << "upload open fail" << m_item->fileName;
        return Zephyrtide::Error::FileError;
    }
    m_item->uploadedChunk = m_item->totalChunks - m_item->chunks.size();
    qCInfo(ztLog) << "uploaded fileitem" << m_item->uploadedChunk << m_item->fileName;

    // Each address is parsed once, not once per comparison of the sort.
    QVector<QPair<int, QVariantMap>> descriptors;
    descriptors.reserve(m_item->chunks.size());
    for (const QVariant &entry : qAsConst(m_item->chunks))
        descriptors.append({partNumberOf(entry), entry.toMap()});
    std::stable_sort(descriptors.begin(), descriptors.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });

    QVariantList sorted;
    sorted.reserve(descriptors.size());
    QList<QSharedPointer<ChunkItem>> pending;
    pending.reserve(descriptors.size());
    m_inFlight = 0;
    for (const auto &numbered : qAsConst(descriptors)) {
        const QVariantMap &descriptor = numbered.second;
        sorted.append(descriptor);
        auto chunk = QSharedPointer<ChunkItem>::create();
        chunk->descriptor = descriptor;
        chunk->url = descriptor.value(QStringLiteral("url")).toString();
        chunk->headers = descriptor.value(QStringLiteral("headers")).toMap();
        chunk->chunkSize = m_item->chunkSize;
        chunk->method = m_item->method;
        chunk->identifier = m_item->identifier;
        chunk->partNumber = numbered.first;
        if (descriptor.contains(QStringLiteral("bytesSent"))) {
            chunk->bytesSent = descriptor.value(QStringLiteral("bytesSent")).toLongLong();
            qCDebug(ztLog) << "contains byesend" << chunk->bytesSent;
        }
        chunk->counted = chunk->bytesSent;
        m_inFlight += chunk->counted;
        // Piece n of the file, from what this chunk already sent on; read when
        // the chunk's transfer starts.
        const qint64 pieceStart = qint64(chunk->partNumber - 1) * m_item->chunkSize;
        const qint64 pieceEnd = qMin(pieceStart + m_item->chunkSize, file.size());
        chunk->filePath = m_item->filePath;
        chunk->offset = qMin(pieceStart + chunk->bytesSent, pieceEnd);
        chunk->length = chunk->partNumber >= 1 ? qMax<qint64>(0, pieceEnd - chunk->offset) : 0;
        qCDebug(ztLog) << "par" << chunk->partNumber << (chunk->length == 0);
        pending.append(chunk);
    }
    m_item->chunks = sorted;
    m_item->followPendingChunks(pending);
    return Zephyrtide::Error::NoError;
}

// The file's progress is 1 (a started file never reports 0) plus the bytes
// sent of every pending chunk not finished, plus the finished chunks whole.
// The sum is kept up to date by the one chunk that moved, so a progress
// report costs the same with four parts or four thousand.
void CloudSingleFileUploader::onUploadProgress(const QSharedPointer<ChunkItem> &chunk)
{
    if (chunk && chunk->state != Upload::Finished) {
        m_inFlight += chunk->bytesSent - chunk->counted;
        chunk->counted = chunk->bytesSent;
    }
    reportProgress();
}

void CloudSingleFileUploader::reportProgress()
{
    const qint64 total = m_item->totalSize ? m_item->totalSize : 1;
    const qint64 value = 1 + m_inFlight + qint64(m_item->uploadedChunk) * m_item->chunkSize;
    if (value == m_reported)
        return; // nothing moved: a report would cost the host and the cache for nothing
    if (value > total) {
        m_item->bytesSent = total;
    } else if (value < m_item->bytesSent) {
        qCDebug(ztLog) << "CloudSingleFileUploader::little: " << value << m_item->bytesSent << total;
        return;
    } else {
        m_item->bytesSent = value;
    }
    // The part's bytes reach the cache with its next write; an aborted file
    // has left the cache and does not come back.
    if (m_item->state != Upload::Aborted)
        UploadGlobal::instance()->noteProgress(m_item);
    qCDebug(ztLog) << "CloudSingleFileUploader::onUploadProgress 2: " << value << m_item->bytesSent << total;
    m_reported = value;
    Q_EMIT progress(value, total);
}

void CloudSingleFileUploader::onFinished(const QSharedPointer<ChunkItem> &chunk)
{
    if (!m_item)
        return;
    if (m_item->state == Upload::Stopped || m_item->state == Upload::Failed)
        UploadGlobal::instance()->noteProgress(m_item);
    if (m_item->state != Upload::Running && m_item->state != Upload::Failed)
        return; // stopped, aborted (its cache entry stays removed) or done

    if (chunk && chunk->state == Upload::Finished && m_item->pendingChunks.removeOne(chunk)) {
        // Parts finish about in the order they started: the one found is near the front.
        m_inFlight -= chunk->counted;
        chunk->counted = 0;
        if (m_item->uploadedChunk <= m_item->totalChunks)
            ++m_item->uploadedChunk;
        // Written with the next cache write, together with every other part
        // that finished meanwhile.
        UploadGlobal::instance()->noteProgress(m_item);
    }
    if (!m_item->pendingChunks.isEmpty() || m_item->state != Upload::Running)
        return;

    qCDebug(ztLog) << "singlefile---------------------:" << "finished" << m_item->fileName;
    const int run = m_run;
    QPointer<CloudSingleFileUploader> self(this);
    const ZTErrorCode code = requestCloudCompleteUpload();
    if (!self)
        return;
    if (!stillRunning(run)) {
        // Stopped, aborted or started anew while the service completed: that
        // was this run's end, and it reports nothing more.
        qCInfo(ztLog) << "upload ended while completing" << m_item->fileName << m_item->state;
        return;
    }
    if (code != Zephyrtide::Error::NoError) {
        qCCritical(ztLog) << "file complete fail" << code;
        m_item->state = Upload::Failed;
        Q_EMIT errorOccurred(code);
        return;
    }
    qCDebug(ztLog) << "singlefile---------------------:" << "complete";
    m_item->state = Upload::Finished;
    Q_EMIT finished();
}

void CloudSingleFileUploader::onErrorOccurred(ZTErrorCode error)
{
    // A file that ended (stopped, aborted, failed or done) reports nothing more.
    if (!m_item || m_item->state != Upload::Running)
        return;
    m_item->state = Upload::Failed;
    stop();
    writeCache();
    Q_EMIT errorOccurred(error);
}

ZTErrorCode CloudSingleFileUploader::requestCloudUploadInfo(QVariantMap &answer)
{
    QVariantMap body = m_item->originParams;
    body.insert(QStringLiteral("fileName"), m_item->fileName);
    body.insert(QStringLiteral("fileMD5"), m_item->identifier);
    body.insert(QStringLiteral("fileSize"), qlonglong(m_item->totalSize));
    const QString url = GlobalManager::instance()->fileServiceAddress() + QLatin1String("/upload/info");
    qCDebug(ztLog) << "url" << url
                   << "enum Zephyrtide::Error::ErrorCode __cdecl CloudSingleFileUploader::requestCloudUploadInfo(class QMap<class QString,class QVariant> &)";
    QVariant result;
    const ZTErrorCode code =
        request(this, result, url, body, m_item->source, Zephyrtide::Manager::UserAuthentication);
    answer = result.toMap();
    qCDebug(ztLog) << "upload info" << answer;
    return code;
}

ZTErrorCode CloudSingleFileUploader::requestCloudCompleteUpload()
{
    const QVariantMap body{{QStringLiteral("fileName"), m_item->fileName},
                           {QStringLiteral("fileMD5"), m_item->identifier}};
    const QString url = GlobalManager::instance()->fileServiceAddress() + QLatin1String("/upload/complete");
    qCDebug(ztLog) << "url" << url
                   << "enum Zephyrtide::Error::ErrorCode __cdecl CloudSingleFileUploader::requestCloudCompleteUpload(void)";
    QVariant result;
    return request(this, result, url, body, m_item->source, Zephyrtide::Manager::NoAuthentication);
}

ZTErrorCode CloudSingleFileUploader::authConnectToken(QObject *owner, QString &token, uint source)
{
    QVariant result;
    const ZTErrorCode code = request(owner, result, QStringLiteral("authConnectToken"), QVariantMap(), source);
    token = result.toString();
    return code;
}

ZTErrorCode CloudSingleFileUploader::request(QObject *owner, QVariant &result, const QString &url,
                                             const QVariantMap &body, uint source,
                                             Zephyrtide::Manager::CloudAuthentication auth)
{
    qCDebug(ztLog) << "full requestZephyrtide" << url;
    qCDebug(ztLog) << QVariantMap{{QStringLiteral("headers"), QVariantMap()},
                                  {QStringLiteral("body"), body},
                                  {QStringLiteral("params"), QVariantMap()},
                                  {QStringLiteral("source"), source}};
    return GlobalManager::instance()->request(owner, result, url, Zephyrtide::Manager::Post,
                                              Zephyrtide::Manager::NoEncryption, QVariantMap(), body,
                                              QVariantMap(), auth, source);
}

ZTErrorCode CloudSingleFileUploader::request(QObject *owner, QVariant &result, const QString &name,
                                             QVariantMap params, uint source)
{
    qCDebug(ztLog) << "requestZephyrtide" << name;
    params.insert(QStringLiteral("source"), source);
    return GlobalManager::instance()->request(owner, result, name, params);
}
