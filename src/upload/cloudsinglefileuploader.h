#pragma once

#include "core/zterrorcode.h"

#include <QList>
#include <QObject>
#include <QSharedPointer>
#include <QVariantMap>

class CloudChunkUploader;
struct ChunkItem;
class FileItem;

// Uploads one file item: asks the file service for its session
// ("/upload/info"), keeps a cached session while it has not expired, sends the
// chunks the server still wants (all at once; the shared queue limits how many
// travel), keeps the cache current as chunks finish, and closes the upload with
// "/upload/complete".
//
// Call order: setFileItem(), connect the signals, start(). stop() keeps the
// cache entry so that the next start() resumes with the same session.
//
// start() and the last chunk wait for the host in a nested event loop, so a
// stop or abort can arrive meanwhile: it is honoured when the wait returns (a
// stopped or aborted file sends nothing more and reports nothing more). A run
// emits finished() at most once, and never after the file was stopped, aborted
// or started again.
class CloudSingleFileUploader : public QObject
{
    Q_OBJECT
public:
    explicit CloudSingleFileUploader(QObject *parent = nullptr);
    ~CloudSingleFileUploader() override;

    void setFileItem(const QSharedPointer<FileItem> &item);
    QSharedPointer<FileItem> fileItem() const { return m_item; }
    QList<QSharedPointer<CloudChunkUploader>> chunkUploaders() const { return m_chunkUploaders; }

    bool start();
    void stop();

    ZTErrorCode requestCloudUploadInfo(QVariantMap &answer);
    ZTErrorCode requestCloudCompleteUpload();
    ZTErrorCode authConnectToken(QObject *owner, QString &token, uint source);

Q_SIGNALS:
    void progress(qlonglong bytesSent, qlonglong bytesTotal);
    void finished();
    void errorOccurred(ZTErrorCode error);

public Q_SLOTS:
    // The chunk whose uploader reported travels in the connection.
    void onFinished(const QSharedPointer<ChunkItem> &chunk);
    void onUploadProgress(const QSharedPointer<ChunkItem> &chunk);
    void onErrorOccurred(ZTErrorCode error);

private:
    ZTErrorCode request(QObject *owner, QVariant &result, const QString &url, const QVariantMap &body,
                        uint source, Zephyrtide::Manager::CloudAuthentication auth);
    ZTErrorCode request(QObject *owner, QVariant &result, const QString &name, QVariantMap params,
                        uint source);
    void applyUploadInfo(const QVariantMap &answer);
    void resumeKeptSession(const QVariantMap &answer);
    bool stillRunning(int run) const;
    ZTErrorCode prepareChunks();
    bool launchChunks();
    void finishUpload();
    void reportProgress();
    void writeCache();

    QSharedPointer<FileItem> m_item;
    qint64 m_reported = -1; // the figure of the last progress report
    QList<QSharedPointer<CloudChunkUploader>> m_chunkUploaders;
    int m_runs = 0;
    int m_run = 0; // which start() is under way; a wait of an earlier one is over when it returns
    qint64 m_inFlight = 0; // bytes sent of the pending chunks not finished, see onUploadProgress()
};
