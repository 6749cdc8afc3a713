#include "downloader.h"

#include "downloadglobal.h"
#include "downloadsinglefile.h"
#include "downloadtask.h"
#include "core/logging.h"

#include <QDir>
#include <QSet>
#include <QStorageInfo>

Downloader::Downloader(QObject *parent)
    : QObject(parent)
{
    connect(this, &Downloader::stopAll, this, &Downloader::onStopAll);
    connect(this, &Downloader::abortAll, this, &Downloader::onAbortAll);
    connect(this, &Downloader::stop, this, &Downloader::onStopTask);
    connect(this, &Downloader::abort, this, &Downloader::onAbortTask);
}

Downloader::~Downloader() = default;

Downloader *Downloader::instance()
{
    static Downloader *downloader = new Downloader; // lives for the process
    return downloader;
}

bool Downloader::addTask(const QSharedPointer<DownloadTask> &task)
{
    if (!task || !task->checkTask())
        return false;
    m_tasks.append(task);
    m_totalSize += task->fileSize;
    return true;
}

ZTErrorCode Downloader::start()
{
    if (m_state != Running) {
        qCCritical(ztLog) << "downloader is finished" << m_state;
        return Zephyrtide::Error::NoError;
    }
    const ZTErrorCode code = startFiles();
    if (code != Zephyrtide::Error::NoError)
        releaseReservations();
    return code;
}

ZTErrorCode Downloader::startFiles()
{
    if (m_tasks.isEmpty()) {
        qCCritical(ztLog) << "task is empty";
        return Zephyrtide::Error::ParseError;
    }
    // The temporary folder is made when a batch first needs it, the default
    // one included: a host that configures its own never finds it made.
    const QString temporary = DownloadGlobal::instance()->temporaryStoragePath();
    if (!QDir().mkpath(temporary)) {
        qCCritical(ztLog) << "m_path create fail" << temporary;
        return Zephyrtide::Error::ChunkFolderError;
    }
    if (!hasSpace()) {
        qCCritical(ztLog) << "current path space is enough" << m_totalSize;
        return Zephyrtide::Error::NotEnoughDiskSpace;
    }
    group();
    qCCritical(ztLog) << "start start down";
    m_starting = true;

    // A host may stop the batch from its keep-alive handler: nothing more starts.
    for (auto it = m_tasksByEtag.cbegin(); it != m_tasksByEtag.cend() && m_state == Running; ++it) {
        Q_EMIT keepAlive();
        const QSharedPointer<DownloadTask> &task = it.value();
        if (!task->checkTask()) {
            task->status = Zephyrtide::Error::ParseError;
            if (m_failure == Zephyrtide::Error::NoError)
                m_failure = Zephyrtide::Error::ParseError;
            continue;
        }
        // Released with deleteLater: a file may be dropped while it emits.
        QSharedPointer<DownloadSingleFile> file(new DownloadSingleFile(task), &QObject::deleteLater);
        // The file travels in each connection, with what it reports.
        DownloadSingleFile *raw = file.data();
        connect(raw, &DownloadSingleFile::finished, this, [this, raw] { onFinished(raw); });
        connect(raw, &DownloadSingleFile::downloadProgress, this,
                [this, raw](qlonglong bytesReceived, qlonglong bytesTotal, qlonglong received) {
                    onDownloadProgress(raw, bytesReceived, bytesTotal, received);
                });
        connect(raw, &DownloadSingleFile::errorOccurred, this,
                [this, raw](ZTErrorCode code) { onErrorOccurred(raw, code); });
        m_runningFiles.append(file);
        m_counted.insert(file.data(), 0);
        if (!file->start()) {
            m_starting = false;
            qCCritical(ztLog) << "start fail" << task->fileName << task->url;
            // A file that says why (its content is another run's, say) fails the batch with that.
            const ZTErrorCode code = task->status;
            return abandon(file.data(), code != Zephyrtide::Error::NoError ? code : Zephyrtide::Error::GeneralFailure);
        }
    }
    m_starting = false;
    qCInfo(ztLog) << "start finished";
    // An empty file ends at once, inside the loop above; the batch ends only
    // when every file has been started and has ended.
    finishIfDone();
    return Zephyrtide::Error::NoError;
}

