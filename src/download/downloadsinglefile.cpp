#include "downloadsinglefile.h"

#include "accessmanagerpool.h"
#include "chunkhasher.h"
#include "downloadchunk.h"
#include "downloadglobal.h"
#include "downloadtask.h"
#include "core/logging.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QNetworkAccessManager>

#include <cstdio>

#ifdef Q_OS_LINUX
#include <cerrno>
#include <unistd.h>
#endif

namespace {
constexpr qint64 CopySize = 1024 * 1024;
constexpr char MergeSuffix[] = ".ztmerge"; // the file being joined, beside its final name
constexpr char PlanName[] = ".plan";       // the content folder's plan record
constexpr qint64 SmallFileBytes = 1024 * 1024; // a file of one chunk this small records its plan late
constexpr char MergeRecordName[] = ".merge"; // names the content folder's merged file
// Merged per turn of the event loop: a stop is heard between two slices.
constexpr qint64 MergeSlice = 8 * 1024 * 1024;
constexpr int DigestSize = 32;

// What a content folder's plan record says; a chunk size of 0 when there is no
// usable record.
struct Plan
{
    qint64 chunkSize = 0;
    QByteArray sha256; // empty when the file's was not known
};

Plan readPlan(const QString &contentFolder)
{
    QFile file(contentFolder + QLatin1Char('/') + QLatin1String(PlanName));
    if (!file.open(QIODevice::ReadOnly))
        return Plan();
    const QJsonObject record = QJsonDocument::fromJson(file.read(4096)).object();
    const qint64 chunkSize = record.value(QLatin1String("chunkSize")).toVariant().toLongLong();
    const QJsonValue sha256 = record.value(QLatin1String("sha256"));
    const auto decoded =
        QByteArray::fromBase64Encoding(sha256.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (chunkSize <= 0 || !sha256.isString() || !decoded
        || (!decoded.decoded.isEmpty() && decoded.decoded.size() != DigestSize)) {
        qCWarning(ztLog) << "plan record unreadable" << file.fileName();
        return Plan();
    }
    return Plan{chunkSize, decoded.decoded};
}

// Which merged file a content folder's merge writes, for which plan (a merged
// part is only of use to a run of the same chunk size and file), and how much
// of it is known to be good: rewritten before any chunk file goes, and when
// the merge ends short of the file.
struct MergeRecord
{
    QString path; // empty when there is no usable record
    qint64 chunkSize = 0;
    QByteArray sha256;
    qint64 mergedBytes = 0;
};

MergeRecord readMergeRecord(const QString &contentFolder)
{
    QFile file(contentFolder + QLatin1Char('/') + QLatin1String(MergeRecordName));
    if (!file.open(QIODevice::ReadOnly))
        return MergeRecord();
    const QJsonObject record = QJsonDocument::fromJson(file.read(16384)).object();
    MergeRecord merge;
    merge.path = record.value(QLatin1String("path")).toString();
    merge.chunkSize = record.value(QLatin1String("chunkSize")).toVariant().toLongLong();
    merge.sha256 = QByteArray::fromBase64(record.value(QLatin1String("sha256")).toString().toLatin1());
    merge.mergedBytes = record.value(QLatin1String("mergedBytes")).toVariant().toLongLong();
    // It names nothing but a merged file: whatever it says is removed with the folder.
    if (!merge.path.endsWith(QLatin1String(MergeSuffix)) || merge.chunkSize <= 0 || merge.mergedBytes < 0) {
        qCWarning(ztLog) << "merge record unreadable" << file.fileName();
        return MergeRecord();
    }
    return merge;
}

// Copies up to count bytes of source, from offset on, to the end of destination
// inside the kernel, so the merge never moves the bytes through user space.
// Returns the bytes copied (fewer when source is short), or -1 when nothing was
// copied because this file system or kernel can't; a failure after the first
// byte is left in failure (an errno value).
qint64 copyInKernel(QFile &source, qint64 offset, QFile &destination, qint64 count, int &failure)
{
    failure = 0;
#ifdef Q_OS_LINUX
    const qint64 at = destination.pos();
    if (!destination.flush())
        return -1;
    loff_t from = offset;
    qint64 done = 0;
    while (done < count) {
        const ssize_t n = ::copy_file_range(source.handle(), &from, destination.handle(), nullptr,
                                            size_t(count - done), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && done == 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP))
            return -1;
        if (n < 0) {
            failure = errno;
            break;
        }
        if (n == 0)
            break;
        done += n;
    }
    // The kernel moved the descriptor's offset; QFile must agree with it.
    destination.seek(at + done);
    return done;
#else
    Q_UNUSED(source) Q_UNUSED(offset) Q_UNUSED(destination) Q_UNUSED(count)
    return -1;
#endif
}

// As copyInKernel, through a buffer where the kernel can't; a failure is left
// in error.
qint64 copyRange(QFile &source, qint64 offset, QFile &destination, qint64 count, QString &error)
{
    int failure = 0;
    const qint64 copied = copyInKernel(source, offset, destination, count, failure);
    if (copied >= 0) {
        if (failure != 0)
            error = qt_error_string(failure);
        return copied;
    }
    if (!source.seek(offset))
        return 0;
    QByteArray buffer(CopySize, Qt::Uninitialized);
    qint64 done = 0;
    while (done < count) {
        const qint64 n = source.read(buffer.data(), qMin<qint64>(buffer.size(), count - done));
        if (n <= 0)
            break; // short
        if (destination.write(buffer.constData(), n) != n) {
            error = destination.errorString();
            break;
        }
        done += n;
    }
    if (error.isEmpty() && !destination.flush())
        error = destination.errorString();
    return done;
}
} // namespace

