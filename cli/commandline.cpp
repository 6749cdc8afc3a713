#include "commandline.h"

namespace {
const QString Help = QStringLiteral("help");
}

const QStringList &CommandLine::commands()
{
    static const QStringList names{QStringLiteral("serve"),  QStringLiteral("list"),
                                   QStringLiteral("delete"), QStringLiteral("upload"),
                                   QStringLiteral("download"), QStringLiteral("exists"),
                                   QStringLiteral("partial"), QStringLiteral("demo"), Help};
    return names;
}

bool CommandLine::isCommand(const QString &name)
{
    return commands().contains(name);
}

const QList<CommandLine::Option> &CommandLine::options()
{
    static const QList<Option> all{
        {QStringLiteral("server"), QLatin1Char('s'), true, QString()},
        {QStringLiteral("token"), QChar(), true, QString()},
        {QStringLiteral("cacert"), QChar(), true, QString()},
        {QStringLiteral("temp"), QChar(), true, QString()},
        {QStringLiteral("chunk-size-mb"), QChar(), true, QString(), 0, 4095},
        {QStringLiteral("retry"), QChar(), true, QString(), 0, 100},
        {QStringLiteral("timeout"), QChar(), true, QString(), 1, 86400},
        {QStringLiteral("verbose"), QLatin1Char('v'), false, QString()},
        {QStringLiteral("quiet"), QLatin1Char('q'), false, QString()},
        {QStringLiteral("help"), QLatin1Char('h'), false, QString()},
        {QStringLiteral("version"), QChar(), false, QString()},
        {QStringLiteral("root"), QChar(), true, QStringLiteral("serve")},
        {QStringLiteral("port"), QChar(), true, QStringLiteral("serve"), 0, 65535},
        {QStringLiteral("json"), QChar(), false, QStringLiteral("list")},
        {QStringLiteral("clear"), QChar(), false, QStringLiteral("partial")},
        {QStringLiteral("to"), QChar(), true, QStringLiteral("download")},
        {QStringLiteral("output"), QLatin1Char('o'), true, QStringLiteral("download")},
        {QStringLiteral("size-mb"), QChar(), true, QStringLiteral("demo"), 1, 65536},
    };
    return all;
}

const CommandLine::Option *CommandLine::find(const QString &name)
{
    for (const Option &option : options()) {
        if (option.name == name)
            return &option;
    }
    return nullptr;
}

const CommandLine::Option *CommandLine::findShort(QChar name)
{
    for (const Option &option : options()) {
        if (!option.shortName.isNull() && option.shortName == name)
            return &option;
    }
    return nullptr;
}

qint64 CommandLine::number(const QString &option, qint64 fallback) const
{
    return isSet(option) ? value(option).toLongLong() : fallback;
}

void CommandLine::fail(const QString &message)
{
    if (m_error.isEmpty())
        m_error = message;
}

bool CommandLine::take(const Option &option, const QString &value, bool hasValue)
{
    if (option.takesValue && !hasValue) {
        fail(QStringLiteral("option --%1 needs a value").arg(option.name));
        return false;
    }
    if (!option.takesValue && hasValue) {
        fail(QStringLiteral("option --%1 takes no value").arg(option.name));
        return false;
    }
    if (option.minimum >= 0) {
        bool ok = false;
        const qint64 number = value.toLongLong(&ok);
        if (!ok || number < option.minimum || number > option.maximum) {
            fail(QStringLiteral("option --%1 needs a whole number from %2 to %3, not \"%4\"")
                     .arg(option.name)
                     .arg(option.minimum)
                     .arg(option.maximum)
                     .arg(value));
            return false;
        }
    }
    m_options.insert(option.name, value);
    if (option.name == Help)
        m_help = true;
    return true;
}

CommandLine CommandLine::parse(const QStringList &arguments)
{
    CommandLine line;
    QStringList words;
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size() && line.isValid(); ++i) {
        const QString &argument = arguments.at(i);
        if (optionsEnded || argument == QLatin1String("-") || !argument.startsWith(QLatin1Char('-'))) {
            words.append(argument);
            continue;
        }
        if (argument == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }
        const Option *option = nullptr;
        QString value;
        bool hasValue = false;
        if (argument.startsWith(QLatin1String("--"))) {
            const int equals = argument.indexOf(QLatin1Char('='));
            const QString name = argument.mid(2, equals < 0 ? -1 : equals - 2);
            option = find(name);
            if (equals >= 0) {
                value = argument.mid(equals + 1);
                hasValue = true;
            }
        } else if (argument.size() == 2) {
            option = findShort(argument.at(1));
        }
        if (!option) {
            line.fail(QStringLiteral("unknown option %1").arg(argument));
            break;
        }
        if (option->takesValue && !hasValue && i + 1 < arguments.size()) {
            value = arguments.at(++i);
            hasValue = true;
        }
        line.take(*option, value, hasValue);
    }
    if (!line.isValid())
        return line;

    if (!words.isEmpty()) {
        line.m_command = words.takeFirst();
        line.m_operands = words;
    }
    if (line.m_command == Help) {
        line.m_help = true;
        line.m_helpTopic = line.m_operands.value(0);
        if (line.m_operands.size() > 1)
            line.fail(QStringLiteral("help takes at most one command name"));
        else if (!line.m_helpTopic.isEmpty() && !isCommand(line.m_helpTopic))
            line.fail(QStringLiteral("unknown command \"%1\"").arg(line.m_helpTopic));
        return line;
    }
    if (!line.m_command.isEmpty() && !isCommand(line.m_command)) {
        line.fail(QStringLiteral("unknown command \"%1\"").arg(line.m_command));
        return line;
    }
    if (line.m_help) {
        line.m_helpTopic = line.m_command;
        return line;
    }
    if (line.versionRequested())
        return line;
    if (line.m_command.isEmpty()) {
        line.fail(QStringLiteral("no command given"));
        return line;
    }
    line.checkOptionsBelongToCommand();
    line.checkOperands();
    return line;
}

void CommandLine::checkOptionsBelongToCommand()
{
    for (auto it = m_options.cbegin(); it != m_options.cend(); ++it) {
        const Option *option = find(it.key());
        if (option && !option->command.isEmpty() && option->command != m_command)
            fail(QStringLiteral("option --%1 belongs to \"%2\", not to \"%3\"")
                     .arg(option->name, option->command, m_command));
    }
}

void CommandLine::checkOperands()
{
    const int count = m_operands.size();
    if (m_command == QLatin1String("exists")) {
        if (count != 1)
            fail(QStringLiteral("exists takes exactly one file name"));
        return;
    }
    if (m_command == QLatin1String("download") && isSet(QStringLiteral("output"))) {
        if (count != 1)
            fail(QStringLiteral("download with --output takes exactly one file name"));
        else if (isSet(QStringLiteral("to")))
            fail(QStringLiteral("--output and --to cannot go together"));
        return;
    }
    if (m_command == QLatin1String("delete") || m_command == QLatin1String("download")) {
        if (count == 0)
            fail(QStringLiteral("%1 needs at least one file name").arg(m_command));
        return;
    }
    if (m_command == QLatin1String("partial")) {
        if (count > 1 || (count == 1 && !isSet(QStringLiteral("clear"))))
            fail(QStringLiteral("partial takes a file name only with --clear, and at most one"));
        return;
    }
    if (m_command == QLatin1String("upload")) {
        if (count == 0)
            fail(QStringLiteral("upload needs at least one local file"));
        return;
    }
    if (count > 0)
        fail(QStringLiteral("%1 takes no operands, got \"%2\"").arg(m_command, m_operands.first()));
}
