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

#include <algorithm>
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
    if (value.type() == QVariant::Map || value.type() == QVariant::List) {
        const QVariantList items = value.type() == QVariant::Map ? value.toMap().values() : value.toList();
        return std::all_of(items.cbegin(), items.cend(), exactInJson);
    }
    if (value.type() == QVariant::ULongLong)
        return value.toULongLong() <= quint64(Exact);
    return value.type() != QVariant::LongLong || (value.toLongLong() >= -Exact && value.toLongLong() <= Exact);
}

// The map written as setInfo and removeInfo write the cache, and read back.
QVariantMap writtenAndRead(Encryption &encryption, const QVariantMap &map)
{
    QVariantMap reread;
    require(encryption.deserializeFileToData(encryption.serializeDataToFile(map), reread),
            "a written cache can be read", describe(map));
    return reread;
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
    // What a read gave, written back, reads back the same: an entry the plugin
    // could read once stays readable, and a resumed upload meets its session.
    if (exactInJson(cache)) {
        const QVariantMap reread = writtenAndRead(encryption, cache);
        require(reread == cache, "a written cache reads back unchanged",
                describe(cache) + QLatin1String("\n  read back: ") + describe(reread));
    }
    for (const QVariant &value : qAsConst(cache)) {
        FileItem item;
        item.fromCacheMap(value.toMap());
        item.sessionValid(QDateTime::currentDateTime()); // the time and lifetime are the damaged value's
        const QVariantMap entry = item.toCacheMap();
        if (!exactInJson(entry))
            continue;
        FileItem again;
        again.fromCacheMap(writtenAndRead(encryption, {{item.identifier, entry}}).value(item.identifier).toMap());
        require(persisted(again) == persisted(item), "a written entry reads back as the same item",
                describe(entry) + QLatin1String("\n  read back: ") + describe(again.toCacheMap()));
    }
    return 0;
}
