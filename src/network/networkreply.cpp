#include "networkreply.h"

#include "networkmanager.h"
#include "pendingrequest.h"
#include "core/globalmanager.h"
#include "core/logging.h"

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
    if (!reply || reply == m_reply)
        return;
    m_reply = reply;
    reply->setObjectName(QStringLiteral("QNetworkReply"));

    connect(this, &QObject::destroyed, reply, &QObject::deleteLater);
    connect(reply, &QNetworkReply::finished, this, &NetworkReply::checkFinished);
    connect(reply, &QNetworkReply::uploadProgress, this, &NetworkReply::uploadProgress);
    m_bytesReceived = 0;
    connect(reply, &QNetworkReply::downloadProgress, this, [this](qint64 received, qint64 total) {
        m_bytesReceived = received;
        Q_EMIT downloadProgress(received, total);
    });
    connect(reply, &QNetworkReply::readyRead, this, &NetworkReply::readyRead);
    connect(reply, &QNetworkReply::sslErrors, this, [reply](const QList<QSslError> &errors) {
        GlobalManager::logCertificateErrors(reply->url(), errors);
    });
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
    if (isCutShort()) {
        // Qt 5 may report no error for an answer whose connection closed before
        // its body was whole; such an answer is a dropped connection.
        qCCritical(ztLog) << "errorrrrrrrrrrrrrrrr" << m_reply->url() << "http error"
                          << QNetworkReply::RemoteHostClosedError << "http status" << status << "body cut short"
                          << m_bytesReceived << m_reply->header(QNetworkRequest::ContentLengthHeader);
        Q_EMIT errorOccurred(QNetworkReply::RemoteHostClosedError);
        return;
    }
    qCDebug(ztLog) << "reply finished";
    m_reply->blockSignals(true);
    Q_EMIT finished();
}

bool NetworkReply::isCutShort() const
{
    // Qt drops Content-Length from a body it decompresses: only a length that
    // the body is sent with counts.
    const QVariant announced = m_reply->header(QNetworkRequest::ContentLengthHeader);
    return announced.isValid() && m_bytesReceived < announced.toLongLong();
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
