#pragma once

#include "plugin/zterrorcode.h"

#include <QMap>
#include <QObject>
#include <QSharedPointer>

#include <memory>

class DownloadChunk;
class DownloadTask;
class QFile;
class QLockFile;
class QNetworkAccessManager;

// Downloads one task: cuts the file into numbered chunks, runs four of them at
// first and then one more per finished one, sums their progress, merges the
// chunk files into the destination, copies it to every further destination of
// the same content and removes the task's folder. A stop keeps the chunk files
// for a later run; an abort deletes them.
//
// Every chunk but the last asks for one byte more than its share (the Range end
// is inclusive); the merge takes exactly each chunk's share, which leaves that
// byte out. A merged file of any other size than the probe's is refused.
//
// One writer per content folder: start() takes the folder's lock file (beside
// it) and fails with 20718 when another run, in this process or another, holds
// it. The lock goes with the run's end, whichever: finished, failed, stopped,
// aborted or destroyed.
//
// A run ends once. Emitting stop() or abort() on the object ends it as its own
// slots do: every running chunk drops its request, no pending chunk starts and
// nothing is merged. The next chunk starts on a later turn of the event loop,
// never inside a chunk's signal.
class DownloadSingleFile : public QObject
{
    Q_OBJECT
public:
    explicit DownloadSingleFile(const QSharedPointer<DownloadTask> &task, QObject *parent = nullptr);
    ~DownloadSingleFile() override;

    bool start();
    bool merge();
    // The lock file that marks a content folder as taken, beside the folder, so
    // that it outlives the folder's removal at the end of a download.
    static QString lockPath(const QString &contentFolder);
    bool copyToSameFileTargets(const QString &source);

    QSharedPointer<DownloadTask> task;
    int chunkCount = 0;
    qint64 chunkSize;
    QMap<int, QSharedPointer<DownloadChunk>> startedChunks;
    QMap<int, QSharedPointer<DownloadChunk>> pendingChunks;
    int maxRunningChunks = 3;
    QString temporaryStoragePath;
    QString tempDir;
    QSharedPointer<QNetworkAccessManager> networkManager;
    int finishedCount = 0;
    qint64 received = 0;

Q_SIGNALS:
    void downloadProgress(qlonglong bytesReceived, qlonglong bytesTotal);
    void finished();
    void errorOccurred();
    void abort();
    void stop();

public Q_SLOTS:
    void onDownloadProgress(qlonglong bytesReceived, qlonglong bytesTotal);
    void onFinished();
    void onAborted();
    void onStopped();
    void onErrorOccurred(ZTErrorCode code);
    void clear();

private:
    bool isRunning() const { return !m_ended; }
    bool holdContentFolder();
    void releaseContentFolder();
    void restartWithoutRanges();
    void plan();
    void startPendingChunks();
    void scheduleNextStep();
    void nextStep();
    void complete();
    void halt();
    void removeContentFolder();
    bool createEmptyFile();
    bool appendChunks(QFile &destination);
    bool appendChunk(QFile &destination, const QString &chunkPath, qint64 share);
    bool moveIntoPlace(QFile &merged);

    std::unique_ptr<QLockFile> m_lock; // the content folder's, while the run holds it
    bool m_ended = false;              // finished, failed, stopped or aborted
    bool m_merging = false;
    bool m_stepQueued = false;
};
