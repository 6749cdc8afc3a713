#pragma once

#include <QtTest>

// SHA-256 of a file's bytes; empty when it cannot be read.
QByteArray sha256OfFile(const QString &path);
