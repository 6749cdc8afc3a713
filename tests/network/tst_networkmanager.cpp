#include "network/networkmanager.h"
#include "network/networkreply.h"
#include "logcapture.h"
#include "scriptedserver.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QMutex>
#include <QRandomGenerator>
#include <QThread>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

using NetLimit = Zephyrtide::Manager::NetLimit;

// The request queue and its reply handle, against a scripted server that holds
// or shapes its answers.
class tst_NetworkManager : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }
    void init();
    void cleanup();

    void waitingRequestsKeptAlive_data();
    void waitingRequestsKeptAlive();
    void arrivalOrder();
    void statuses_data();
    void statuses();
    void nothingAfterFinished();
    void nothingAfterAbort();
    void deleteWaitingReply();
    void deleteRunningReply();
    void netLimitLevels_data();
    void netLimitLevels();
    void netLimitSameValueIsNoOp();
    void unlimitedStartsAll();
    void retrySendsSameRequest();
    void bodiesArriveIntact_data();
    void bodiesArriveIntact();
    void bodiesPreparedAheadOnAWorker();

private:
    QNetworkRequest request(const QString &path) const
    {
        return QNetworkRequest(QUrl(m_server->baseUrl() + path));
    }
    void holdAll()
    {
        m_server->setHandler([](const ScriptedRequest &) {
            ScriptedResponse response;
            response.body = "held";
            response.hold = true;
            return response;
        });
    }

    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<NetworkManager> m_manager;
    QList<QSharedPointer<NetworkReply>> m_replies;
};

void tst_NetworkManager::init()
{
    m_server.reset(new ScriptedServer);
    QVERIFY(m_server->start());
    m_manager.reset(new NetworkManager);
}

void tst_NetworkManager::cleanup()
{
    m_replies.clear();
    m_manager.reset();
    m_server.reset();
}

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
        if (event->type() == QEvent::Timer)
            ++count;
        return false;
    }
};
} // namespace

void tst_NetworkManager::waitingRequestsKeptAlive_data()
{
    QTest::addColumn<int>("waiting");
    QTest::newRow("limit 3, six requests: do the last two wait with keep-alives?") << 2;
    // The keep-alive costs the event loop the same however long the queue.
    QTest::newRow("limit 3, 300 wait: one timer tells them all?") << 300;
}

void tst_NetworkManager::waitingRequestsKeptAlive()
{
    QFETCH(int, waiting);
    holdAll();
    QList<QSharedPointer<QSignalSpy>> keepAlives;
    for (int i = 0; i < 4 + waiting; ++i) {
        m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/r" + QString::number(i)))));
        keepAlives.append(QSharedPointer<QSignalSpy>::create(m_replies.last().data(), &NetworkReply::keepAlive));
    }
    QCOMPARE(m_manager->runningCount(), 4);
    QCOMPARE(m_manager->waitingCount(), waiting);
    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
    QVERIFY(m_replies.last()->reply() == nullptr);

    // Every 4 s while they wait, and only they.
    TimerEventCounter timers;
    QVERIFY(keepAlives.last()->wait(6000));
    for (int i = 0; i < keepAlives.size(); ++i)
        QCOMPARE(keepAlives.at(i)->count(), i < 4 ? 0 : 1);
    QVERIFY2(timers.count < 20, qPrintable(QString::number(timers.count) + " timer events"));

    QSignalSpy finished(m_replies.first().data(), &NetworkReply::finished);
    m_server->release(1);
    QVERIFY(finished.wait(5000));
    // Not from inside the finished handler: on the next turn of the event loop.
    QCOMPARE(m_manager->waitingCount(), waiting);
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->waitingCount(), waiting - 1, 5000);
    QVERIFY(m_replies.at(4)->reply() != nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 5, 5000);
    QCOMPARE(m_server->maxOpenRequests(), 4);

    // Started transfers send no more keep-alives; the others go on.
    keepAlives.at(4)->clear();
    QVERIFY(keepAlives.last()->wait(6000));
    QCOMPARE(keepAlives.at(4)->count(), 0);
    m_server->release();
}

