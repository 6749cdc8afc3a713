#include "logcapture.h"
#include "upload/chunkitem.h"
#include "upload/fileitem.h"

#include <QtTest>

// A file's upload state: its form in the session cache (the keys an older
// version wrote and reads back, every field surviving a round trip, the parts
// still to send) and when its session may be reused. The uploaders' tests
// cannot tell these faults apart from the service's own answers.
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

    // Once the parts are built, the cache follows them: a finished part drops
    // out and a part under way carries its bytes sent, to resume within itself.
    void remainingChunksFollowParts()
    {
        FileItem item;
        QList<QSharedPointer<ChunkItem>> parts;
        for (int i = 1; i <= 3; ++i) {
            parts << QSharedPointer<ChunkItem>::create();
            parts.last()->descriptor = {{"url", QStringLiteral("http://s/p?partNumber=%1").arg(i)}};
            item.chunks << parts.last()->descriptor;
        }
        QCOMPARE(item.remainingChunks(), item.chunks);
        item.followPendingChunks(parts);
        parts[0]->state = Upload::Finished;
        parts[1]->bytesSent = 9;
        const QVariantList remaining = item.remainingChunks();
        QCOMPARE(remaining.size(), 2);
        QCOMPARE(remaining.at(0).toMap().value("bytesSent").toLongLong(), 9LL);
        QCOMPARE(remaining.at(1).toMap().value("url").toString(), QStringLiteral("http://s/p?partNumber=3"));
        QVERIFY(!remaining.at(1).toMap().contains("bytesSent"));
    }

    void sessionValid_data()
    {
        QTest::addColumn<QString>("uploadID");
        QTest::addColumn<int>("age");
        QTest::addColumn<qint64>("expires");
        QTest::addColumn<bool>("valid");
        QTest::newRow("no session") << "" << 10 << qint64(3600) << false;
        QTest::newRow("fresh") << "s" << 10 << qint64(3600) << true;
        QTest::newRow("exactly at expires: kept") << "s" << 3600 << qint64(3600) << true;
        QTest::newRow("one second past: replaced") << "s" << 3601 << qint64(3600) << false;
        QTest::newRow("zero lifetime, same second") << "s" << 0 << qint64(0) << true;
    }
    void sessionValid()
    {
        QFETCH(QString, uploadID);
        QFETCH(int, age);
        QFETCH(qint64, expires);
        QFETCH(bool, valid);
        const QDateTime now = QDateTime::currentDateTime();
        FileItem item;
        item.uploadID = uploadID;
        item.expires = expires;
        item.currentRequestTime = now.addSecs(-age);
        LogCapture log;
        QCOMPARE(item.sessionValid(now), valid);
        QCOMPARE(log.count("expires", QtDebugMsg), 1);
    }
};

QTEST_MAIN(tst_FileItem)
#include "tst_fileitem.moc"
