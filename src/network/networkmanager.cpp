#include "networkmanager.h"

#include "networkreply.h"
#include "core/logging.h"
#include "core/threadcall.h"

#include <QPointer>
#include <QVector>

#include <algorithm>

namespace {

Zephyrtide::Manager::HttpRequestType verbName(int type)
{
    return static_cast<Zephyrtide::Manager::HttpRequestType>(type);
}

} // namespace

NetworkManager::NetworkManager(QObject *parent)
    : QObject(parent)
    , m_access(new QNetworkAccessManager)
{
    qCDebug(ztLog) << "NetworkManager thread id " << QThread::currentThread();
    m_preparer.setMaxThreadCount(1);
    m_keepAlive.setInterval(KeepAliveIntervalMs);
    connect(&m_keepAlive, &QTimer::timeout, this, &NetworkManager::keepWaitingAlive);
}

NetworkManager::~NetworkManager()
{
    m_preparer.clear();
    m_preparer.waitForDone();
}

NetworkReply *NetworkManager::get(const QNetworkRequest &request)
{
    return requestRemote(request, QByteArray(), PendingRequest::Get);
}

NetworkReply *NetworkManager::post(const QNetworkRequest &request, const QByteArray &body)
{
    return requestRemote(request, body, PendingRequest::Post);
}

NetworkReply *NetworkManager::put(const QNetworkRequest &request, const QByteArray &body)
{
    return requestRemote(request, body, PendingRequest::Put);
}

NetworkReply *NetworkManager::requestRemote(const QNetworkRequest &request, const QByteArray &body,
                                            int type)
{
    auto record = QSharedPointer<PendingRequest>::create();
    record->request = request;
    record->type = type;
    record->body = body;
    return enqueue(record);
}

NetworkReply *NetworkManager::requestRemote(const QNetworkRequest &request,
                                            const QSharedPointer<RequestBody> &body, int type)
{
    auto record = QSharedPointer<PendingRequest>::create();
    record->request = request;
    record->type = type;
    record->bodySource = body;
    return enqueue(record);
}

NetworkReply *NetworkManager::enqueue(const QSharedPointer<PendingRequest> &record)
{
    auto *reply = new NetworkReply; // owned by the caller, who gets it below
    reply->setManager(this);
    const QNetworkRequest &request = record->request;
    qCDebug(ztLog) << "requestRemote" << request.url() << request.rawHeaderList() << verbName(record->type)
                   << reply;
    record->reply = reply;
    reply->setRecord(record);

    // The reply travels in the connection: QObject::sender() walks every
    // connection into this manager, one per queued transfer, so with thousands
    // of parts queued each finish would cost a scan of them all.
    connect(reply, &NetworkReply::finished, this, [this, reply] { onReplyFinished(reply); });
    connect(reply, &NetworkReply::errorOccurred, this, [this, reply] { onReplyFinished(reply); });
    connect(reply, &QObject::destroyed, this, &NetworkManager::onDestroyed);

    // "At most netLimit" on purpose: with 3, a fourth transfer still starts.
    if (m_waiting.isEmpty() && m_requesting.size() <= m_netLimit) {
        qCDebug(ztLog) << "requesttiiiiiiiii ngg" << request.url();
        m_requesting.append(record);
        start(record);
    } else {
        record->arrival = ++m_arrivals;
        m_waiting.insert(record->arrival, record);
        m_waitingArrival.insert(reply, record->arrival);
        if (!m_keepAlive.isActive())
            m_keepAlive.start();
        qCDebug(ztLog) << "waitinnnnggggggggggg" << request.url() << m_waiting.size();
        prepareAhead();
    }
    return reply;
}

void NetworkManager::start(const QSharedPointer<PendingRequest> &record)
{
    NetworkReply *reply = record->reply;
    QNetworkReply *networkReply = issue(*record);
    if (networkReply) {
        reply->attach(networkReply);
        return;
    }
    // Fails like a transfer would, once the caller is back in the event loop
    // and has connected; the slot is freed on that path.
    QMetaObject::invokeMethod(reply, [reply] {
        Q_EMIT reply->errorOccurred(QNetworkReply::UnknownContentError);
    }, Qt::QueuedConnection);
}

QNetworkReply *NetworkManager::issue(const PendingRequest &record)
{
    QNetworkAccessManager *access = m_access.data();
    return callOnThreadOf(access, [access, &record]() -> QNetworkReply * {
        if (record.bodySource)
            return issueWithDevice(access, record);
        switch (record.type) {
        case PendingRequest::Post:
            return access->post(withBodyOnFreshConnection(record.request), record.body);
        case PendingRequest::Put:
            return access->put(withBodyOnFreshConnection(record.request), record.body);
        default:
            return access->get(record.request);
        }
    });
}

// Qt sends a request's header and its body in two writes, and on a connection
// that has carried a request before, the peer holds back its ACK of the header
// (delayed ACK, 40 ms) while Nagle holds back the body until that ACK: every
// request with a body on a kept-alive connection would wait 40 ms. A fresh
// connection is acknowledged at once, and on a local network its handshake
// costs far less than the stall.
QNetworkRequest NetworkManager::withBodyOnFreshConnection(QNetworkRequest request)
{
    request.setRawHeader("Connection", "close");
    return request;
}

