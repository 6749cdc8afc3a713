#include "downloadtask.h"

#include "downloadglobal.h"
#include "downloadsinglefile.h"
#include "core/globalmanager.h"
#include "core/logging.h"
#include "sha256.h"

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <utility>

namespace {
constexpr int TransferTimeoutMs = 30000;

// True when the name is one entry of a folder: not empty, "." or "..", and
// without a separator (either one: the host may run where a backslash is one)
// or a NUL.
bool isOneFileName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
           && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'))
           && !name.contains(QChar::Null);
}
} // namespace

DownloadTask::DownloadTask() = default;

DownloadTask::DownloadTask(const DownloadTask &other)
    : QObject()
    , rangeSupported(other.rangeSupported)
    , fileName(other.fileName)
    , m_path(other.m_path)
    , filePath(other.filePath)
    , url(other.url)
    , status(other.status)
    , fileSize(other.fileSize)
    , etag(other.etag)
    , downloadedSize(other.downloadedSize)
    , tempDir(other.tempDir)
    , requestedName(other.requestedName)
    , serverEtag(other.serverEtag)
    , sha256(other.sha256)
{
}

DownloadTask::~DownloadTask()
{
    qCDebug(ztLog) << "task delelte";
}

bool DownloadTask::checkTask() const
{
    if (QDir(m_path).exists() && QUrl(url).isValid())
        return true;
    qCCritical(ztLog) << "path not exist or url not valid" << url << m_path;
    return false;
}

ZTErrorCode DownloadTask::isValid(const QString &path, const QString &address, const QString &name)
{
    const ZTErrorCode code = prepare(path, address, name);
    if (code != Zephyrtide::Error::NoError)
        return code;
    if (!parseTask()) {
        qCCritical(ztLog) << "parsing task fail" << url;
        return Zephyrtide::Error::ParseError;
    }
    return Zephyrtide::Error::NoError;
}

ZTErrorCode DownloadTask::prepare(const QString &path, const QString &address, const QString &name)
{
    m_path = QFileInfo(path).absolutePath();
    url = address;
    if (!name.isEmpty()) {
        fileName = name;
        requestedName = name;
        filePath = path;
    }
    qCDebug(ztLog) << "isValid isValid" << m_path << filePath;
    if (!QDir().mkpath(m_path)) {
        qCCritical(ztLog) << "m_path create fail" << m_path;
        return Zephyrtide::Error::FileError;
    }
    if (!checkTask()) {
        qCCritical(ztLog) << "task not valid" << url;
        return Zephyrtide::Error::ParseError;
    }
    return Zephyrtide::Error::NoError;
}

bool DownloadTask::init(const QString &address)
{
    if (address.isEmpty() && url.isEmpty()) {
        qCCritical(ztLog) << "url is empty";
        return false;
    }
    url = address;
    if (etag.isEmpty() && !parseTask()) {
        qCCritical(ztLog) << "init fail";
        return false;
    }
    // The chunk files and the part a stopped merge has joined already.
    const DownloadSingleFile::Held held = DownloadSingleFile::held(tempDir);
    const qint64 sum = held.chunkBytes + held.mergedBytes;
    downloadedSize = sum;
    qCDebug(ztLog) << "init " << sum;
    return downloadedSize > 0;
}

bool DownloadTask::parseTask()
{
    QNetworkAccessManager access; // this probe's alone
    QNetworkReply *reply = sendProbe(access);
    QEventLoop loop;
    connect(reply, &QNetworkReply::finished, &loop, [&] {
        readProbe(reply);
        loop.quit();
    });
    loop.exec();
    endProbe(reply);
    return applyProbe();
}

QNetworkReply *DownloadTask::sendProbe(QNetworkAccessManager &access)
{
    qCDebug(ztLog) << "parsing task";
    QNetworkRequest request{QUrl(url)};
    request.setRawHeader("Range", "bytes=0-1");
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(TransferTimeoutMs); // a silent server must not hold the caller
    // Qt writes the header and the small body apart: on a connection kept from
    // an earlier probe the body would wait for the server's delayed ACK.
    request.setRawHeader("Connection", "close");
    GlobalManager::instance()->applyHostConfiguration(request);
    const QString name = requestedName.isEmpty() ? fileName : requestedName;
    const QByteArray body = QJsonDocument(QJsonObject{{QStringLiteral("fileName"), name}}).toJson();

    QNetworkReply *reply = access.post(request, body);
    m_probe = reply;
    connect(reply, &QNetworkReply::errorOccurred, this, [](QNetworkReply::NetworkError error) {
        // The wait is ended by the finished() that follows.
        qCCritical(ztLog) << "parsing error" << error;
    });
    connect(reply, &QNetworkReply::sslErrors, this,
            [reply](const QList<QSslError> &errors) { GlobalManager::logCertificateErrors(reply->url(), errors); });
    return reply;
}

void DownloadTask::readProbe(QNetworkReply *reply)
{
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    qCDebug(ztLog) << "parsing " << code << fileName;
    if (code != 403)
        parseHeaders(reply);
}

void DownloadTask::endProbe(QNetworkReply *reply)
{
    m_probe.clear();
    reply->disconnect();
    reply->abort();
    reply->deleteLater();
}

void DownloadTask::abortProbe()
{
    if (!m_probe)
        return;
    qCWarning(ztLog) << "probe given up" << url;
    m_probe->abort();
}

