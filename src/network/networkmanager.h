#pragma once

#include "pendingrequest.h"

#include <zephyrtide/manager.h>

#include <QHash>
#include <QList>
#include <QMap>
#include <QNetworkAccessManager>
#include <QObject>
#include <QSharedPointer>
#include <QThread>
#include <QThreadPool>
#include <QTimer>

class NetworkReply;

// A queue with a concurrency limit in front of one QNetworkAccessManager.
// get()/post()/put() return at once a NetworkReply that stands for the transfer
// whether it starts now or waits; connect to it before returning to the event
// loop and no signal is lost. Transfers start in arrival order; each finish,
// error or deleted reply lets the next waiting one start, on the next turn of
// the event loop. Up to netLimit + 1
// transfers run at once (4 by default). Every waiting reply emits keepAlive()
// every 4 s (KeepAliveIntervalMs) while it waits.
//
// Not a singleton: each engine that needs HTTP makes its own, with its own limit.
class NetworkManager : public QObject
{
    Q_OBJECT
public:
    explicit NetworkManager(QObject *parent = nullptr);
    ~NetworkManager() override;

    NetworkReply *get(const QNetworkRequest &request);
    NetworkReply *post(const QNetworkRequest &request, const QByteArray &body);
    NetworkReply *put(const QNetworkRequest &request, const QByteArray &body);
    NetworkReply *requestRemote(const QNetworkRequest &request, const QByteArray &body, int type);
    // The same, with a body read only when the transfer starts.
    NetworkReply *requestRemote(const QNetworkRequest &request,
                                const QSharedPointer<RequestBody> &body, int type);

    // Unlimited (0) lifts the limit, Low (2) allows two at once, any other level four.
    void setNetLimit(Zephyrtide::Manager::NetLimit level);
    int netLimit() const { return m_netLimit; }
    int runningCount() const { return m_requesting.size(); }
    int waitingCount() const { return m_waiting.size(); }
    static constexpr int KeepAliveIntervalMs = 4000;

    // Sends record on the access manager's thread and returns its QNetworkReply;
    // null when its body cannot be read.
    QNetworkReply *issue(const PendingRequest &record);

public Q_SLOTS:
    void onDestroyed(QObject *obj);

private:
    void onReplyFinished(NetworkReply *reply);
    NetworkReply *enqueue(const QSharedPointer<PendingRequest> &record);
    void start(const QSharedPointer<PendingRequest> &record);
    void scheduleStartNext();
    bool startNext(); // starts the first waiting transfer if a slot is free
    void keepWaitingAlive();
    void prepareAhead();
    static QNetworkReply *issueWithDevice(QNetworkAccessManager *access, const PendingRequest &record);
    static QNetworkRequest withBodyOnFreshConnection(QNetworkRequest request);
    static void removeRecordsOf(QList<QSharedPointer<PendingRequest>> &list, const QObject *reply,
                                bool *found = nullptr);

    QList<QSharedPointer<PendingRequest>> m_requesting;
    // By arrival; with the index below a reply deleted while it waits leaves
    // at once, however long the queue.
    QMap<quint64, QSharedPointer<PendingRequest>> m_waiting;
    QHash<const QObject *, quint64> m_waitingArrival; // reply -> its key in m_waiting
    quint64 m_arrivals = 0;
    // One for the whole queue, running while anything waits: a timer per
    // waiting reply would make every start and stop cost a walk of the
    // event loop's timer list, as long as the queue.
    QTimer m_keepAlive;
    QSharedPointer<QNetworkAccessManager> m_access;
    // Kept unstarted: the access manager stays on the thread that made this
    // manager; issue() already copes with callers on other threads.
    QThread m_thread;
    // One worker prepares the bodies of the next transfers in queue order.
    // Destroyed first: its queued work is dropped and the running one awaited.
    QThreadPool m_preparer;
    int m_netLimit = 3;
    bool m_startScheduled = false;
};
