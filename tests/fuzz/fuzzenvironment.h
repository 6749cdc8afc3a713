#pragma once

#include <QtCore>

#include <cstdio>
#include <cstdlib>

// What every fuzz target sets up before its first input, and how it reports a
// broken invariant. Shared by the libFuzzer build and the replay tests.
namespace FuzzEnvironment {

// The process's temporary folder, removed when the process ends normally or
// through fail().
inline QTemporaryDir &scratch()
{
    static QTemporaryDir dir;
    return dir;
}

inline QString scratchPath()
{
    return scratch().path();
}

// Prints what broke and aborts: a crash that libFuzzer keeps as an artifact,
// and a failure of the replay test.
[[noreturn]] inline void fail(const char *invariant, const QString &detail)
{
    std::fprintf(stderr, "fuzz invariant broken: %s\n  %s\n", invariant, qPrintable(detail));
    std::fflush(stderr);
    scratch().remove(); // abort() skips the destructor that would
    std::abort();
}

inline void require(bool holds, const char *invariant, const QString &detail = QString())
{
    if (!holds)
        fail(invariant, detail);
}

// Creates the QCoreApplication (the log categories and QStandardPaths need
// one), turns the plugin's log off so that an input costs microseconds, not a
// screenful (QT_LOGGING_RULES still turns it back on), and moves HOME and
// XDG_CONFIG_HOME into the scratch folder. Call once, before any plugin code:
// the download engine makes its default folder under Documents on first use,
// and QStandardPaths' test mode leaves Documents where it is.
inline void setUp()
{
    // Qt keeps argc and argv for the application's lifetime; libFuzzer's flags are none of Qt's business.
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    require(scratch().isValid(), "a temporary folder can be made", scratch().errorString());
    const QString home = scratch().filePath(QStringLiteral("home"));
    QDir().mkpath(home);
    qputenv("HOME", QFile::encodeName(home));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QLatin1String("/.config")));
    QStandardPaths::setTestModeEnabled(true);
    QLoggingCategory::setFilterRules(QStringLiteral("zephyrtide.dll=false"));
}

} // namespace FuzzEnvironment
