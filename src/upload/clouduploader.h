#pragma once

#include "core/zterrorcode.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QSharedPointer>
#include <QVariantList>

class CloudSingleFileUploader;
class FileItem;

// Uploads a set of files as one job: one file item and one single-file
// uploader per file, all started at once, their progress summed, and one
// finished() with a result map per file when every file is on the service.
//
// Call order: setFiles() (or setFileItems()), connect the signals, start().
// A run reports either finished() once or errorOccurred(); stop() keeps every
// file's session for a later run, abort() forgets it. Both are honoured also
// while start() waits for a file's session: that file then sends nothing.
class CloudUploader : public QObject
{
    Q_OBJECT
public:
    enum State { Idle = 0, Running = 2, Finished = 3, Stopped = 4, Aborted = 5, Failed = 6 };

    explicit CloudUploader(QObject *parent = nullptr);
    ~CloudUploader() override;

    // The host's "files": one parameter map per file.
    bool setFiles(const QVariantList &files);
    bool setFileItems(const QList<QSharedPointer<FileItem>> &items);
    QList<QSharedPointer<FileItem>> fileItems() const { return m_files.keys(); }
    int state() const { return m_state; }

Q_SIGNALS:
    void progress(qlonglong bytesSent, qlonglong bytesTotal);
    void finished(QVariantList params);
    void errorOccurred(ZTErrorCode error);

public Q_SLOTS:
    bool start();
    void stop();
    void abort();

private Q_SLOTS:
    void onFinished();
    void onUploadProgress(int precent);
    void onErrorOccurred(ZTErrorCode error);

private:
    void countProgress(FileItem *item, qint64 sent);
    bool collectResults();
    void clear();

    int m_state = Idle;
    QHash<QSharedPointer<FileItem>, QSharedPointer<CloudSingleFileUploader>> m_files;
    QVariantList m_results;
    // Kept as files come and go, so that a progress report or a finished file
    // costs the same in a job of one file or of thousands.
    QSet<QString> m_identifiers;          // of the items in m_files
    QHash<FileItem *, qint64> m_counted;  // each item's figure as last added into m_sent
    QSet<FileItem *> m_finished;          // items that reported finished in this run
    qint64 m_totalSize = 0;
    qint64 m_sent = 0;
    qint64 m_reportedSent = -1;  // the figures of the last progress report
    qint64 m_reportedTotal = -1;
};
