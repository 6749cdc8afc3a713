#include "commands/startupload.h"
#include "hostcall.h"
#include "logcapture.h"
#include "core/globalmanager.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/clouduploader.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QUrlQuery>

using Zephyrtide::Error;

// The upload command as the host drives it through the root object, against a
// scripted upload service.
class tst_StartUpload : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void uploadsFilesWithResultMaps();
    void refusedFileLists_data();
    void refusedFileLists();
    void stopAndAbortEndTheReply_data();
    void stopAndAbortEndTheReply();
    void destroyedReplyDeletesUploader();
    void removeAllForgetsSessions();
    void uploadListIsTheProcessJob();

private:
    QString makeFile(const QString &name, const QByteArray &content);
    QVariantMap fileParams(const QString &path) const { return {{"filePath", path}, {"category", "mine"}}; }
    QObject *startUpload() const { return m_root->findChild<StartUpload *>(); }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
    bool m_holdParts = false;
    int m_answeredParts = 0; // parts up to this number are answered even while parts are held
    bool m_holdInfo = false;
};

void tst_StartUpload::init()
{
    m_server.reset(new ScriptedServer);
    QVERIFY(m_server->start());
    m_holdParts = false;
    m_answeredParts = 0;
    m_holdInfo = false;
    const QString base = m_server->baseUrl();
    m_server->setHandler([this, base](const ScriptedRequest &request) {
        if (request.path() == QLatin1String("/upload/info")) {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            const qint64 size = body.value("fileSize").toVariant().toLongLong();
            QJsonArray chunks;
            for (qint64 part = 1; (part - 1) * 4 < size; ++part) {
                chunks.append(QJsonObject{{"url", QStringLiteral("%1/upload/part?uploadID=%2&partNumber=%3")
                                                      .arg(base, body.value("fileMD5").toString()).arg(part)},
                                          {"headers", QJsonObject()}});
            }
            const QJsonObject result{{"exist", false}, {"cdnURL", base + "/download?fileName=x"},
                                     {"uploadInfo", QJsonObject{{"chunkSize", 4}, {"expires", 3600},
                                                                {"method", "POST"},
                                                                {"uploadID", body.value("fileMD5")},
                                                                {"chunks", chunks}}}};
            ScriptedResponse info =
                ScriptedResponse::json(QJsonDocument(QJsonObject{{"status", "success"}, {"result", result}}).toJson());
            info.hold = m_holdInfo;
            return info;
        }
        if (request.path() == QLatin1String("/upload/complete"))
            return ScriptedResponse::json(R"({"status":"success","result":{}})");
        ScriptedResponse part;
        part.hold = m_holdParts && QUrlQuery(request.url()).queryItemValue("partNumber").toInt() > m_answeredParts;
        return part;
    });
    m_host.reset(new Zephyrtide::Manager);
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                      Q_ARG(Zephyrtide::Manager *, m_host.data())));
    GlobalManager::instance()->setFileServiceAddress(m_server->baseUrl());
    UploadGlobal::instance()->removeAll();
}

void tst_StartUpload::cleanup()
{
    // Jobs of this test's replies go now, not during the next test.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_root.reset();
    m_server.reset();
    m_host.reset();
}

QString tst_StartUpload::makeFile(const QString &name, const QByteArray &content)
{
    const QString path = m_dir.filePath(name);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
    return path;
}

void tst_StartUpload::uploadsFilesWithResultMaps()
{
    const QString a = makeFile("a.txt", "hello world");
    const QString b = makeFile("b.bin", QByteArray(9, '\x01'));
    HostCall call(m_root.data(), "zt_apply_startUpload",
                  {{"files", QVariantList{fileParams(a), fileParams(b)}}});
    call.wait();
    QVERIFY2(call.succeeded(), qPrintable(QString::number(call.errorCode())));
    QCOMPARE(call.finishedCount(), 1);
    const QVariantList results = call.result().value("result").toList();
    QCOMPARE(results.size(), 2);
    QStringList paths;
    for (const QVariant &entry : results) {
        const QVariantMap map = entry.toMap();
        QCOMPARE(map.keys(), QStringList({"bucket", "category", "cdnURL", "contentType", "dfsID",
                                          "filePath", "preview", "private"}));
        QCOMPARE(map.value("category").toString(), QStringLiteral("Zephyrtide")); // the host's "mine" is overridden
        QCOMPARE(map.value("dfsID").toString(), QStringLiteral("Zephyrtide"));
        paths << map.value("filePath").toString();
    }
    paths.sort();
    QCOMPARE(paths, QStringList({a, b}));
    // Progress ends at the total; the cache is emptied after the job.
    QVERIFY(!call.progress.isEmpty());
    QCOMPARE(call.progress.last(), qMakePair(qint64(20), qint64(20)));
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), 0);
}

void tst_StartUpload::refusedFileLists_data()
{
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<int>("code");
    QTest::newRow("no files") << QVariantMap() << 20693;
    QTest::newRow("empty files") << QVariantMap{{"files", QVariantList()}} << 20693;
    QTest::newRow("missing file") << QVariantMap{{"files", QVariantList{QVariantMap{{"filePath", "/nonexistent/x"}}}}}
                                  << 20695;
}

void tst_StartUpload::refusedFileLists()
{
    QFETCH(QVariantMap, params);
    QFETCH(int, code);
    HostCall call(m_root.data(), "zt_apply_startUpload", params);
    call.wait();
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), code);
    QCOMPARE(m_server->requestCount(), 0);
}

