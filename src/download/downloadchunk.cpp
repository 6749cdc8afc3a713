#include "downloadchunk.h"

#include "plugin/logging.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <QUrl>

namespace {
// Reads of this size keep up with loopback; the reply holds at most
// ReadBufferSize unread, so a slow disk slows the transfer instead of filling
// memory.
constexpr qint64 ReadSize = 64 * 1024;
constexpr qint64 ReadBufferSize = 1024 * 1024;
constexpr int TransferTimeoutMs = 30000;
}

DownloadChunk::DownloadChunk(const QSharedPointer<QNetworkAccessManager> &manager, QObject *parent)
    : QObject(parent)
    , networkManager(manager)
{
}

DownloadChunk::~DownloadChunk()
{
    if (file.isOpen())
        file.close();
}

bool DownloadChunk::start(const QString &dir, const QString &path, const QString &address, qint64 first,
                          qint64 last, const QString &tag)
{
    chunkDir = dir;
    chunkPath = path;
    url = address;
    startOffset = first;
    end = last;
    etag = tag;
    return start();
}

bool DownloadChunk::fail(ZTErrorCode code)
{
    Q_EMIT errorOccurred(code);
    Q_EMIT finished();
    return false;
}

bool DownloadChunk::start()
{
    if (chunkPath.isEmpty() || !QUrl(url).isValid() || startOffset < 0 || startOffset > end) {
        qCCritical(ztLog) << "chunk start error" << url << chunkPath << startOffset << end;
        return fail(Zephyrtide::Error::ParseError);
    }
    if (!QDir(chunkDir).exists() && !QDir().mkpath(chunkDir)) {
        qCCritical(ztLog) << "creat chunk fail" << chunkDir;
        return fail(Zephyrtide::Error::ChunkFolderError);
    }
    file.setFileName(chunkPath);
    if (!file.open(QIODevice::Append)) {
        qCCritical(ztLog) << "file open error" << chunkPath << fileName;
        return fail(Zephyrtide::Error::FileError);
    }

    const qint64 existing = file.size();
    if (existing != 0) {
        pendingProgress = existing;
        startOffset += existing;
        qCDebug(ztLog) << "chunk already exist" << fileName << existing << pendingProgress << startOffset;
    }
    if (covered()) {
        qCDebug(ztLog) << "already complete exist " << pendingProgress;
        file.close();
        Q_EMIT downloadProgress(pendingProgress, file.size());
        Q_EMIT finished();
        return true;
    }
    if (pendingProgress != 0) {
        // The owner counts what is already on disk.
        qCDebug(ztLog) << "exist size" << pendingProgress;
        Q_EMIT downloadProgress(pendingProgress, file.size());
        pendingProgress = 0;
    }
    sendRequest();
    return true;
}

bool DownloadChunk::covered() const
{
    // A chunk but the last asks for its overlap byte too (the range end is
    // inclusive), and is whole only with it; the last one ends at the file size.
    return lastChunk ? startOffset >= end : startOffset > end;
}

void DownloadChunk::sendRequest()
{
    QNetworkRequest request{QUrl(url)};
    request.setRawHeader("Range", QStringLiteral("bytes=%1-%2").arg(startOffset).arg(end).toLatin1());
    request.setSslConfiguration(QSslConfiguration::defaultConfiguration());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(TransferTimeoutMs);
    const QByteArray body = QJsonDocument(QJsonObject{{QStringLiteral("fileName"), fileName}}).toJson();

    reply = QSharedPointer<QNetworkReply>(networkManager->post(request, body), &QObject::deleteLater);
    reply->setReadBufferSize(ReadBufferSize);
    m_answerChecked = false;
    m_failed = false;
    if (pendingProgress != 0) {
        Q_EMIT downloadProgress(pendingProgress, file.size());
        pendingProgress = 0;
    }
    connect(reply.data(), &QNetworkReply::metaDataChanged, this, &DownloadChunk::checkAnswer);
    connect(reply.data(), &QNetworkReply::readyRead, this, &DownloadChunk::writeAvailable);
    connect(reply.data(), &QNetworkReply::finished, this, &DownloadChunk::checkCompletion);
    connect(reply.data(), &QNetworkReply::downloadProgress, this, &DownloadChunk::relayProgress);
}

