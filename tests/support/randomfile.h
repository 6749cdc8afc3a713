#pragma once

#include <QtTest>

// Bytes without a pattern a transfer could get right by accident; the same
// bytes for the same size and seed.
QByteArray randomBytes(qint64 size, quint32 seed = 1);
// Writes randomBytes(size, seed) to path, a block at a time; false when it cannot.
bool writeRandomFile(const QString &path, qint64 size, quint32 seed = 1);
