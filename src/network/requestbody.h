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
};
