#pragma once

#include "upload/uploadstate.h"

#include <QDateTime>
#include <QList>
#include <QSharedPointer>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

struct ChunkItem;

// One file to upload: the caller's parameters, the server session and the
// progress. Held by QSharedPointer and worked on by every upload class; built
// by UploadGlobal::initFileItem. toCacheMap()/fromCacheMap() are its form in the
// upload-session cache, so an interrupted upload resumes with the same session.
class FileItem
{
public:
    FileItem();
    ~FileItem();

    // The persisted form: exactly the keys of the cache entry, the session
    // nested under "uploadInfo" as the server's "/upload/info" answer has it,
    // its "chunks" being remainingChunks().
    QVariantMap toCacheMap() const;
    // The descriptors of the chunks still to send. Until the pending chunk
    // items are built that is chunks; from then on it follows the items, so
    // that a finished part or a progressing one costs nothing until the cache
    // is written: a finished chunk drops out, and each other one carries the
    // bytes of it already sent ("bytesSent") to resume within itself.
    QVariantList remainingChunks() const;
    // Makes pendingChunks, built from chunks, the source of remainingChunks().
    void followPendingChunks(const QList<QSharedPointer<ChunkItem>> &pending);
    // Takes new descriptors (a new or resumed session); the pending chunk
    // items of an earlier run are dropped.
    void setChunks(const QVariantList &descriptors);
    // Reads every persisted field back from map (replacing the current ones).
    // Runtime fields (pendingChunks, state) are left alone.
    void fromCacheMap(const QVariantMap &map);

    // True while the server session can still be used: there is one and no
    // more than expires seconds have passed since it was obtained.
    bool sessionValid(const QDateTime &now = QDateTime::currentDateTime()) const;

    QString category;     // required
    bool isPrivate = false;
    QString userID;
    QString filePath;     // required
    uint source = 0;      // a Zephyrtide::Manager::HttpRequestSource, handed to every host request
    bool preview = false;
    QString identifier;   // 32 lower-case hex digits: cache key, sent as "fileMD5"
    QString contentType;
    QString fileName;     // without directory
    qint64 totalSize = 0;
    qint64 chunkSize = 0; // from the server
    int totalChunks = 0;
    int uploadedChunk = 0;
    qint64 expires = 0;   // session lifetime in seconds
    QString uploadID;     // server session id; empty = no session
    QString method;       // the server's method for chunks; stored and persisted only
    QDateTime currentRequestTime; // local time the session was obtained
    QVariantList chunks;  // the server's descriptors of the chunks still to send, see remainingChunks()
    QList<QSharedPointer<ChunkItem>> pendingChunks; // runtime only
    bool chunksFollowPending = false; // runtime only, see remainingChunks()
    Upload::State state = Upload::New;
    qint64 bytesSent = 0; // bytes known to be on the server
    QString bucket;
    QString dfsID;
    QString cdnURL;
    QVariantMap originParams; // the caller's map as given
};
