#pragma once

#include <QList>
#include <QNetworkAccessManager>
#include <QObject>
#include <QSharedPointer>

// Lends the download engine's files the access managers their chunks go
// through. Qt opens at most six connections to one host per access manager
// and queues the requests beyond them, and a queued request's time-out runs
// while it waits; so a manager is lent only while the connections its
// borrowers may hold at once stay within those six. Each file still has its
// chunks' connections to itself, as with a manager of its own, while a batch
// of small files shares one manager (and its thread) between six of them
// instead of starting a thread for each.
//
// A lease is a shared pointer to the manager: the file and its chunks hold
// copies, and the connections go back to the pool when the last copy goes.
// A manager that nobody borrows any more is deleted. Single-threaded: lend
// and release on the pool's thread.
class AccessManagerPool : public QObject
{
    Q_OBJECT
public:
    static constexpr int ConnectionsPerManager = 6; // Qt's limit per host

    explicit AccessManagerPool(QObject *parent = nullptr);

    // A manager with room for `connections` more (at least 1, at most the limit).
    QSharedPointer<QNetworkAccessManager> lend(int connections);

    int managerCount() const { return m_managers.size(); }

private:
    struct Manager
    {
        QNetworkAccessManager *access; // a child of the pool
        int lent;                      // connections its borrowers may hold
    };
    void release(QNetworkAccessManager *access, int connections);

    QList<Manager> m_managers;
};