DownloadSingleFile::DownloadSingleFile(const QSharedPointer<DownloadTask> &downloadTask, QObject *parent)
    : QObject(parent)
    , task(downloadTask)
    , chunkSize(DownloadGlobal::instance()->chunkSize())
    , temporaryStoragePath(DownloadGlobal::instance()->temporaryStoragePath())
{
    // Whoever emits them (the Downloader's batch-wide abort emits abort()
    // straight on the file), stop() and abort() end the run.
    connect(this, &DownloadSingleFile::stop, this, &DownloadSingleFile::halt);
    connect(this, &DownloadSingleFile::abort, this, &DownloadSingleFile::halt);
}

DownloadSingleFile::~DownloadSingleFile()
{
    // Gone during its merge, as if stopped: the merged part and the chunks not
    // yet in it stay for the next run.
    if (m_merging && isRunning()) {
        settleMerge();
        task->releaseReservations();
    }
    if (isRunning())
        recordDeferredPlan();
}

QString DownloadSingleFile::lockPath(const QString &contentFolder)
{
    return contentFolder + QLatin1String(".lock");
}

QList<QFileInfo> DownloadSingleFile::chunkFiles(const QString &contentFolder)
{
    QList<QFileInfo> files;
    if (contentFolder.isEmpty())
        return files; // QDir would take it for the working folder
    const QFileInfoList entries = QDir(contentFolder).entryInfoList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        bool numbered = false;
        entry.fileName().toInt(&numbered);
        if (numbered)
            files.append(entry);
    }
    return files;
}

DownloadSingleFile::Held DownloadSingleFile::held(const QString &contentFolder)
{
    Held held;
    held.chunkSize = readPlan(contentFolder).chunkSize;
    const MergeRecord merge = readMergeRecord(contentFolder);
    if (!merge.path.isEmpty())
        held.mergedBytes = qMin(QFileInfo(merge.path).size(), merge.mergedBytes);
    // A chunk file whose bytes are all in the merged part is about to go: not counted twice.
    const qint64 mergedChunks = merge.chunkSize > 0 ? held.mergedBytes / merge.chunkSize : 0;
    for (const QFileInfo &chunk : chunkFiles(contentFolder)) {
        if (chunk.fileName().toLongLong() > mergedChunks)
            held.chunkBytes += chunk.size();
    }
    return held;
}

bool DownloadSingleFile::recordPlan(const QString &contentFolder, qint64 size, const QByteArray &sha256,
                                    const QString &name, qint64 fileSize)
{
    if (!QDir().mkpath(contentFolder))
        return false;
    const QString path = contentFolder + QLatin1Char('/') + QLatin1String(PlanName);
    const QJsonObject record{{QStringLiteral("chunkSize"), size},
                             {QStringLiteral("sha256"), QString::fromLatin1(sha256.toBase64())},
                             {QStringLiteral("fileName"), name},
                             {QStringLiteral("fileSize"), fileSize}};
    const QByteArray text = QJsonDocument(record).toJson(QJsonDocument::Compact);
    // Written aside and renamed, but not synced: a record lost with the
    // machine's power costs only the chunks beside it (a folder without a
    // readable record is emptied), while a sync for every file of a batch of
    // small ones costs more than downloading them.
    QFile aside(path + QLatin1String(".new"));
    if (!aside.open(QIODevice::WriteOnly | QIODevice::Truncate) || aside.write(text) != text.size()) {
        aside.remove();
        return false;
    }
    aside.close();
    QFile::remove(path);
    return aside.rename(path);
}

bool DownloadSingleFile::start()
{
    if (!task->checkTask()) {
        qCCritical(ztLog) << " task not valid err" << task->m_path << task->url;
        task->status = Zephyrtide::Error::ParseError;
        task->releaseReservations();
        m_ended = true;
        Q_EMIT errorOccurred(task->status);
        return false;
    }
    if (task->fileSize == 0)
        return createEmptyFile();
    tempDir = task->tempDir;
    if (!holdContentFolder() || !adoptContentFolder()) {
        task->releaseReservations();
        return false;
    }
    if (!task->rangeSupported)
        restartWithoutRanges();
    resumeMerge();
    plan();
    if (chunksPlanned() == 0)
        scheduleNextStep(); // all merged before: the merge ends on the next turn
    return true;
}

