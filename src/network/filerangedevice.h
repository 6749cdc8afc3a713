#pragma once

#include <QFile>
#include <QIODevice>

// Read-only view of bytes [offset, offset + length) of a file, seekable, so
// that a part of a large file can be sent as a request body without copying
// it into memory.
class FileRangeDevice : public QIODevice
{
    Q_OBJECT
public:
    FileRangeDevice(const QString &filePath, qint64 offset, qint64 length, QObject *parent = nullptr);

    bool open(OpenMode mode) override;
    void close() override;
    bool isSequential() const override { return false; }
    qint64 size() const override { return m_length; }
    bool seek(qint64 pos) override;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QFile m_file;
    qint64 m_offset;
    qint64 m_length;
};