bool DownloadTask::applyProbe()
{
    if (!etag.isEmpty()) {
        etag = contentTag(etag);
    } else {
        etag = QUrl(url).path(QUrl::FullyDecoded).mid(1).replace(QLatin1Char('/'), QLatin1Char('%'));
        qCDebug(ztLog) << "etag is empty" << etag;
        // Every file comes from the one download address, so the address alone
        // would give two files one folder of chunks and one transfer: the name
        // the server was asked for tells them apart.
        const QString name = requestedName.isEmpty() ? fileName : requestedName;
        if (!name.isEmpty())
            etag = contentTag(etag + QLatin1Char('/') + name);
    }
    if (fileSize >= 0 && !etag.isEmpty() && !fileName.isEmpty()) {
        checkFileIsExist(filePath);
        tempDir = DownloadGlobal::instance()->temporaryStoragePath() + QLatin1Char('/') + etag;
        qCDebug(ztLog) << "parsing task success";
        return true;
    }
    qCCritical(ztLog) << "parsing fail" << url << fileSize << fileName;
    return false;
}

void DownloadTask::parseHeaders(QNetworkReply *reply)
{
    const auto headers = reply->rawHeaderPairs();
    qCDebug(ztLog) << "parsing task headerlist " << reply->url() << !headers.isEmpty();
    parseHeaderPairs(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), headers);
}

void DownloadTask::parseHeaderPairs(int statusCode, const QList<QPair<QByteArray, QByteArray>> &headers)
{
    rangeSupported = statusCode == 206;
    for (const auto &header : headers) {
        const QByteArray &name = header.first;
        const QByteArray &value = header.second;
        if (name == "Content-Length" || name == "Content-Range") {
            const QByteArray text = name == "Content-Length" ? value : value.mid(value.indexOf('/') + 1);
            const qint64 size = text.trimmed().toLongLong(); // 0 when unparsable, as for "*"
            // The larger total wins: the 2-byte answer's own length loses to its range's total.
            if (size < 0 || size <= fileSize) {
                qCCritical(ztLog) << "error size" << size;
            } else {
                fileSize = size;
                qCInfo(ztLog) << "task size" << size;
            }
        } else if (name.compare("ETag", Qt::CaseInsensitive) == 0) {
            etag = QString::fromUtf8(value).remove(QLatin1Char('"')).remove(QLatin1Char('/'));
            serverEtag = etag;
            qCDebug(ztLog) << "task etag " << etag;
        } else if (name.compare("Repr-Digest", Qt::CaseInsensitive) == 0) {
            const QByteArray digest = Sha256::fromReprDigest(value);
            if (!digest.isEmpty())
                sha256 = digest;
            qCDebug(ztLog) << "task digest" << value;
        } else if (name == "Content-Disposition" && fileName.isEmpty() && value.contains("filename")
                   && filePath.isEmpty()) {
            const QString decoded = QUrl::fromPercentEncoding(value);
            // Everything after "filename" and one more character, kept as it stands.
            const QString name = decoded.mid(decoded.indexOf(QLatin1String("filename")) + 9);
            if (!isOneFileName(name)) {
                // The server's name must not reach outside the folder the host chose.
                qCCritical(ztLog) << "file name refused" << name;
                continue;
            }
            fileName = name;
            filePath = m_path + QLatin1Char('/') + fileName;
            qCDebug(ztLog) << "task etag " << etag;
        }
    }
}

QString DownloadTask::contentTag(const QString &identity) const
{
    return QString::fromLatin1(
        QCryptographicHash::hash((QString::number(fileSize) + identity).toUtf8(), QCryptographicHash::Md5).toHex());
}

QString DownloadTask::checkFileIsExist(const QString &path)
{
    if (path.isEmpty()) {
        qCCritical(ztLog) << "filename is empty" << "class QString __cdecl DownloadTask::checkFileIsExist(class QString)";
        return path;
    }
    if (!QFileInfo::exists(path))
        return path;
    const QFileInfo info(path);
    QString name;
    QString candidate;
    for (int n = 1;; ++n) {
        name = info.baseName() + QStringLiteral("(%1).").arg(n) + info.completeSuffix();
        candidate = m_path + QLatin1Char('/') + name;
        if (!QFileInfo::exists(candidate))
            break;
    }
    // An empty file reserves the name at once.
    QFile placeholder(candidate);
    if (placeholder.open(QIODevice::WriteOnly)) {
        placeholder.close();
        m_reservations.append(candidate);
    }
    qCDebug(ztLog) << "file isexist" << fileName << filePath;
    qCDebug(ztLog) << "file isexist" << path;
    fileName = name;
    filePath = candidate;
    qCDebug(ztLog) << "new file path" << filePath << fileName;
    return candidate;
}

void DownloadTask::releaseReservations()
{
    for (const QString &path : std::exchange(m_reservations, QStringList())) {
        const QFileInfo placeholder(path);
        if (placeholder.isFile() && placeholder.size() == 0 && QFile::remove(path))
            qCDebug(ztLog) << "placeholder removed" << path;
    }
}

bool DownloadTask::appendSameFile(const DownloadTask &other)
{
    if (other.etag != etag)
        return false;
    sameFileTargets.append(QFileInfo(other.filePath));
    m_reservations += other.m_reservations;
    qCDebug(ztLog) << "appenddddddddddd url " << other.filePath << sameFileTargets.size();
    return true;
}

QVariantMap DownloadTask::toMap() const
{
    return {{QStringLiteral("url"), url},
            {QStringLiteral("path"), filePath},
            {QStringLiteral("filename"), fileName},
            {QStringLiteral("fileSize"), qint64(fileSize)}};
}
