#pragma once

#include "core/zterrorcode.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSharedPointer>

class DownloadSingleFile;
class DownloadTask;

// Runs one batch of tasks: checks that the disks can hold it, folds tasks for
// the same content (same entity tag) into one transfer that is copied to every
// destination, runs one DownloadSingleFile per content, all at once, and sums
// their progress into one figure that never goes back. The batch ends with one
// finished(code, tasks), at most once: 0 and the finished tasks, the stop or
// abort code, or the code of the first file that failed once every other file
// has ended. A start() that returns a code is the end: the files it had
// started stop, and no finished() follows.
//
// A file that does not arrive gives up the name its task reserved (an empty
// "a(1).txt" beside the user's "a.txt"); so do the tasks of a start() that
// fails, and the caller gives them up with releaseReservations() when it
// abandons the batch before start().
//
// Call order: addTask() for each task, connect, start(). Cancel by emitting
// stopAll(), abortAll(), stop(task) or abort(task) on it.
class Downloader : public QObject
{
    Q_OBJECT
public:
    enum State { Running = 0, Stopped = 1, Aborted = 2 };

    explicit Downloader(QObject *parent = nullptr);
    ~Downloader() override;

    static Downloader *instance();

    bool addTask(const QSharedPointer<DownloadTask> &task);
    int status() const { return m_state; }
    QList<DownloadTask *> finishedTasks() const { return m_finishedTasks; }
    qint64 totalSize() const { return m_totalSize; }
    // Gives up the names reserved by the tasks not started yet.
    void releaseReservations();

Q_SIGNALS:
    void abortAll();
    void stopAll();
    void abort(DownloadTask *task);
    void stop(DownloadTask *task);
    void downloadProgress(DownloadTask *task, qlonglong bytesReceived, qlonglong bytesTotal);
    void progress(qlonglong bytesReceived, qlonglong bytesTotal);
    void finished(ZTErrorCode status, QList<DownloadTask *> task);
    void errorOccurred(DownloadTask *task);
    void errorOccurred();
    void keepAlive();

public Q_SLOTS:
    void onDownloadProgress(DownloadSingleFile *file, qlonglong bytesReceived, qlonglong bytesTotal,
                            qlonglong received);
    void onFinished(DownloadSingleFile *file);
    ZTErrorCode start();
    void onErrorOccurred(DownloadSingleFile *file, ZTErrorCode code);
    void clear();

private:
    ZTErrorCode startFiles();
    bool hasSpace() const;
    QMap<QString, qint64> spaceNeeded(const QString &temporary) const;
    void group();
    bool refuseRepeat();
    void onStopAll();
    void onAbortAll();
    void onStopTask(DownloadTask *task);
    void onAbortTask(DownloadTask *task);
    DownloadSingleFile *fileOf(DownloadTask *task) const;
    void finishIfDone();
    void end(ZTErrorCode code, const QList<DownloadTask *> &tasks);
    ZTErrorCode abandon(DownloadSingleFile *failed, ZTErrorCode code);
    void forget(DownloadSingleFile *file);
    void reportProgress();

    QList<QSharedPointer<DownloadTask>> m_tasks;
    QMap<QString, QSharedPointer<DownloadTask>> m_tasksByEtag;
    QList<DownloadTask *> m_finishedTasks;
    QList<QSharedPointer<DownloadSingleFile>> m_runningFiles;
    qint64 m_progressValue = 0;
    QHash<const DownloadSingleFile *, qint64> m_counted; // each running file's received, as last summed
    qint64 m_runningReceived = 0; // their sum
    qint64 m_finishedSize = 0;    // of the tasks in m_finishedTasks
    int m_state = Running;
    qint64 m_totalSize = 0;
    ZTErrorCode m_failure = Zephyrtide::Error::NoError;
    bool m_starting = false; // files that end inside start() must not end the batch early
    bool m_ended = false;    // finished() emitted, or start() failed
};
