#include "chunkhasher.h"

#include "sha256.h"

#include <QFile>
#include <QMutex>
#include <QQueue>
#include <QThreadPool>
#include <QWaitCondition>

#include <atomic>

namespace {
constexpr qint64 BlockSize = 1024 * 1024;
// Each running hasher holds a thread while it waits for its file's next
// chunk, so the pool may grow with the files that run; idle threads are kept
// for the next files and end after the pool's expiry time.
constexpr int MaxHasherThreads = 4096;

QThreadPool *hasherThreads()
{
    static QThreadPool *pool = [] {
        auto *threads = new QThreadPool; // lives for the process, as its threads may
        threads->setMaxThreadCount(MaxHasherThreads);
        return threads;
    }();
    return pool;
}
} // namespace

struct ChunkHasher::Work
{
    QMutex mutex;
    QWaitCondition wake;  // a share, close() or cancel() for the pooled thread
    QWaitCondition ended; // the pooled thread has left run()
    QQueue<Share> shares; // guarded by mutex
    bool closed = false;  // guarded by mutex
    bool running = false; // guarded by mutex
    std::atomic<bool> cancelled{false};

    bool takeNext(Share &share)
    {
        QMutexLocker locker(&mutex);
        while (shares.isEmpty() && !closed && !cancelled)
            wake.wait(&mutex);
        if (cancelled || shares.isEmpty())
            return false;
        share = shares.dequeue();
        return true;
    }
};

ChunkHasher::ChunkHasher(QObject *parent)
    : QObject(parent)
    , m_work(std::make_shared<Work>())
{
}

ChunkHasher::~ChunkHasher()
{
    cancel();
}

// Work goes to the pool with the first share: a batch of many files that all
// wait for their first chunk holds no idle threads.
void ChunkHasher::startOnce()
{
    if (m_started)
        return;
    m_started = true;
    m_work->running = true;
    const std::shared_ptr<Work> work = m_work;
    hasherThreads()->start([this, work] {
        run();
        QMutexLocker locker(&work->mutex);
        work->running = false;
        work->ended.wakeAll();
    });
}

void ChunkHasher::add(const QString &path, qint64 share)
{
    startOnce();
    QMutexLocker locker(&m_work->mutex);
    m_work->shares.enqueue({path, share});
    m_work->wake.wakeAll();
}

void ChunkHasher::close()
{
    startOnce();
    QMutexLocker locker(&m_work->mutex);
    m_work->closed = true;
    m_work->wake.wakeAll();
}

void ChunkHasher::cancel()
{
    // Under the lock, so that the thread cannot miss it between its test and its wait.
    QMutexLocker locker(&m_work->mutex);
    m_work->cancelled = true;
    m_work->wake.wakeAll();
    while (m_work->running) // a block's read at most; at once when it never started
        m_work->ended.wait(&m_work->mutex);
}

// On a pooled thread; this object lives until run() has returned (cancel()).
void ChunkHasher::run()
{
    Sha256 sha;
    bool whole = true;
    Share share;
    int shares = 0;
    while (m_work->takeNext(share)) {
        // After a share that could not be read, the rest only waits for close().
        if (whole)
            whole = hashShare(sha, share);
        if (whole)
            report(++shares);
    }
    if (m_work->cancelled)
        return;
    const QByteArray digest = whole ? sha.result() : QByteArray();
    // Delivered on the owner's thread, and dropped with this object.
    QMetaObject::invokeMethod(
        this,
        [this, digest] {
            if (!m_work->cancelled)
                Q_EMIT finished(digest);
        },
        Qt::QueuedConnection);
}

// On the pooled thread; delivered on the owner's, and dropped with this object.
void ChunkHasher::report(int shares)
{
    QMetaObject::invokeMethod(
        this,
        [this, shares] {
            if (!m_work->cancelled)
                Q_EMIT hashed(shares);
        },
        Qt::QueuedConnection);
}

bool ChunkHasher::hashShare(Sha256 &sha, const Share &share)
{
    QFile file(share.path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray buffer(int(qMin(BlockSize, qMax<qint64>(share.size, 1))), Qt::Uninitialized);
    for (qint64 left = share.size; left > 0;) {
        if (m_work->cancelled)
            return false;
        const qint64 count = file.read(buffer.data(), qMin(qint64(buffer.size()), left));
        if (count <= 0)
            return false; // shorter than its share
        sha.addData(buffer.constData(), count);
        left -= count;
    }
    return true;
}
