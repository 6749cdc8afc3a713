#include "logcapture.h"
#include "upload/chunkitem.h"
#include "upload/cloudchunkuploader.h"
#include "upload/cloudsinglefileuploader.h"
#include "upload/fileitem.h"
#include "uploadfixture.h"

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
        QTest::addColumn<int>("parts"); // of 16 bytes, the last one of 8
        QTest::addColumn<bool>("exist");
        QTest::addColumn<int>("completes");
        QTest::newRow("1024 parts, listed last first") << 1024 << false << 1;
        QTest::newRow("the service has it: only the info request") << 0 << true << 0;
        QTest::newRow("empty file: no part, completed") << 0 << false << 1;
    }
    // Every part goes once, with the service's headers (the bytes of each are
    // the end-to-end tests'), and the file ends at its size. Finished parts
    // reach the cache in coalesced writes: one for the session, at most one
    // every WriteDelayMs while parts finish, one at the end; the count follows
    // how long it ran, not how many parts it had.
    void uploadsEveryPart()
    {
        QFETCH(int, parts);
        QFETCH(bool, exist);
        QFETCH(int, completes);
        auto item = makeItem(QByteArray(exist ? 13 : qMax(0, parts * 16 - 8), 'x'));
        QVERIFY(item);
        QList<int> numbers;
        for (int part = parts; part >= 1; --part)
            numbers << part;
        m_upload.service->info = m_upload.service->session("s1", 16, numbers, exist);

        CloudSingleFileUploader uploader;
        uploader.setFileItem(item);
        QSignalSpy finished(&uploader, &CloudSingleFileUploader::finished);
        QSignalSpy progress(&uploader, &CloudSingleFileUploader::progress);
        UploadGlobal *global = UploadGlobal::instance();
        const int writesBefore = global->cacheWrites();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(uploader.start());
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 10000);
        global->flush();
        const qint64 elapsed = clock.elapsed();
        const int writes = global->cacheWrites() - writesBefore;
        QVERIFY2(writes >= 1 && writes <= 2 + elapsed / UploadGlobal::WriteDelayMs,
                 qPrintable(QStringLiteral("%1 writes in %2 ms").arg(writes).arg(elapsed)));
        QVERIFY(!progress.isEmpty() && progress.last().at(0).toLongLong() >= item->totalSize);
        const QVariantMap stored = global->readValue("uploadInfo").toMap().value(item->identifier).toMap();
        QCOMPARE(stored.value("uploadedChunk").toInt(), parts);
        const auto sent = m_upload.service->requestsTo("/upload/part");
        QCOMPARE(sent.size(), parts);
        for (const ScriptedRequest &part : sent)
            QCOMPARE(part.header("X-Upload-Token"), QByteArray("s1-token"));
        QCOMPARE(m_upload.service->requestsTo("/upload/info").size(), 1);
        QCOMPARE(m_upload.service->requestsTo("/upload/complete").size(), completes);
    }

    void resumes_data()
    {
        QTest::addColumn<int>("age");           // of the cached session, which expires after 3600 s
        QTest::addColumn<QString>("session");   // the one the service names
        QTest::addColumn<QList<int>>("listed"); // the parts it lists
        QTest::addColumn<int>("held");          // the bytes it says it holds of part 2; -1: none said
        QTest::addColumn<QStringList>("sent");  // the bodies of parts 1 to 3
        // The cache says part 1 went and part 2 got 3 of its 5 bytes out.
        QTest::newRow("service holds 3 bytes of part 2: its tail goes")
            << 10 << "s" << QList<int>{2, 3} << 3 << QStringList{"", "BB", "CCCCC"};
        QTest::newRow("service holds none of part 2 although the cache said 3: all of it goes")
            << 10 << "s" << QList<int>{2, 3} << -1 << QStringList{"", "BBBBB", "CCCCC"};
        QTest::newRow("service already has part 2: only part 3 goes")
            << 10 << "s" << QList<int>{3} << -1 << QStringList{"", "", "CCCCC"};
        QTest::newRow("exactly at expiry, the service holds 4: the session kept, the cache's 3 decide")
            << 3600 << "s" << QList<int>{2, 3} << 4 << QStringList{"", "BB", "CCCCC"};
        QTest::newRow("one second past expiry: the service's answer taken")
            << 3601 << "s" << QList<int>{2, 3} << 4 << QStringList{"", "B", "CCCCC"};
        QTest::newRow("within expiry but gone at the service: its new session gets every byte")
            << 10 << "fresh" << QList<int>{1, 2, 3} << -1 << QStringList{"AAAAA", "BBBBB", "CCCCC"};
    }
    void resumes()
    {
        QFETCH(int, age);
        QFETCH(QString, session);
        QFETCH(QList<int>, listed);
        QFETCH(int, held);
        QFETCH(QStringList, sent);
        auto item = makeItem("AAAAABBBBBCCCCC");
        QVERIFY(item);
        // The session of an earlier run, as the cache gives it back.
        item->uploadID = QStringLiteral("s");
        item->expires = 3600;
        item->chunkSize = 5;
        item->totalChunks = 3;
        item->currentRequestTime = QDateTime::currentDateTime().addSecs(-age);
        const QString part = m_upload.server->baseUrl() + "/upload/part?uploadID=s&partNumber=";
        item->chunks = {QVariantMap{{"url", part + "3"}, {"headers", QVariantMap()}},
                        QVariantMap{{"url", part + "2"}, {"headers", QVariantMap()}, {"bytesSent", 3}}};
        const QMap<int, int> holds = held < 0 ? QMap<int, int>() : QMap<int, int>{{2, held}};
        m_upload.service->info = m_upload.service->session(session, 5, listed, false, holds);

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
        QCOMPARE(item->uploadID, session);
        QStringList bodies{"", "", ""};
        for (const ScriptedRequest &part : m_upload.service->requestsTo("/upload/part")) {
            QCOMPARE(part.header("fileMD5"), QCryptographicHash::hash(part.body, QCryptographicHash::Md5).toBase64());
            bodies[QUrlQuery(part.url()).queryItemValue("partNumber").toInt() - 1] = QString::fromLatin1(part.body);
        }
        QCOMPARE(bodies, sent);
        QCOMPARE(part2Sent.isEmpty(), sent.at(1).isEmpty());
        qint64 last = 5 - sent.at(1).size();
        for (qint64 sentNow : qAsConst(part2Sent)) {
            QVERIFY2(sentNow >= last, qPrintable(QStringLiteral("%1 after %2").arg(sentNow).arg(last)));
            last = sentNow;
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
        QCOMPARE(m_upload.service->requestsTo("/upload/complete").size(), 1);
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
            chunks[i]->chunkSize = 50;
            QVERIFY(parts[i].setItem(chunks[i]));
            connect(&parts[i], &CloudChunkUploader::progress, &uploader,
                    [&uploader, chunk = chunks[i]] { uploader.onUploadProgress(chunk); });
        }
        item->followPendingChunks(chunks);
        QSignalSpy progress(&uploader, &CloudSingleFileUploader::progress);
        parts[0].onUploadProgress(60, 50); // more than the part: not counted
        parts[0].onUploadProgress(30, 50); // 31 < 60: dropped
        parts[1].onUploadProgress(50, 50);
        parts[0].onUploadProgress(50, 50);
        QCOMPARE(progress.count(), 2);
        QCOMPARE(progress.at(0).at(0).toLongLong(), 81LL);  // counted from 1
        QCOMPARE(progress.at(1).at(0).toLongLong(), 101LL); // reported as is ...
        QCOMPARE(item->bytesSent, 100LL);                    // ... but stored capped
        // What the cache gets: each part with the bytes of it already sent.
        const QVariantList remaining = item->toCacheMap().value("uploadInfo").toMap().value("chunks").toList();
        QCOMPARE(remaining.size(), 2);
        QCOMPARE(remaining.at(1).toMap().value("bytesSent").toLongLong(), 50LL);
    }

private:
    QSharedPointer<FileItem> makeItem(const QByteArray &content)
    {
        auto item = QSharedPointer<FileItem>::create();
        const QVariantMap params{{"filePath", m_upload.makeFile("f.bin", content)}, {"category", "Zephyrtide"}};
        return UploadGlobal::instance()->initFileItem(*item, params) ? item : QSharedPointer<FileItem>();
    }

    UploadFixture m_upload;
};

QTEST_MAIN(tst_CloudSingleFileUploader)
#include "tst_cloudsinglefileuploader.moc"
