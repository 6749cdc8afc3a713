#pragma once

#include "core/zterrorcode.h"

#include <QFile>
#include <QObject>
#include <QSharedPointer>

class QNetworkAccessManager;
class QNetworkReply;

// Fetches one byte range of a remote file into a file of its own in the task's
// folder, appending to what that file already holds: a chunk file that covers
// its range finishes without a request, a partial one asks only for the rest.
// The range goes out in windows of a few MiB, one request after the other.
// downloadProgress() carries increments, not running totals.
//
// Call order: construct, fill the fields, connect, start(). Validation and file
// failures emit errorOccurred() then finished(); an HTTP failure only
// errorOccurred(20630). onAborted()/onStoped() drop the request, whatever its
// state, and emit nothing: from then on the chunk file does not change.
class DownloadChunk : public QObject
{
    Q_OBJECT
public:
    DownloadChunk(const QSharedPointer<QNetworkAccessManager> &networkManager, QObject *parent = nullptr);
    ~DownloadChunk() override;

    bool start();
    bool start(const QString &chunkDir, const QString &chunkPath, const QString &url, qint64 start,
               qint64 end, const QString &etag);
    // Why an answer to a request from byte `from` on must not go into the chunk
    // file, or an empty string when it may: judged on its status, Content-Range,
    // ETag and Repr-Digest alone, before the first byte is written. An answer
    // whose tag or SHA-256 is not the probe's is another version of the file;
    // one that states none is taken.
    static QString refusal(int status, const QByteArray &contentRange, const QByteArray &etag, qint64 from,
                           const QString &expectedEtag, const QByteArray &reprDigest = QByteArray(),
                           const QByteArray &expectedSha256 = QByteArray());

    QSharedPointer<QNetworkAccessManager> networkManager;
    QSharedPointer<QNetworkReply> reply;
    QFile file;
    qint64 pendingProgress = 0;
    QString chunkPath;
    QString etag;
    QString url;
    qint64 startOffset = 0; // "start": first byte still to ask for
    qint64 end = 0;
    QString chunkDir;
    QString fileName;
    bool lastChunk = true;  // the last chunk's end is the file size, one past its last byte
    QString expectedEtag;   // the probe's tag; an answer with another one is another file
    QByteArray expectedSha256; // the file's, when known; an answer that states another is another file

Q_SIGNALS:
    void downloadProgress(qlonglong bytesReceived, qlonglong bytesTotal);
    void finished();
    void errorOccurred(ZTErrorCode code);
    void abort();

public Q_SLOTS:
    void onAborted();
    void onStoped();

private:
    bool covered() const;
    bool fail(ZTErrorCode code);
    void sendRequest();
    void writeAvailable();
    void relayProgress(qint64 received, qint64 total);
    void checkCompletion();
    void checkAnswer();
    void logHttpFailure();
    void failTransfer(ZTErrorCode code);
    void cancel();

    qint64 m_requestFrom = 0; // the first byte the request in flight asked for
    bool m_answerChecked = false;
    bool m_failed = false;
};