QNetworkReply *NetworkManager::issueWithDevice(QNetworkAccessManager *access, const PendingRequest &record)
{
    QNetworkRequest request = withBodyOnFreshConnection(record.request);
    QIODevice *device = record.bodySource->open(request);
    if (!device) {
        qCCritical(ztLog) << "request body unreadable" << request.url();
        return nullptr;
    }
    QNetworkReply *reply = record.type == PendingRequest::Put ? access->put(request, device)
                                                              : access->post(request, device);
    device->setParent(reply); // read until the reply is done, then deleted with it
    return reply;
}

// Called from inside a transfer's finished or destroyed handler: starting the
// next transfer there would run the caller's code for that transfer (its
// signals, a failure of its body) inside the handler of another. As Qt's own
// HTTP connection does, the start waits for the next turn of the event loop;
// one call then fills every slot that the finishes of this turn freed.
void NetworkManager::scheduleStartNext()
{
    if (m_startScheduled)
        return;
    m_startScheduled = true;
    QMetaObject::invokeMethod(this, [this] {
        m_startScheduled = false;
        while (startNext()) {
        }
    }, Qt::QueuedConnection);
}

bool NetworkManager::startNext()
{
    if (m_waiting.isEmpty() || m_requesting.size() > m_netLimit)
        return false;
    qCDebug(ztLog) << "before requesting url " << m_waiting.size();
    QSharedPointer<PendingRequest> record = m_waiting.take(m_waiting.firstKey());
    m_waitingArrival.remove(record->reply);
    if (m_waiting.isEmpty())
        m_keepAlive.stop();
    qCDebug(ztLog) << "insert requesting url " << record->request.url() << m_waiting.size();
    qCDebug(ztLog) << "thread id " << QThread::currentThread() << m_access;

    m_requesting.append(record);
    start(record);
    prepareAhead();
    return true;
}

// The transfers that start next get their bodies prepared while the running
// ones are still sending; only as many as run at once, so a long queue does not
// read the whole file ahead of the network.
void NetworkManager::prepareAhead()
{
    int ahead = m_netLimit + 1;
    for (auto it = m_waiting.cbegin(); it != m_waiting.cend() && ahead > 0; ++it, --ahead) {
        PendingRequest &record = **it;
        if (!record.bodySource || record.prepareScheduled)
            continue;
        record.prepareScheduled = true;
        const QSharedPointer<RequestBody> body = record.bodySource; // alive until prepared
        m_preparer.start([body] { body->prepare(); });
    }
}

// A receiver may delete its reply, or start and stop others, in its
// keepAlive() handler: the replies to tell are picked before any is told.
void NetworkManager::keepWaitingAlive()
{
    QVector<QPointer<NetworkReply>> waiting;
    waiting.reserve(m_waiting.size());
    for (const QSharedPointer<PendingRequest> &record : qAsConst(m_waiting))
        waiting.append(record->reply);
    for (const QPointer<NetworkReply> &reply : qAsConst(waiting)) {
        if (reply && m_waitingArrival.contains(reply.data()))
            Q_EMIT reply->keepAlive();
    }
}

void NetworkManager::onReplyFinished(NetworkReply *reply)
{
    if (!reply)
        return;
    const QUrl url = reply->reply() ? reply->reply()->request().url() : QUrl();
    qCDebug(ztLog) << "finisheddddddddddddd url " << url << "request size" << m_requesting.size();
    removeRecordsOf(m_requesting, reply);
    qCDebug(ztLog) << "after size" << m_requesting.size() << m_netLimit << m_waiting.isEmpty();
    scheduleStartNext();
}

void NetworkManager::onDestroyed(QObject *obj)
{
    if (!obj) {
        qCDebug(ztLog) << "error sender destroy";
        return;
    }
    qCDebug(ztLog) << "delet reply before" << m_requesting.size() << m_waiting.size();
    bool found = false;
    removeRecordsOf(m_requesting, obj, &found);
    const auto waiting = found ? m_waitingArrival.end() : m_waitingArrival.find(obj);
    if (waiting != m_waitingArrival.end()) {
        m_waiting.remove(*waiting);
        m_waitingArrival.erase(waiting);
        if (m_waiting.isEmpty())
            m_keepAlive.stop();
    }
    qCDebug(ztLog) << "delet reply " << m_requesting.size() << m_waiting.size();
    scheduleStartNext();
}


void NetworkManager::removeRecordsOf(QList<QSharedPointer<PendingRequest>> &list, const QObject *reply,
                                     bool *found)
{
    const auto end = std::remove_if(list.begin(), list.end(),
                                    [reply](const QSharedPointer<PendingRequest> &record) {
                                        return record->reply == reply;
                                    });
    const int removed = int(list.end() - end);
    list.erase(end, list.end());
    if (found)
        *found = removed > 0;
}

void NetworkManager::setNetLimit(Zephyrtide::Manager::NetLimit level)
{
    // The level is compared with the limit itself, not with the level that set it.
    if (int(level) == m_netLimit)
        return;
    qCDebug(ztLog) << "netlimit cahngggggg" << level;
    switch (level) {
    case Zephyrtide::Manager::Unlimited:
        m_netLimit = 99;
        break;
    case Zephyrtide::Manager::Low:
        m_netLimit = 1;
        break;
    default:
        m_netLimit = 3;
        break;
    }
}
