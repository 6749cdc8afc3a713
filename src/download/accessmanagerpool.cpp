#include "accessmanagerpool.h"

#include <QPointer>

AccessManagerPool::AccessManagerPool(QObject *parent)
    : QObject(parent)
{
}

QSharedPointer<QNetworkAccessManager> AccessManagerPool::lend(int connections)
{
    connections = qBound(1, connections, ConnectionsPerManager);
    // The newest manager is the likeliest to have room: a batch fills them in turn.
    int index = m_managers.size() - 1;
    while (index >= 0 && m_managers.at(index).lent + connections > ConnectionsPerManager)
        --index;
    if (index < 0) {
        m_managers.append({new QNetworkAccessManager(this), 0});
        index = m_managers.size() - 1;
    }
    Manager &manager = m_managers[index];
    manager.lent += connections;
    // The lease's own count decides when the connections come back; the
    // manager itself belongs to the pool. A pool gone first gets nothing back.
    QPointer<AccessManagerPool> pool(this);
    return QSharedPointer<QNetworkAccessManager>(manager.access, [pool, connections](QNetworkAccessManager *access) {
        if (pool)
            pool->release(access, connections);
    });
}

void AccessManagerPool::release(QNetworkAccessManager *access, int connections)
{
    for (int i = 0; i < m_managers.size(); ++i) {
        Manager &manager = m_managers[i];
        if (manager.access != access)
            continue;
        manager.lent -= connections;
        if (manager.lent <= 0) {
            // Replies it still finishes are released with deleteLater too.
            m_managers.removeAt(i);
            access->deleteLater();
        }
        return;
    }
}
