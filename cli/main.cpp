#include "commandline.h"
#include "commandrunner.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ztcli"));
    // Quiet before anything can log: the plugin is chatty at debug level.
    CommandRunner::applyLogRules(false);

    QStringList arguments = QCoreApplication::arguments();
    arguments.removeFirst();
    int status = 0;
    {
        CommandRunner runner(CommandLine::parse(arguments));
        status = runner.run();
    }
    // What the plugin released with deleteLater (transfers, their access
    // managers, whose destructors wait for their network threads) goes now:
    // left to exit(), such a thread may still be connecting while the process
    // tears down what it uses. A deletion may release more; a few rounds do.
    for (int round = 0; round < 4; ++round)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return status;
}
