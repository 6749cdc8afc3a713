#include "commandline.h"

#include "democommand.h"
#include "deletecommand.h"
#include "downloadcommand.h"
#include "existscommand.h"
#include "listcommand.h"
#include "partialcommand.h"
#include "servecommand.h"
#include "uploadcommand.h"

#include <QCoreApplication>
#include <QRegularExpression>

namespace {

const QString HelpCommand = QStringLiteral("help");
constexpr int HelpWidth = 79; // as QCommandLineParser wraps
constexpr int CommandColumn = 31;

const QString Intro = QStringLiteral(
    "Moves files to and from a file service through the ztServer plugin, which it\n"
    "loads exactly as the desktop host does.");

const QString Epilogue = QStringLiteral(R"(
Environment:
  ZT_SERVER       address of the file service when --server is not given
  ZT_TOKEN        token when --token is not given
  ZT_PLUGIN       the plugin to load (default: ../plugins/libztServer.so
                  relative to the ztcli executable, or where make install
                  put it, ../lib/ztserver/plugins/)
  ZT_FILESERVICE  the reference file service script (serve, demo)

Progress goes to stderr: a live bar on a terminal, otherwise one line a second
and a final line; stdout carries only results.
Ctrl-C stops a transfer so that the next run resumes it; a second Ctrl-C aborts
it and discards what arrived (at a terminal, up to 2 s after a download stopped).

Exit status:
  0    success
  1    a named file is not on the service
  2    usage error: bad command line, no server address, unreadable local file
  3    the service is unreachable or refused the request
  4    an upload or download failed, or its bytes are wrong
  5    the plugin or the reference file service could not be loaded or started
  130  interrupted by Ctrl-C
)");

QString dashed(const QString &name)
{
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

// QCommandLineParser starts its usage line with the path ztcli was run by.
QString withUsage(QString help, const QString &program)
{
    const QString shown = QStringLiteral("Usage: ") + QCoreApplication::arguments().value(0);
    if (help.startsWith(shown))
        help.replace(0, shown.size(), QStringLiteral("Usage: ") + program);
    return help;
}

// "  left   text", the text wrapped in its column; a left wider than the
// column puts the text on the lines below.
QString twoColumns(const QString &left, const QString &text)
{
    const QString indent(CommandColumn + 2, QLatin1Char(' '));
    QString result = QStringLiteral("  ") + left;
    QString line = left.size() < CommandColumn ? result.leftJustified(CommandColumn + 2) : QString();
    if (line.isEmpty())
        result += QLatin1Char('\n');
    else
        result.clear();
    for (const QString &word : text.split(QLatin1Char(' '))) {
        if (line.size() > CommandColumn + 2 && line.size() + 1 + word.size() > HelpWidth) {
            result += line + QLatin1Char('\n');
            line.clear();
        }
        if (line.size() <= CommandColumn + 2)
            line = line.leftJustified(CommandColumn + 2) + word;
        else
            line += QLatin1Char(' ') + word;
    }
    return result + line + QLatin1Char('\n');
}

} // namespace

CommandLine::CommandLine()
{
    m_commands.emplace_back(new ServeCommand);
    m_commands.emplace_back(new ListCommand);
    m_commands.emplace_back(new DeleteCommand);
    m_commands.emplace_back(new UploadCommand);
    m_commands.emplace_back(new DownloadCommand);
    m_commands.emplace_back(new ExistsCommand);
    m_commands.emplace_back(new PartialCommand);
    m_commands.emplace_back(new DemoCommand);
}

CommandLine::~CommandLine() = default;

QList<Command::Option> CommandLine::globalOptions()
{
    using O = QCommandLineOption;
    return {
        {O({QStringLiteral("s"), QStringLiteral("server")},
           QStringLiteral("address of the file service, e.g. http://127.0.0.1:8080 (default: $ZT_SERVER)"),
           QStringLiteral("URL"))},
        {O(QStringLiteral("token"), QStringLiteral("token the host hands to the service (default: $ZT_TOKEN)"),
           QStringLiteral("TOKEN"))},
        {O(QStringLiteral("cacert"),
           QStringLiteral("also trust the certificate authorities in FILE (PEM) for an https:// service"),
           QStringLiteral("FILE"))},
        {O(QStringLiteral("temp"),
           QStringLiteral("folder for partial downloads, kept between runs so that they resume (default: "
                          "$XDG_CACHE_HOME/ztcli/partial, i.e. ~/.cache/ztcli/partial)"),
           QStringLiteral("DIR"))},
        {O(QStringLiteral("chunk-size-mb"), QStringLiteral("download chunk size in MiB (default: the plugin's, 50)"),
           QStringLiteral("N")),
         0, 4095},
        {O(QStringLiteral("timeout"),
           QStringLiteral("stop a transfer that moves no byte for S seconds; it fails and the next run resumes it"),
           QStringLiteral("S")),
         1, 86400},
        {O(QStringLiteral("retry"),
           QStringLiteral("after a network failure or a time-out, try a transfer again up to N times, waiting "
                          "1, 2, 4 ... 30 s between"),
           QStringLiteral("N")),
         0, 100},
        {O({QStringLiteral("q"), QStringLiteral("quiet")},
           QStringLiteral("show no progress (results and errors still show)"))},
        {O({QStringLiteral("v"), QStringLiteral("verbose")}, QStringLiteral("show the plugin's log on stderr"))},
        {O({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("show help"))},
        {O(QStringLiteral("version"), QStringLiteral("show the version"))},
    };
}

QString CommandLine::usageHint()
{
    return QStringLiteral("Run \"ztcli --help\" for the commands and options.\n");
}

Command *CommandLine::find(const QString &name) const
{
    for (const auto &command : m_commands) {
        if (command->name() == name)
            return command.get();
    }
    return nullptr;
}

void CommandLine::addOptions(QCommandLineParser &parser, const Command *owner) const
{
    for (const auto &command : m_commands) {
        if (owner && command.get() != owner)
            continue;
        for (const Command::Option &entry : command->options())
            parser.addOption(entry.option);
    }
    for (const Command::Option &entry : globalOptions())
        parser.addOption(entry.option);
}

bool CommandLine::fail(const QString &message)
{
    m_error = message;
    return false;
}

bool CommandLine::parse(const QStringList &arguments)
{
    const QStringList line = QStringList(QStringLiteral("ztcli")) + arguments;
    // Every option of every command is known here, so that an option's value
    // is told from the command word wherever the two stand.
    QCommandLineParser scan;
    addOptions(scan, nullptr);
    if (!scan.parse(line))
        return fail(parseError(scan));
    m_help = scan.isSet(HelpCommand);
    m_version = scan.isSet(QStringLiteral("version"));
    const QStringList words = scan.positionalArguments();
    if (words.isEmpty())
        return m_help || m_version || fail(QStringLiteral("no command given"));
    if (words.first() == HelpCommand) {
        m_help = true;
        const QString topic = words.value(1);
        if (words.size() > 2)
            return fail(QStringLiteral("help takes at most one command name"));
        m_command = find(topic);
        if (!m_command && !topic.isEmpty() && topic != HelpCommand)
            return fail(QStringLiteral("unknown command \"%1\"").arg(topic));
        return true;
    }
    m_command = find(words.first());
    if (!m_command)
        return fail(QStringLiteral("unknown command \"%1\"").arg(words.first()));
    if (m_help || m_version)
        return true;

    m_parser.reset(new QCommandLineParser);
    addOptions(*m_parser, m_command);
    if (!m_parser->parse(line))
        return fail(parseError(*m_parser));
    const QString range = rangeError();
    if (!range.isEmpty())
        return fail(range);
    const QString operands = m_command->operandError(words.mid(1), *m_parser);
    return operands.isEmpty() || fail(operands);
}

// The parser names unknown options; which option lacks a value, or has one it
// takes not, only its message says (ztcli loads no translation of it).
QString CommandLine::parseError(const QCommandLineParser &parser) const
{
    const QString unknown = parser.unknownOptionNames().value(0);
    if (!unknown.isEmpty()) {
        for (const auto &command : m_commands) {
            for (const Command::Option &entry : m_command ? command->options() : QList<Command::Option>()) {
                if (entry.option.names().contains(unknown))
                    return QStringLiteral("option %1 belongs to \"%2\", not to \"%3\"")
                        .arg(dashed(unknown), command->name(), m_command->name());
            }
        }
        return QStringLiteral("unknown option %1").arg(dashed(unknown));
    }
    static const QRegularExpression missing(QStringLiteral("^Missing value after '(.*)'\\.$"));
    static const QRegularExpression unexpected(QStringLiteral("^Unexpected value after '(.*)'\\.$"));
    const QString text = parser.errorText();
    QRegularExpressionMatch match = missing.match(text);
    if (match.hasMatch())
        return QStringLiteral("option %1 needs a value").arg(match.captured(1));
    match = unexpected.match(text);
    if (match.hasMatch())
        return QStringLiteral("option %1 takes no value").arg(match.captured(1));
    return text;
}

QString CommandLine::rangeError() const
{
    for (const Command::Option &entry : m_command->options() + globalOptions()) {
        const QString name = entry.option.names().last();
        if (entry.minimum < 0 || !m_parser->isSet(name))
            continue;
        const QString text = m_parser->value(name);
        bool ok = false;
        const qint64 number = text.toLongLong(&ok);
        if (!ok || number < entry.minimum || number > entry.maximum)
            return QStringLiteral("option --%1 needs a whole number from %2 to %3, not \"%4\"")
                .arg(name)
                .arg(entry.minimum)
                .arg(entry.maximum)
                .arg(text);
    }
    return QString();
}

QString CommandLine::help() const
{
    return m_command ? helpOf(*m_command) : generalHelp();
}

// "download NAME... [-o FILE] [--to DIR]": the command's operands and options as its parser has them.
QString CommandLine::synopsis(const Command &command) const
{
    QStringList words{command.name()};
    for (const Command::Operand &operand : command.operands())
        words << operand.syntax;
    for (const Command::Option &entry : command.options()) {
        const QString value = entry.option.valueName();
        words << QStringLiteral("[%1%2]").arg(dashed(entry.option.names().first()),
                                             value.isEmpty() ? QString() : QLatin1Char(' ') + value);
    }
    return words.join(QLatin1Char(' '));
}

QString CommandLine::generalHelp() const
{
    // Only the global options: the commands' own are in their help.
    QCommandLineParser global;
    global.setApplicationDescription(Intro);
    for (const Command::Option &entry : globalOptions())
        global.addOption(entry.option);
    global.addPositionalArgument(QStringLiteral("COMMAND"), QStringLiteral("one of the commands below"),
                                 QStringLiteral("COMMAND [ARGS...]"));
    QString text = withUsage(global.helpText(), QStringLiteral("ztcli")) + QStringLiteral("\nCommands:\n");
    for (const auto &command : m_commands)
        text += twoColumns(synopsis(*command), command->summary());
    text += twoColumns(QStringLiteral("help [COMMAND]"), QStringLiteral("show this help, or the help of COMMAND"));
    return text + Epilogue;
}

QString CommandLine::helpOf(const Command &command) const
{
    QCommandLineParser parser;
    parser.setApplicationDescription(command.description());
    addOptions(parser, &command);
    for (const Command::Operand &operand : command.operands())
        parser.addPositionalArgument(operand.name, operand.description, operand.syntax);
    return withUsage(parser.helpText(), QStringLiteral("ztcli ") + command.name());
}