bool DownloadSingleFile::holdContentFolder()
{
    const QString path = lockPath(tempDir);
    QDir().mkpath(QFileInfo(path).absolutePath());
    auto lock = std::make_unique<QLockFile>(path);
    // A download may hold it for hours: only a lock whose process is gone is stale.
    lock->setStaleLockTime(0);
    if (lock->tryLock(0)) {
        m_lock = std::move(lock);
        return true;
    }
    m_ended = true;
    if (lock->error() == QLockFile::LockFailedError) {
        qCCritical(ztLog) << "content is being downloaded elsewhere" << tempDir << task->fileName;
        task->status = Zephyrtide::Error::AlreadyRunning;
    } else { // no room for the lock file, or no right to write beside the folder
        qCCritical(ztLog) << "file open error" << path << lock->error();
        task->status = Zephyrtide::Error::FileError;
    }
    return false;
}

void DownloadSingleFile::releaseContentFolder()
{
    m_lock.reset(); // unlocks
}

// Settles this run's plan with the folder's record: the chunk size the folder
// was begun with, and the SHA-256 the merged file must have (the probe's, or
// the one recorded when the probe states none). Chunk files that this plan
// cannot use go first.
bool DownloadSingleFile::adoptContentFolder()
{
    const Plan recorded = readPlan(tempDir);
    // A server without ranges gets its one chunk, whatever was planned before.
    const qint64 size = !task->rangeSupported ? task->fileSize : recorded.chunkSize > 0 ? recorded.chunkSize : chunkSize;
    QString unusable;
    if (!chunkFiles(tempDir).isEmpty()) {
        if (recorded.chunkSize <= 0)
            unusable = QStringLiteral("no plan recorded");
        else if (recorded.chunkSize != size)
            unusable = QStringLiteral("begun in chunks of %1 bytes").arg(recorded.chunkSize);
        else if (!task->sha256.isEmpty() && !recorded.sha256.isEmpty() && task->sha256 != recorded.sha256)
            unusable = QStringLiteral("begun on another version of the file");
    }
    QByteArray recordedSha256 = recorded.sha256;
    if (!unusable.isEmpty()) {
        qCWarning(ztLog) << "content folder discarded" << tempDir << unusable;
        removeContentFolder();
        recordedSha256.clear();
    }
    chunkSize = size;
    m_expectedSha256 = task->sha256.isEmpty() ? recordedSha256 : task->sha256;
    if (unusable.isEmpty() && recorded.chunkSize == size && recorded.sha256 == m_expectedSha256)
        return true;
    // A small file of one chunk records its plan only when its run ends short
    // of the file: a batch of many such files then writes and removes one file
    // fewer for each, and a crash costs at most that chunk, fetched again.
    if (task->fileSize <= SmallFileBytes && task->fileSize <= chunkSize && recorded.chunkSize <= 0
        && chunkFiles(tempDir).isEmpty()) {
        m_planDeferred = true;
        return true;
    }
    if (recordCurrentPlan())
        return true;
    qCCritical(ztLog) << "file open error" << tempDir + QLatin1Char('/') + QLatin1String(PlanName);
    task->status = Zephyrtide::Error::FileError;
    m_ended = true;
    releaseContentFolder();
    return false;
}

bool DownloadSingleFile::recordCurrentPlan()
{
    const QString name = task->requestedName.isEmpty() ? task->fileName : task->requestedName;
    return recordPlan(tempDir, chunkSize, m_expectedSha256, name, task->fileSize);
}

// The deferred plan of a small file whose run ends with its chunk on disk.
void DownloadSingleFile::recordDeferredPlan()
{
    if (!m_planDeferred || !QFileInfo::exists(chunkPathOf(1)))
        return;
    m_planDeferred = false;
    if (!recordCurrentPlan())
        qCWarning(ztLog) << "plan record not written" << tempDir; // the next run fetches the chunk again
}

// A server without ranges answers a resumed chunk with the whole file, so its
// one chunk starts over from byte 0; one that holds the whole file is kept.
void DownloadSingleFile::restartWithoutRanges()
{
    QFile chunk(tempDir + QLatin1String("/1"));
    if (chunk.exists() && chunk.size() < task->fileSize && !chunk.resize(0))
        qCCritical(ztLog) << "chunk restart fail" << chunk.fileName() << chunk.errorString();
}

bool DownloadSingleFile::createEmptyFile()
{
    m_ended = true;
    QDir().mkpath(task->m_path);
    QFile file(task->filePath);
    if (!file.open(QIODevice::WriteOnly)) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath;
        task->releaseReservations();
        return false;
    }
    file.close();
    task->keepReservations();
    qCDebug(ztLog) << "file size 0" << task->fileName;
    Q_EMIT finished();
    return true;
}

