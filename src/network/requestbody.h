#pragma once

#include <QByteArray>
#include <QIODevice>

class QNetworkRequest;

// A request body that is produced when its transfer starts rather than when it
// is queued, so that a queue of large uploads holds no bodies in memory.
// open() may add headers that depend on the bytes (a digest, their length); it
// is called again, on a new device, when the request is sent again.
class RequestBody
{
public:
    virtual ~RequestBody() = default;

    // A device positioned at the first byte to send, or null when the body
    // cannot be read. The caller owns the device.
    virtual QIODevice *open(QNetworkRequest &request) = 0;

    // Work that depends only on the bytes, such as a digest, done ahead of the
    // transfer on a worker thread so that open() finds it ready and the thread
    // that moves the data never waits for it. Must be thread-safe; cheap once done.
    virtual void prepare() {}
};
