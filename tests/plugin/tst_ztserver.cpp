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

    void forwardedToTheService_data()
    {
        QTest::addColumn<QByteArray>("slot");
        QTest::addColumn<QVariantMap>("params"); // empty: zt_apply is called without a map
        QTest::addColumn<QString>("path");
        QTest::addColumn<QVariantMap>("sent");
        const QVariantMap query{{"owner", "me"}, {"n", 2}};
        const QVariantMap both{{"fileName", "a.txt"}, {"filename", "a.txt"}};
        const auto row = [](const char *tag, const char *slot, const QVariantMap &params, const char *path,
                            const QVariantMap &sent) {
            QTest::newRow(tag) << QByteArray(slot) << params << path << sent;
        };
        row("fileList", "zt_apply_fileList", query, "/download/pathList", query);
        row("zt_apply(reply, map) is fileList", "zt_apply", query, "/download/pathList", query);
        row("zt_apply(reply) is fileList", "zt_apply", {}, "/download/pathList", {});
        // The service reads "fileName", hosts send "filename".
        row("delete: filename copied to fileName", "zt_apply_delete", {{"filename", "a.txt"}}, "/delete", both);
        row("delete: filename wins over fileName", "zt_apply_delete", {{"filename", "a.txt"}, {"fileName", "b.txt"}},
            "/delete", both);
        row("delete: only fileName, overwritten by the missing filename", "zt_apply_delete", {{"fileName", "b.txt"}},
            "/delete", {{"fileName", QVariant::fromValue(nullptr)}});
    }
    // Each command goes once to the address setIP gave last, with the body the service reads.
    void forwardedToTheService()
    {
        QFETCH(QByteArray, slot);
        QFETCH(QVariantMap, params);
        QFETCH(QString, path);
        QFETCH(QVariantMap, sent);
        ScriptedServer other;
        QVERIFY(other.start());
        setAddress(other.baseUrl());
        setAddress(m_server->baseUrl());
        m_server->enqueue(ScriptedResponse::json(R"({"status":"success","result":[{"fileName":"a.txt"}]})"));
        Zephyrtide::Reply reply;
        QList<QVariantMap> results;
        connect(&reply, &Zephyrtide::Reply::finished, this, [&](const QVariantMap &map) { results << map; });
        QVERIFY(params.isEmpty() ? QMetaObject::invokeMethod(m_root.data(), slot, Q_ARG(Zephyrtide::Reply *, &reply))
                                 : QMetaObject::invokeMethod(m_root.data(), slot, Q_ARG(Zephyrtide::Reply *, &reply),
                                                             Q_ARG(QVariantMap, params)));
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 10000);
        QCOMPARE(results.first().value("status").toString(), QStringLiteral("success"));
        QCOMPARE(results.first().value("result").toList().value(0).toMap().value("fileName").toString(),
                 QStringLiteral("a.txt"));
        QCOMPARE(other.requestCount(), 0);
        QCOMPARE(m_server->requestCount(), 1);
        QCOMPARE(m_server->requests().first().path(), path);
        QCOMPARE(QJsonDocument::fromJson(m_server->requests().first().body),
                 QJsonDocument(QJsonObject::fromVariantMap(sent)));
    }

    // Which code a failed answer means is the host's to say (the transport's codes too: its library's cases); the
    // plugin passes that code on, and no result with it.
    void fileServiceFailure()
    {
        setAddress(m_server->baseUrl());
        m_server->enqueue(ScriptedResponse::json(R"({"status":"fail","result":"x","errorCode":20712})"));
        HostCall call(m_root.data(), "zt_apply_fileList");
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.result().value("status").toString(), QStringLiteral("fail"));
        QCOMPARE(call.error(), Error::NotExist);
        QVERIFY(!call.result().value("result").isValid());
    }

    void downloadWithoutFiles()
    {
        LogCapture log;
        for (const QVariantMap &params : {QVariantMap(), QVariantMap{{"files", QVariantList()}}}) {
            HostCall call(m_root.data(), "zt_apply_startDownload", params);
            call.wait();
            QCOMPARE(call.finishedCount(), 1);
            QCOMPARE(call.error(), Error::ParseError);
        }
        QCOMPARE(log.count("files is empty", QtCriticalMsg), 2);
    }

private:
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