void tst_NetworkManager::arrivalOrder()
{
    m_manager->setNetLimit(Zephyrtide::Manager::Low); // two at once
    holdAll();
    for (int i = 0; i < 6; ++i)
        m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/" + QString::number(i)))));
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 2, 5000);
    for (int started = 3; started <= 6; ++started) {
        m_server->release(1);
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), started, 5000);
    }
    QStringList paths;
    for (const ScriptedRequest &r : m_server->requests())
        paths << r.path();
    QCOMPARE(paths, QStringList({"/0", "/1", "/2", "/3", "/4", "/5"}));
    QCOMPARE(m_server->maxOpenRequests(), 2);
    m_server->release();
}

void tst_NetworkManager::statuses_data()
{
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<bool>("succeeds");

    auto withStatus = [](int status) {
        ScriptedResponse r;
        r.status = status;
        r.body = status == 204 ? QByteArray() : QByteArray("body");
        if (status == 301 || status == 302)
            r.header("Location", "/elsewhere");
        return r;
    };
    QTest::newRow("200") << withStatus(200) << true;
    QTest::newRow("206-partial") << withStatus(206).header("Content-Range", "bytes 0-3/10") << true;
    QTest::newRow("204-no-content") << withStatus(204) << false;
    QTest::newRow("301") << withStatus(301) << false;
    QTest::newRow("302") << withStatus(302) << false;
    QTest::newRow("404") << withStatus(404) << false;
    QTest::newRow("500") << withStatus(500) << false;
    ScriptedResponse dropped;
    dropped.closeWithoutAnswer = true;
    QTest::newRow("drop-before-answer") << dropped << false;
    // A body shorter than its Content-Length is a dropped connection, whatever the status.
    ScriptedResponse cut = withStatus(200);
    cut.body = QByteArray(1000, 'x');
    cut.dropAfterBytes = 100;
    QTest::newRow("200-cut-mid-body") << cut << false;
    ScriptedResponse cutRange = withStatus(206).header("Content-Range", "bytes 0-999/5000");
    cutRange.body = QByteArray(1000, 'x');
    cutRange.dropAfterBytes = 999;
    QTest::newRow("206-cut-one-byte-short") << cutRange << false;
}

void tst_NetworkManager::statuses()
{
    QFETCH(ScriptedResponse, response);
    QFETCH(bool, succeeds);

    // Five of the same, so that the fifth only runs if failures free their slots.
    m_server->setHandler([response](const ScriptedRequest &) { return response; });
    int finishedCount = 0;
    int errorCount = 0;
    for (int i = 0; i < 5; ++i) {
        auto reply = QSharedPointer<NetworkReply>(m_manager->get(request("/s")));
        connect(reply.data(), &NetworkReply::finished, this, [&] { ++finishedCount; });
        connect(reply.data(), &NetworkReply::errorOccurred, this, [&] { ++errorCount; });
        m_replies.append(reply);
    }
    QTRY_COMPARE_WITH_TIMEOUT(finishedCount + errorCount, 5, 10000);
    QCOMPARE(finishedCount, succeeds ? 5 : 0);
    QCOMPARE(errorCount, succeeds ? 0 : 5);
    QCOMPARE(m_manager->runningCount(), 0);
    QCOMPARE(m_manager->waitingCount(), 0);
}

void tst_NetworkManager::nothingAfterFinished()
{
    m_server->enqueue(ScriptedResponse::json(R"({"a":1})"));
    QSharedPointer<NetworkReply> reply(m_manager->get(request("/f")));
    QSignalSpy finished(reply.data(), &NetworkReply::finished);
    QVERIFY(finished.wait(5000));
    QSignalSpy progress(reply.data(), &NetworkReply::downloadProgress);
    QSignalSpy error(reply.data(), &NetworkReply::errorOccurred);
    // A late signal of the finished QNetworkReply must not reach the caller.
    Q_EMIT reply->reply()->downloadProgress(7, 7);
    Q_EMIT reply->reply()->errorOccurred(QNetworkReply::RemoteHostClosedError);
    QCOMPARE(progress.count(), 0);
    QCOMPARE(error.count(), 0);
    QCOMPARE(finished.count(), 1);
    QCOMPARE(reply->reply()->readAll(), QByteArray(R"({"a":1})"));
}