void DownloadSingleFile::plan()
{
    chunkCount = int(task->fileSize / chunkSize) + (task->fileSize % chunkSize > 0 ? 1 : 0);
    // Room for every chunk that runs at once: none of them waits inside Qt.
    networkManager = DownloadGlobal::instance()->accessManagers()->lend(
        qMin(chunkCount - m_firstPlanned + 1, maxRunningChunks + 1));
    const QString requested = task->requestedName.isEmpty() ? task->fileName : task->requestedName;
    for (int i = m_firstPlanned; i <= chunkCount; ++i) {
        // Released with deleteLater: a chunk may be dropped while it emits.
        QSharedPointer<DownloadChunk> chunk(new DownloadChunk(networkManager, this), &QObject::deleteLater);
        chunk->chunkPath = tempDir + QLatin1Char('/') + QString::number(i);
        chunk->etag = task->etag;
        chunk->url = task->url;
        chunk->startOffset = qint64(i - 1) * chunkSize;
        chunk->end = qMin(qint64(i) * chunkSize, task->fileSize);
        chunk->chunkDir = tempDir;
        chunk->fileName = requested;
        chunk->lastChunk = i == chunkCount;
        chunk->expectedEtag = task->serverEtag;
        chunk->expectedSha256 = m_expectedSha256;
        connect(this, &DownloadSingleFile::abort, chunk.data(), &DownloadChunk::onAborted);
        connect(this, &DownloadSingleFile::stop, chunk.data(), &DownloadChunk::onStoped);
        DownloadChunk *raw = chunk.data();
        connect(raw, &DownloadChunk::finished, this, [this, raw] { onFinished(raw); });
        connect(chunk.data(), &DownloadChunk::downloadProgress, this, &DownloadSingleFile::onDownloadProgress);
        connect(chunk.data(), &DownloadChunk::errorOccurred, this, &DownloadSingleFile::onErrorOccurred);
        pendingChunks.insert(i, chunk);
    }
    if (!m_expectedSha256.isEmpty()) {
        m_hasher.reset(new ChunkHasher);
        connect(m_hasher.get(), &ChunkHasher::finished, this, &DownloadSingleFile::onHashed);
        connect(m_hasher.get(), &ChunkHasher::hashed, this, &DownloadSingleFile::onChunksHashed);
        hashMergedPart();
    }
    startPendingChunks();
}

qint64 DownloadSingleFile::shareOf(int number) const
{
    const qint64 first = qint64(number - 1) * chunkSize;
    return qMin(qint64(number) * chunkSize, task->fileSize) - first;
}

// The hasher takes the chunks in file order: each one as soon as it and every
// one before it have finished.
void DownloadSingleFile::hashFinishedChunks(DownloadChunk *finished)
{
    if (!m_hasher)
        return;
    for (auto it = startedChunks.cbegin(); it != startedChunks.cend(); ++it) {
        if (it.value().data() == finished) {
            m_finishedChunks.append(it.key());
            break;
        }
    }
    while (m_finishedChunks.removeOne(m_nextToHash)) {
        m_hasher->add(startedChunks.value(m_nextToHash)->chunkPath, shareOf(m_nextToHash));
        ++m_nextToHash;
    }
    if (m_nextToHash > chunkCount)
        m_hasher->close();
}

void DownloadSingleFile::onHashed(const QByteArray &sha256)
{
    m_hashed = true;
    m_foundSha256 = sha256;
    if (m_merging)
        scheduleMergeStep();
}

// Four run at first (started while at most the limit are running), then one
// more per finished one. A chunk that ends inside its start() only counts
// here; a failing one ends the run, and the loop with it.
void DownloadSingleFile::startPendingChunks()
{
    while (isRunning() && !pendingChunks.isEmpty() && startedChunks.size() - finishedCount <= maxRunningChunks) {
        const int number = pendingChunks.firstKey();
        QSharedPointer<DownloadChunk> chunk = pendingChunks.take(number);
        startedChunks.insert(number, chunk);
        qCDebug(ztLog) << "requestiiiii " << pendingChunks.size() << number;
        if (!chunk->start())
            qCCritical(ztLog) << "start failllllll";
    }
}

void DownloadSingleFile::onFinished(DownloadChunk *chunk)
{
    qCDebug(ztLog) << "single file finish";
    ++finishedCount;
    // A stopped, aborted or failed file starts no pending chunk and merges nothing.
    if (!isRunning())
        return;
    hashFinishedChunks(chunk);
    scheduleNextStep();
}

