#include "fuzzenvironment.h"

#include <QtCore>

#include <cstdio>
#include <cstdlib>

namespace FuzzEnvironment {
namespace {

QTemporaryDir &scratch()
{
    static QTemporaryDir dir;
    return dir;
}

} // namespace

void setUp()
{
    // Qt keeps argc and argv for the application's lifetime; libFuzzer's own
    // flags are no business of Qt's.
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);

    if (!scratch().isValid())
        fail("a temporary folder can be made", scratch().errorString());
    const QString home = scratch().filePath(QStringLiteral("home"));
    QDir().mkpath(home);
    qputenv("HOME", QFile::encodeName(home));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QLatin1String("/.config")));
    QStandardPaths::setTestModeEnabled(true);
    QLoggingCategory::setFilterRules(QStringLiteral("zephyrtide.dll=false"));
}

QString scratchPath()
{
    return scratch().path();
}

void fail(const char *invariant, const QString &detail)
{
    std::fprintf(stderr, "fuzz invariant broken: %s\n  %s\n", invariant, qPrintable(detail));
    std::fflush(stderr);
    scratch().remove(); // abort() skips the destructor that would
    std::abort();
}

} // namespace FuzzEnvironment
