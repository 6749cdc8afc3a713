#pragma once

#include "core/zterrorcode.h"

#include <QNetworkReply>
#include <QObject>
#include <QSharedPointer>

struct ChunkItem;
class NetworkReply;

// Sends one chunk of a file to the address the server handed out for it, with
// the server's headers plus a "fileMD5" digest of exactly the bytes sent, through
// the upload engine's shared NetworkManager queue.
//
// Call order: setItem(), connect the signals, start(). A request ends in
// finished() or errorOccurred(); either way the item's state says how it went.
// The reply, and with it the file the body is read from, is released as soon
// as the transfer ends (finished, failed or stopped), not with this object:
// a file of hundreds of parts keeps only the running ones open.
//
// The item's bytesSent counts bytes of the whole chunk, a resumed request's
// progress added to what earlier runs sent, and never goes down.
class CloudChunkUploader : public QObject
{
    Q_OBJECT
public:
    explicit CloudChunkUploader(QObject *parent = nullptr);
    ~CloudChunkUploader() override;

    bool setItem(const QSharedPointer<ChunkItem> &item);
    QSharedPointer<ChunkItem> item() const { return m_item; }
    void setIndex(int index) { m_index = index; }

    bool start();
    void stop();

Q_SIGNALS:
    void progress(qlonglong bytesSent, qlonglong bytesTotal);
    void finished();
    void errorOccurred(ZTErrorCode error);
    void abort();
    void started();

public Q_SLOTS:
    void onUploadProgress(qlonglong bytesSent, qlonglong bytesTotal);

private:
    ZTErrorCode send();
    void onReplyFinished();
    void onReplyError(QNetworkReply::NetworkError error);
    void releaseReply();

    int m_index = -1;
    QSharedPointer<NetworkReply> m_reply; // released with deleteLater
    QSharedPointer<ChunkItem> m_item;
    qint64 m_sentBefore = 0; // bytes of the chunk sent before this request
};
