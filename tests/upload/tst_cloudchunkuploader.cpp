#include "core/globalmanager.h"
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
        QVERIFY(writeRandomFile(m_dir.filePath("source.bin"), 100000));
    }
    void cleanup()
    {
        m_server.reset();
        UploadGlobal::destroy();
    }

    // An item that cannot be sent is refused.
    void refusedItems()
    {
        CloudChunkUploader uploader;
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        auto item = chunk("/p?partNumber=1");
        item->partNumber = -1;
        QVERIFY(!uploader.setItem(item));
        item->partNumber = 1;
        item->chunkSize = 0;
        QVERIFY(!uploader.setItem(item));
        QVERIFY(!uploader.start());
        QCOMPARE(error.count(), 1);
        QCOMPARE(error.first().first().value<ZTErrorCode>(), Error::GeneralFailure);
    }

    void transferEnds_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("status"); // -1: the service takes the part and never answers
        QTest::addColumn<bool>("stop");
        QTest::addColumn<ZTErrorCode>("code"); // NoError: finished, or nothing reported after a stop
        const QString url = QStringLiteral("/p?partNumber=1");
        QTest::newRow("finished") << url << "source.bin" << 200 << false << Error::NoError;
        QTest::newRow("500: 20480 + 401") << url << "source.bin" << 500 << false
                                          << ZTErrorCode(20480 + QNetworkReply::InternalServerError);
        QTest::newRow("stopped: nothing reported") << url << "source.bin" << 200 << true << Error::NoError;
        QTest::newRow("hung service: times out") << url << "source.bin" << -1 << false << Error::Timeout;
        QTest::newRow("invalid address") << "http://[::1" << "source.bin" << 0 << false << Error::InvalidChunkUrl;
        QTest::newRow("file gone: 20480 + UnknownContentError")
            << url << "gone.bin" << 0 << false << ZTErrorCode(20480 + QNetworkReply::UnknownContentError);
    }
    // However a part's transfer ends, it reports once, and its file goes with
    // it: a file of hundreds of parts must not hold a handle per part until
    // the job ends. The service's headers go as they are.
    void transferEnds()
    {
        QFETCH(QString, url);
        QFETCH(QString, file);
        QFETCH(int, status);
        QFETCH(bool, stop);
        QFETCH(ZTErrorCode, code);
        const QString path = m_dir.filePath("source.bin");
        const auto handlesOnFile = [path] {
            int count = 0;
            for (const QFileInfo &fd : QDir("/proc/self/fd").entryInfoList(QDir::System | QDir::Files))
                count += fd.symLinkTarget() == path ? 1 : 0;
            return count;
        };
        ScriptedResponse response;
        response.status = qMax(status, 200);
        response.hold = true;
        m_server->enqueue(response);
        if (status < 0)
            UploadGlobal::instance()->setPartStallTimeoutMs(300);
        auto item = chunk(url, file);
        CloudChunkUploader uploader;
        QVERIFY(uploader.setItem(item));
        QSignalSpy finished(&uploader, &CloudChunkUploader::finished);
        QSignalSpy error(&uploader, &CloudChunkUploader::errorOccurred);
        uploader.start();
        if (status > 0) {
            QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 1, 5000);
            QCOMPARE(handlesOnFile(), 1); // the body is read from the file while it goes
            if (stop)
                uploader.stop();
            m_server->release();
        }
        if (!stop)
            QTRY_COMPARE_WITH_TIMEOUT(finished.count() + error.count(), 1, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(handlesOnFile(), 0, 5000);
        QCOMPARE(finished.count(), !stop && code == Error::NoError ? 1 : 0);
        QCOMPARE(error.count(), code == Error::NoError ? 0 : 1);
        if (code != Error::NoError) {
            QCOMPARE(error.first().first().value<ZTErrorCode>(), code);
            QCOMPARE(item->state, Upload::Failed);
        }
        QCOMPARE(m_server->requestCount(), status == 0 ? 0 : 1);
        if (status == 200 && !stop) {
            const ScriptedRequest sent = m_server->requests().first();
            QCOMPARE(sent.header("X-Upload-Token"), QByteArray("tok"));
            QCOMPARE(sent.header("X-Number"), QByteArray("42"));
            QCOMPARE(sent.header("X-Flag"), QByteArray("true"));
        }
    }

private:
    // A part of 100000 bytes of file (the one made for each test, unless named).
    QSharedPointer<ChunkItem> chunk(const QString &url, const QString &file = "source.bin") const
    {
        auto item = QSharedPointer<ChunkItem>::create();
        item->partNumber = 1;
        item->chunkSize = 100000;
        item->url = url.startsWith('/') ? m_server->baseUrl() + url : url;
        item->filePath = m_dir.filePath(file);
        item->length = 100000;
        item->headers = {{"X-Upload-Token", "tok"}, {"X-Number", 42}, {"X-Flag", true}};
        return item;
    }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    QScopedPointer<ScriptedServer> m_server;
};

QTEST_MAIN(tst_CloudChunkUploader)
#include "tst_cloudchunkuploader.moc"