void tst_StartUpload::stopAndAbortEndTheReply_data()
{
    QTest::addColumn<bool>("abort");
    QTest::addColumn<bool>("whileAskingForSession");
    QTest::addColumn<int>("code");
    QTest::newRow("stop right after six parts went in: session kept, the four others listed")
        << false << false << 20716;
    QTest::newRow("abort right after six parts went in: session forgotten") << true << false << 20717;
    QTest::newRow("resumed, stopped while the service answers: nothing sent, session kept")
        << false << true << 20716;
    QTest::newRow("resumed, aborted while the service answers: nothing sent, session forgotten")
        << true << true << 20717;
}

// The host ends the upload with stop() or abort(), and then sends the other
// one too; the reply gets the first one's code, once. When the end comes while
// the plugin waits for "/upload/info", no part may go out after it, and the
// cache must hold what stop() or abort() left: the earlier session, or nothing.
// When it comes right after parts went in, the store says so by the time the
// host hears of the end, not some time later.
void tst_StartUpload::stopAndAbortEndTheReply()
{
    QFETCH(bool, abort);
    QFETCH(bool, whileAskingForSession);
    QFETCH(int, code);
    m_holdParts = true;
    const QString path = makeFile("s.bin", QByteArray(40, 's'));
    const QVariantMap params{{"files", QVariantList{fileParams(path)}}};
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
        QCOMPARE(earlier.wait().value("errorCode").toInt(), 20716);
        m_server->release();
        QVERIFY(m_server->waitUntilQuiet());
        session = UploadGlobal::instance()->readValue("uploadInfo").toMap().first().toMap().value("uploadInfo").toMap();
        QVERIFY(!session.value("chunks").toList().isEmpty());
        m_holdInfo = true;
        m_holdParts = false; // none may be asked for
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
        m_answeredParts = 6;
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
        const QString identifier =
            QJsonDocument::fromJson(m_server->requests().first().body).object().value("fileMD5").toString();
        const auto listed = [identifier] {
            return UploadGlobal::instance()->getInfo(identifier).value("uploadInfo").toMap().value("chunks").toList();
        };
        QTRY_COMPARE_WITH_TIMEOUT(listed().size(), 4, 5000);
        endTwice(call.reply());
    }
    call.wait();
    QCOMPARE(call.finishedCount(), 1);
    QCOMPARE(call.errorCode(), code);
    if (!whileAskingForSession && !abort) {
        const QVariantMap stored = UploadGlobal::instance()->readValue("uploadInfo").toMap();
        QCOMPARE(stored.size(), 1);
        QStringList parts;
        for (const QVariant &chunk : stored.first().toMap().value("uploadInfo").toMap().value("chunks").toList())
            parts << QUrlQuery(QUrl(chunk.toMap().value("url").toString())).queryItemValue("partNumber");
        QCOMPARE(parts, QStringList({"7", "8", "9", "10"}));
    }
    QCOMPARE(log.count("request fail error", QtCriticalMsg), 1);
    m_server->release();
    QVERIFY(m_server->waitUntilQuiet());

    const QVariantMap cache = UploadGlobal::instance()->readValue("uploadInfo").toMap();
    QCOMPARE(cache.size(), abort ? 0 : 1);
    if (!whileAskingForSession)
        return;
    const QList<ScriptedRequest> seen = m_server->requests().mid(seenBefore);
    QCOMPARE(seen.size(), 1);
    QCOMPARE(seen.first().path(), QStringLiteral("/upload/info"));
    if (!abort)
        QCOMPARE(cache.first().toMap().value("uploadInfo").toMap(), session);
}

void tst_StartUpload::destroyedReplyDeletesUploader()
{
    m_holdParts = true;
    const QString path = makeFile("d.bin", QByteArray(40, 'd'));
    LogCapture log;
    {
        HostCall call(m_root.data(), "zt_apply_startUpload", {{"files", QVariantList{fileParams(path)}}});
        QTRY_VERIFY_WITH_TIMEOUT(m_server->heldCount() > 0, 5000);
        QCOMPARE(log.count(QStringLiteral("CloudSingleFileUploader destructing...")), 0);
    } // the host lets the reply go
    // The job goes with it, and with it every file and chunk uploader.
    QTRY_COMPARE_WITH_TIMEOUT(log.count(QStringLiteral("CloudSingleFileUploader destructing...")), 1, 5000);
    QCOMPARE(log.count(QStringLiteral("CloudChunkUploader destructing...")), 10);
    m_server->release();
}

void tst_StartUpload::removeAllForgetsSessions()
{
    UploadGlobal::instance()->writeValue("uploadInfo", QVariantMap{{"abc", QVariantMap{{"identifier", "abc"}}}});
    HostCall call(m_root.data(), "zt_apply_removeAll");
    QVERIFY(!call.invoked()); // not a slot of the root: the host reaches the command object
    HostCall direct(startUpload(), "zt_apply_removeAll");
    direct.wait();
    QCOMPARE(direct.finishedCount(), 1);
    QVERIFY(direct.succeeded());
    QCOMPARE(direct.result().value("result").toString(), QString());
    // An empty map is stored, not the value dropped.
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo"), QVariant(QVariantMap()));
}

void tst_StartUpload::uploadListIsTheProcessJob()
{
    m_holdParts = true;
    const QString path = makeFile("l.bin", QByteArray(12, 'l'));
    HostCall upload(m_root.data(), "zt_apply_startUpload", {{"files", QVariantList{fileParams(path)}}});
    QTRY_VERIFY_WITH_TIMEOUT(m_server->heldCount() > 0, 5000);
    HostCall list(startUpload(), "zt_apply_uploadList");
    list.wait();
    QVERIFY(list.succeeded());
    QCOMPARE(list.result().value("result").toList(), QVariantList());
    m_server->release();
    upload.wait();
}

QTEST_MAIN(tst_StartUpload)
#include "tst_startupload.moc"
