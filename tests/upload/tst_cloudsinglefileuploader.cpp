#include "core/globalmanager.h"
#include "logcapture.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/chunkitem.h"
#include "upload/cloudchunkuploader.h"
#include "upload/cloudsinglefileuploader.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"
#include "uploadfixture.h"

#include <zephyrtide/manager.h>

#include <QtTest>

namespace {
int partNumber(const ScriptedRequest &request)
{
    return QUrlQuery(request.url()).queryItemValue("partNumber").toInt();
}

QByteArray md5(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toBase64();
}
} // namespace

// The session protocol of one file against a scripted upload service that hands
// out sessions, takes parts and completes.
class tst_CloudSingleFileUploader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { QVERIFY(m_upload.setUp()); }
    void cleanup() { m_upload.tearDown(); }

    void uploadsEveryPart_data()
    {
        QTest::addColumn<int>("parts");
        QTest::addColumn<qint64>("chunkSize");
        QTest::newRow("3 parts, listed out of order") << 3 << qint64(1000);
        QTest::newRow("1024 parts") << 1024 << qint64(16);
    }
    // Every part goes once, with the service's headers and the digest of its
    // bytes. Finished parts reach the cache in coalesced writes: one for the
    // session, at most one every WriteDelayMs while parts finish, one at the
    // end; the count follows how long it ran, not how many parts it had.
    void uploadsEveryPart()
    {
        QFETCH(int, parts);
        QFETCH(qint64, chunkSize);
        QByteArray content;
        for (qint64 i = 0; i < parts * chunkSize - chunkSize / 2; ++i)
            content.append(char(i * 7));
        auto item = makeItem(content);
        QVERIFY(item);
        QList<int> numbers;
        for (int part = parts; part >= 1; --part)
            numbers << part;
        m_upload.service->info = m_upload.service->session("s1", chunkSize, numbers);

        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        QSignalSpy error(&uploader, &CloudSingleFileUploader::errorOccurred);
        UploadGlobal *global = UploadGlobal::instance();
        const int writesBefore = global->cacheWrites();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(uploader.start());
        QVERIFY(finished.wait(120000));
        global->flush();
        const qint64 elapsed = clock.elapsed();
        const int writes = global->cacheWrites() - writesBefore;
        QVERIFY2(writes >= 1 && writes <= 2 + elapsed / UploadGlobal::WriteDelayMs,
                 qPrintable(QStringLiteral("%1 writes in %2 ms").arg(writes).arg(elapsed)));
        QCOMPARE(error.count(), 0);
        QCOMPARE(item->state, Upload::Finished);
        QCOMPARE(item->totalChunks, parts);
        const QVariantMap stored = global->readValue("uploadInfo").toMap().value(item->identifier).toMap();
        QCOMPARE(stored.value("uploadedChunk").toInt(), parts);
        QCOMPARE(stored.value("uploadInfo").toMap().value("chunks").toList(), QVariantList());

        const auto sent = requestsTo("/upload/part");
        QCOMPARE(sent.size(), parts);
        QByteArray assembled(content.size(), '\0');
        for (const ScriptedRequest &part : sent) {
            QCOMPARE(part.header("X-Upload-Token"), QByteArray("s1-token"));
            QCOMPARE(part.header("fileMD5"), md5(part.body));
            assembled.replace((partNumber(part) - 1) * chunkSize, part.body.size(), part.body);
        }
        QCOMPARE(assembled, content);

        const auto infos = requestsTo("/upload/info");
        QCOMPARE(infos.size(), 1);
        const QVariantMap body = QJsonDocument::fromJson(infos.first().body).object().toVariantMap();
        QCOMPARE(body.value("fileName").toString(), QStringLiteral("f.bin"));
        QCOMPARE(body.value("fileMD5").toString(), item->identifier);
        QCOMPARE(body.value("fileSize").toLongLong(), qint64(content.size()));
        const auto completes = requestsTo("/upload/complete");
        QCOMPARE(completes.size(), 1);
        QCOMPARE(QJsonDocument::fromJson(completes.first().body).object().value("fileMD5").toString(),
                 item->identifier);
        QCOMPARE(item->dfsID, QStringLiteral("Zephyrtide"));
        QCOMPARE(item->bucket, QStringLiteral("Zephyrtide"));
    }

    void nothingToSend_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("exist");
        QTest::addColumn<int>("completes");
        QTest::newRow("the service has it: only the info request") << QByteArray("already there") << true << 0;
        QTest::newRow("empty file: no chunk, completed") << QByteArray() << false << 1;
    }
    void nothingToSend()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, exist);
        QFETCH(int, completes);
        auto item = makeItem(content);
        QVERIFY(item);
        m_upload.service->info = m_upload.service->session("s", 8, {}, exist);
        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        QSignalSpy progress(&uploader, &CloudSingleFileUploader::progress);
        QVERIFY(uploader.start());
        QCOMPARE(finished.count(), 1);
        QCOMPARE(progress.count(), 1);
        QCOMPARE(progress.first().at(0).toLongLong(), item->totalSize);
        QCOMPARE(item->totalChunks, 0);
        QCOMPARE(requestsTo("/upload/complete").size(), completes);
        QCOMPARE(m_upload.server->requestCount(), 1 + completes);
    }

    void sessionChoice_data()
    {
        QTest::addColumn<int>("ageSeconds");
        QTest::addColumn<QString>("serviceSession");
        QTest::addColumn<QString>("usedSession");
        QTest::newRow("exactly at expiry, still known to the service: cached kept") << 100 << "cached" << "cached";
        QTest::newRow("one second past expiry: the service's taken") << 101 << "fresh" << "fresh";
        QTest::newRow("within expiry but gone at the service: its new one taken") << 10 << "fresh" << "fresh";
    }
    void sessionChoice()
    {
        QFETCH(int, ageSeconds);
        QFETCH(QString, serviceSession);
        QFETCH(QString, usedSession);
        auto item = makeItem("0123456789");
        QVERIFY(item);
        // A session from an earlier run, as the cache would give it back.
        cachedSession(*item, 10, {partUrl("cached", 1)}, ageSeconds);
        item->expires = 100;
        item->chunks[0] = QVariantMap{{"url", partUrl("cached", 1)},
                                      {"headers", QVariantMap{{"X-Upload-Token", "cached-token"}}}};
        item->bytesSent = 7; // what the cached session had sent
        m_upload.service->info = m_upload.service->session(serviceSession, 10, {1});

        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        QVERIFY(uploader.start());
        QVERIFY(finished.wait(5000));
        const auto parts = requestsTo("/upload/part");
        QCOMPARE(parts.size(), 1);
        QCOMPARE(QUrlQuery(parts.first().url()).queryItemValue("uploadID"), usedSession);
        QCOMPARE(item->uploadID, usedSession);
        QCOMPARE(parts.first().body, QByteArray("0123456789")); // a new session gets every byte
    }

    void resumedChunkSendsItsTail_data()
    {
        QTest::addColumn<QList<int>>("serverParts");
        QTest::addColumn<int>("serverHolds");
        QTest::addColumn<QByteArray>("part2");
        // The cache says part 2 got 3 of its 5 bytes out; part 3 always goes whole.
        QTest::newRow("service holds 3 bytes of part 2: its tail goes") << QList<int>{2, 3} << 3 << QByteArray("BB");
        QTest::newRow("service holds 4: the cache's 3 decide, no byte is skipped")
            << QList<int>{2, 3} << 4 << QByteArray("BB");
        QTest::newRow("service holds none of part 2 although the cache said 3: all of it goes")
            << QList<int>{2, 3} << -1 << QByteArray("BBBBB");
        QTest::newRow("service already has part 2: only part 3 goes") << QList<int>{3} << -1 << QByteArray();
    }
    void resumedChunkSendsItsTail()
    {
        QFETCH(QList<int>, serverParts);
        QFETCH(int, serverHolds);
        QFETCH(QByteArray, part2);
        auto item = makeItem("AAAAABBBBBCCCCC");
        QVERIFY(item);
        // Part 1 went in an earlier run; part 2 got three bytes out before a stop.
        cachedSession(*item, 5, {partUrl("s", 3), partUrl("s", 2)});
        item->chunks[1] = QVariantMap{{"url", partUrl("s", 2)}, {"headers", QVariantMap()}, {"bytesSent", 3}};
        QMap<int, int> held;
        if (serverHolds >= 0)
            held.insert(2, serverHolds);
        m_upload.service->info = m_upload.service->session("s", 5, serverParts, false, held);

        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        QVERIFY(uploader.start());
        // What the cache would keep of part 2 at every progress report: from
        // where it resumed on, it only grows.
        QList<qint64> part2Sent;
        for (const auto &chunk : uploader.chunkUploaders()) {
            connect(chunk.data(), &CloudChunkUploader::progress, this, [&part2Sent, item] {
                for (const QVariant &descriptor : item->remainingChunks()) {
                    if (descriptor.toMap().value("url").toString().endsWith("partNumber=2"))
                        part2Sent << descriptor.toMap().value("bytesSent").toLongLong();
                }
            });
        }
        QVERIFY(finished.wait(5000));
        QCOMPARE(item->uploadedChunk, 3);
        QCOMPARE(item->uploadID, QStringLiteral("s"));
        QMap<int, QByteArray> bodies;
        for (const ScriptedRequest &part : requestsTo("/upload/part")) {
            QCOMPARE(part.header("fileMD5"), md5(part.body));
            bodies.insert(partNumber(part), part.body);
        }
        QCOMPARE(bodies.keys(), part2.isEmpty() ? QList<int>({3}) : QList<int>({2, 3}));
        QCOMPARE(bodies.value(2), part2);
        QCOMPARE(bodies.value(3), QByteArray("CCCCC"));
        QCOMPARE(part2Sent.isEmpty(), part2.isEmpty());
        qint64 last = 5 - part2.size();
        for (qint64 sent : qAsConst(part2Sent)) {
            QVERIFY2(sent >= last, qPrintable(QStringLiteral("%1 after %2").arg(sent).arg(last)));
            last = sent;
        }
    }

    void finishedOncePerRun_data()
    {
        QTest::addColumn<bool>("startAgain");
        QTest::newRow("stopped while the service completes: no finished") << false;
        QTest::newRow("stopped and started again meanwhile: one finished, the second run's") << true;
    }
    // While the service answers the completion of the last part, the host stops
    // the file (and starts it again, which the service answers with "exist").
    // The first run's completion must report nothing.
    void finishedOncePerRun()
    {
        QFETCH(bool, startAgain);
        auto item = makeItem("AAAAABBBBB");
        QVERIFY(item);
        m_upload.service->info = m_upload.service->session("once", 5, {1, 2});
        m_upload.service->holdComplete = true;
        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        connect(m_upload.server.data(), &ScriptedServer::requestReceived, &uploader,
                [this, &uploader, startAgain](const ScriptedRequest &request) {
                    if (request.path() != QLatin1String("/upload/complete"))
                        return;
                    // Queued: the held answer is registered once this signal returns.
                    QMetaObject::invokeMethod(&uploader, [this, &uploader, startAgain] {
                        uploader.stop();
                        m_upload.service->info = m_upload.service->session("once", 5, {}, true);
                        if (startAgain)
                            QVERIFY(uploader.start());
                        m_upload.server->release();
                    }, Qt::QueuedConnection);
                });
        LogCapture log;
        QVERIFY(uploader.start());
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() > int(startAgain) || log.contains("upload ended while completing"),
                                 10000);
        QCOMPARE(finished.count(), int(startAgain));
        QCOMPARE(item->state, startAgain ? Upload::Finished : Upload::Stopped);
        QCOMPARE(requestsTo("/upload/complete").size(), 1);
        // A stopped file keeps its session for the next start (the job removes it after success).
        QVERIFY(!UploadGlobal::instance()->getInfo(item->identifier).isEmpty());
    }

    void progressNeverGoesBack()
    {
        auto item = makeItem(QByteArray(100, 'p'));
        QVERIFY(item);
        item->chunkSize = 50;
        item->bytesSent = 60; // what an earlier run counted, more than this one has yet
        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QList<QSharedPointer<ChunkItem>> chunks;
        CloudChunkUploader parts[2];
        for (int i = 0; i < 2; ++i) {
            chunks << QSharedPointer<ChunkItem>::create();
            chunks[i]->partNumber = i + 1;
            chunks[i]->chunkSize = 50;
            chunks[i]->descriptor = {{"url", QStringLiteral("http://s/p?partNumber=%1").arg(i + 1)}};
            QVERIFY(parts[i].setItem(chunks[i]));
            const QSharedPointer<ChunkItem> chunk = chunks[i];
            connect(&parts[i], &CloudChunkUploader::progress, &uploader,
                    [&uploader, chunk] { uploader.onUploadProgress(chunk); });
        }
        item->followPendingChunks(chunks);
        QSignalSpy progress(&uploader, &CloudSingleFileUploader::progress);
        LogCapture log;
        parts[0].onUploadProgress(30, 50); // 31 < 60: dropped
        parts[1].onUploadProgress(50, 50);
        parts[0].onUploadProgress(50, 50);
        QCOMPARE(progress.count(), 2);
        QCOMPARE(progress.at(0).at(0).toLongLong(), 81LL);  // counted from 1
        QCOMPARE(progress.at(1).at(0).toLongLong(), 101LL); // reported as is ...
        QCOMPARE(item->bytesSent, 100LL);                    // ... but stored capped
        QCOMPARE(log.count("CloudSingleFileUploader::little: ", QtDebugMsg), 1);
        // What the cache gets: each part with the bytes of it already sent.
        const QVariantList remaining = item->toCacheMap().value("uploadInfo").toMap().value("chunks").toList();
        QCOMPARE(remaining.size(), 2);
        QCOMPARE(remaining.at(1).toMap().value("bytesSent").toLongLong(), 50LL);
    }

