#pragma once

#include "plugin/zterrorcode.h"

#include <QMap>
#include <QObject>
#include <QSharedPointer>

class DownloadChunk;
class DownloadTask;
class QFile;
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
class DownloadSingleFile : public QObject
{
    Q_OBJECT
public:
    explicit DownloadSingleFile(const QSharedPointer<DownloadTask> &task, QObject *parent = nullptr);
    ~DownloadSingleFile() override;

    bool start();
    bool merge();
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
    void plan();
    bool createEmptyFile();
    bool appendChunks(QFile &destination);
    bool appendChunk(QFile &destination, const QString &chunkPath, qint64 share);
    bool moveIntoPlace(QFile &merged);
};
