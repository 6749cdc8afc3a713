#pragma once

#include "network/requestbody.h"

#include <QByteArray>
#include <QString>

// The body of one chunk upload: a range of the file, read when the transfer
// starts. open() adds "fileMD5", the Base64 MD5 of exactly those bytes, and
// the length. The digest is computed once; a retry reuses it.
class FileChunkBody : public RequestBody
{
public:
    FileChunkBody(const QString &filePath, qint64 offset, qint64 length);

    QIODevice *open(QNetworkRequest &request) override;
    QByteArray digest() const { return m_digest; }

private:
    bool computeDigest();

    QString m_filePath;
    qint64 m_offset;
    qint64 m_length;
    QByteArray m_digest;
};
