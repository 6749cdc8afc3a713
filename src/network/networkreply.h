#pragma once

#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QSharedPointer>

class NetworkManager;
struct PendingRequest;

// The caller's handle for one transfer of a NetworkManager. It exists before the
// transfer starts (while it waits in the queue, the manager has it send
// keepAlive()), then wraps the QNetworkReply and forwards its progress and
// data. It ends with exactly one finished() (HTTP 200 or 206) or
// errorOccurred() (anything else) per attached QNetworkReply. Emitting
// abort() cancels the transfer; after it no signal of the old QNetworkReply
// reaches the caller.
//
// The caller owns the handle and reads the body through reply() after
// readyRead() or finished(). Deleting the handle deletes the QNetworkReply and
// frees its place in the queue.
class NetworkReply : public QObject
{
    Q_OBJECT
public:
    explicit NetworkReply(QNetworkReply *reply = nullptr, QObject *parent = nullptr);
    ~NetworkReply() override;

    QNetworkReply *reply() const { return m_reply; }
    void attach(QNetworkReply *reply);
    // Sends the same request and body again, without queueing anew.
    void retry();
    int retryCount() const { return m_retryCount; }

    // Used by NetworkManager.
    void setManager(NetworkManager *manager) { m_manager = manager; }
    void setRecord(const QSharedPointer<PendingRequest> &record) { m_record = record; }
    QSharedPointer<PendingRequest> record() const { return m_record; }

Q_SIGNALS:
    void finished();
    void errorOccurred(QNetworkReply::NetworkError error);
    void downloadProgress(qlonglong bytesReceived, qlonglong bytesTotal);
    void uploadProgress(qlonglong bytesSent, qlonglong bytesTotal);
    void abort();
    void stop();
    void readyRead();
    void keepAlive();

private:
    void checkFinished();
    bool isCutShort() const;

    QPointer<QNetworkReply> m_reply; // owned: deleted with this handle
    QSharedPointer<PendingRequest> m_record;
    int m_retryCount = 0;
    qint64 m_bytesReceived = 0; // of the attached reply, as its last progress said
    QPointer<NetworkManager> m_manager;
};
