#include "commands/startupload.h"
#include "core/globalmanager.h"
#include "hostcall.h"
#include "logcapture.h"
#include "network/networkmanager.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/uploadglobal.h"
#include "uploadservice.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QtTest>

using Zephyrtide::Error;

namespace {
QVariantMap cache()
{
    return UploadGlobal::instance()->readValue("uploadInfo").toMap();
}

// The session the cache holds of the test's one file; empty without one.
QVariantMap cachedSession()
{
    const QVariantMap all = cache();
    return all.isEmpty() ? QVariantMap() : all.first().toMap().value("uploadInfo").toMap();
}
} // namespace

// The upload command as the host drives it through the root object, against a scripted service with parts of 4 bytes.
class tst_StartUpload : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_server.reset(new ScriptedServer);
        QVERIFY(m_server->start());
        m_service.reset(new UploadService(m_server.data()));
        m_host.reset(new Zephyrtide::Manager);
        m_root.reset(new ZTServer);
        QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                          Q_ARG(Zephyrtide::Manager *, m_host.data())));
        GlobalManager::instance()->setFileServiceAddress(m_server->baseUrl());
        UploadGlobal::instance()->removeAll();
    }
    void cleanup()
    {
        // Jobs of this test's replies go now, not during the next test.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        m_root.reset();
        m_service.reset();
        m_server.reset();
        m_host.reset();
    }

    void refusedFileLists_data()
    {
        QTest::addColumn<QVariantMap>("params");
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("no files") << QVariantMap() << Error::MissingParameter;
        QTest::newRow("empty files") << QVariantMap{{"files", QVariantList()}} << Error::MissingParameter;
        QTest::newRow("missing file") << filesParam({"/nonexistent/x"}) << Error::ParseError;
    }
    void refusedFileLists()
    {
        QFETCH(QVariantMap, params);
        QFETCH(ZTErrorCode, code);
        HostCall call(m_root.data(), "zt_apply_startUpload", params);
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.error(), code);
        QCOMPARE(m_server->requestCount(), 0);
    }

    void stopAndAbortEndTheReply_data()
    {
        QTest::addColumn<bool>("abort");
        QTest::addColumn<bool>("whileAskingForSession");
        QTest::addColumn<ZTErrorCode>("code");
        QTest::newRow("stop right after six parts went in: session kept, the four others listed")
            << false << false << Error::Stopped;
        QTest::newRow("abort right after six parts went in: session forgotten") << true << false << Error::Aborted;
        QTest::newRow("resumed, stopped while the service answers: nothing sent, session kept")
            << false << true << Error::Stopped;
        QTest::newRow("resumed, aborted while the service answers: nothing sent, session forgotten")
            << true << true << Error::Aborted;
    }
    // The host ends the upload with stop() or abort(), then sends the other one too; the reply gets the first one's
    // code, once. When the end comes while the plugin waits for "/upload/info", no part may go out after it, and the
    // cache holds what stop() or abort() left: the earlier session, or nothing. When it comes right after parts went
    // in, the store says so by the time the host hears of the end.
    void stopAndAbortEndTheReply()
    {
        QFETCH(bool, abort);
        QFETCH(bool, whileAskingForSession);
        QFETCH(ZTErrorCode, code);
        m_service->holdParts = true;
        const QVariantMap params = filesParam({makeFile("s.bin", QByteArray(40, 's'))});
        const auto endTwice = [abort](Zephyrtide::Reply *reply) {
            Q_EMIT(abort ? reply->abort() : reply->stop());
            Q_EMIT(abort ? reply->stop() : reply->abort());
        };
        QVariantMap session;
        if (whileAskingForSession) {
            // An earlier run stopped part-way left its session in the cache.
            HostCall earlier(m_root.data(), "zt_apply_startUpload", params);
            QTRY_VERIFY_WITH_TIMEOUT(m_server->heldCount() > 0, 5000);
            Q_EMIT earlier.reply()->stop();
            earlier.wait();
            QCOMPARE(earlier.error(), Error::Stopped);
            // Its parts are cut: their connections close, so nothing of that run can come back.
            QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 0, 5000);
            session = cachedSession();
            QVERIFY(!session.value("chunks").toList().isEmpty());
            m_service->holdInfo = true;
            m_service->holdParts = false; // none may be asked for
        }
        const int seenBefore = m_server->requestCount();

        LogCapture log;
        HostCall call(m_root.data(), "zt_apply_startUpload", params, [&](Zephyrtide::Reply *reply) {
            if (!whileAskingForSession)
                return;
            connect(m_server.data(), &ScriptedServer::requestReceived, reply,
                    [this, endTwice, reply](const ScriptedRequest &request) {
                        if (request.path() != QLatin1String("/upload/info"))
                            return;
                        // Queued: the held answer is registered once this signal returns.
                        QMetaObject::invokeMethod(reply, [this, endTwice, reply] {
                            endTwice(reply);
                            m_server->release();
                        }, Qt::QueuedConnection);
                    });
        });
        if (!whileAskingForSession) {
            m_service->answeredParts = 6;
            QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
            // The job knows the four parts left; the end must see them stored.
            const QString identifier =
                QJsonDocument::fromJson(m_server->requests().first().body).object().value("fileMD5").toString();
            const auto listed = [identifier] {
                const QVariantMap info = UploadGlobal::instance()->getInfo(identifier).value("uploadInfo").toMap();
                return info.value("chunks").toList().size();
            };
            QTRY_COMPARE_WITH_TIMEOUT(listed(), 4, 5000);
            endTwice(call.reply());
        }
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.error(), code);
        if (!whileAskingForSession && !abort) {
            QCOMPARE(cache().size(), 1);
            QStringList parts;
            for (const QVariant &chunk : cachedSession().value("chunks").toList())
                parts << QUrlQuery(QUrl(chunk.toMap().value("url").toString())).queryItemValue("partNumber");
            QCOMPARE(parts, QStringList({"7", "8", "9", "10"}));
        }
        QCOMPARE(log.count("request fail error", QtCriticalMsg), 1);
        // What would come before anything more of this run: the session answer dropped, or the cut parts'
        // connections closed.
        if (whileAskingForSession) {
            QTRY_COMPARE_WITH_TIMEOUT(log.count("upload ended while asking for its session"), 1, 5000);
            // A part sent now would already be in the queue.
            const auto queue = UploadGlobal::instance()->networkManager();
            QCOMPARE(queue->runningCount() + queue->waitingCount(), 0);
        } else {
            QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 0, 5000);
        }
        QCOMPARE(cache().size(), abort ? 0 : 1);
        if (!whileAskingForSession)
            return;
        const QList<ScriptedRequest> seen = m_server->requests().mid(seenBefore);
        QCOMPARE(seen.size(), 1);
        QCOMPARE(seen.first().path(), QStringLiteral("/upload/info"));
        if (!abort)
            QCOMPARE(cachedSession(), session);
    }

    void destroyedReplyDeletesUploader()
    {
        m_service->holdParts = true;
        const QVariantMap params = filesParam({makeFile("d.bin", QByteArray(40, 'd'))});
        LogCapture log;
        {
            HostCall call(m_root.data(), "zt_apply_startUpload", params);
            QTRY_VERIFY_WITH_TIMEOUT(m_server->heldCount() > 0, 5000);
            QCOMPARE(log.count("CloudSingleFileUploader destructing..."), 0);
        } // the host lets the reply go
        // The job goes with it, and with it every file and chunk uploader.
        QTRY_COMPARE_WITH_TIMEOUT(log.count("CloudSingleFileUploader destructing..."), 1, 5000);
        QCOMPARE(log.count("CloudChunkUploader destructing..."), 10);
        m_server->release();
    }

    // removeAll is a slot of the command object, not of the root.
    void removeAllOnTheCommandObject()
    {
        UploadGlobal::instance()->writeValue("uploadInfo", QVariantMap{{"abc", QVariantMap{{"identifier", "abc"}}}});
        QVERIFY(!HostCall(m_root.data(), "zt_apply_removeAll").invoked());
        HostCall removeAll(m_root->findChild<StartUpload *>(), "zt_apply_removeAll");
        removeAll.wait();
        QCOMPARE(removeAll.finishedCount(), 1);
        QVERIFY(removeAll.succeeded());
        QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo"), QVariant(QVariantMap())); // stored empty
    }

private:
    QString makeFile(const QString &name, const QByteArray &content)
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
    }
    static QVariantMap filesParam(const QStringList &paths)
    {
        QVariantList files;
        for (const QString &path : paths)
            files << QVariantMap{{"filePath", path}, {"category", "mine"}};
        return {{"files", files}};
    }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<UploadService> m_service;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
};

QTEST_MAIN(tst_StartUpload)
#include "tst_startupload.moc"
