#include "network/networkmanager.h"
#include "network/networkreply.h"
#include "scriptedserver.h"

#include <QtTest>

// The handle of one transfer: which answers finish it and which fail it, that
// nothing follows its end, and a retry that sends the same request again.
class tst_NetworkReply : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }
    void init()
    {
        m_server.reset(new ScriptedServer);
        QVERIFY(m_server->start());
        m_manager.reset(new NetworkManager);
    }
    void cleanup()
    {
        m_manager.reset();
        m_server.reset();
    }

    void statuses_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<bool>("succeeds");
        const auto withStatus = [](int status, qint64 dropAfterBytes = -1) {
            ScriptedResponse r;
            r.status = status;
            r.body = status == 204 ? QByteArray() : QByteArray(1000, 'x');
            r.dropAfterBytes = dropAfterBytes;
            if (status == 301 || status == 302)
                r.header("Location", "/elsewhere");
            return r;
        };
        QTest::newRow("200") << withStatus(200) << true;
        QTest::newRow("206-partial") << withStatus(206).header("Content-Range", "bytes 0-999/5000") << true;
        for (int status : {204, 301, 302, 404, 500})
            QTest::newRow(qPrintable(QString::number(status))) << withStatus(status) << false;
        ScriptedResponse dropped;
        dropped.closeWithoutAnswer = true;
        QTest::newRow("drop-before-answer") << dropped << false;
        // A body shorter than its Content-Length is a dropped connection, whatever the status.
        QTest::newRow("200-cut-mid-body") << withStatus(200, 100) << false;
        QTest::newRow("206-cut-one-byte-short") << withStatus(206, 999).header("Content-Range", "bytes 0-999/5000")
                                                << false;
    }
    void statuses()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(bool, succeeds);
        // Five of the same, so that the fifth only runs if failures free their slots.
        m_server->setHandler([response](const ScriptedRequest &) { return response; });
        int finishedCount = 0;
        int errorCount = 0;
        QList<QSharedPointer<NetworkReply>> replies;
        for (int i = 0; i < 5; ++i) {
            replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/s"))));
            connect(replies.last().data(), &NetworkReply::finished, this, [&] { ++finishedCount; });
            connect(replies.last().data(), &NetworkReply::errorOccurred, this, [&] { ++errorCount; });
        }
        QTRY_COMPARE_WITH_TIMEOUT(finishedCount + errorCount, 5, 10000);
        QCOMPARE(finishedCount, succeeds ? 5 : 0);
        QCOMPARE(errorCount, succeeds ? 0 : 5);
        QCOMPARE(m_manager->runningCount() + m_manager->waitingCount(), 0);
    }

    void nothingAfterTheEnd_data()
    {
        QTest::addColumn<bool>("abort");
        QTest::newRow("finished") << false;
        QTest::newRow("aborted while the server holds the answer") << true;
    }
    // Late signals of the QNetworkReply, as Qt may still send them, must not
    // reach the caller once the handle has ended.
    void nothingAfterTheEnd()
    {
        QFETCH(bool, abort);
        ScriptedResponse response = ScriptedResponse::json(R"({"a":1})");
        response.hold = abort;
        m_server->enqueue(response);
        QSharedPointer<NetworkReply> reply(m_manager->post(request("/a"), QByteArray(64 * 1024, 'b')));
        QSignalSpy finished(reply.data(), &NetworkReply::finished);
        if (abort)
            QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 1, 5000);
        else
            QVERIFY(finished.wait(5000));
        QPointer<QNetworkReply> inner = reply->reply();
        QSignalSpy error(reply.data(), &NetworkReply::errorOccurred);
        QSignalSpy progress(reply.data(), &NetworkReply::downloadProgress);
        QSignalSpy upload(reply.data(), &NetworkReply::uploadProgress);
        QSignalSpy ready(reply.data(), &NetworkReply::readyRead);
        if (abort) {
            Q_EMIT reply->abort();
            QVERIFY(inner->isFinished());
            QCOMPARE(inner->error(), QNetworkReply::OperationCanceledError);
        }
        Q_EMIT inner->downloadProgress(7, 7);
        Q_EMIT inner->uploadProgress(7, 7);
        Q_EMIT inner->readyRead();
        Q_EMIT inner->errorOccurred(QNetworkReply::RemoteHostClosedError);
        Q_EMIT inner->finished();
        QCOMPARE(finished.count(), abort ? 0 : 1);
        QCOMPARE(error.count() + progress.count() + upload.count() + ready.count(), 0);
        if (!abort)
            QCOMPARE(inner->readAll(), QByteArray(R"({"a":1})"));
        m_server->release();
    }

    void retrySendsSameRequest()
    {
        m_server->enqueue(ScriptedResponse::json("try again", 500));
        m_server->enqueue(ScriptedResponse::json("{}"));
        QNetworkRequest r = request("/retry?part=2");
        r.setRawHeader("X-Chunk", "7");
        QSharedPointer<NetworkReply> reply(m_manager->put(r, "payload-bytes"));
        QSignalSpy error(reply.data(), &NetworkReply::errorOccurred);
        QSignalSpy finished(reply.data(), &NetworkReply::finished);
        QVERIFY(error.wait(5000));
        QPointer<QNetworkReply> first = reply->reply();
        reply->retry();
        QVERIFY(finished.wait(5000));
        QCOMPARE(error.count(), 1);
        QCOMPARE(reply->retryCount(), -1);
        QVERIFY(reply->reply() != first.data());
        QCOMPARE(m_server->requestCount(), 2);
        for (const ScriptedRequest &sent : m_server->requests()) {
            QCOMPARE(sent.method, QByteArray("PUT"));
            QCOMPARE(sent.target, QByteArray("/retry?part=2"));
            QCOMPARE(sent.header("X-Chunk"), QByteArray("7"));
            QCOMPARE(sent.body, QByteArray("payload-bytes"));
            QCOMPARE(sent.header("Connection"), QByteArray("close")); // as for a POST: see tst_networkmanager
        }
    }

private:
    QNetworkRequest request(const QString &path) const { return QNetworkRequest(QUrl(m_server->baseUrl() + path)); }

    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<NetworkManager> m_manager;
};

QTEST_MAIN(tst_NetworkReply)
#include "tst_networkreply.moc"
