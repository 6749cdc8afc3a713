#include "core/globalmanager.h"
#include "logcapture.h"
#include "network/networkmanager.h"
#include "randomfile.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/chunkitem.h"
#include "upload/cloudchunkuploader.h"
#include "upload/uploadglobal.h"

#include <QtTest>

using Zephyrtide::Error;

// One chunk request: what goes on the wire, and how failures become codes.
class tst_CloudChunkUploader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // The plugin registers "ZTErrorCode" with its GlobalManager; signal spies need it.
    void initTestCase() { GlobalManager::instance(); }
    void init()
    {
        m_server.reset(new ScriptedServer);
        QVERIFY(m_server->start());
    }
    void cleanup()
    {
        m_server.reset();
        UploadGlobal::destroy();
    }

    void whatGoesOnTheWire_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("file");
        QTest::newRow("bytes in memory") << QByteArray("some chunk bytes") << QString();
        QTest::newRow("a range of a file") << QByteArray() << "source.bin";
        QTest::newRow("file gone: 20480 + UnknownContentError") << QByteArray() << "gone.bin";
    }
    // The service's headers go as they are, the body with "fileMD5", the Base64
    // MD5 of exactly its bytes. All parts share the engine's one queue.
    void whatGoesOnTheWire()
    {
        QFETCH(QByteArray, data);
        QFETCH(QString, file);
        QVERIFY(writeRandomFile(m_dir.filePath("source.bin"), 10000));
        m_server->setHandler([](const ScriptedRequest &) { return ScriptedResponse(); });
        CloudChunkUploader uploader;
        auto item = chunk("/upload/part?uploadID=u&partNumber=1", data);
        item->headers = {{"X-Upload-Token", "tok"}, {"X-Number", 42}, {"X-Flag", true}};
        if (!file.isEmpty()) {
            item->filePath = m_dir.filePath(file);
            item->offset = 1000;
            item->length = 5000;
        }
        QVERIFY(uploader.setItem(item));
        QSignalSpy finished(&uploader, &CloudChunkUploader::finished);
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        QVERIFY(uploader.start());
        QCOMPARE(item->state, Upload::Running);
        QTRY_COMPARE_WITH_TIMEOUT(finished.count() + error.count(), 1, 5000);
        if (file == QLatin1String("gone.bin")) {
            QCOMPARE(errorOf(error), ZTErrorCode(20480 + QNetworkReply::UnknownContentError));
            QCOMPARE(m_server->requestCount(), 0);
            QCOMPARE(UploadGlobal::instance()->networkManager()->runningCount(), 0);
            return;
        }
        QCOMPARE(item->state, Upload::Finished);
        const QByteArray expected = file.isEmpty() ? data : randomBytes(10000).mid(1000, 5000);
        const ScriptedRequest sent = m_server->requests().first();
        QCOMPARE(sent.method, QByteArray("POST"));
        QCOMPARE(sent.target, QByteArray("/upload/part?uploadID=u&partNumber=1"));
        QCOMPARE(sent.header("X-Upload-Token"), QByteArray("tok"));
        QCOMPARE(sent.header("X-Number"), QByteArray("42"));
        QCOMPARE(sent.header("X-Flag"), QByteArray("true"));
        QCOMPARE(sent.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(sent.body, expected);
        QCOMPARE(sent.header("fileMD5"), QCryptographicHash::hash(expected, QCryptographicHash::Md5).toBase64());
    }

    void refusedItems_data()
    {
        QTest::addColumn<int>("partNumber");
        QTest::addColumn<qint64>("chunkSize");
        QTest::newRow("negative part number") << -1 << qint64(10);
        QTest::newRow("chunk size 0") << 1 << qint64(0);
    }
    void refusedItems()
    {
        QFETCH(int, partNumber);
        QFETCH(qint64, chunkSize);
        LogCapture log;
        CloudChunkUploader uploader;
        auto item = chunk("http://127.0.0.1:1/x");
        item->partNumber = partNumber;
        item->chunkSize = chunkSize;
        QVERIFY(!uploader.setItem(item));
        QVERIFY(!uploader.setItem(QSharedPointer<ChunkItem>()));
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        QVERIFY(!uploader.start());
        QCOMPARE(error.count(), 1);
        QCOMPARE(errorOf(error), Error::GeneralFailure);
        QCOMPARE(log.count("chunk item error ", QtCriticalMsg), 3);
    }

    void startWhileRunning()
    {
        m_server->enqueue(held(200));
        CloudChunkUploader uploader;
        QVERIFY(uploader.setItem(chunk("/p?partNumber=1")));
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        QVERIFY(uploader.start());
        QVERIFY(!uploader.start());
        QCOMPARE(error.count(), 1);
        QCOMPARE(errorOf(error), Error::AlreadyRunning);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 1, 5000);
        m_server->release();
    }

    void failures_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<int>("status");
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("invalid address") << "http://[::1" << 0 << Error::InvalidChunkUrl;
        QTest::newRow("connection refused: 20480 + 1") << "http://127.0.0.1:1/p?partNumber=1" << 0
                                                       << ZTErrorCode(20480 + QNetworkReply::ConnectionRefusedError);
        QTest::newRow("500: 20480 + 401") << "/p?partNumber=1" << 500
                                          << ZTErrorCode(20480 + QNetworkReply::InternalServerError);
        QTest::newRow("404: 20480 + 203") << "/p?partNumber=1" << 404
                                          << ZTErrorCode(20480 + QNetworkReply::ContentNotFoundError);
        // The service takes the part and never answers: no byte moves, it times out.
        QTest::newRow("hung service: time-out") << "/p?partNumber=1" << -1 << Error::Timeout;
    }
    void failures()
    {
        QFETCH(QString, url);
        QFETCH(int, status);
        QFETCH(ZTErrorCode, code);
        m_server->enqueue(status < 0 ? held(200) : held(status, false));
        UploadGlobal::instance()->setPartStallTimeoutMs(300);
        CloudChunkUploader uploader;
        auto item = chunk(url);
        QVERIFY(uploader.setItem(item));
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        QSignalSpy finished(&uploader, &CloudChunkUploader::finished);
        uploader.start();
        QTRY_COMPARE_WITH_TIMEOUT(error.count(), 1, 5000);
        QCOMPARE(errorOf(error), code);
        QCOMPARE(item->state, Upload::Failed);
        QCOMPARE(finished.count(), 0);
    }

    void progressReports_data()
    {
        QTest::addColumn<qlonglong>("sent");
        QTest::addColumn<qlonglong>("total");
        QTest::addColumn<bool>("reported");
        QTest::newRow("part of it") << 3LL << 10LL << true;
        QTest::newRow("all of it") << 10LL << 10LL << true;
        QTest::newRow("total 0") << 0LL << 0LL << false;
        QTest::newRow("more sent than total") << 11LL << 10LL << false;
    }
    void progressReports()
    {
        QFETCH(qlonglong, sent);
        QFETCH(qlonglong, total);
        QFETCH(bool, reported);
        CloudChunkUploader uploader;
        auto item = chunk("http://127.0.0.1:1/p?partNumber=1");
        QVERIFY(uploader.setItem(item));
        QSignalSpy progress(&uploader, &CloudChunkUploader::progress);
        uploader.onUploadProgress(sent, total);
        QCOMPARE(progress.count(), reported ? 1 : 0);
        QCOMPARE(item->bytesSent, reported ? sent : 0);
        QCOMPARE(item->state, reported ? Upload::Running : Upload::New);
    }

    void transferEndReleasesFile_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("stop");
        QTest::newRow("finished") << 200 << false;
        QTest::newRow("failed") << 500 << false;
        QTest::newRow("stopped: and nothing reported") << 200 << true;
    }
    // A file of hundreds of parts must not hold a handle per part until the job
    // ends: the part's file goes when its transfer does.
    void transferEndReleasesFile()
    {
        QFETCH(int, status);
        QFETCH(bool, stop);
        const QString path = m_dir.filePath("part.bin");
        QVERIFY(writeRandomFile(path, 100000));
        const auto handlesOnFile = [path] {
            int count = 0;
            for (const QFileInfo &fd : QDir("/proc/self/fd").entryInfoList(QDir::System | QDir::Files))
                count += fd.symLinkTarget() == path ? 1 : 0;
            return count;
        };
        m_server->enqueue(held(status));
        CloudChunkUploader uploader;
        auto item = chunk("/p?partNumber=1", QByteArray());
        item->filePath = path;
        item->length = 100000;
        QVERIFY(uploader.setItem(item));
        QSignalSpy finished(&uploader, &CloudChunkUploader::finished);
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        QVERIFY(uploader.start());
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 1, 5000);
        QCOMPARE(handlesOnFile(), 1); // the body is read from the file while it goes
        if (stop)
            uploader.stop();
        m_server->release();
        if (!stop)
            QTRY_COMPARE_WITH_TIMEOUT(finished.count() + error.count(), 1, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(handlesOnFile(), 0, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(UploadGlobal::instance()->networkManager()->runningCount(), 0, 5000);
        QCOMPARE(finished.count(), !stop && status == 200 ? 1 : 0);
        QCOMPARE(error.count(), !stop && status != 200 ? 1 : 0);
    }

private:
    QSharedPointer<ChunkItem> chunk(const QString &url, const QByteArray &data = "abc") const
    {
        auto item = QSharedPointer<ChunkItem>::create();
        item->partNumber = 1;
        item->chunkSize = 1024;
        item->url = url.startsWith('/') ? m_server->baseUrl() + url : url;
        item->data = data;
        return item;
    }
    static ScriptedResponse held(int status, bool hold = true)
    {
        ScriptedResponse response;
        response.status = status;
        response.hold = hold;
        return response;
    }
    static ZTErrorCode errorOf(const QSignalSpy &spy) { return spy.first().first().value<ZTErrorCode>(); }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    QScopedPointer<ScriptedServer> m_server;
};

QTEST_MAIN(tst_CloudChunkUploader)
#include "tst_cloudchunkuploader.moc"
