#include "downloadcommand.h"

#include "errortext.h"
#include "exitcode.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>

QString DownloadCommand::summary() const
{
    return QStringLiteral("download stored files; an interrupted download resumes");
}

QString DownloadCommand::description() const
{
    return QStringLiteral(
        "Downloads the named files in parallel ranged chunks into the destination\n"
        "folder. Chunks wait under --temp until the file is complete; the merge then\n"
        "joins them into NAME.ztmerge beside the destination, removing each chunk as it\n"
        "goes in, and renames it. If a file of that name already exists there, it is\n"
        "kept and the download gets a free name such as NAME(1).ext. Ctrl-C stops the\n"
        "download, or its merge, and keeps what is there; running the same command\n"
        "again fetches only the missing bytes. A second Ctrl-C aborts and discards them,\n"
        "also within 2 s after the download stopped when ztcli runs at a terminal.");
}

QList<Command::Option> DownloadCommand::options() const
{
    return {{QCommandLineOption(QStringLiteral("to"),
                                QStringLiteral("destination folder, created if missing (default: the current folder)"),
                                QStringLiteral("DIR"))},
            {QCommandLineOption({QStringLiteral("o"), QStringLiteral("output")},
                                QStringLiteral("for one NAME: the file to write; an existing FILE is replaced "
                                               "once the download is complete"),
                                QStringLiteral("FILE"))}};
}

QList<Command::Operand> DownloadCommand::operands() const
{
    return {{QStringLiteral("NAME"), QStringLiteral("a file stored on the service"), QStringLiteral("NAME...")}};
}

QString DownloadCommand::operandError(const QStringList &operands, const QCommandLineParser &line) const
{
    if (line.isSet(QStringLiteral("output"))) {
        if (operands.size() != 1)
            return QStringLiteral("download with --output takes exactly one file name");
        if (line.isSet(QStringLiteral("to")))
            return QStringLiteral("--output and --to cannot go together");
        return QString();
    }
    return operands.isEmpty() ? QStringLiteral("download needs at least one file name") : QString();
}

// Whether files can be made in folder, which is made first when missing. The
// file system is asked by making one: permission bits say nothing for root or
// on a read-only mount.
bool DownloadCommand::canWriteIn(const QString &folder)
{
    if (!QDir().mkpath(folder))
        return false;
    QTemporaryFile probe(QDir(folder).filePath(QStringLiteral(".ztcli-write-check-XXXXXX")));
    return probe.open();
}

int DownloadCommand::runOnService()
{
    // Both folders are checked before anything moves, not found unusable at
    // the merge after the whole transfer.
    const QString output = isSet(QStringLiteral("output"))
                               ? QFileInfo(value(QStringLiteral("output"))).absoluteFilePath()
                               : QString();
    const QString folder = output.isEmpty() ? QDir(value(QStringLiteral("to"), QStringLiteral("."))).absolutePath()
                                            : QFileInfo(output).absolutePath();
    if (!canWriteIn(folder)) {
        err(QStringLiteral("ztcli: cannot write in the destination folder %1\n").arg(folder));
        return ExitUsage;
    }
    if (!canWriteIn(sessionTempFolder())) {
        err(QStringLiteral("ztcli: cannot write in the folder for partial downloads %1 (see --temp)\n")
                .arg(sessionTempFolder()));
        return ExitUsage;
    }
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    // A missing name is reported and the others still come, as curl does.
    QStringList names;
    QHash<QString, qint64> sizes;
    for (const QString &name : operandList()) {
        const QVariantMap entry = ServiceClient::findEntry(listing, name);
        if (entry.isEmpty()) {
            err(QStringLiteral("ztcli: %1: not on the service\n").arg(name));
            continue;
        }
        names.append(name);
        sizes.insert(name, entry.value(QStringLiteral("fileSize")).toLongLong());
    }
    const int missingStatus = names.size() == operandList().size() ? int(ExitSuccess) : int(ExitNotFound);
    if (names.isEmpty())
        return missingStatus;

    const QString label = names.size() == 1 ? QStringLiteral("download %1").arg(names.first())
                                            : QStringLiteral("download %1 files").arg(names.size());
    const CommandOutcome outcome = withRetries(QStringLiteral("download"), [&] {
        return client()->download(names, folder, label, bytesOnDisk(names));
    });
    if (!outcome.succeeded())
        return report(QStringLiteral("download of %1").arg(jobName(names)), outcome, ErrorText::Transfer);

    int status = ExitSuccess;
    for (const QVariant &item : outcome.result.toList()) {
        const QVariantMap task = item.toMap();
        const QString name = task.value(QStringLiteral("filename")).toString();
        QString path = task.value(QStringLiteral("path")).toString();
        const qint64 expected = sizes.value(name, task.value(QStringLiteral("fileSize")).toLongLong());
        const qint64 actual = QFileInfo(path).size();
        if (!QFileInfo::exists(path) || actual != expected) {
            err(QStringLiteral("ztcli: %1 has %2 bytes, the service has %3\n").arg(path).arg(actual).arg(expected));
            status = ExitTransfer;
            continue;
        }
        if (!output.isEmpty()) {
            if (!placeAt(path, output)) {
                status = ExitTransfer;
                continue;
            }
            path = output;
        }
        out(QStringLiteral("downloaded %1 to %2 (%3)\n").arg(name, path, ProgressDisplay::bytes(actual)));
    }
    return status == ExitSuccess ? missingStatus : status;
}

// The plugin never writes over a file: it gives the download a free name
// beside it. --output replaces, as curl -o does, in one step once the new
// file is complete, so the old one stays until then.
bool DownloadCommand::placeAt(const QString &downloaded, const QString &output)
{
    if (downloaded == output)
        return true;
    if (::rename(QFile::encodeName(downloaded).constData(), QFile::encodeName(output).constData()) == 0)
        return true;
    err(QStringLiteral("ztcli: cannot put %1 in place of %2: %3\n")
            .arg(downloaded, output, QString::fromLocal8Bit(std::strerror(errno))));
    return false;
}

// What earlier runs left of these downloads under --temp, so that a resumed
// download says how far it really was; asked only when there is anything there.
qint64 DownloadCommand::bytesOnDisk(const QStringList &names)
{
    if (QDir(sessionTempFolder()).isEmpty())
        return 0;
    qint64 sum = 0;
    for (const QString &name : names) {
        const CommandOutcome outcome = client()->exists(name);
        if (!outcome.succeeded())
            return -1;
        sum += outcome.result.toMap().value(QStringLiteral("bytesReceived")).toLongLong();
    }
    return sum;
}