bool Downloader::hasSpace() const
{
    const QString destination = m_tasks.first()->m_path;
    const QString temporary = DownloadGlobal::instance()->temporaryStoragePath();
    const qint64 freeA = QStorageInfo(destination).bytesFree();
    const qint64 freeB = QStorageInfo(temporary).bytesFree();
    qCDebug(ztLog) << "path freesize" << freeA << "tem freesize" << freeB << "task total size" << m_totalSize;
    const QMap<QString, qint64> needs = spaceNeeded(temporary);
    for (auto need = needs.cbegin(); need != needs.cend(); ++need) {
        const qint64 free = QStorageInfo(need.key()).bytesFree();
        if (need.value() <= free)
            continue;
        qCCritical(ztLog) << "size error" << freeA << destination << "or tem store size error " << freeB << temporary
                          << "total" << m_totalSize << "needs" << need.value() << "bytes on" << need.key() << "where"
                          << free << "are free";
        return false;
    }
    return true;
}

// What the batch still needs on each volume, by the volume's root: the chunks
// still to come on the temporary one, the merged file on its destination's,
// each less what is there already (chunk files, a stopped merge's part), and
// a copy for each further destination of a content. Where a content's chunks
// and its merged file share a volume, each chunk goes once it is merged, so
// the merge needs at most two chunks beyond the file's size there.
QMap<QString, qint64> Downloader::spaceNeeded(const QString &temporary) const
{
    const QString temporaryVolume = QStorageInfo(temporary).rootPath();
    QMap<QString, qint64> needs;
    QSet<QString> contents;
    for (const QSharedPointer<DownloadTask> &task : m_tasks) {
        const QString volume = QStorageInfo(task->m_path).rootPath();
        if (contents.contains(task->etag)) { // a copy of a content counted already
            needs[volume] += task->fileSize;
            continue;
        }
        contents.insert(task->etag);
        const DownloadSingleFile::Held held = DownloadSingleFile::held(task->tempDir);
        const qint64 onDisk = qMin(held.chunkBytes + held.mergedBytes, task->fileSize);
        const qint64 chunk = qMin(held.chunkSize > 0 ? held.chunkSize : DownloadGlobal::instance()->chunkSize(),
                                  task->fileSize);
        needs[temporaryVolume] += task->fileSize - onDisk;
        needs[volume] += volume == temporaryVolume ? 2 * chunk : qMax<qint64>(0, task->fileSize - held.mergedBytes);
    }
    return needs;
}

void Downloader::releaseReservations()
{
    // A task whose file arrived has kept its reservation: nothing to give up there.
    for (const QSharedPointer<DownloadTask> &task : qAsConst(m_tasks))
        task->releaseReservations();
    for (const QSharedPointer<DownloadTask> &task : qAsConst(m_tasksByEtag))
        task->releaseReservations();
}

void Downloader::group()
{
    for (const QSharedPointer<DownloadTask> &task : qAsConst(m_tasks)) {
        const auto kept = m_tasksByEtag.constFind(task->etag);
        if (kept != m_tasksByEtag.cend())
            kept.value()->appendSameFile(*task);
        else
            m_tasksByEtag.insert(task->etag, task);
    }
    m_tasks.clear();
}

void Downloader::onDownloadProgress(DownloadSingleFile *file, qlonglong bytesReceived, qlonglong bytesTotal,
                                    qlonglong received)
{
    // The batch's sum follows a running file's figure by its change alone, so
    // a report costs the same however many files run.
    const auto counted = m_counted.find(file);
    if (counted != m_counted.end()) {
        m_runningReceived += received - counted.value();
        counted.value() = received;
    }
    reportProgress();
    Q_EMIT downloadProgress(file->task.data(), qMin(bytesReceived, bytesTotal), bytesTotal);
}

// The batch's figure never goes back, and goes out only when it moves.
void Downloader::reportProgress()
{
    const qint64 sum = m_runningReceived + m_finishedSize;
    if (sum <= m_progressValue)
        return;
    m_progressValue = sum;
    qCDebug(ztLog) << "Downloader progress " << m_progressValue << m_totalSize;
    Q_EMIT progress(m_progressValue, m_totalSize);
}

// The file no longer counts with what it received; a finished one counts whole.
void Downloader::forget(DownloadSingleFile *file)
{
    m_runningReceived -= m_counted.take(file);
}