void tst_NetworkManager::nothingAfterAbort()
{
    holdAll();
    QSharedPointer<NetworkReply> reply(m_manager->post(request("/a"), QByteArray(64 * 1024, 'b')));
    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 1, 5000);
    QPointer<QNetworkReply> inner = reply->reply();
    QSignalSpy finished(reply.data(), &NetworkReply::finished);
    QSignalSpy error(reply.data(), &NetworkReply::errorOccurred);
    QSignalSpy progress(reply.data(), &NetworkReply::downloadProgress);
    QSignalSpy upload(reply.data(), &NetworkReply::uploadProgress);
    QSignalSpy ready(reply.data(), &NetworkReply::readyRead);

    Q_EMIT reply->abort();
    QVERIFY(inner->isFinished());
    QCOMPARE(inner->error(), QNetworkReply::OperationCanceledError);
    m_server->release();
    QTest::qWait(200);
    QCOMPARE(finished.count() + error.count() + progress.count() + upload.count() + ready.count(), 0);
}

void tst_NetworkManager::deleteWaitingReply()
{
    holdAll();
    for (int i = 0; i < 5; ++i)
        m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/" + QString::number(i)))));
    QCOMPARE(m_manager->waitingCount(), 1);
    m_replies.takeLast().reset();
    QCOMPARE(m_manager->waitingCount(), 0);
    QCOMPARE(m_manager->runningCount(), 4);

    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
    m_server->release();
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->runningCount(), 0, 5000);
    QCOMPARE(m_server->requestCount(), 4);
}

void tst_NetworkManager::deleteRunningReply()
{
    holdAll();
    for (int i = 0; i < 5; ++i)
        m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/" + QString::number(i)))));
    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 4, 5000);
    QPointer<QNetworkReply> inner = m_replies.first()->reply();
    QVERIFY(inner);

    m_replies.takeFirst().reset();
    QCOMPARE(m_manager->runningCount(), 3); // the freed slot is taken on the next turn
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->runningCount(), 4, 5000);
    QCOMPARE(m_manager->waitingCount(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(inner.isNull(), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 5, 5000);
    m_server->release();
}

void tst_NetworkManager::netLimitLevels_data()
{
    QTest::addColumn<QList<int>>("levels");
    QTest::addColumn<int>("limit");
    QTest::newRow("low from default: 1") << QList<int>{NetLimit::Low} << 1;
    QTest::newRow("normal from default: 3") << QList<int>{NetLimit::Normal} << 3;
    QTest::newRow("unlimited: 99") << QList<int>{NetLimit::Unlimited} << 99;
    QTest::newRow("low, then high: 3") << QList<int>{NetLimit::Low, NetLimit::High} << 3;
    QTest::newRow("unlimited, then low: 1") << QList<int>{NetLimit::Unlimited, NetLimit::Low} << 1;
}

void tst_NetworkManager::netLimitLevels()
{
    QFETCH(QList<int>, levels);
    QFETCH(int, limit);
    QCOMPARE(m_manager->netLimit(), 3);
    for (int level : levels)
        m_manager->setNetLimit(NetLimit(level));
    QCOMPARE(m_manager->netLimit(), limit);
}

void tst_NetworkManager::netLimitSameValueIsNoOp()
{
    // Level 3 (High) meets a limit of 3: the level is compared with the limit
    // itself, so nothing happens and nothing is logged.
    LogCapture log;
    m_manager->setNetLimit(NetLimit::High);
    QCOMPARE(m_manager->netLimit(), 3);
    QCOMPARE(log.count(QStringLiteral("netlimit cahngggggg")), 0);
    m_manager->setNetLimit(NetLimit::Low);
    QCOMPARE(log.count(QStringLiteral("netlimit cahngggggg")), 1);
    // Level 1 now meets a limit of 1: also ignored, although it names "normal".
    m_manager->setNetLimit(NetLimit::Normal);
    QCOMPARE(m_manager->netLimit(), 1);
}

void tst_NetworkManager::unlimitedStartsAll()
{
    m_manager->setNetLimit(NetLimit::Unlimited);
    holdAll();
    for (int i = 0; i < 10; ++i)
        m_replies.append(QSharedPointer<NetworkReply>(m_manager->get(request("/" + QString::number(i)))));
    QCOMPARE(m_manager->waitingCount(), 0);
    QCOMPARE(m_manager->runningCount(), 10);
    // Qt itself opens at most six connections per host, so the server sees six.
    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 6, 5000);
    m_server->release();
}

