#include "core/globalmanager.h"
#include "logcapture.h"
#include "scriptedserver.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QtTest>

using Zephyrtide::Error;
using Zephyrtide::Manager;
using Zephyrtide::Reply;

// A host manager whose answers the test scripts.
class ScriptedManager : public Manager
{
public:
    enum Mode { NullReply, FailedStatus, FinishedAtOnce, NeverFinishes };
    explicit ScriptedManager(Mode mode) : m_mode(mode) {}

    Reply *request(const QString &name, HttpRequestType, HttpEncryptType, const QVariantMap &params,
                   CloudAuthentication, const QVariantMap &) override
    {
        ++calls;
        if (m_mode == NullReply)
            return nullptr;
        lastReply = new Reply(name, params, this);
        connect(lastReply, &Reply::abort, this, [this] { ++aborts; });
        if (m_mode == FailedStatus)
            lastReply->setStatus(Error::ContentNotFound);
        if (m_mode == FinishedAtOnce)
            Q_EMIT lastReply->finished({{"status", "success"}, {"result", "gone by"}, {"errorCode", 0}});
        return lastReply;
    }

    int calls = 0;
    int aborts = 0;
    QPointer<Reply> lastReply;

private:
    Mode m_mode;
};

class tst_GlobalManager : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }
    void cleanup() { GlobalManager::destroy(); }

    void finishDeliversOnce()
    {
        LogCapture log;
        Reply reply;
        QSignalSpy finished(&reply, &Reply::finished);
        GlobalManager::instance()->success(&reply, QStringLiteral("first"));
        GlobalManager::instance()->fail(&reply, Error::ParseError);
        QCOMPARE(finished.count(), 1);
        const QVariantMap map = finished.first().first().toMap();
        QCOMPARE(map, QVariantMap({{"errorCode", 0}, {"result", "first"}, {"status", "success"}}));
        // Without a reply there is nothing to finish: said, not crashed on.
        GlobalManager::instance()->fail(nullptr, Error::ParseError);
        GlobalManager::instance()->success(nullptr, QVariant());
        QCOMPARE(log.count("request reply is empty", QtCriticalMsg), 2);
    }

    void answerWords_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("result");
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("success") << "success" << "anything" << Error::NoError;
        QTest::newRow("status containing success") << "was success" << "" << Error::NoError;
        QTest::newRow("Success capitalised is not success") << "Success" << "" << Error::GeneralFailure;
        QTest::newRow("unknown word") << "fail" << "quota" << Error::GeneralFailure;
        QTest::newRow("notexist, any case") << "fail" << "file notexist" << Error::NotExist;
        // Each word beats the next one looked for: every word, and their order.
        QTest::newRow("require") << "fail" << "authErr require" << Error::MissingParameter;
        QTest::newRow("authErr") << "fail" << "parseErr authErr" << Error::AuthError;
        QTest::newRow("parseErr") << "fail" << "USERNOTEXIST parseErr" << Error::ParseError;
        QTest::newRow("USERNOTEXIST in capitals: 20708, not 20712") << "fail" << "illegalErr USERNOTEXIST"
                                                                    << Error::UserNotExist;
        QTest::newRow("illegalErr") << "fail" << "hasCaptcha illegalErr" << Error::IllegalError;
        QTest::newRow("hasCaptcha") << "fail" << "hasValidCode hasCaptcha" << Error::HasCaptcha;
        QTest::newRow("hasValidCode") << "fail" << "notExist hasValidCode" << Error::HasValidCode;
    }
    void answerWords()
    {
        QFETCH(QString, status);
        QFETCH(QString, result);
        QFETCH(ZTErrorCode, code);
        Reply reply;
        QSignalSpy finished(&reply, &Reply::finished);
        GlobalManager::instance()->checkResult(&reply, {{"status", status}, {"result", result}});
        QCOMPARE(finished.count(), 1);
        const QVariantMap map = finished.first().first().toMap();
        QCOMPARE(ZTErrorCode(map.value("errorCode").toInt()), code);
        QCOMPARE(map.value("status").toString(), code == Error::NoError ? "success" : "fail");
        QCOMPARE(map.value("result").isValid(), code == Error::NoError);
    }

    void networkErrorRanges_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<ZTErrorCode>("code");
        // Both sides of each range's upper edge.
        QTest::newRow("100, last of the first range") << 100 << ZTErrorCode(20579);
        QTest::newRow("ProxyConnectionRefused") << 101 << ZTErrorCode(20511);
        QTest::newRow("200, last of the proxy range") << 200 << ZTErrorCode(20610);
        QTest::newRow("ContentAccessDenied") << 201 << ZTErrorCode(20541);
        QTest::newRow("300, last of the content range") << 300 << ZTErrorCode(20640);
        QTest::newRow("ProtocolUnknownError") << 301 << ZTErrorCode(20571);
        QTest::newRow("400, last of the protocol range") << 400 << ZTErrorCode(20670);
        QTest::newRow("InternalServerError") << 401 << ZTErrorCode(20601);
    }
    void networkErrorRanges()
    {
        QFETCH(int, error);
        QFETCH(ZTErrorCode, code);
        QCOMPARE(GlobalManager::networkErrorCode(QNetworkReply::NetworkError(error)), code);
    }

    void hostReplyOutcomes_data()
    {
        QTest::addColumn<int>("mode"); // -1: no host manager set
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("no manager") << -1 << Error::NoManager;
        QTest::newRow("no reply") << int(ScriptedManager::NullReply) << Error::NoManager;
        QTest::newRow("failed before it was sent") << int(ScriptedManager::FailedStatus) << Error::ContentNotFound;
        // Its answer went by before anyone listened: not a success without a result.
        QTest::newRow("finished before the wait") << int(ScriptedManager::FinishedAtOnce) << Error::NoManager;
    }
    void hostReplyOutcomes()
    {
        QFETCH(int, mode);
        QFETCH(ZTErrorCode, code);
        ScriptedManager host{ScriptedManager::Mode(qMax(mode, 0))};
        if (mode >= 0)
            GlobalManager::instance()->setManager(&host);
        QVariant result;
        QCOMPARE(GlobalManager::instance()->request(this, result, "http://127.0.0.1:1/x", {}), code);
        QCOMPARE(host.calls, mode >= 0 ? 1 : 0);
        QVERIFY(!result.isValid());
        // The host's reply is released rather than leaked.
        QTRY_VERIFY_WITH_TIMEOUT(host.lastReply.isNull(), 5000);
    }

    void contextDestroyedWhileWaiting()
    {
        ScriptedManager host(ScriptedManager::NeverFinishes);
        GlobalManager::instance()->setManager(&host);
        auto *context = new QObject; // deleted while the request waits
        QTimer::singleShot(50, context, [context] { context->deleteLater(); });
        QVariant result;
        QCOMPARE(GlobalManager::instance()->request(context, result, "http://127.0.0.1:1/x", {}), Error::Aborted);
        QCOMPARE(host.aborts, 1);
        QTRY_VERIFY_WITH_TIMEOUT(host.lastReply.isNull(), 5000);
    }

    // The host's manager lives on a thread of its own: the request is made there.
    void requestOverHttp()
    {
        ScriptedServer server;
        QVERIFY(server.start());
        server.enqueue(ScriptedResponse::json(R"({"status":"success","result":{"n":7}})"));
        server.enqueue(ScriptedResponse::json(R"({"status":"fail","result":"notExist"})"));
        QThread thread;
        Manager host;
        host.moveToThread(&thread);
        thread.start();
        GlobalManager::instance()->setManager(&host);

        QVariant result;
        auto code = GlobalManager::instance()->request(this, result, server.baseUrl() + "/a", Manager::Post,
                                                       Manager::NoEncryption, {{"X-Test", "1"}},
                                                       {{"fileName", "a.txt"}}, {{"q", "v"}},
                                                       Manager::UserAuthentication, 0);
        QCOMPARE(code, Error::NoError);
        QCOMPARE(result.toMap().value("n").toInt(), 7);
        const ScriptedRequest sent = server.requests().value(0);
        QCOMPARE(sent.method + ' ' + sent.target, QByteArray("POST /a?q=v"));
        QCOMPARE(sent.header("X-Test"), QByteArray("1"));
        QCOMPARE(QJsonDocument::fromJson(sent.body).object().value("fileName").toString(), QStringLiteral("a.txt"));

        code = GlobalManager::instance()->request(this, result, server.baseUrl() + "/b", {});
        QCOMPARE(code, Error::GeneralFailure);
        QCOMPARE(result.toString(), QStringLiteral("notExist"));
        QCOMPARE(server.requestCount(), 2);
        // Hand the manager back before it is destroyed on this thread.
        QThread *testThread = QThread::currentThread();
        QMetaObject::invokeMethod(&host, [&] { host.moveToThread(testThread); }, Qt::BlockingQueuedConnection);
        thread.quit();
        thread.wait();
    }

    void makePath()
    {
        QTemporaryDir dir;
        const QString nested = dir.path() + "/a/b/c";
        QVERIFY(GlobalManager::makePath(nested));
        QVERIFY(QDir(nested).exists());
        QVERIFY(GlobalManager::makePath(nested));
        QFile blocker(dir.path() + "/file");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        QVERIFY(!GlobalManager::makePath(dir.path() + "/file/sub"));
    }
};

QTEST_MAIN(tst_GlobalManager)
#include "tst_globalmanager.moc"
