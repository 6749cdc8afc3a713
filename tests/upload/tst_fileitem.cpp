#include "upload/fileitem.h"

#include <QTest>

// A file's form in the session cache: the keys an older version wrote and
// reads back, and every field surviving a round trip.
class tst_FileItem : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cacheMapRoundTrip()
    {
        FileItem item;
        item.identifier = QStringLiteral("0123456789abcdef0123456789abcdef");
        item.category = QStringLiteral("PhotoVault");
        item.isPrivate = true;
        item.filePath = QStringLiteral("/home/ann/a.bin");
        item.source = 2;
        item.totalSize = (qint64(1) << 36) + 5; // beyond 32 bits
        item.uploadID = QStringLiteral("session-a");
        item.chunkSize = 4;
        item.expires = 3600;
        item.method = QStringLiteral("PUT");
        item.currentRequestTime = QDateTime::currentDateTime();
        item.chunks = {QVariantMap{{"url", "http://127.0.0.1/c?partNumber=2"}, {"bytesSent", 3}}};
        item.originParams = {{"filePath", item.filePath}, {"extra", 1}};

        const QVariantMap entry = item.toCacheMap();
        QCOMPARE(entry.keys(),
                 QStringList({"bucket", "bytesSent", "category", "cdnURL", "contentType", "currentRequestTime",
                              "dfsID", "fileName", "filePath", "identifier", "originParams", "preview", "private",
                              "source", "totalChunks", "totalSize", "uploadInfo", "uploadedChunk", "userID"}));
        QCOMPARE(entry.value("uploadInfo").toMap().keys(),
                 QStringList({"chunkSize", "chunks", "expires", "method", "uploadID"}));
        FileItem restored;
        restored.fromCacheMap(entry);
        QCOMPARE(restored.toCacheMap(), entry);
        QCOMPARE(restored.totalSize, item.totalSize);
        QCOMPARE(restored.source, 2u);
        QCOMPARE(restored.currentRequestTime, item.currentRequestTime);
        QCOMPARE(restored.chunks, item.chunks);
    }
};

QTEST_MAIN(tst_FileItem)
#include "tst_fileitem.moc"
