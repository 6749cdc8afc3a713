#include "filerangedevice.h"

FileRangeDevice::FileRangeDevice(const QString &filePath, qint64 offset, qint64 length, QObject *parent)
    : QIODevice(parent)
    , m_file(filePath)
    , m_offset(offset)
    , m_length(length)
{
}

bool FileRangeDevice::open(OpenMode mode)
{
    if ((mode & WriteOnly) || !m_file.open(QIODevice::ReadOnly))
        return false;
    // A range past the end of the file would send fewer bytes than announced.
    if (m_offset < 0 || m_length < 0 || m_offset + m_length > m_file.size() || !m_file.seek(m_offset)) {
        m_file.close();
        return false;
    }
    return QIODevice::open(mode);
}

void FileRangeDevice::close()
{
    QIODevice::close();
    m_file.close();
}

bool FileRangeDevice::seek(qint64 pos)
{
    if (pos < 0 || pos > m_length || !m_file.seek(m_offset + pos))
        return false;
    return QIODevice::seek(pos);
}

qint64 FileRangeDevice::readData(char *data, qint64 maxSize)
{
    const qint64 left = m_length - (m_file.pos() - m_offset);
    if (left <= 0)
        return 0; // end of the range; the file may go on
    return m_file.read(data, qMin(maxSize, left));
}
