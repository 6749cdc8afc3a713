#include "downloadsinglefile.h"

#include "downloadchunk.h"
#include "downloadglobal.h"
#include "downloadtask.h"
#include "plugin/logging.h"

#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>

#ifdef Q_OS_LINUX
#include <cerrno>
#include <unistd.h>
#endif

namespace {
constexpr qint64 CopySize = 1024 * 1024;
constexpr char MergeSuffix[] = ".ztmerge"; // the file being joined, beside its final name

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
}

DownloadSingleFile::~DownloadSingleFile() = default;

bool DownloadSingleFile::start()
{
    if (!task->checkTask()) {
        qCCritical(ztLog) << " task not valid err" << task->m_path << task->url;
        task->status = Zephyrtide::Error::ParseError;
        Q_EMIT errorOccurred();
        return false;
    }
    networkManager = QSharedPointer<QNetworkAccessManager>::create();
    if (task->fileSize != 0) {
        plan();
        return true;
    }
    return createEmptyFile();
}

bool DownloadSingleFile::createEmptyFile()
{
    QDir().mkpath(task->m_path);
    QFile file(task->filePath);
    if (!file.open(QIODevice::WriteOnly)) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath;
        return false;
    }
    file.close();
    qCDebug(ztLog) << "file size 0" << task->fileName;
    Q_EMIT finished();
    return true;
}

void DownloadSingleFile::plan()
{
    // A server that answered the probe without a range serves none: one chunk,
    // so that its whole answer is written once.
    if (!task->rangeSupported)
        chunkSize = task->fileSize;
    chunkCount = int(task->fileSize / chunkSize) + (task->fileSize % chunkSize > 0 ? 1 : 0);
    tempDir = task->tempDir;
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
        connect(this, &DownloadSingleFile::abort, chunk.data(), &DownloadChunk::onAborted);
        connect(this, &DownloadSingleFile::stop, chunk.data(), &DownloadChunk::onStoped);
        connect(chunk.data(), &DownloadChunk::finished, this, &DownloadSingleFile::onFinished);
        connect(chunk.data(), &DownloadChunk::downloadProgress, this, &DownloadSingleFile::onDownloadProgress);
        connect(chunk.data(), &DownloadChunk::errorOccurred, this, &DownloadSingleFile::onErrorOccurred);
        pendingChunks.insert(i, chunk);
    }
    // "At most the limit" counted over started chunks: four start at first.
    while (!pendingChunks.isEmpty() && startedChunks.size() <= maxRunningChunks) {
        const int number = pendingChunks.firstKey();
        QSharedPointer<DownloadChunk> chunk = pendingChunks.take(number);
        startedChunks.insert(number, chunk);
        qCDebug(ztLog) << "requestiiiii " << pendingChunks.size() << number;
        chunk->start();
    }
}

void DownloadSingleFile::onFinished()
{
    qCDebug(ztLog) << "single file finish";
    ++finishedCount;
    if (!pendingChunks.isEmpty()) {
        const int number = pendingChunks.firstKey();
        QSharedPointer<DownloadChunk> chunk = pendingChunks.take(number);
        qCDebug(ztLog) << "chunk append chunk" << pendingChunks.size() << number;
        startedChunks.insert(number, chunk);
        if (chunk->start())
            qCDebug(ztLog) << "chunk inesrt chunk" << pendingChunks.size();
        else
            qCCritical(ztLog) << "start failllllll";
        return;
    }
    if (finishedCount != chunkCount)
        return;
    if (task->status == Zephyrtide::Error::NoError) {
        if (!merge()) {
            task->status = Zephyrtide::Error::MergeError;
            Q_EMIT errorOccurred();
            return;
        }
        clear();
    }
    qCInfo(ztLog) << "finished file " << task->etag;
    Q_EMIT finished();
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
    qCDebug(ztLog) << "merge chunk" << task->m_path;
    QDir().mkpath(task->m_path);
    // Joined aside and renamed into place: a merge that fails (a full disk)
    // leaves nothing under the file's name, and the chunk files stay for a
    // later run that merges again.
    QFile destination(task->filePath + QLatin1String(MergeSuffix));
    if (!destination.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qCCritical(ztLog) << "merge chunk fail" << task->filePath;
        return false;
    }
    const bool joined = appendChunks(destination);
    destination.close();
    const qint64 written = destination.size();
    if (joined && written != task->fileSize)
        qCCritical(ztLog) << "merge size error" << task->filePath << written << task->fileSize;
    if (!joined || written != task->fileSize || !moveIntoPlace(destination)) {
        destination.remove();
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
        const qint64 first = qint64(it.key() - 1) * chunkSize;
        const qint64 share = qMin(qint64(it.key()) * chunkSize, task->fileSize) - first;
        if (!appendChunk(destination, path, share))
            return false;
    }
    return true;
}

// The name may hold the empty file that reserved it (a free name such as
// "a(1).txt"); the whole file takes its place.
bool DownloadSingleFile::moveIntoPlace(QFile &merged)
{
    QFile::remove(task->filePath);
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
    if (!tempDir.isEmpty() && !QDir(tempDir).removeRecursively())
        qCCritical(ztLog) << "remove fail" << tempDir;
    startedChunks.clear();
    chunkCount = 0;
}

void DownloadSingleFile::onAborted()
{
    qCInfo(ztLog) << "abort success" << task->etag;
    task->status = Zephyrtide::Error::Aborted;
    Q_EMIT abort();
    clear(); // an aborted download starts from nothing next time
}

void DownloadSingleFile::onStopped()
{
    qCDebug(ztLog) << "stop success" << task->etag;
    task->status = Zephyrtide::Error::Stopped;
    Q_EMIT stop();
}

void DownloadSingleFile::onErrorOccurred(ZTErrorCode code)
{
    task->status = code;
    Q_EMIT stop();
    startedChunks.clear();
    Q_EMIT errorOccurred();
}