// The next step runs on a later turn of the event loop, once however many
// chunks finished meanwhile, as Qt's HTTP connection starts its next request:
// never inside the signal of the chunk that finished.
void DownloadSingleFile::scheduleNextStep()
{
    if (m_stepQueued)
        return;
    m_stepQueued = true;
    QMetaObject::invokeMethod(this, &DownloadSingleFile::nextStep, Qt::QueuedConnection);
}

void DownloadSingleFile::nextStep()
{
    m_stepQueued = false;
    if (!isRunning())
        return;
    if (!pendingChunks.isEmpty()) {
        qCDebug(ztLog) << "chunk append chunk" << pendingChunks.size() << pendingChunks.firstKey();
        startPendingChunks();
        qCDebug(ztLog) << "chunk inesrt chunk" << pendingChunks.size();
    }
    if (isRunning() && pendingChunks.isEmpty() && finishedCount == chunksPlanned())
        complete();
}

void DownloadSingleFile::complete()
{
    m_merging = true;
    if (!merge())
        failMerge();
}

// The merged file is begun (or taken up again), and the merge goes on a slice
// per turn of the event loop.
bool DownloadSingleFile::merge()
{
    qCDebug(ztLog) << "merge chunk" << task->m_path;
    QDir().mkpath(task->m_path);
    // A file of one chunk begins in mergeStep(), by a rename where it can.
    if (m_mergedBytes == 0 && chunkCount > 1 && !beginMergedFile())
        return false;
    scheduleMergeStep();
    return true;
}

bool DownloadSingleFile::beginMergedFile()
{
    QFile merged(mergePath());
    if (merged.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return true;
    qCCritical(ztLog) << "merge chunk fail" << task->filePath;
    return false;
}

void DownloadSingleFile::scheduleMergeStep()
{
    if (m_mergeStepQueued)
        return;
    m_mergeStepQueued = true;
    QMetaObject::invokeMethod(this, &DownloadSingleFile::mergeStep, Qt::QueuedConnection);
}

// One slice a turn. A chunk is begun only once the one before it is hashed and
// gone, so that the merge holds at most one chunk more than the file's size.
void DownloadSingleFile::mergeStep()
{
    m_mergeStepQueued = false;
    if (!isRunning())
        return;
    if (m_hashed && m_foundSha256.isEmpty()) {
        verifyThenPlace(); // a chunk could not be hashed: refused now rather than after the merge
        return;
    }
    if (!removeMergedChunks()) {
        failMerge();
        return;
    }
    if (m_mergedBytes == task->fileSize) {
        if (!m_hasher || m_hashed)
            endMerge();
        return; // the digest brings the step back
    }
    if (m_mergedBytes == 0 && chunkCount == 1 && !m_renameTried) {
        if (m_hasher && !m_hashed)
            return; // the digest brings the step back: the hasher reads the chunk by its name
        if (renameOnlyChunk())
            endMerge(); // at once: nothing runs between the rename and the placing
        else
            scheduleMergeStep();
        return;
    }
    const int number = int(m_mergedBytes / chunkSize) + 1;
    if (m_removedThrough < number - 1)
        return; // so does the hasher's next report
    if (!appendSlice(number)) {
        failMerge();
        return;
    }
    if (m_mergedBytes == chunkStart(number) + shareOf(number))
        reportMerge(); // a host may stop the run from here
    scheduleMergeStep();
}

// A file of one chunk: its chunk file becomes the merged file by a rename,
// where both lie on one volume, rather than by a copy, which saves a file and
// the bytes' second write. Otherwise an empty merged file is begun and the
// chunk is copied in slices as for any file.
bool DownloadSingleFile::renameOnlyChunk()
{
    m_renameTried = true;
    const QString path = chunkPathOf(1);
    if (QFileInfo(path).size() == task->fileSize
        && std::rename(QFile::encodeName(path).constData(), QFile::encodeName(mergePath()).constData()) == 0) {
        m_chunkRenamed = true;
        m_mergedBytes = task->fileSize;
        return true;
    }
    beginMergedFile(); // when it cannot be made, the copy's first slice fails the merge
    return false;
}

// The next slice of chunk `number`, from where the merged file ends.
bool DownloadSingleFile::appendSlice(int number)
{
    const QString path = chunkPathOf(number);
    const qint64 offset = m_mergedBytes - chunkStart(number);
    QFile chunk(path);
    if (!chunk.open(QIODevice::ReadOnly)) {
        qCCritical(ztLog) << "merge chunk fail" << path;
        return false;
    }
    if (offset == 0) {
        qCDebug(ztLog) << "chunk" << path;
        qCDebug(ztLog) << "chunk size" << chunk.size();
    }
    // Not opened for appending: the kernel's copy refuses such a file.
    QFile merged(mergePath());
    if (!merged.open(QIODevice::ReadWrite)) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath << merged.errorString();
        return false;
    }
    if (merged.size() != m_mergedBytes || !merged.seek(m_mergedBytes)) {
        qCCritical(ztLog) << "merge size error" << task->filePath << merged.size() << m_mergedBytes;
        return false;
    }
    const qint64 count = qMin(MergeSlice, shareOf(number) - offset);
    QString error;
    const qint64 copied = copyRange(chunk, offset, merged, count, error);
    m_mergedBytes += copied;
    if (!error.isEmpty()) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath << error;
        return false;
    }
    if (copied < count) { // the next run fetches what the chunk file lacks
        qCCritical(ztLog) << "merge chunk fail" << path << "short of its share" << chunk.size() << shareOf(number);
        return false;
    }
    return true;
}

