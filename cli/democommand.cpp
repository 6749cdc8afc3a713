#include "democommand.h"

#include "demorun.h"
#include "interrupthandler.h"

#include <QFile>

QString DemoCommand::summary() const
{
    return QStringLiteral("upload, list, download and verify sample files against a private file service");
}

QString DemoCommand::description() const
{
    return QStringLiteral(
        "Starts the reference file service on a free loopback port with a temporary\n"
        "store, makes three sample files (a short text, 3 MiB + 1 byte, and one of N\n"
        "MiB), uploads them, lists them, downloads them into a fresh folder, compares\n"
        "their SHA-256 with the originals and prints sizes, times and rates. Nothing to\n"
        "configure; the service is stopped and the temporary folders removed at the end,\n"
        "also after an error or Ctrl-C.");
}

QList<Command::Option> DemoCommand::options() const
{
    return {{QCommandLineOption(QStringLiteral("size-mb"),
                                QStringLiteral("size of the large sample in MiB (default: %1)").arg(DemoRun::DefaultSizeMiB),
                                QStringLiteral("N")),
             1, 65536}};
}

int DemoCommand::run()
{
    DemoRun demo(stdoutFile(), stderrFile(), interrupts());
    demo.setVerbose(isSet(QStringLiteral("verbose")));
    return demo.run(number(QStringLiteral("size-mb"), DemoRun::DefaultSizeMiB));
}
