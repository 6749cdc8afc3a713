#pragma once

#include "upload/uploadstate.h"

#include <QByteArray>
#include <QString>
#include <QVariantMap>

// One chunk of a file item still to be sent, as the server described it. Built
// by the single-file uploader from the file item's chunk descriptors and shared
// (by QSharedPointer) with the chunk uploader that sends it. Runtime only:
// never persisted itself: FileItem::remainingChunks() turns the items still
// pending back into descriptors, which is what resumes.
struct ChunkItem
{
    int partNumber = 0;         // 1-based, from the "partNumber" query item of url
    qint64 chunkSize = 0;       // the file's chunk size
    QByteArray data;            // the bytes still to send for this chunk, when held in memory
    // Otherwise the bytes still to send are [offset, offset + length) of this
    // file, read only when the chunk's transfer starts.
    QString filePath;
    qint64 offset = 0;
    qint64 length = 0;
    QString url;                // where to send it, from the server
    QVariantMap headers;        // header name to value, from the server
    QString method;             // the file's method text; carried, not used for the request
    QString identifier;         // the file item's identifier
    Upload::State state = Upload::New;
    qint64 bytesSent = 0;       // bytes of this chunk confirmed sent so far
    QVariantMap descriptor;     // the server's descriptor it was built from
    qint64 counted = 0;         // bytesSent as last added into its file's progress
};
