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
    return status;
}