void Downloader::onFinished(DownloadSingleFile *file)
{
    if (m_state == Stopped || m_state == Aborted) {
        qCCritical(ztLog) << "status stopped ";
        return;
    }
    if (!file || m_ended)
        return;
    qCInfo(ztLog) << "finish task" << file->task->etag << file->task->fileName;
    for (int i = 0; i < m_runningFiles.size(); ++i) {
        if (m_runningFiles.at(i).data() == file) {
            qCDebug(ztLog) << "remove task" << file->task->fileName;
            m_finishedTasks.append(file->task.data());
            // Its copies are done with it: the batch's total counts every destination.
            m_finishedSize += file->task->fileSize * (1 + file->task->sameFileTargets.size());
            forget(file);
            m_runningFiles.removeAt(i);
            break;
        }
    }
    finishIfDone();
}

void Downloader::onErrorOccurred(DownloadSingleFile *file, ZTErrorCode code)
{
    if (!m_counted.contains(file))
        return; // a file ends once: it runs no more
    DownloadTask *task = file->task.data();
    qCCritical(ztLog) << "file error" << task->fileName << code;
    if (m_failure == Zephyrtide::Error::NoError)
        m_failure = code;
    for (int i = 0; i < m_runningFiles.size(); ++i) {
        if (m_runningFiles.at(i).data() == file) {
            forget(file);
            m_runningFiles.removeAt(i);
            break;
        }
    }
    Q_EMIT errorOccurred(task);
    Q_EMIT errorOccurred();
    if (m_state == Running)
        finishIfDone();
}

void Downloader::finishIfDone()
{
    if (m_starting || m_ended)
        return;
    if (!m_runningFiles.isEmpty()) {
        qCDebug(ztLog) << "not finished number" << m_runningFiles.size()
                       << m_runningFiles.first()->task->fileName;
        return;
    }
    if (m_failure != Zephyrtide::Error::NoError) {
        // The other files have ended; the batch fails with the first failure.
        end(m_failure, m_finishedTasks);
        return;
    }
    qCDebug(ztLog) << "finished downloader";
    reportProgress();
    end(Zephyrtide::Error::NoError, m_finishedTasks);
}

void Downloader::end(ZTErrorCode code, const QList<DownloadTask *> &tasks)
{
    if (m_ended)
        return;
    m_ended = true;
    Q_EMIT finished(code, tasks);
}

// Nothing runs behind a batch that failed to start: the files started before
// the one that failed stop, keeping their chunks for a later run.
ZTErrorCode Downloader::abandon(DownloadSingleFile *failed, ZTErrorCode code)
{
    m_ended = true;
    for (const auto &file : qAsConst(m_runningFiles)) {
        if (file.data() != failed)
            file->onStopped();
    }
    return code;
}

bool Downloader::refuseRepeat()
{
    if (m_state == Stopped || m_state == Aborted) {
        qCWarning(ztLog) << "repeated try";
        return true;
    }
    qCDebug(ztLog) << "is stopppp";
    return false;
}

void Downloader::onStopAll()
{
    if (refuseRepeat())
        return;
    m_state = Stopped;
    for (const auto &file : qAsConst(m_runningFiles))
        file->onStopped();
    end(Zephyrtide::Error::Stopped, {});
}

void Downloader::onAbortAll()
{
    if (refuseRepeat())
        return;
    m_state = Aborted;
    // Cancels the requests only: the chunk files stay, as after a stop.
    for (const auto &file : qAsConst(m_runningFiles))
        Q_EMIT file->abort();
    end(Zephyrtide::Error::Stopped, {});
}

void Downloader::onStopTask(DownloadTask *task)
{
    if (refuseRepeat())
        return;
    m_state = Stopped;
    if (DownloadSingleFile *file = fileOf(task))
        file->onStopped();
    end(Zephyrtide::Error::Stopped, {});
}

void Downloader::onAbortTask(DownloadTask *task)
{
    if (refuseRepeat())
        return;
    m_state = Aborted;
    if (DownloadSingleFile *file = fileOf(task))
        file->onAborted();
    end(Zephyrtide::Error::Aborted, {});
}

DownloadSingleFile *Downloader::fileOf(DownloadTask *task) const
{
    for (const auto &file : m_runningFiles) {
        if (file->task.data() == task)
            return file.data();
    }
    return nullptr;
}

void Downloader::clear()
{
    m_tasks.clear();
    m_tasksByEtag.clear();
    m_finishedTasks.clear();
    m_runningFiles.clear();
    m_counted.clear();
    m_runningReceived = 0;
    m_finishedSize = 0;
    m_progressValue = 0;
    m_state = Running;
    m_totalSize = 0;
    m_failure = Zephyrtide::Error::NoError;
    m_ended = false;
}
