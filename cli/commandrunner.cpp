#include "commandrunner.h"

#include "commandline.h"
#include "exitcode.h"
#include "interrupthandler.h"
#include "pluginhost.h"

#include <QLoggingCategory>
#include <QScopedPointer>

#include <cstdio>

CommandRunner::CommandRunner()
{
    m_stdout.open(stdout, QIODevice::WriteOnly | QIODevice::Unbuffered);
    m_stderr.open(stderr, QIODevice::WriteOnly | QIODevice::Unbuffered);
}

void CommandRunner::out(const QString &text)
{
    m_stdout.write(text.toUtf8());
}

void CommandRunner::err(const QString &text)
{
    m_stderr.write(text.toUtf8());
}

void CommandRunner::applyLogRules(bool verbose)
{
    // Without a level the rule covers all four: debug, info, warning, critical.
    QLoggingCategory::setFilterRules(verbose ? QStringLiteral("zephyrtide.dll=true")
                                             : QStringLiteral("zephyrtide.dll=false"));
}

int CommandRunner::run(const QStringList &arguments)
{
    // Declared first so that it outlives the command and the plugin it holds.
    QScopedPointer<InterruptHandler> interrupts;
    CommandLine line;
    if (!line.parse(arguments)) {
        err(QStringLiteral("ztcli: %1\n").arg(line.error()) + CommandLine::usageHint());
        return ExitUsage;
    }
    if (line.helpRequested()) {
        out(line.help());
        return ExitSuccess;
    }
    if (line.versionRequested()) {
        out(QStringLiteral("ztcli %1, host of plugin interface %2\n")
                .arg(QStringLiteral(ZT_CLI_VERSION), QLatin1String(PluginHost::Iid)));
        return ExitSuccess;
    }
    applyLogRules(line.parser().isSet(QStringLiteral("verbose")));
    Command *command = line.command();
    if (command->watchesInterrupts())
        interrupts.reset(new InterruptHandler);
    return command->start(line.parser(), &m_stdout, &m_stderr, interrupts.data());
}