// The chunk files the merged file holds whole go once hashed, but the last
// one, which goes with the folder: a file of one chunk needs no record. The
// record says first how far the merge came, so that no chunk file goes before
// the record holds its bytes.
bool DownloadSingleFile::removeMergedChunks()
{
    const int whole = m_mergedBytes == task->fileSize ? chunkCount : int(m_mergedBytes / chunkSize);
    int through = m_removedThrough;
    while (through < qMin(whole, chunkCount - 1) && chunkHashed(through + 1))
        ++through;
    if (through == m_removedThrough)
        return true;
    if (!recordMerge()) {
        qCCritical(ztLog) << "merge chunk fail" << tempDir + QLatin1Char('/') + QLatin1String(MergeRecordName);
        return false;
    }
    m_mergeRecorded = true;
    for (; m_removedThrough < through; ++m_removedThrough) {
        const QString path = chunkPathOf(m_removedThrough + 1);
        if (!QFile::remove(path) && QFileInfo::exists(path)) {
            qCCritical(ztLog) << "remove fail" << path;
            return false;
        }
    }
    return true;
}

// Aside and renamed, but not synced: a record lost with the machine's power
// costs only the chunks merged since the one before, fetched again.
bool DownloadSingleFile::recordMerge()
{
    const QJsonObject record{{QStringLiteral("path"), mergePath()},
                             {QStringLiteral("chunkSize"), chunkSize},
                             {QStringLiteral("sha256"), QString::fromLatin1(m_expectedSha256.toBase64())},
                             {QStringLiteral("mergedBytes"), m_mergedBytes}};
    const QByteArray text = QJsonDocument(record).toJson(QJsonDocument::Compact);
    const QString path = tempDir + QLatin1Char('/') + QLatin1String(MergeRecordName);
    QFile aside(path + QLatin1String(".new"));
    if (!aside.open(QIODevice::WriteOnly | QIODevice::Truncate) || aside.write(text) != text.size()) {
        aside.remove();
        return false;
    }
    aside.close();
    // Replaced in one step where the system can: never a moment without a record.
    if (std::rename(QFile::encodeName(aside.fileName()).constData(), QFile::encodeName(path).constData()) == 0)
        return true;
    QFile::remove(path);
    return aside.rename(path);
}

// The merge fills the rest of the figure that the download phase left, so
// that a long merge is seen to move.
void DownloadSingleFile::reportMerge()
{
    const qint64 size = task->fileSize;
    const qint64 cap = (size / 100) * 95;
    const qint64 figure = cap + qint64(double(size - cap) * double(m_mergedBytes) / double(size));
    received = qMax(received, qMin(figure, size));
    const int merged = m_mergedBytes == size ? chunkCount : int(m_mergedBytes / chunkSize);
    reportProgress(qMin(size, (merged / 5) * (size / 100) + received));
}

void DownloadSingleFile::endMerge()
{
    const qint64 size = QFileInfo(mergePath()).size();
    if (size != task->fileSize) {
        qCCritical(ztLog) << "merge size error" << task->filePath << size << task->fileSize;
        failMerge();
        return;
    }
    if (m_hasher) {
        verifyThenPlace();
        return;
    }
    if (placeMerged())
        finishMerge();
    else
        failMerge();
}

// The merged file takes the destination's name only with the file's digest.
void DownloadSingleFile::verifyThenPlace()
{
    if (m_foundSha256 == m_expectedSha256) {
        if (placeMerged())
            finishMerge();
        else
            failMerge();
        return;
    }
    m_ended = true;
    qCCritical(ztLog) << "merged file differs from the server's" << task->filePath << "expected sha-256"
                      << m_expectedSha256.toBase64() << "found"
                      << (m_foundSha256.isEmpty() ? QByteArray("none, a chunk file is short") : m_foundSha256.toBase64());
    removeContentFolder(); // with the merged file: the next run starts afresh
    m_merging = false;
    task->status = Zephyrtide::Error::GeneralFailure;
    task->releaseReservations();
    releaseContentFolder();
    Q_EMIT errorOccurred(task->status);
}

void DownloadSingleFile::finishMerge()
{
    m_merging = false;
    m_placing = false;
    task->keepReservations();
    clear();
    releaseContentFolder();
    qCInfo(ztLog) << "finished file " << task->etag;
    Q_EMIT finished();
}

