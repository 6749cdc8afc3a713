#pragma once

#include "core/zterrorcode.h"

#include <QMap>
#include <QObject>
#include <QSharedPointer>

#include <memory>

class ChunkHasher;
class DownloadChunk;
class DownloadTask;
class QFile;
class QFileInfo;
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
// The content folder records its plan (".plan": the chunk size, and the
// file's SHA-256 when the server states one), written before the first chunk
// file; a small file of one chunk writes it only when its run ends short of
// the file (a stop, a failure), since its chunk is cheap to fetch again after
// a crash. A run resumes a folder in the chunk size it was begun with, whatever
// the size is now, so that chunk files of two plans never meet; a folder
// without a record, or begun on another version of the file (another SHA-256),
// is emptied first.
//
// The merge appends the chunks to "<file>.ztmerge" beside the destination, a
// slice of a few MiB per turn of the event loop, and removes each chunk file
// once it is in, so a download never holds much more than the file's size.
// The content folder's ".merge" record names that file; its size tells how far
// the merge came, so a stop (or a crash) during the merge costs nothing: the
// next run plans only the chunks not yet in, and goes on from there.
//
// When the file's SHA-256 is known, the chunks are hashed in file order on
// another thread while the download runs (after a stopped merge, the merged
// part first); a chunk file goes only once it is hashed, and the merged file
// takes the destination's name only when the digests agree. One that differs
// fails the file with 20630; nothing stands under the destination's name and
// the content folder goes with the merged file, so that the next run starts
// afresh.
//
// One writer per content folder: start() takes the folder's lock file (beside
// it) and fails with 20718 when another run, in this process or another, holds
// it. The lock goes with the run's end, whichever: finished, failed, stopped,
// aborted or destroyed.
//
// A run ends once. Emitting stop() or abort() on the object ends it as its own
// slots do: every running chunk drops its request, no pending chunk starts and
// the merge takes no further step; only the final rename into place is not
// stopped. The next chunk starts on a later turn of the event loop,
// never inside a chunk's signal.
class DownloadSingleFile : public QObject
{
    Q_OBJECT
public:
    explicit DownloadSingleFile(const QSharedPointer<DownloadTask> &task, QObject *parent = nullptr);
    ~DownloadSingleFile() override;

    bool start();
    // Begins the merge, which goes on by itself; false when it cannot begin.
    bool merge();
    // What a content folder holds of its file: the bytes of its chunk files
    // (with their overlap bytes), those of its partly merged file, and the
    // chunk size it records (0 when none).
    struct Held
    {
        qint64 chunkBytes = 0;
        qint64 mergedBytes = 0;
        qint64 chunkSize = 0;
    };
    static Held held(const QString &contentFolder);
    // The lock file that marks a content folder as taken, beside the folder, so
    // that it outlives the folder's removal at the end of a download.
    static QString lockPath(const QString &contentFolder);
    // The chunk files in a content folder (numbered; the plan record is none).
    static QList<QFileInfo> chunkFiles(const QString &contentFolder);
    // Writes the folder's plan record; false when it cannot.
    // name and fileSize tell a person (ztcli partial) what the folder is of.
    static bool recordPlan(const QString &contentFolder, qint64 chunkSize, const QByteArray &sha256,
                           const QString &name = QString(), qint64 fileSize = -1);
    bool copyToSameFileTargets(const QString &source);

    QSharedPointer<DownloadTask> task;
    int chunkCount = 0;
    qint64 chunkSize;
    QMap<int, QSharedPointer<DownloadChunk>> startedChunks;
    QMap<int, QSharedPointer<DownloadChunk>> pendingChunks;
    int maxRunningChunks = 3;
    QString temporaryStoragePath;
    QString tempDir;
    // Lent for this run by the engine's pool, with room for the chunks that
    // run at once; the chunks hold copies of the lease.
    QSharedPointer<QNetworkAccessManager> networkManager;
    int finishedCount = 0;
    qint64 received = 0;

Q_SIGNALS:
    // bytesReceived is the figure shown for the file, scaled so that the merge
    // has room; received is what the chunks brought, as the batch counts it.
    void downloadProgress(qlonglong bytesReceived, qlonglong bytesTotal, qlonglong received);
    void finished();
    void errorOccurred(ZTErrorCode code);
    void abort();
    void stop();

public Q_SLOTS:
    void onDownloadProgress(qlonglong bytesReceived, qlonglong bytesTotal);
    void onFinished(DownloadChunk *chunk);
    void onAborted();
    void onStopped();
    void onErrorOccurred(ZTErrorCode code);
    void clear();

private:
    bool isRunning() const { return !m_ended; }
    bool holdContentFolder();
    void releaseContentFolder();
    bool adoptContentFolder();
    void restartWithoutRanges();
    void plan();
    qint64 shareOf(int number) const;
    void reportProgress(qint64 shown);
    void hashFinishedChunks(DownloadChunk *finished);
    void onHashed(const QByteArray &sha256);
    void startPendingChunks();
    void scheduleNextStep();
    void nextStep();
    void complete();
    void verifyThenPlace();
    void finishMerge();
    void failMerge();
    void halt();
    void removeContentFolder();
    bool createEmptyFile();
    QString mergePath() const;
    QString chunkPathOf(int number) const;
    qint64 chunkStart(int number) const;
    int chunksPlanned() const { return chunkCount - m_firstPlanned + 1; }
    void resumeMerge();
    bool adoptMergedFile(const QString &recorded, qint64 recordedBytes);
    void discardMergedFile();
    void hashMergedPart();
    void onChunksHashed(int shares);
    bool chunkHashed(int number) const;
    bool recordMerge();
    void settleMerge();
    void scheduleMergeStep();
    void mergeStep();
    bool appendSlice(int number);
    bool removeMergedChunks();
    void reportMerge();
    void endMerge();
    bool renameOnlyChunk();
    bool beginMergedFile();
    bool recordCurrentPlan();
    void recordDeferredPlan();
    bool moveIntoPlace();
    bool placeMerged();

    std::unique_ptr<QLockFile> m_lock; // the content folder's, while the run holds it
    qint64 m_shownReported = -1;    // the figures of the last progress report
    qint64 m_receivedReported = -1;
    bool m_ended = false;              // finished, failed, stopped or aborted
    bool m_merging = false;            // from the merge's start to the run's end
    bool m_placing = false;            // renaming the merged file into place: not stopped any more
    bool m_stepQueued = false;
    bool m_mergeStepQueued = false;
    int m_firstPlanned = 1;            // the chunks before it were merged by an earlier run
    qint64 m_mergedBytes = 0;          // in the merged file
    int m_removedThrough = 0;          // the chunk files up to this one are merged and gone
    bool m_mergeRecorded = false;      // the folder's ".merge" record names this run's merged file
    bool m_chunkRenamed = false;       // a file's only chunk file became its merged file
    bool m_renameTried = false;
    bool m_planDeferred = false;       // a small file's plan, recorded only if its run ends short
    QByteArray m_expectedSha256;       // the file's, when known: the merged file must have it
    std::unique_ptr<ChunkHasher> m_hasher;
    int m_nextToHash = 1;              // the first chunk not yet handed to the hasher
    QList<int> m_finishedChunks;       // numbers of the chunks that finished, not yet hashed
    int m_hashBase = 0;                // shares handed over before chunk m_firstPlanned's: the merged part
    int m_hashedShares = 0;
    bool m_hashed = false;
    QByteArray m_foundSha256;
};
