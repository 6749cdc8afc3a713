#include "partialcommand.h"

#include "exitcode.h"
#include "partialfolders.h"
#include "progressdisplay.h"

#include <QFileInfo>

QString PartialCommand::summary() const
{
    return QStringLiteral("list the partial downloads under --temp, or remove them (all, or those of NAME)");
}

QString PartialCommand::description() const
{
    return QStringLiteral(
        "Lists what interrupted downloads left under --temp: the file each is of, how\n"
        "much of it is there, and when it last grew. A download that another ztcli is\n"
        "running now is marked and never removed. Needs no service.");
}

QList<Command::Option> PartialCommand::options() const
{
    return {{QCommandLineOption(QStringLiteral("clear"),
                                QStringLiteral("remove them instead (all, or only those of NAME); the next "
                                               "download of that file starts from nothing"))}};
}

QList<Command::Operand> PartialCommand::operands() const
{
    return {{QStringLiteral("NAME"), QStringLiteral("with --clear: the file whose partial downloads go"),
             QStringLiteral("[NAME]")}};
}

QString PartialCommand::operandError(const QStringList &operands, const QCommandLineParser &line) const
{
    if (operands.size() > 1 || (operands.size() == 1 && !line.isSet(QStringLiteral("clear"))))
        return QStringLiteral("partial takes a file name only with --clear, and at most one");
    return QString();
}

int PartialCommand::run()
{
    const QString temp = temporaryFolder();
    const bool clear = isSet(QStringLiteral("clear"));
    const QString only = operandList().value(0);
    int matched = 0;
    qint64 total = 0;
    for (const PartialFolders::Partial &partial : PartialFolders::list(temp)) {
        if (!only.isEmpty() && partial.name != only)
            continue;
        const QString name = partial.name.isEmpty() ? QStringLiteral("(unnamed) ") + QFileInfo(partial.folder).fileName()
                                                    : partial.name;
        ++matched;
        total += partial.bytes;
        const QString size = partial.fileSize > 0
                                 ? QStringLiteral("%1 of %2 (%3%)")
                                       .arg(ProgressDisplay::bytes(partial.bytes), ProgressDisplay::bytes(partial.fileSize))
                                       .arg(int(100.0 * double(qMin(partial.bytes, partial.fileSize)) / double(partial.fileSize)))
                                 : ProgressDisplay::bytes(partial.bytes);
        if (!clear) {
            out(QStringLiteral("%1  %2  %3%4\n")
                    .arg(name, size, partial.modified.toString(QStringLiteral("yyyy-MM-dd HH:mm")),
                         partial.holder ? QStringLiteral("  (being downloaded by process %1)").arg(partial.holder)
                                        : QString()));
        } else if (PartialFolders::discard(partial)) {
            out(QStringLiteral("removed %1 (%2)\n").arg(name, ProgressDisplay::bytes(partial.bytes)));
        } else {
            err(QStringLiteral("ztcli: kept %1: %2\n")
                    .arg(name, partial.holder ? QStringLiteral("being downloaded by process %1").arg(partial.holder)
                                              : QStringLiteral("cannot remove %1").arg(partial.folder)));
        }
    }
    if (!only.isEmpty() && matched == 0) {
        err(QStringLiteral("ztcli: no partial download of %1 under %2\n").arg(only, temp));
        return ExitNotFound;
    }
    if (!clear)
        out(QStringLiteral("%1 partial download(s), %2, under %3\n").arg(matched).arg(ProgressDisplay::bytes(total), temp));
    return ExitSuccess;
}
