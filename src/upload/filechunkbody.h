#pragma once

#include "network/requestbody.h"

#include <QByteArray>
#include <QMutex>
#include <QString>

// The body of one chunk upload: a range of the file, read when the transfer
// starts. open() adds "fileMD5", the Base64 MD5 of exactly those bytes, and
// the length. The digest is computed once, by prepare() on the queue's worker
// when it gets there first, otherwise by open(); a retry reuses it.
class FileChunkBody : public RequestBody
{
public:
    FileChunkBody(const QString &filePath, qint64 offset, qint64 length);

    QIODevice *open(QNetworkRequest &request) override;
    void prepare() override;
    QByteArray digest() const;

private:
    bool computeDigest();

    const QString m_filePath;
    const qint64 m_offset;
    const qint64 m_length;
    mutable QMutex m_mutex; // guards m_digest against the worker
    QByteArray m_digest;
};
