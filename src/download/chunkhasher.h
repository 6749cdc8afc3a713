#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

class Sha256;

// The SHA-256 of a file taken from its chunk files, in file order, on a pooled
// thread while the download still runs: the owner hands over each chunk's
// share as soon as that chunk and every one before it are complete, so that
// when the last chunk arrives little is left to hash, and that little is
// hashed while the merge copies. The threads are shared by every hasher of
// the process and kept a while when idle, so that a batch of many small files
// does not start and end a thread for each.
//
// Call order: add() for each share in file order, then close(); hashed()
// follows each share and finished() the last, once, on the owner's thread.
// cancel() or destruction ends the work at the next block read and waits for
// that (a millisecond or so): from then on no chunk file is open here and
// nothing more is emitted.
class ChunkHasher : public QObject
{
    Q_OBJECT
public:
    explicit ChunkHasher(QObject *parent = nullptr);
    ~ChunkHasher() override;

    // The first `share` bytes of the file at path are the next bytes of the content.
    void add(const QString &path, qint64 share);
    void close();
    void cancel();

Q_SIGNALS:
    // This many shares, counted from the first, are hashed: their files may go.
    void hashed(int shares);
    // The digest of everything added; empty when a share could not be read whole.
    void finished(const QByteArray &sha256);

private:
    struct Share
    {
        QString path;
        qint64 size;
    };
    struct Work; // what the pooled thread and the owner share
    void startOnce();
    void run();
    bool hashShare(Sha256 &sha, const Share &share);
    void report(int shares);

    // Shared with the pooled thread, which may still be leaving its last
    // lock when this object goes.
    std::shared_ptr<Work> m_work;
    bool m_started = false; // owner's thread only
};
