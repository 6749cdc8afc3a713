#include "downloadchunk.h"

#include "core/globalmanager.h"
#include "core/logging.h"
#include "sha256.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QUrl>

namespace {
// Reads of this size keep up with loopback; the reply holds at most
// ReadBufferSize unread, so a slow disk slows the transfer instead of filling
// memory.
constexpr qint64 ReadSize = 64 * 1024;
constexpr qint64 ReadBufferSize = 1024 * 1024;
// A chunk's range is asked for in requests of at most this many bytes, one
// after the other. Qt's HTTP thread keeps reading its socket whatever the
// reply's read buffer holds, so when the disk is slower than the network all
// that is in flight piles up in memory: a request's size bounds it.
constexpr qint64 RequestWindow = 8 * 1024 * 1024;
constexpr int TransferTimeoutMs = 30000;

bool isSuccessStatus(int status)
{
    return status == 200 || status == 206;
}

// The first byte of a Content-Range "bytes A-B/T" (T may be "*"), or -1 when
// the value is not one: a range that cannot be read is not the one asked for.
qint64 firstByteOf(const QByteArray &contentRange)
{
    static const QRegularExpression form(QStringLiteral("^bytes (\\d{1,18})-(\\d{1,18})/(\\d{1,18}|\\*)$"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(contentRange));
    if (!match.hasMatch())
        return -1;
    const qint64 first = match.captured(1).toLongLong();
    return match.captured(2).toLongLong() >= first ? first : -1;
}
} // namespace

DownloadChunk::DownloadChunk(const QSharedPointer<QNetworkAccessManager> &manager, QObject *parent)
    : QObject(parent)
    , networkManager(manager)
{
}

DownloadChunk::~DownloadChunk()
{
    cancel(); // a chunk that goes leaves no request behind
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
    m_requestFrom = startOffset;
    const qint64 last = qMin(end, startOffset + RequestWindow - 1);
    request.setRawHeader("Range", QStringLiteral("bytes=%1-%2").arg(startOffset).arg(last).toLatin1());
    GlobalManager::instance()->applyHostConfiguration(request);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(TransferTimeoutMs);
    // Qt 5 writes a POST's header and its small body to the socket one after
    // the other, without TCP_NODELAY, so on a reused connection the body waits
    // for the server's delayed ACK: some 40 ms a request, which at one request
    // a window halved the rate on loopback. A fresh connection for each
    // request does not wait, and costs far less to open.
    request.setRawHeader("Connection", "close");
    const QByteArray body = QJsonDocument(QJsonObject{{QStringLiteral("fileName"), fileName}}).toJson();

    if (reply)
        reply->disconnect(this); // the window before, finished
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
    connect(reply.data(), &QNetworkReply::sslErrors, this, [this](const QList<QSslError> &errors) {
        GlobalManager::logCertificateErrors(QUrl(url), errors);
    });
}

QString DownloadChunk::refusal(int status, const QByteArray &contentRange, const QByteArray &etag, qint64 from,
                               const QString &expectedEtag, const QByteArray &reprDigest,
                               const QByteArray &expectedSha256)
{
    if (!isSuccessStatus(status))
        return QStringLiteral("http status %1").arg(status);
    if (status == 200 && from != 0)
        return QStringLiteral("the whole file instead of a range");
    if (status == 206 && firstByteOf(contentRange) != from)
        return QStringLiteral("another range: ") + QString::fromLatin1(contentRange);
    const QString tag = QString::fromUtf8(etag).remove(QLatin1Char('"')).remove(QLatin1Char('/'));
    if (!expectedEtag.isEmpty() && tag != expectedEtag)
        return QStringLiteral("the file changed: ") + tag;
    const QByteArray sha256 = Sha256::fromReprDigest(reprDigest);
    if (!expectedSha256.isEmpty() && !sha256.isEmpty() && sha256 != expectedSha256)
        return QStringLiteral("the file changed: sha-256 ") + QString::fromLatin1(sha256.toBase64());
    return QString();
}

void DownloadChunk::checkAnswer()
{
    if (m_answerChecked || !reply)
        return;
    m_answerChecked = true;
    // Judged before the first byte is written: an error page, another range or
    // another version of the file must never land in the chunk file.
    const QString reason = refusal(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                                   reply->rawHeader("Content-Range"), reply->rawHeader("ETag"), m_requestFrom,
                                   expectedEtag, reply->rawHeader("Repr-Digest"), expectedSha256);
    if (reason.isEmpty())
        return;
    if (!isSuccessStatus(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt()))
        logHttpFailure();
    qCCritical(ztLog) << "chunk answer refused" << url << chunkPath << reason;
    failTransfer(Zephyrtide::Error::GeneralFailure);
}

void DownloadChunk::logHttpFailure()
{
    qCCritical(ztLog) << "errorrrrrrrrrrrrrrrr" << url << fileName << "http error" << reply->error() << "http status"
                      << reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    qCCritical(ztLog) << "header" << reply->rawHeaderPairs();
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
        startOffset += count;
    }
}

void DownloadChunk::relayProgress(qint64 received, qint64 total)
{
    Q_EMIT downloadProgress(received - pendingProgress, total);
    pendingProgress = received;
}

void DownloadChunk::checkCompletion()
{
    if (!reply)
        return;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // A 206 cut short by a dropped connection is a failure too: the bytes that
    // came stay in the chunk file, and the next run asks for the rest.
    if (!isSuccessStatus(status) || reply->error() != QNetworkReply::NoError) {
        if (isSuccessStatus(status))
            writeAvailable(); // what came of a cut answer is good: keep it
        file.flush();
        logHttpFailure();
        Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
        return;
    }
    writeAvailable();
    if (m_failed)
        return;
    // The next window of the range, while the last one brought something: a
    // server that ends a range early is not asked again forever.
    if (status == 206 && !covered() && startOffset > m_requestFrom) {
        pendingProgress = 0; // this reply's bytes are all reported
        sendRequest();
        return;
    }
    // A closed connection can end an answer before its Content-Length without
    // an error: short of its range, the chunk is cut, not finished.
    if (!covered()) {
        logHttpFailure();
        Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
        return;
    }
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

// Whatever state the reply is in: one that has just finished may still be
// emitting (its last progress comes before its finished()), and a stop handled
// in between must keep that finished() from ending the chunk.
void DownloadChunk::cancel()
{
    if (reply) {
        reply->disconnect(this);
        reply->abort();
        reply.reset();
    }
    if (file.isOpen())
        file.close();
}