void DownloadChunk::checkAnswer()
{
    if (m_answerChecked || !reply)
        return;
    m_answerChecked = true;
    // Judged before the first byte is written: an error page, another range or
    // another version of the file must never land in the chunk file.
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray range = reply->rawHeader("Content-Range");
    const qint64 rangeStart = range.mid(6, range.indexOf('-') - 6).toLongLong(); // "bytes A-B/T"
    const QString tag = QString::fromUtf8(reply->rawHeader("ETag")).remove(QLatin1Char('"')).remove(QLatin1Char('/'));
    QString reason;
    if (status != 200 && status != 206)
        reason = QStringLiteral("http status %1").arg(status);
    else if (status == 200 && startOffset != 0)
        reason = QStringLiteral("the whole file instead of a range");
    else if (status == 206 && (!range.startsWith("bytes ") || rangeStart != startOffset))
        reason = QStringLiteral("another range: ") + QString::fromLatin1(range);
    else if (!expectedEtag.isEmpty() && tag != expectedEtag)
        reason = QStringLiteral("the file changed: ") + tag;
    if (reason.isEmpty())
        return;
    qCCritical(ztLog) << "chunk answer refused" << url << chunkPath << reason;
    failTransfer(Zephyrtide::Error::GeneralFailure);
}

void DownloadChunk::failTransfer(ZTErrorCode code)
{
    m_failed = true;
    if (reply) {
        reply->disconnect(this);
        reply->abort();
    }
    file.flush();
    Q_EMIT errorOccurred(code);
}

void DownloadChunk::writeAvailable()
{
    checkAnswer();
    QByteArray buffer(ReadSize, Qt::Uninitialized);
    while (!m_failed && reply && !reply->atEnd()) {
        const qint64 count = reply->read(buffer.data(), buffer.size());
        if (count <= 0)
            break;
        // Flushed at once, so the file always holds what arrived and a resume is exact.
        if (file.write(buffer.constData(), count) != count || !file.flush()) {
            qCCritical(ztLog) << "chunk write fail" << chunkPath << file.errorString();
            failTransfer(Zephyrtide::Error::FileError);
            return;
        }
    }
}

void DownloadChunk::relayProgress(qint64 received, qint64 total)
{
    Q_EMIT downloadProgress(received - pendingProgress, total);
    pendingProgress = received;
}

void DownloadChunk::checkCompletion()
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // A 206 cut short by a dropped connection is a failure too: the bytes that
    // came stay in the chunk file, and the next run asks for the rest.
    if ((status != 200 && status != 206) || reply->error() != QNetworkReply::NoError) {
        if (status == 200 || status == 206)
            writeAvailable(); // what came of a cut answer is good: keep it
        file.flush();
        qCCritical(ztLog) << "errorrrrrrrrrrrrrrrr" << url << fileName << "http error" << reply->error()
                          << "http status" << status;
        qCCritical(ztLog) << "header" << reply->rawHeaderPairs();
        Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
        return;
    }
    writeAvailable();
    if (m_failed)
        return;
    qCDebug(ztLog) << "chunk finish" << etag << fileName;
    reply.reset();
    file.flush();
    file.close();
    Q_EMIT finished();
}

void DownloadChunk::onAborted()
{
    qCDebug(ztLog) << "abort chunk" << chunkPath;
    cancel();
}

void DownloadChunk::onStoped()
{
    cancel();
}

void DownloadChunk::cancel()
{
    if (reply && reply->isRunning()) {
        reply->disconnect(this);
        reply->abort();
        reply.reset();
    }
    if (file.isOpen())
        file.close();
}
