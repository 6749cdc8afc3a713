#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

class InterruptHandler;
class QFile;

// One ztcli command: what its parser accepts beyond the global options, the
// texts its help is made of, and what it does. CommandLine builds one parser
// per command from these; CommandRunner starts the one that was asked for.
class Command
{
public:
    // An option; a numeric one also gives the whole numbers it accepts.
    struct Option
    {
        QCommandLineOption option;
        qint64 minimum = -1;
        qint64 maximum = -1;
    };
    struct Operand
    {
        QString name;
        QString description;
        QString syntax; // in the usage line, e.g. "NAME..."
    };

    explicit Command(const QString &name) : m_name(name) {}
    virtual ~Command() = default;

    QString name() const { return m_name; }
    virtual QString summary() const = 0;     // its line under "Commands:" of ztcli --help
    virtual QString description() const = 0; // what ztcli COMMAND --help says first
    virtual QList<Option> options() const { return {}; }
    virtual QList<Operand> operands() const { return {}; }
    // A usage error in the operands or in how options combine; empty when none.
    virtual QString operandError(const QStringList &operands, const QCommandLineParser &line) const;
    // Whether Ctrl-C is ztcli's to handle while it runs (serve hands it on).
    virtual bool watchesInterrupts() const { return true; }

    // Runs the command on a line that parsed without error; the exit status
    // (exitcode.h). Call once. out, err and interrupts are borrowed.
    int start(const QCommandLineParser &line, QFile *out, QFile *err, InterruptHandler *interrupts);

    // The default folder for partial downloads.
    static QString defaultTempFolder();

protected:
    virtual int run() = 0;

    const QCommandLineParser &line() const { return *m_line; }
    bool isSet(const QString &option) const { return m_line->isSet(option); }
    QString value(const QString &option, const QString &fallback = QString()) const;
    // Numeric options are checked against their range when parsed.
    qint64 number(const QString &option, qint64 fallback) const;
    QStringList operandList() const { return m_line->positionalArguments().mid(1); }
    // --temp as an absolute path, or the default.
    QString temporaryFolder() const;

    void out(const QString &text);
    void err(const QString &text);
    QFile *stdoutFile() const { return m_out; }
    QFile *stderrFile() const { return m_err; }
    InterruptHandler *interrupts() const { return m_interrupts; }

private:
    QString m_name;
    const QCommandLineParser *m_line = nullptr; // borrowed
    QFile *m_out = nullptr;                     // borrowed
    QFile *m_err = nullptr;                     // borrowed
    InterruptHandler *m_interrupts = nullptr;   // borrowed; null for a command that does not watch
};
