#pragma once

#include <QtCore>

// What every fuzz target sets up before its first input, and how it reports a
// broken invariant. Shared by the libFuzzer build and the replay tests.
namespace FuzzEnvironment {

// Creates the QCoreApplication (the log categories and QStandardPaths need
// one), turns the plugin's log off so that an input costs microseconds, not a
// screenful (QT_LOGGING_RULES still turns it back on), and moves HOME and
// XDG_CONFIG_HOME into a temporary folder. Call once, before any plugin code:
// the download engine makes its default folder under Documents on first use,
// and QStandardPaths' test mode leaves Documents where it is.
void setUp();

// The process's temporary folder, removed when the process ends normally or
// through fail().
QString scratchPath();

// Prints what broke and aborts: a crash that libFuzzer keeps as an artifact,
// and a failure of the replay test.
[[noreturn]] void fail(const char *invariant, const QString &detail);

inline void require(bool holds, const char *invariant, const QString &detail = QString())
{
    if (!holds)
        fail(invariant, detail);
}

} // namespace FuzzEnvironment
