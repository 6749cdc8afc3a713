#include "network/networkmanager.h"
#include "network/networkreply.h"
#include "randomfile.h"
#include "scriptedserver.h"

#include <QtTest>

using NetLimit = Zephyrtide::Manager::NetLimit;

namespace {
// Counts the timer events the event loop delivers: each live timer that fires
// is one, so the count says how many timers a wait keeps.
class TimerEventCounter : public QObject
{
public:
    TimerEventCounter() { QCoreApplication::instance()->installEventFilter(this); }
    int count = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::Timer ? 1 : 0;
        return false;
    }
};

// Counts how often the queue prepares it, and says on which thread.
class RecordingBody : public RequestBody
{
public:
    QIODevice *open(QNetworkRequest &) override
    {
        auto *device = new QBuffer; // the caller's
        device->setData("body");
        device->open(QIODevice::ReadOnly);
        return device;
    }
    void prepare() override
    {
        preparedOn = QThread::currentThread();
        ++prepared;
    }
    std::atomic<int> prepared{0};
    std::atomic<QThread *> preparedOn{nullptr};
};
} // namespace

// The request queue, against a scripted server that holds or shapes its answers.
class tst_NetworkManager : public QObject
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
        m_replies.clear();
        m_manager.reset();
        m_server.reset();
    }

    // Limit 3 (four at once), 300 more wait. The fifth, the first to arrive of
    // those waiting, starts on the next turn of the event loop after the first
    // finishes, not inside its finished handler. The waiting ones get a
    // keep-alive every 4 s from one timer for all of them; the running ones,
    // the fifth too, get none.
    void waitingRequestsKeptAlive()
    {
        const int waiting = 300;
        getHeld(4 + waiting);
        QList<QSharedPointer<QSignalSpy>> keepAlives;
        for (const auto &reply : qAsConst(m_replies))
            keepAlives.append(QSharedPointer<QSignalSpy>::create(reply.data(), &NetworkReply::keepAlive));
        QCOMPARE(m_manager->runningCount(), 4);
        QCOMPARE(m_manager->waitingCount(), waiting);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
        QVERIFY(m_replies.last()->reply() == nullptr);

        TimerEventCounter timers;
        QSignalSpy finished(m_replies.first().data(), &NetworkReply::finished);
        m_server->release(1);
        QVERIFY(finished.wait(5000));
        QCOMPARE(m_manager->waitingCount(), waiting);
        QTRY_COMPARE_WITH_TIMEOUT(m_manager->waitingCount(), waiting - 1, 5000);
        QVERIFY(m_replies.at(4)->reply() != nullptr);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 5, 5000);
        QCOMPARE(m_server->maxOpenRequests(), 4);

        QVERIFY(keepAlives.last()->wait(2 * NetworkManager::KeepAliveIntervalMs));
        for (int i = 0; i < keepAlives.size(); ++i)
            QCOMPARE(keepAlives.at(i)->count(), i < 5 ? 0 : 1);
        QVERIFY2(timers.count < 20, qPrintable(QString::number(timers.count) + " timer events"));
        m_server->release();
    }

    void netLimitLevels_data()
    {
        QTest::addColumn<QList<int>>("levels");
        QTest::addColumn<int>("limit");
        QTest::newRow("low from default: 1") << QList<int>{NetLimit::Low} << 1;
        QTest::newRow("unlimited: 99") << QList<int>{NetLimit::Unlimited} << 99;
        QTest::newRow("low, then high: 3") << QList<int>{NetLimit::Low, NetLimit::High} << 3;
        QTest::newRow("unlimited, then low: 1") << QList<int>{NetLimit::Unlimited, NetLimit::Low} << 1;
        // The level is compared with the limit itself: level 1 (normal) meets limit 1.
        QTest::newRow("low, then normal (1): ignored") << QList<int>{NetLimit::Low, NetLimit::Normal} << 1;
    }
    void netLimitLevels()
    {
        QFETCH(QList<int>, levels);
        QFETCH(int, limit);
        QCOMPARE(m_manager->netLimit(), 3);
        for (int level : levels)
            m_manager->setNetLimit(NetLimit(level));
        QCOMPARE(m_manager->netLimit(), limit);
    }

    // PUT goes the same way; tst_networkreply's retry sends one.
    void bodiesArriveIntact()
    {
        const QByteArray body = randomBytes(1024 * 1024 + 17, 42);
        m_server->enqueue(ScriptedResponse::json("{}"));
        QSharedPointer<NetworkReply> reply(m_manager->post(request(0), body));
        QSignalSpy finished(reply.data(), &NetworkReply::finished);
        QVERIFY(finished.wait(10000));
        const ScriptedRequest received = m_server->requests().value(0);
        QCOMPARE(received.method, QByteArray("POST"));
        QCOMPARE(QCryptographicHash::hash(received.body, QCryptographicHash::Sha256),
                 QCryptographicHash::hash(body, QCryptographicHash::Sha256));
        // A kept-alive connection would hold every body back 40 ms (delayed ACK).
        QCOMPARE(received.header("Connection"), QByteArray("close"));
    }

    // Bodies of the transfers next in line are prepared off the thread that
    // moves the data, once each, and only a window as wide as the transfers at
    // once: a long queue must not read a whole file ahead of the network.
    void bodiesPreparedAheadOnAWorker()
    {
        m_manager->setNetLimit(NetLimit::Low); // two at once
        getHeld(0);
        QList<QSharedPointer<RecordingBody>> bodies;
        for (int i = 0; i < 8; ++i) {
            bodies.append(QSharedPointer<RecordingBody>::create());
            m_replies.append(QSharedPointer<NetworkReply>(m_manager->requestRemote(request(i), bodies.last(), 0)));
        }
        QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 2, 5000);
        const auto preparedWindow = [&bodies] {
            QList<int> counts;
            for (const auto &body : bodies)
                counts << body->prepared;
            return counts;
        };
        QTRY_COMPARE_WITH_TIMEOUT(preparedWindow(), QList<int>({0, 0, 1, 1, 0, 0, 0, 0}), 5000);
        QVERIFY(bodies.at(2)->preparedOn != QThread::currentThread());
        QVERIFY(bodies.at(2)->preparedOn != nullptr);

        m_server->release(1);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 3, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(preparedWindow(), QList<int>({0, 0, 1, 1, 1, 0, 0, 0}), 5000);
        m_server->setHandler([](const ScriptedRequest &) { return ScriptedResponse::json("{}"); });
        m_server->release();
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 8, 10000);
        QCOMPARE(preparedWindow(), QList<int>({0, 0, 1, 1, 1, 1, 1, 1}));
    }

private:
    QNetworkRequest request(int n) const
    {
        return QNetworkRequest(QUrl(m_server->baseUrl() + '/' + QString::number(n)));
    }
    // Sends count GETs that the server holds until release().
    void getHeld(int count)
    {
        m_server->setHandler([](const ScriptedRequest &) {
            ScriptedResponse response;
            response.body = "held";
            response.hold = true;
            return response;
        });
        for (int i = 0; i < count; ++i)
            m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request(i))));
    }

    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<NetworkManager> m_manager;
    QList<QSharedPointer<NetworkReply>> m_replies;
};

QTEST_MAIN(tst_NetworkManager)
#include "tst_networkmanager.moc"
