#include "hostcall.h"

#include <zephyrtide/reply.h>

HostCall::HostCall(QObject *root, const char *slot, const QVariantMap &params,
                   const std::function<void(Zephyrtide::Reply *)> &beforeCall)
    : m_reply(new Zephyrtide::Reply(QString::fromLatin1(slot), params))
{
    Zephyrtide::Reply *reply = m_reply.data();
    QObject::connect(reply, &Zephyrtide::Reply::finished,
                     [this](const QVariantMap &map) { m_results.append(map); });
    QObject::connect(reply, &Zephyrtide::Reply::downloadProgress,
                     [this](qint64 done, qint64 total) { progress.append({done, total}); });
    QObject::connect(reply, &Zephyrtide::Reply::uploadProgress,
                     [this](qint64 done, qint64 total) { progress.append({done, total}); });
    QObject::connect(reply, &Zephyrtide::Reply::keepAlive, [this] { ++keepAlives; });
    if (beforeCall)
        beforeCall(reply);
    m_invoked = QMetaObject::invokeMethod(root, slot, Qt::DirectConnection,
                                          Q_ARG(Zephyrtide::Reply *, reply),
                                          Q_ARG(QVariantMap, params));
    if (!m_invoked)
        qWarning("HostCall: no slot %s(Zephyrtide::Reply*,QVariantMap)", slot);
}

HostCall::~HostCall()
{
    // The plugin may still hold connections to the reply; let it go from the loop.
    m_reply.take()->deleteLater();
}
