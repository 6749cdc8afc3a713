#include "commandrunner.h"

#include <QCoreApplication>

#include <sys/resource.h>

namespace {
// A batch holds a lock, a chunk file and a connection or so for each of its
// files at once: a thousand files need thousands of descriptors, past the
// soft limit of 1024 that many systems start a shell with. The hard limit is
// the one that counts, as for most programs that open many files.
void raiseOpenFileLimit()
{
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    const rlim_t wanted = limit.rlim_max == RLIM_INFINITY ? rlim_t(1) << 20 : limit.rlim_max;
    limit.rlim_cur = wanted;
    ::setrlimit(RLIMIT_NOFILE, &limit); // where it cannot be had, the limit stays as it was
}
} // namespace

int main(int argc, char *argv[])
{
    raiseOpenFileLimit();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ztcli"));
    // Quiet before anything can log: the plugin is chatty at debug level.
    CommandRunner::applyLogRules(false);

    QStringList arguments = QCoreApplication::arguments();
    arguments.removeFirst();
    int status = 0;
    {
        CommandRunner runner;
        status = runner.run(arguments);
    }
    // What the plugin released with deleteLater (transfers, their access
    // managers, whose destructors wait for their network threads) goes now:
    // left to exit(), such a thread may still be connecting while the process
    // tears down what it uses. A deletion may release more; a few rounds do.
    for (int round = 0; round < 4; ++round)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return status;
}
