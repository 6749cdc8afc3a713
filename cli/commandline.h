#pragma once

#include "command.h"

#include <QCommandLineParser>
#include <QScopedPointer>

#include <memory>
#include <vector>

// ztcli's command line: global options anywhere, one command, its own options
// and its operands, parsed by one QCommandLineParser per command; and the help,
// made from the same parsers. parse() checks names, values, number ranges and
// operands; what needs the environment (the server address, local files) is
// the command's to check.
//
// Call order: parse(), then the accessors.
class CommandLine
{
public:
    CommandLine(); // makes every command
    ~CommandLine();

    // arguments without the program name; false after a usage error.
    bool parse(const QStringList &arguments);
    QString error() const { return m_error; }

    // "--help", "-h" or the help command: help() says it.
    bool helpRequested() const { return m_help; }
    bool versionRequested() const { return m_version; }
    // The command to run; null when only help or the version was asked for.
    Command *command() const { return m_command; }
    // The command's parser, once its line parsed without error.
    const QCommandLineParser &parser() const { return *m_parser; }

    QString help() const; // the general help, or the command's
    QString generalHelp() const;
    QString helpOf(const Command &command) const;

    static QList<Command::Option> globalOptions();
    static QString usageHint(); // the one line printed after a usage error

private:
    Command *find(const QString &name) const;
    // owner: its options, then the global ones; null: every command's too.
    void addOptions(QCommandLineParser &parser, const Command *owner) const;
    QString parseError(const QCommandLineParser &parser) const;
    QString rangeError() const;
    QString synopsis(const Command &command) const;
    bool fail(const QString &message);

    std::vector<std::unique_ptr<Command>> m_commands;
    QScopedPointer<QCommandLineParser> m_parser;
    Command *m_command = nullptr; // one of m_commands
    QString m_error;
    bool m_help = false;
    bool m_version = false;
};