private:
    QSharedPointer<FileItem> makeItem(const QByteArray &content)
    {
        const QString path = m_dir.filePath("f.bin");
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            return {};
        file.close();
        auto item = QSharedPointer<FileItem>::create();
        if (!UploadGlobal::instance()->initFileItem(*item, {{"filePath", path}, {"category", "Zephyrtide"}}))
            return {};
        return item;
    }
    QString partUrl(const QString &uploadID, int part) const
    {
        return m_upload.server->baseUrl() + QStringLiteral("/upload/part?uploadID=%1&partNumber=%2").arg(uploadID).arg(part);
    }
    // A session of an earlier run, ageSeconds old, that has urls left to send.
    static void cachedSession(FileItem &item, qint64 chunkSize, const QStringList &urls, int ageSeconds = 0)
    {
        item.uploadID = QUrlQuery(QUrl(urls.first())).queryItemValue("uploadID");
        item.expires = 3600;
        item.chunkSize = chunkSize;
        item.totalChunks = int((item.totalSize + chunkSize - 1) / chunkSize);
        item.currentRequestTime = QDateTime::currentDateTime().addSecs(-ageSeconds);
        item.chunks.clear();
        for (const QString &url : urls)
            item.chunks << QVariantMap{{"url", url}, {"headers", QVariantMap()}};
    }
    QList<ScriptedRequest> requestsTo(const QString &path) const { return m_upload.service->requestsTo(path); }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    UploadFixture m_upload;
};

QTEST_MAIN(tst_CloudSingleFileUploader)
#include "tst_cloudsinglefileuploader.moc"
