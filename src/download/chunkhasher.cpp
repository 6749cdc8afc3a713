#include "chunkhasher.h"

#include "sha256.h"

#include <QFile>
#include <QThread>

namespace {
constexpr qint64 BlockSize = 1024 * 1024;
}

ChunkHasher::ChunkHasher(QObject *parent)
    : QObject(parent)
    , m_thread(QThread::create([this] { run(); }))
{
}

ChunkHasher::~ChunkHasher()
{
    cancel();
}

// The thread starts with the first work: a batch of many files that all wait
// for their first chunk holds no idle threads.
void ChunkHasher::startOnce()
{
    if (!m_started) {
        m_started = true;
        m_thread->start();
    }
}

void ChunkHasher::add(const QString &path, qint64 share)
{
    startOnce();
    QMutexLocker locker(&m_mutex);
    m_shares.enqueue({path, share});
    m_wake.wakeAll();
}

void ChunkHasher::close()
{
    startOnce();
    QMutexLocker locker(&m_mutex);
    m_closed = true;
    m_wake.wakeAll();
}

void ChunkHasher::cancel()
{
    {
        // Under the lock, so that the thread cannot miss it between its test and its wait.
        QMutexLocker locker(&m_mutex);
        m_cancelled = true;
        m_wake.wakeAll();
    }
    m_thread->wait(); // a block's read at most; at once when it never started
}

// On the hasher's thread.
void ChunkHasher::run()
{
    Sha256 sha;
    bool whole = true;
    Share share;
    int shares = 0;
    while (takeNext(share)) {
        // After a share that could not be read, the rest only waits for close().
        if (whole)
            whole = hashShare(sha, share);
        if (whole)
            report(++shares);
    }
    if (m_cancelled)
        return;
    const QByteArray digest = whole ? sha.result() : QByteArray();
    // Delivered on the owner's thread, and dropped with this object.
    QMetaObject::invokeMethod(
        this,
        [this, digest] {
            if (!m_cancelled)
                Q_EMIT finished(digest);
        },
        Qt::QueuedConnection);
}

// On the hasher's thread; delivered on the owner's, and dropped with this object.
void ChunkHasher::report(int shares)
{
    QMetaObject::invokeMethod(
        this,
        [this, shares] {
            if (!m_cancelled)
                Q_EMIT hashed(shares);
        },
        Qt::QueuedConnection);
}

bool ChunkHasher::takeNext(Share &share)
{
    QMutexLocker locker(&m_mutex);
    while (m_shares.isEmpty() && !m_closed && !m_cancelled)
        m_wake.wait(&m_mutex);
    if (m_cancelled || m_shares.isEmpty())
        return false;
    share = m_shares.dequeue();
    return true;
}

bool ChunkHasher::hashShare(Sha256 &sha, const Share &share)
{
    QFile file(share.path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray buffer(BlockSize, Qt::Uninitialized);
    for (qint64 left = share.size; left > 0;) {
        if (m_cancelled)
            return false;
        const qint64 count = file.read(buffer.data(), qMin(BlockSize, left));
        if (count <= 0)
            return false; // shorter than its share
        sha.addData(buffer.constData(), count);
        left -= count;
    }
    return true;
}
