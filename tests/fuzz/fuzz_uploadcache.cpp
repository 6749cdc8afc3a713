// The upload-session cache as it comes back from the settings: the stored text
// deciphered and parsed (Encryption::deserializeFileToData), then every entry
// read into a FileItem, which is what a damaged or foreign settings value goes
// through before an upload starts.
//
// The first byte of an input picks how the rest is read:
//   even ('0')  the text as stored in the settings;
//   odd  ('1')  the deciphered JSON. It is enciphered here first, under a key
//               of the fuzzer's own, so that mutations reach the JSON and
//               FileItem parsing instead of ending in base64 or the cipher.

#include "fuzzenvironment.h"

#include "core/encryption.h"
#include "upload/fileitem.h"

#include <QtCore>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace {

using FuzzEnvironment::require;

const QByteArray PlainModeKey("fuzz-record-key!");

QString describe(const QVariantMap &map)
{
    return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(map)).toJson(QJsonDocument::Compact));
}

// A JSON number is a double: Qt reads an integer beyond 2^53 exactly, writes
// it back rounded, and reads the rounded text as another integer. The cache
// keeps what a double holds exactly, which covers every real size, count and
// lifetime; larger integers come only from a damaged value.
bool exactInJson(const QVariant &value)
{
    constexpr qint64 Exact = qint64(1) << 53;
    switch (int(value.type())) {
    case QVariant::LongLong:
        return value.toLongLong() >= -Exact && value.toLongLong() <= Exact;
    case QVariant::ULongLong:
        return value.toULongLong() <= quint64(Exact);
    case QVariant::Map: {
        const QVariantMap map = value.toMap();
        return std::all_of(map.cbegin(), map.cend(), exactInJson);
    }
    case QVariant::List: {
        const QVariantList list = value.toList();
        return std::all_of(list.cbegin(), list.cend(), exactInJson);
    }
    default:
        return true;
    }
}

// What the cache holds after a read, written back as setInfo and removeInfo
// write it, reads back the same: an entry the plugin could read once stays
// readable, and a resumed upload meets the session it left.
void checkWrittenBack(Encryption &encryption, const QVariantMap &cache)
{
    if (!exactInJson(cache))
        return;
    QVariantMap reread;
    const QString text = encryption.serializeDataToFile(cache);
    require(encryption.deserializeFileToData(text, reread), "a written cache can be read", describe(cache));
    require(reread == cache, "a written cache reads back unchanged",
            describe(cache) + QLatin1String("\n  read back: ") + describe(reread));
}

// The fields the cache keeps, as the item holds them: comparing these and not
// two cache maps also catches a field that toCacheMap() writes lossily.
QVariantList persisted(const FileItem &item)
{
    return {item.identifier, item.category, item.isPrivate, item.userID, item.filePath, item.source,
            item.preview, item.contentType, item.fileName, item.totalSize, item.totalChunks,
            item.uploadedChunk, item.currentRequestTime, item.bytesSent, item.bucket, item.dfsID,
            item.cdnURL, item.originParams, item.chunks, item.chunkSize, item.expires, item.method,
            item.uploadID};
}

void checkEntry(Encryption &encryption, const QVariant &value)
{
    FileItem item;
    item.fromCacheMap(value.toMap());
    item.sessionValid(QDateTime::currentDateTime()); // the time and lifetime are the damaged value's

    const QVariantMap entry = item.toCacheMap();
    if (!exactInJson(entry))
        return;
    QVariantMap reread;
    require(encryption.deserializeFileToData(encryption.serializeDataToFile({{item.identifier, entry}}), reread),
            "a written entry can be read", describe(entry));
    FileItem again;
    again.fromCacheMap(reread.value(item.identifier).toMap());
    require(persisted(again) == persisted(item), "a written entry reads back as the same item",
            describe(entry) + QLatin1String("\n  read back: ") + describe(again.toCacheMap()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzEnvironment::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static Encryption storedMode; // the compiled-in record key, as the plugin reads its settings
    static Encryption plainMode(PlainModeKey);

    const bool plain = data[0] & 1;
    const QByteArray rest(reinterpret_cast<const char *>(data) + 1, int(size) - 1);
    Encryption &encryption = plain ? plainMode : storedMode;
    const QString text =
        plain ? QString::fromLatin1(Encryption::aesEncrypt(rest, PlainModeKey, Encryption::Aes128).toBase64())
              : QString::fromUtf8(rest);

    // A failed read leaves the caller's map alone: the plugin then starts with an empty cache.
    const QVariantMap untouched{{QStringLiteral("kept"), QStringLiteral("as it was")}};
    QVariantMap cache = untouched;
    if (!encryption.deserializeFileToData(text, cache)) {
        require(cache == untouched, "a failed read leaves the map alone", describe(cache));
        return 0;
    }
    checkWrittenBack(encryption, cache);
    for (const QVariant &value : qAsConst(cache))
        checkEntry(encryption, value);
    return 0;
}