// The merged part and the chunks not yet in it stay, so that a later run goes
// on from them without downloading.
void DownloadSingleFile::failMerge()
{
    m_ended = true;
    if (m_hasher)
        m_hasher->cancel();
    settleMerge();
    recordDeferredPlan();
    m_merging = false;
    m_placing = false;
    task->status = Zephyrtide::Error::MergeError;
    task->releaseReservations(); // only the names that still hold nothing
    releaseContentFolder();
    Q_EMIT errorOccurred(task->status);
}

// What a merge that ends short of the file leaves: the record says how far it
// came. A merged part that no record names is of no use to a later run, which
// has every chunk file still: it goes rather than lie beside the destination.
void DownloadSingleFile::settleMerge()
{
    if (!m_merging)
        return;
    if (m_chunkRenamed) // back to where it came from: the only copy of the bytes
        std::rename(QFile::encodeName(mergePath()).constData(), QFile::encodeName(chunkPathOf(1)).constData());
    else if (!m_mergeRecorded)
        QFile::remove(mergePath());
    else if (!recordMerge())
        qCWarning(ztLog) << "merge record not updated" << tempDir; // the next run merges a little again
}

void DownloadSingleFile::onDownloadProgress(qlonglong delta, qlonglong)
{
    received += delta;
    // Scaled twice on purpose: the download phase reports at most about 90 %,
    // the merge and the final report fill the rest.
    const qint64 cap = (task->fileSize / 100) * 95;
    if (received > cap)
        received = cap;
    reportProgress((received / 100) * 95);
}

// Only a change goes out: a chunk's report of nothing new, or one past the
// cap, costs the batch nothing.
void DownloadSingleFile::reportProgress(qint64 shown)
{
    if (shown == m_shownReported && received == m_receivedReported)
        return;
    m_shownReported = shown;
    m_receivedReported = received;
    Q_EMIT downloadProgress(shown, task->fileSize, received);
}

QString DownloadSingleFile::mergePath() const
{
    return task->filePath + QLatin1String(MergeSuffix);
}

QString DownloadSingleFile::chunkPathOf(int number) const
{
    return tempDir + QLatin1Char('/') + QString::number(number);
}

qint64 DownloadSingleFile::chunkStart(int number) const
{
    return qint64(number - 1) * chunkSize;
}

// A run stopped during its merge left a merged part and the chunks not yet in
// it. How far it came is read from the merged file's size alone, whatever
// ended that run: the chunks it holds whole are not planned again (their files
// go, should any be left), and the one it holds in part is finished from its
// file, fetched again if that has gone.
void DownloadSingleFile::resumeMerge()
{
    const MergeRecord record = readMergeRecord(tempDir);
    if (record.path.isEmpty())
        return;
    const bool samePlan =
        record.chunkSize == chunkSize && (record.sha256.isEmpty() || record.sha256 == m_expectedSha256);
    if (!samePlan || !adoptMergedFile(record.path, record.mergedBytes)) {
        qCWarning(ztLog) << "merged part discarded" << record.path;
        discardMergedFile();
        return;
    }
    const int count = int(task->fileSize / chunkSize) + (task->fileSize % chunkSize > 0 ? 1 : 0);
    m_firstPlanned = m_mergedBytes == task->fileSize ? count + 1 : int(m_mergedBytes / chunkSize) + 1;
    for (; m_removedThrough < m_firstPlanned - 1; ++m_removedThrough) {
        const QString path = chunkPathOf(m_removedThrough + 1);
        if (!QFile::remove(path) && QFileInfo::exists(path))
            qCCritical(ztLog) << "remove fail" << path;
    }
    received = qMin(chunkStart(m_firstPlanned), (task->fileSize / 100) * 95);
    qCInfo(ztLog) << "merge resumed" << mergePath() << m_mergedBytes << "chunks from" << m_firstPlanned;
}

// Takes the merged part under this run's name for it (the destination may
// have another free name this time), as far as its record vouches for it.
// Bytes past that (a merge that ended without a word, or anything else that
// wrote there) are cut off; a part shorter than its record lost bytes whose
// chunk files are gone, so those are fetched again.
bool DownloadSingleFile::adoptMergedFile(const QString &recorded, qint64 recordedBytes)
{
    if (recordedBytes > task->fileSize) {
        qCCritical(ztLog) << "merge size error" << recorded << recordedBytes << task->fileSize;
        return false;
    }
    QFile merged(recorded);
    if (!merged.exists())
        return false;
    if (merged.size() > recordedBytes) {
        qCWarning(ztLog) << "merged part cut to its record" << recorded << merged.size() << recordedBytes;
        if (!merged.resize(recordedBytes))
            return false;
    }
    if (recorded != mergePath()) {
        QFile::remove(mergePath());
        if (!merged.rename(mergePath()))
            return false; // on another volume, say: what it holds is fetched again
    }
    m_mergedBytes = merged.size();
    m_mergeRecorded = recorded == mergePath() || recordMerge();
    return true;
}

