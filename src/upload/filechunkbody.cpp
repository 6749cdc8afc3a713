#include "filechunkbody.h"

#include "network/filerangedevice.h"

#include <QCryptographicHash>
#include <QNetworkRequest>

namespace {
constexpr qint64 ReadSize = 1 << 20;
}

FileChunkBody::FileChunkBody(const QString &filePath, qint64 offset, qint64 length)
    : m_filePath(filePath)
    , m_offset(offset)
    , m_length(length)
{
}

void FileChunkBody::prepare()
{
    QMutexLocker locker(&m_mutex);
    if (m_digest.isEmpty())
        computeDigest();
}

QByteArray FileChunkBody::digest() const
{
    QMutexLocker locker(&m_mutex);
    return m_digest;
}

QIODevice *FileChunkBody::open(QNetworkRequest &request)
{
    prepare();
    const QByteArray digest = this->digest();
    if (digest.isEmpty())
        return nullptr;
    auto *device = new FileRangeDevice(m_filePath, m_offset, m_length); // the caller's
    if (!device->open(QIODevice::ReadOnly)) {
        delete device;
        return nullptr;
    }
    request.setRawHeader("fileMD5", digest);
    request.setHeader(QNetworkRequest::ContentLengthHeader, m_length);
    return device;
}

bool FileChunkBody::computeDigest()
{
    FileRangeDevice range(m_filePath, m_offset, m_length);
    if (!range.open(QIODevice::ReadOnly))
        return false;
    QCryptographicHash hash(QCryptographicHash::Md5);
    QByteArray buffer;
    while (!range.atEnd()) {
        buffer = range.read(ReadSize);
        if (buffer.isEmpty())
            return false;
        hash.addData(buffer);
    }
    m_digest = hash.result().toBase64();
    return true;
}
