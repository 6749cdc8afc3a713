#include "downloadsinglefile.h"

#include "accessmanagerpool.h"
#include "chunkhasher.h"
#include "downloadchunk.h"
#include "downloadglobal.h"
#include "downloadtask.h"
#include "plugin/logging.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QNetworkAccessManager>

#ifdef Q_OS_LINUX
#include <cerrno>
#include <unistd.h>
#endif

namespace {
constexpr qint64 CopySize = 1024 * 1024;
constexpr char MergeSuffix[] = ".ztmerge"; // the file being joined, beside its final name
constexpr char PlanName[] = ".plan";       // the content folder's plan record
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

// Copies up to count bytes from the start of source to the end of destination
// inside the kernel, so the merge never moves the bytes through user space.
// Returns the bytes copied (fewer when source is short), or -1 when nothing was
// copied because this file system or kernel can't; a failure after the first
// byte is left in failure (an errno value).
qint64 copyInKernel(QFile &source, QFile &destination, qint64 count, int &failure)
{
    failure = 0;
#ifdef Q_OS_LINUX
    const qint64 at = destination.pos();
    if (!destination.flush())
        return -1;
    loff_t from = 0;
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
    Q_UNUSED(source) Q_UNUSED(destination) Q_UNUSED(count)
    return -1;
#endif
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
    // Gone while its merged file waited for the digest: the file goes too.
    if (m_merging) {
        QFile::remove(mergePath());
        task->releaseReservations();
    }
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
        Q_EMIT errorOccurred();
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
    plan();
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
    const QString name = task->requestedName.isEmpty() ? task->fileName : task->requestedName;
    if (recordPlan(tempDir, chunkSize, m_expectedSha256, name, task->fileSize))
        return true;
    qCCritical(ztLog) << "file open error" << tempDir + QLatin1Char('/') + QLatin1String(PlanName);
    task->status = Zephyrtide::Error::FileError;
    m_ended = true;
    releaseContentFolder();
    return false;
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
    networkManager = DownloadGlobal::instance()->accessManagers()->lend(qMin(chunkCount, maxRunningChunks + 1));
    const QString requested = task->requestedName.isEmpty() ? task->fileName : task->requestedName;
    for (int i = 1; i <= chunkCount; ++i) {
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
        connect(chunk.data(), &DownloadChunk::finished, this, &DownloadSingleFile::onFinished);
        connect(chunk.data(), &DownloadChunk::downloadProgress, this, &DownloadSingleFile::onDownloadProgress);
        connect(chunk.data(), &DownloadChunk::errorOccurred, this, &DownloadSingleFile::onErrorOccurred);
        pendingChunks.insert(i, chunk);
    }
    if (!m_expectedSha256.isEmpty()) {
        m_hasher.reset(new ChunkHasher);
        connect(m_hasher.get(), &ChunkHasher::finished, this, &DownloadSingleFile::onHashed);
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
    if (m_joined)
        verifyThenPlace();
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

void DownloadSingleFile::onFinished()
{
    qCDebug(ztLog) << "single file finish";
    ++finishedCount;
    // A stopped, aborted or failed file starts no pending chunk and merges nothing.
    if (!isRunning())
        return;
    hashFinishedChunks(qobject_cast<DownloadChunk *>(sender()));
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
    if (isRunning() && pendingChunks.isEmpty() && finishedCount == chunkCount)
        complete();
}

void DownloadSingleFile::complete()
{
    m_ended = true;
    // A stop that comes during the merge (from a progress handler), or while
    // the merged file waits for its digest, lets it end: the folder stays this
    // run's until it is removed.
    m_merging = true;
    if (m_expectedSha256.isEmpty()) {
        if (merge())
            finishMerge();
        else
            failMerge();
        return;
    }
    if (!joinChunks()) {
        failMerge();
        return;
    }
    m_joined = true;
    if (m_hashed)
        verifyThenPlace();
    else
        qCDebug(ztLog) << "merged file waits for its digest" << task->filePath;
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
    m_merging = false;
    qCCritical(ztLog) << "merged file differs from the server's" << task->filePath << "expected sha-256"
                      << m_expectedSha256.toBase64() << "found"
                      << (m_foundSha256.isEmpty() ? QByteArray("none, a chunk file is short") : m_foundSha256.toBase64());
    QFile::remove(mergePath());
    removeContentFolder(); // the next run starts afresh
    task->status = Zephyrtide::Error::GeneralFailure;
    task->releaseReservations();
    releaseContentFolder();
    Q_EMIT errorOccurred();
}

void DownloadSingleFile::finishMerge()
{
    m_merging = false;
    task->keepReservations();
    clear();
    releaseContentFolder();
    qCInfo(ztLog) << "finished file " << task->etag;
    Q_EMIT finished();
}

// Chunk files stay, so that a later run merges again without downloading.
void DownloadSingleFile::failMerge()
{
    m_merging = false;
    task->status = Zephyrtide::Error::MergeError;
    task->releaseReservations(); // only the names that still hold nothing
    releaseContentFolder();
    Q_EMIT errorOccurred();
}

void DownloadSingleFile::onDownloadProgress(qlonglong delta, qlonglong)
{
    received += delta;
    // Scaled twice on purpose: the download phase reports at most about 90 %,
    // the merge and the final report fill the rest.
    const qint64 cap = (task->fileSize / 100) * 95;
    if (received > cap)
        received = cap;
    Q_EMIT downloadProgress((received / 100) * 95, task->fileSize);
}

bool DownloadSingleFile::merge()
{
    return joinChunks() && placeMerged();
}

QString DownloadSingleFile::mergePath() const
{
    return task->filePath + QLatin1String(MergeSuffix);
}

// Joined aside and renamed into place: a merge that fails (a full disk) or
// a merged file that is refused leaves nothing under the file's name.
bool DownloadSingleFile::joinChunks()
{
    qCDebug(ztLog) << "merge chunk" << task->m_path;
    QDir().mkpath(task->m_path);
    QFile destination(mergePath());
    if (!destination.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath;
        return false;
    }
    const bool joined = appendChunks(destination);
    destination.close();
    const qint64 written = destination.size();
    if (joined && written != task->fileSize)
        qCCritical(ztLog) << "merge size error" << task->filePath << written << task->fileSize;
    if (joined && written == task->fileSize)
        return true;
    destination.remove();
    return false;
}

bool DownloadSingleFile::placeMerged()
{
    if (!moveIntoPlace()) {
        QFile::remove(mergePath());
        return false;
    }
    if (!copyToSameFileTargets(task->filePath)) {
        qCCritical(ztLog) << "merge copy fail" << task->filePath;
        return false;
    }
    Q_EMIT downloadProgress(task->fileSize, task->fileSize);
    qCDebug(ztLog) << "merge chunk finished" << QFileInfo(task->filePath).size();
    return true;
}

bool DownloadSingleFile::appendChunks(QFile &destination)
{
    const qint64 step = task->fileSize / 100;
    int merged = 0;
    for (auto it = startedChunks.cbegin(); it != startedChunks.cend(); ++it) {
        const QString path = it.value()->chunkPath;
        qCDebug(ztLog) << "chunk" << path;
        ++merged;
        Q_EMIT downloadProgress((merged / 5) * step + received, task->fileSize);
        // Exactly the chunk's share: the overlap byte and anything past it stay out.
        if (!appendChunk(destination, path, shareOf(it.key())))
            return false;
    }
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

bool DownloadSingleFile::appendChunk(QFile &destination, const QString &chunkPath, qint64 share)
{
    QFile chunk(chunkPath);
    if (!chunk.open(QIODevice::ReadOnly)) {
        qCCritical(ztLog) << "merge chunk fail" << chunkPath;
        return false;
    }
    qCDebug(ztLog) << "chunk size" << chunk.size();
    int failure = 0;
    if (copyInKernel(chunk, destination, share, failure) >= 0) {
        if (failure != 0)
            qCCritical(ztLog) << "merge chunk fail" << task->filePath << qt_error_string(failure);
        return failure == 0; // short: the size check after the merge refuses the result
    }
    QByteArray buffer(CopySize, Qt::Uninitialized);
    for (qint64 left = share; left > 0;) {
        const qint64 count = chunk.read(buffer.data(), qMin<qint64>(buffer.size(), left));
        if (count <= 0)
            break; // short: the size check after the merge refuses the result
        if (destination.write(buffer.constData(), count) != count) {
            qCCritical(ztLog) << "merge chunk fail" << task->filePath << destination.errorString();
            return false;
        }
        left -= count;
    }
    chunk.close();
    return true;
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
    if (!tempDir.isEmpty() && !QDir(tempDir).removeRecursively())
        qCCritical(ztLog) << "remove fail" << tempDir;
}

void DownloadSingleFile::halt()
{
    m_ended = true;
    if (m_merging)
        return;
    // Done reading chunk files before another run may take the folder.
    if (m_hasher)
        m_hasher->cancel();
    task->releaseReservations(); // this run produces no file
    releaseContentFolder();
}

void DownloadSingleFile::onAborted()
{
    qCInfo(ztLog) << "abort success" << task->etag;
    task->status = Zephyrtide::Error::Aborted;
    // The lock goes with the run, but nothing runs between this and the
    // removal: an aborted download starts from nothing next time. A merge
    // under way ends first, and removes the folder itself.
    Q_EMIT abort();
    if (!m_merging)
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
    Q_EMIT errorOccurred();
}
