#include "randomfile.h"

namespace {
constexpr qint64 BlockSize = 1 << 20;

void fill(QRandomGenerator &generator, QByteArray &block)
{
    QByteArray words((block.size() + 3) / 4 * 4, Qt::Uninitialized);
    generator.fillRange(reinterpret_cast<quint32 *>(words.data()), words.size() / 4);
    block = words.left(block.size());
}
} // namespace

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(int(size), Qt::Uninitialized);
    fill(generator, bytes);
    return bytes;
}

bool writeRandomFile(const QString &path, qint64 size, quint32 seed)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QRandomGenerator generator(seed);
    for (qint64 left = size; left > 0; left -= BlockSize) {
        QByteArray block(int(qMin(left, BlockSize)), Qt::Uninitialized);
        fill(generator, block);
        if (file.write(block) != block.size())
            return false;
    }
    return true;
}