void tst_NetworkManager::retrySendsSameRequest()
{
    ScriptedResponse failure;
    failure.status = 500;
    failure.body = "try again";
    m_server->enqueue(failure);
    m_server->enqueue(ScriptedResponse::json("{}"));

    QNetworkRequest r = request("/retry?part=2");
    r.setRawHeader("X-Chunk", "7");
    const QByteArray body = "payload-bytes";
    QSharedPointer<NetworkReply> reply(m_manager->put(r, body));
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
    const ScriptedRequest a = m_server->requests().at(0);
    const ScriptedRequest b = m_server->requests().at(1);
    QCOMPARE(b.method, QByteArray("PUT"));
    QCOMPARE(b.target, a.target);
    QCOMPARE(b.header("X-Chunk"), QByteArray("7"));
    QCOMPARE(b.body, body);
    QCOMPARE(a.body, body);
}

void tst_NetworkManager::bodiesArriveIntact_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("POST") << 0;
    QTest::newRow("PUT") << 2;
}

void tst_NetworkManager::bodiesArriveIntact()
{
    QFETCH(int, type);
    QByteArray body(3 * 1024 * 1024 + 17, Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32 *>(body.data()), body.size() / 4);

    QByteArray serverDigest;
    QByteArray method;
    QByteArray connection;
    m_server->setHandler([&](const ScriptedRequest &r) {
        serverDigest = QCryptographicHash::hash(r.body, QCryptographicHash::Sha256);
        method = r.method;
        connection = r.header("Connection");
        return ScriptedResponse::json("{}");
    });
    QSharedPointer<NetworkReply> reply(m_manager->requestRemote(request("/body"), body, type));
    QSignalSpy finished(reply.data(), &NetworkReply::finished);
    QVERIFY(finished.wait(10000));
    QCOMPARE(method, QByteArray(type == 0 ? "POST" : "PUT"));
    QCOMPARE(serverDigest, QCryptographicHash::hash(body, QCryptographicHash::Sha256));
    // A kept-alive connection would hold every body back 40 ms (delayed ACK).
    QCOMPARE(connection, QByteArray("close"));
}

namespace {
// Counts where and how often the queue prepares it.
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
        QMutexLocker locker(&mutex);
        ++prepared;
        preparedOn = QThread::currentThread();
    }
    int preparedCount() const
    {
        QMutexLocker locker(&mutex);
        return prepared;
    }
    QThread *thread() const
    {
        QMutexLocker locker(&mutex);
        return preparedOn;
    }

private:
    mutable QMutex mutex;
    int prepared = 0;
    QThread *preparedOn = nullptr;
};
} // namespace

// Bodies of the transfers next in line are prepared off the thread that moves
// the data, once each, and only a window as wide as the transfers at once: a
// long queue must not read a whole file ahead of the network.
void tst_NetworkManager::bodiesPreparedAheadOnAWorker()
{
    m_manager->setNetLimit(Zephyrtide::Manager::Low); // two at once
    holdAll();
    QList<QSharedPointer<RecordingBody>> bodies;
    for (int i = 0; i < 8; ++i) {
        bodies.append(QSharedPointer<RecordingBody>::create());
        m_replies.append(QSharedPointer<NetworkReply>(
            m_manager->requestRemote(request("/p" + QString::number(i)), bodies.last(), 0)));
    }
    QTRY_COMPARE_WITH_TIMEOUT(m_server->heldCount(), 2, 5000);
    const auto preparedWindow = [&bodies] {
        QList<int> counts;
        for (const auto &body : bodies)
            counts << body->preparedCount();
        return counts;
    };
    QTRY_COMPARE_WITH_TIMEOUT(preparedWindow(), QList<int>({0, 0, 1, 1, 0, 0, 0, 0}), 5000);
    QVERIFY(bodies.at(2)->thread() != QThread::currentThread());
    QVERIFY(bodies.at(2)->thread() != nullptr);

    m_server->release(1);
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 3, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(preparedWindow(), QList<int>({0, 0, 1, 1, 1, 0, 0, 0}), 5000);
    m_server->setHandler([](const ScriptedRequest &) { return ScriptedResponse::json("{}"); });
    m_server->release();
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(), 8, 10000);
    QCOMPARE(preparedWindow(), QList<int>({0, 0, 1, 1, 1, 1, 1, 1}));
}

QTEST_MAIN(tst_NetworkManager)
#include "tst_networkmanager.moc"
