#pragma once

#include <QFile>
#include <QStringList>

// Runs one ztcli command line and returns its exit status (exitcode.h): a
// usage error, the help or the version, or the command it names.
class CommandRunner
{
public:
    CommandRunner();

    int run(const QStringList &arguments); // without the program name

    // Logging of the plugin's category "zephyrtide.dll": off unless verbose.
    static void applyLogRules(bool verbose);

private:
    void out(const QString &text);
    void err(const QString &text);

    QFile m_stdout;
    QFile m_stderr;
};