// The merged part goes with the folder's record of it.
void DownloadSingleFile::discardMergedFile()
{
    const MergeRecord record = readMergeRecord(tempDir);
    if (!record.path.isEmpty())
        QFile::remove(record.path);
    if (m_merging)
        QFile::remove(mergePath());
    QFile::remove(tempDir + QLatin1Char('/') + QLatin1String(MergeRecordName));
    m_mergedBytes = 0;
    m_mergeRecorded = false;
}

// The hasher takes the merged part first, from the merged file, then the
// chunks after it as they finish.
void DownloadSingleFile::hashMergedPart()
{
    m_nextToHash = m_firstPlanned;
    if (m_firstPlanned > 1) {
        m_hasher->add(mergePath(), qMin(chunkStart(m_firstPlanned), task->fileSize));
        m_hashBase = 1;
    }
    if (m_nextToHash > chunkCount)
        m_hasher->close();
}

void DownloadSingleFile::onChunksHashed(int shares)
{
    m_hashedShares = shares;
    if (m_merging)
        scheduleMergeStep();
}

bool DownloadSingleFile::chunkHashed(int number) const
{
    return !m_hasher || m_hashed || m_hashedShares >= m_hashBase + number - m_firstPlanned + 1;
}

// Once in place, the file is this run's whatever comes: a stop from here on
// no longer ends the run.
bool DownloadSingleFile::placeMerged()
{
    m_placing = true;
    m_ended = true;
    if (!moveIntoPlace())
        return false; // the merged file stays, whole, for the next run
    if (!copyToSameFileTargets(task->filePath)) {
        qCCritical(ztLog) << "merge copy fail" << task->filePath;
        return false;
    }
    reportProgress(task->fileSize);
    qCDebug(ztLog) << "merge chunk finished" << QFileInfo(task->filePath).size();
    return true;
}

// The name may hold the empty file that reserved it (a free name such as
// "a(1).txt"); the whole file takes its place.
bool DownloadSingleFile::moveIntoPlace()
{
    QFile::remove(task->filePath);
    QFile merged(mergePath());
    if (merged.rename(task->filePath))
        return true;
    qCCritical(ztLog) << "merge chunk fail" << task->filePath << merged.errorString();
    return false;
}

bool DownloadSingleFile::copyToSameFileTargets(const QString &source)
{
    const QString sourcePath = QFileInfo(source).absoluteFilePath();
    for (const QFileInfo &target : qAsConst(task->sameFileTargets)) {
        const QString path = target.absoluteFilePath();
        if (path == sourcePath)
            continue;
        qCDebug(ztLog) << "copppppppppppy" << source << path;
        if (!QDir().mkpath(target.absolutePath())) {
            qCCritical(ztLog) << "copy fail " << source << path;
            return false;
        }
        QFile::remove(path);
        if (!QFile::copy(source, path)) {
            qCCritical(ztLog) << "copy fail " << source << path;
            return false;
        }
    }
    return true;
}

void DownloadSingleFile::clear()
{
    removeContentFolder();
    startedChunks.clear();
    chunkCount = 0;
}

void DownloadSingleFile::removeContentFolder()
{
    if (tempDir.isEmpty())
        return;
    discardMergedFile();
    if (!QDir(tempDir).removeRecursively())
        qCCritical(ztLog) << "remove fail" << tempDir;
}

// A merge under way ends too, between two slices; only the final rename into
// place goes on.
void DownloadSingleFile::halt()
{
    m_ended = true;
    if (m_placing)
        return;
    // Done reading chunk files before another run may take the folder.
    if (m_hasher)
        m_hasher->cancel();
    settleMerge();
    recordDeferredPlan();
    task->releaseReservations(); // this run produces no file
    releaseContentFolder();
}

void DownloadSingleFile::onAborted()
{
    qCInfo(ztLog) << "abort success" << task->etag;
    task->status = Zephyrtide::Error::Aborted;
    // The lock goes with the run, but nothing runs between this and the
    // removal: an aborted download starts from nothing next time, merged part
    // included. A file being put in place is no longer the abort's.
    Q_EMIT abort();
    if (!m_placing)
        removeContentFolder();
}

void DownloadSingleFile::onStopped()
{
    qCDebug(ztLog) << "stop success" << task->etag;
    task->status = Zephyrtide::Error::Stopped;
    Q_EMIT stop(); // chunk files stay for a later run
}

void DownloadSingleFile::onErrorOccurred(ZTErrorCode code)
{
    // The first failure ends the run; what follows is its echo. The chunk maps
    // are left alone: this may run inside startPendingChunks().
    if (!isRunning())
        return;
    task->status = code;
    Q_EMIT stop();
    Q_EMIT errorOccurred(code);
}
