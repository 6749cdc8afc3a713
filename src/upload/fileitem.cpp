#include "fileitem.h"

#include "core/logging.h"
#include "upload/chunkitem.h"

namespace {
const QString UploadInfoKey = QStringLiteral("uploadInfo");
}

FileItem::FileItem() = default;

FileItem::~FileItem()
{
    qCDebug(ztLog) << "file item destructing........";
}

QVariantMap FileItem::toCacheMap() const
{
    const QVariantMap uploadInfo{
        {QStringLiteral("chunks"), remainingChunks()},
        {QStringLiteral("chunkSize"), qlonglong(chunkSize)},
        {QStringLiteral("expires"), qlonglong(expires)},
        {QStringLiteral("method"), method},
        {QStringLiteral("uploadID"), uploadID},
    };
    return QVariantMap{
        {QStringLiteral("identifier"), identifier},
        {QStringLiteral("category"), category},
        {QStringLiteral("private"), isPrivate},
        {QStringLiteral("userID"), userID},
        {QStringLiteral("filePath"), filePath},
        {QStringLiteral("source"), source},
        {QStringLiteral("preview"), preview},
        {QStringLiteral("contentType"), contentType},
        {QStringLiteral("fileName"), fileName},
        {QStringLiteral("totalSize"), qlonglong(totalSize)},
        {QStringLiteral("totalChunks"), totalChunks},
        {QStringLiteral("uploadedChunk"), uploadedChunk},
        {QStringLiteral("currentRequestTime"), currentRequestTime},
        {QStringLiteral("bytesSent"), qlonglong(bytesSent)},
        {QStringLiteral("bucket"), bucket},
        {QStringLiteral("dfsID"), dfsID},
        {QStringLiteral("cdnURL"), cdnURL},
        {QStringLiteral("originParams"), originParams},
        {UploadInfoKey, uploadInfo},
    };
}

void FileItem::fromCacheMap(const QVariantMap &map)
{
    // The cache has been through JSON: numbers come back as doubles and the
    // time as ISO text, so every value is converted to its field's type.
    identifier = map.value(QStringLiteral("identifier")).toString();
    category = map.value(QStringLiteral("category")).toString();
    isPrivate = map.value(QStringLiteral("private")).toBool();
    userID = map.value(QStringLiteral("userID")).toString();
    filePath = map.value(QStringLiteral("filePath")).toString();
    source = map.value(QStringLiteral("source")).toUInt();
    preview = map.value(QStringLiteral("preview")).toBool();
    contentType = map.value(QStringLiteral("contentType")).toString();
    fileName = map.value(QStringLiteral("fileName")).toString();
    totalSize = map.value(QStringLiteral("totalSize")).toLongLong();
    totalChunks = map.value(QStringLiteral("totalChunks")).toInt();
    uploadedChunk = map.value(QStringLiteral("uploadedChunk")).toInt();
    currentRequestTime = map.value(QStringLiteral("currentRequestTime")).toDateTime();
    bytesSent = map.value(QStringLiteral("bytesSent")).toLongLong();
    bucket = map.value(QStringLiteral("bucket")).toString();
    dfsID = map.value(QStringLiteral("dfsID")).toString();
    cdnURL = map.value(QStringLiteral("cdnURL")).toString();
    originParams = map.value(QStringLiteral("originParams")).toMap();

    const QVariantMap uploadInfo = map.value(UploadInfoKey).toMap();
    setChunks(uploadInfo.value(QStringLiteral("chunks")).toList());
    chunkSize = uploadInfo.value(QStringLiteral("chunkSize")).toLongLong();
    expires = uploadInfo.value(QStringLiteral("expires")).toLongLong();
    method = uploadInfo.value(QStringLiteral("method")).toString();
    uploadID = uploadInfo.value(QStringLiteral("uploadID")).toString();
}

QVariantList FileItem::remainingChunks() const
{
    if (!chunksFollowPending)
        return chunks;
    QVariantList remaining;
    remaining.reserve(pendingChunks.size());
    for (const QSharedPointer<ChunkItem> &chunk : pendingChunks) {
        if (chunk->state == Upload::Finished)
            continue;
        QVariantMap descriptor = chunk->descriptor;
        if (chunk->bytesSent > 0)
            descriptor.insert(QStringLiteral("bytesSent"), chunk->bytesSent);
        else
            descriptor.remove(QStringLiteral("bytesSent"));
        remaining.append(descriptor);
    }
    return remaining;
}

void FileItem::followPendingChunks(const QList<QSharedPointer<ChunkItem>> &pending)
{
    pendingChunks = pending;
    chunksFollowPending = true;
}

void FileItem::setChunks(const QVariantList &descriptors)
{
    chunks = descriptors;
    pendingChunks.clear();
    chunksFollowPending = false;
}

bool FileItem::sessionValid(const QDateTime &now) const
{
    qCDebug(ztLog) << "expires" << expires;
    return !uploadID.isEmpty() && currentRequestTime.secsTo(now) <= expires;
}
