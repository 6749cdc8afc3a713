#include "networkreply.h"

#include "networkmanager.h"
#include "pendingrequest.h"
#include "plugin/logging.h"

#include <QThread>

NetworkReply::NetworkReply(QNetworkReply *reply, QObject *parent)
    : QObject(parent)
{
    if (reply)
        attach(reply);
}

NetworkReply::~NetworkReply()
{
    if (m_record) {
        qCDebug(ztLog) << "network delete" << m_record->request.url();
        m_record.reset();
    }
}

void NetworkReply::attach(QNetworkReply *reply)
{
    if (m_timer.isActive())
        m_timer.stop();
    if (!reply || reply == m_reply)
        return;
    m_reply = reply;
    reply->setObjectName(QStringLiteral("QNetworkReply"));

    connect(this, &QObject::destroyed, reply, &QObject::deleteLater);
    connect(reply, &QNetworkReply::finished, this, &NetworkReply::checkFinished);
    connect(reply, &QNetworkReply::uploadProgress, this, &NetworkReply::uploadProgress);
    connect(reply, &QNetworkReply::downloadProgress, this, &NetworkReply::downloadProgress);
    connect(reply, &QNetworkReply::readyRead, this, &NetworkReply::readyRead);
    connect(reply, &QNetworkReply::errorOccurred, this, [](QNetworkReply::NetworkError error) {
        // The outcome is decided from the status when the reply finishes.
        qCDebug(ztLog) << " network error________" << error;
    });
    // Direct, so the transfer is cut in the thread that asks for it; nothing of
    // the old reply may reach the caller afterwards.
    connect(this, &NetworkReply::abort, reply, [this, reply] {
        reply->disconnect(this);
        reply->abort();
    }, Qt::DirectConnection);
}

void NetworkReply::checkFinished()
{
    const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 200 && status != 206) {
        qCCritical(ztLog) << "errorrrrrrrrrrrrrrrr" << m_reply->url() << "http error" << m_reply->error()
                          << "http status" << status << m_reply->rawHeaderPairs();
        Q_EMIT errorOccurred(m_reply->error());
        return;
    }
    qCDebug(ztLog) << "reply finished";
    m_reply->blockSignals(true);
    Q_EMIT finished();
}

void NetworkReply::retry()
{
    --m_retryCount;
    if (!m_record || !m_manager)
        return;
    qCDebug(ztLog) << "retry count" << m_retryCount;
    qCDebug(ztLog) << "address" << m_reply.data() << m_manager.data() << this << QThread::currentThread();
    QNetworkReply *old = m_reply;
    QNetworkReply *fresh = m_manager->issue(*m_record);
    qCDebug(ztLog) << "reply" << fresh << old;
    if (old) {
        old->disconnect(this);
        old->deleteLater();
    }
    if (!fresh) {
        QMetaObject::invokeMethod(this, [this] {
            Q_EMIT errorOccurred(QNetworkReply::UnknownContentError);
        }, Qt::QueuedConnection);
        return;
    }
    attach(fresh);
}
