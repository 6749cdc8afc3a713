#include "core/globalmanager.h"
#include "hostcall.h"
#include "logcapture.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QtTest>

using Zephyrtide::Error;

// The file-service commands, called by name as the host calls them, against a
// scripted server on loopback.
class tst_ZTServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }
    void init()
    {
        m_host.reset(new Zephyrtide::Manager);
        m_root.reset(new ZTServer);
        m_server.reset(new ScriptedServer);
        QVERIFY(m_server->start());
        QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                          Q_ARG(Zephyrtide::Manager *, m_host.data())));
    }
    void cleanup()
    {
        m_root.reset();
        m_server.reset();
        m_host.reset();
    }

    void setIPThenFileList()
    {
        ScriptedServer other;
        QVERIFY(other.start());
        setAddress(other.baseUrl());
        setAddress(m_server->baseUrl()); // the later address wins
        m_server->enqueue(ScriptedResponse::json(R"({"status":"success","result":[{"fileName":"a.txt","fileSize":3}]})"));
        HostCall call(m_root.data(), "zt_apply_fileList", {{"owner", "me"}, {"n", 2}});
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QVERIFY(call.succeeded());
        QCOMPARE(call.result().value("result").toList().first().toMap().value("fileName").toString(),
                 QStringLiteral("a.txt"));
        QCOMPARE(other.requestCount(), 0);
        QCOMPARE(m_server->requestCount(), 1);
        QCOMPARE(m_server->requests().first().path(), QStringLiteral("/download/pathList"));
        QCOMPARE(bodyOf(0), QVariantMap({{"owner", "me"}, {"n", 2}}));
    }

    // setIP answers from a nested loop: other events run before its reply ends.
    void setIPAnswersFromNestedLoop()
    {
        bool otherEventRan = false;
        bool finishedBeforeOtherEvent = false;
        QTimer::singleShot(0, this, [&] { otherEventRan = true; });
        Zephyrtide::Reply reply;
        connect(&reply, &Zephyrtide::Reply::finished, this, [&] { finishedBeforeOtherEvent = !otherEventRan; });
        QElapsedTimer clock;
        clock.start();
        const QVariantMap params{{"ip", "http://127.0.0.1:9"}};
        QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_apply_setIP", Q_ARG(Zephyrtide::Reply *, &reply),
                                          Q_ARG(QVariantMap, params)));
        QVERIFY(reply.isFinished());
        QVERIFY(clock.elapsed() >= 45);
        QVERIFY(otherEventRan);
        QVERIFY(!finishedBeforeOtherEvent);
        QCOMPARE(GlobalManager::instance()->fileServiceAddress(), QStringLiteral("http://127.0.0.1:9"));
    }

    void applyIsFileList_data()
    {
        QTest::addColumn<bool>("withMap");
        QTest::newRow("zt_apply(reply, map)") << true;
        QTest::newRow("zt_apply(reply)") << false;
    }
    void applyIsFileList()
    {
        QFETCH(bool, withMap);
        setAddress(m_server->baseUrl());
        m_server->enqueue(ScriptedResponse::json(R"({"status":"success","result":[]})"));
        Zephyrtide::Reply reply;
        QVariantMap result;
        connect(&reply, &Zephyrtide::Reply::finished, this, [&](const QVariantMap &map) { result = map; });
        const QVariantMap params{{"k", "v"}};
        QVERIFY(withMap ? QMetaObject::invokeMethod(m_root.data(), "zt_apply", Q_ARG(Zephyrtide::Reply *, &reply),
                                                    Q_ARG(QVariantMap, params))
                        : QMetaObject::invokeMethod(m_root.data(), "zt_apply", Q_ARG(Zephyrtide::Reply *, &reply)));
        QTRY_VERIFY_WITH_TIMEOUT(!result.isEmpty(), 10000);
        QCOMPARE(result.value("status").toString(), QStringLiteral("success"));
        QCOMPARE(m_server->requests().first().path(), QStringLiteral("/download/pathList"));
        QCOMPARE(bodyOf(0), withMap ? params : QVariantMap());
    }

    void deleteCopiesFilename_data()
    {
        QTest::addColumn<QVariantMap>("params");
        QTest::addColumn<QVariantMap>("sent");
        const QVariantMap both{{"fileName", "a.txt"}, {"filename", "a.txt"}};
        QTest::newRow("filename copied to fileName") << QVariantMap{{"filename", "a.txt"}} << both;
        QTest::newRow("filename wins over fileName") << QVariantMap{{"filename", "a.txt"}, {"fileName", "b.txt"}}
                                                     << both;
        QTest::newRow("only fileName: overwritten by the missing filename")
            << QVariantMap{{"fileName", "b.txt"}} << QVariantMap{{"fileName", QVariant::fromValue(nullptr)}};
    }
    void deleteCopiesFilename()
    {
        QFETCH(QVariantMap, params);
        QFETCH(QVariantMap, sent);
        setAddress(m_server->baseUrl());
        m_server->enqueue(ScriptedResponse::json(R"({"status":"success","result":"deleted"})"));
        HostCall call(m_root.data(), "zt_apply_delete", params);
        call.wait();
        QVERIFY(call.succeeded());
        QCOMPARE(call.result().value("result").toString(), QStringLiteral("deleted"));
        QCOMPARE(m_server->requests().first().path(), QStringLiteral("/delete"));
        QCOMPARE(QJsonDocument::fromJson(m_server->requests().first().body),
                 QJsonDocument(QJsonObject::fromVariantMap(sent)));
    }

    void fileServiceFailures_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("fail answer") << ScriptedResponse::json(R"({"status":"fail","result":"notExist"})")
                                     << Error::GeneralFailure;
        QTest::newRow("answer with its own code")
            << ScriptedResponse::json(R"({"status":"fail","result":"x","errorCode":20712})") << Error::NotExist;
        QTest::newRow("500") << ScriptedResponse::json("{}", 500) << Error::InternalServerError;
        QTest::newRow("404") << ScriptedResponse::json("{}", 404) << Error::ContentNotFound;
        ScriptedResponse dropped = ScriptedResponse::json(R"({"status":"success","result":"long enough"})");
        dropped.dropAfterBytes = 10;
        QTest::newRow("connection dropped mid-answer") << dropped << Error::RemoteHostClosed;
    }
    void fileServiceFailures()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(ZTErrorCode, code);
        setAddress(m_server->baseUrl());
        m_server->enqueue(response);
        HostCall call(m_root.data(), "zt_apply_fileList");
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.result().value("status").toString(), QStringLiteral("fail"));
        QCOMPARE(call.error(), code);
        QVERIFY(!call.result().value("result").isValid());
    }

    void refusedCommands()
    {
        LogCapture log;
        for (const QVariantMap &params : {QVariantMap(), QVariantMap{{"files", QVariantList()}}}) {
            HostCall call(m_root.data(), "zt_apply_startDownload", params);
            call.wait();
            QCOMPARE(call.finishedCount(), 1);
            QCOMPARE(call.error(), Error::ParseError);
        }
        QCOMPARE(log.count("files is empty", QtCriticalMsg), 2);

        ZTServer root; // shares the process-wide manager binding with m_root
        GlobalManager::instance()->setManager(nullptr);
        setAddress(m_server->baseUrl());
        for (const char *slot : {"zt_apply_fileList", "zt_apply_delete"}) {
            HostCall call(&root, slot, {{"filename", "a"}});
            call.wait();
            QCOMPARE(call.error(), Error::NoManager);
        }
        QCOMPARE(m_server->requestCount(), 0);
    }

private:
    QVariantMap bodyOf(int request) const
    {
        return QJsonDocument::fromJson(m_server->requests().value(request).body).object().toVariantMap();
    }
    void setAddress(const QString &address)
    {
        HostCall call(m_root.data(), "zt_apply_setIP", {{"ip", address}});
        QVERIFY(call.succeeded());
    }

    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
    QScopedPointer<ScriptedServer> m_server;
};

QTEST_MAIN(tst_ZTServer)
#include "tst_ztserver.moc"
