#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

// ztcli's command line: global options anywhere, one command, its own options
// and its operands. "--name value" and "--name=value" both work; "--" ends the
// options. parse() checks names, arities and numbers; what needs the
// environment (the server address, local files) is checked by the runner.
class CommandLine
{
public:
    static CommandLine parse(const QStringList &arguments); // without the program name

    static const QStringList &commands();
    static bool isCommand(const QString &name);

    bool isValid() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }

    QString command() const { return m_command; }
    QStringList operands() const { return m_operands; }

    bool isSet(const QString &option) const { return m_options.contains(option); }
    QString value(const QString &option, const QString &fallback = QString()) const
    {
        return m_options.value(option, fallback);
    }
    // Numeric options are checked by parse(); this reads them back.
    qint64 number(const QString &option, qint64 fallback) const;

    // "--help", "-h" or the help command: show help for helpTopic() (empty: general).
    bool helpRequested() const { return m_help; }
    QString helpTopic() const { return m_helpTopic; }
    bool versionRequested() const { return isSet(QStringLiteral("version")); }
    bool verbose() const { return isSet(QStringLiteral("verbose")); }

private:
    struct Option
    {
        QString name;
        QChar shortName;
        bool takesValue;
        QString command; // empty: global
        qint64 minimum = -1; // numeric options: the range they accept
        qint64 maximum = -1;
    };
    static const QList<Option> &options();
    static const Option *find(const QString &name);
    static const Option *findShort(QChar name);

    bool take(const Option &option, const QString &value, bool hasValue);
    void checkOperands();
    void checkOptionsBelongToCommand();
    void fail(const QString &message);

    QString m_command;
    QStringList m_operands;
    QHash<QString, QString> m_options;
    QString m_error;
    bool m_help = false;
    QString m_helpTopic;
};
