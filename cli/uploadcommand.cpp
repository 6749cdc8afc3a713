#include "uploadcommand.h"

#include "errortext.h"
#include "exitcode.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <QFileInfo>

namespace {

// The upload's result map of the file at path.
QVariantMap resultFor(const QVariantList &results, const QString &path)
{
    for (const QVariant &result : results) {
        const QVariantMap map = result.toMap();
        if (map.value(QStringLiteral("filePath")).toString() == path)
            return map;
    }
    return QVariantMap();
}

} // namespace

QString UploadCommand::summary() const
{
    return QStringLiteral("upload local files; an interrupted upload resumes");
}

QString UploadCommand::description() const
{
    return QStringLiteral(
        "Uploads local files in one job; each is stored under its own file name. Chunks\n"
        "travel in parallel to the addresses the service hands out. Ctrl-C stops the\n"
        "upload and keeps its session; running the same command again sends only what\n"
        "the service still lacks. A second Ctrl-C aborts and forgets the session.");
}

QList<Command::Operand> UploadCommand::operands() const
{
    return {{QStringLiteral("FILE"), QStringLiteral("a local file"), QStringLiteral("FILE...")}};
}

QString UploadCommand::operandError(const QStringList &operands, const QCommandLineParser &) const
{
    return operands.isEmpty() ? QStringLiteral("upload needs at least one local file") : QString();
}

bool UploadCommand::localFilesUsable()
{
    for (const QString &file : operandList()) {
        const QFileInfo info(file);
        if (!info.isFile() || !info.isReadable()) {
            err(QStringLiteral("ztcli: %1 is not a readable file\n").arg(file));
            return false;
        }
    }
    return true;
}

int UploadCommand::runOnService()
{
    QStringList paths;
    for (const QString &file : operandList())
        paths.append(QFileInfo(file).absoluteFilePath());
    // Listing first tells an unreachable service from a failed transfer.
    QVariantList before;
    if (const int status = fetchListing(before))
        return status;

    const QString label = paths.size() == 1 ? QStringLiteral("upload %1").arg(QFileInfo(paths.first()).fileName())
                                            : QStringLiteral("upload %1 files").arg(paths.size());
    const CommandOutcome outcome = withRetries(QStringLiteral("upload"), [&] { return client()->upload(paths, label); });
    if (!outcome.succeeded())
        return report(QStringLiteral("upload of %1").arg(jobName(paths)), outcome, ErrorText::Transfer);

    QVariantList after;
    if (const int status = fetchListing(after))
        return status;
    int status = ExitSuccess;
    for (const QString &path : paths) {
        const QFileInfo info(path);
        const QVariantMap entry = ServiceClient::findEntry(after, info.fileName());
        const qint64 stored = entry.value(QStringLiteral("fileSize"), -1).toLongLong();
        if (stored != info.size()) {
            err(QStringLiteral("ztcli: %1 is stored with %2 bytes, the local file has %3\n")
                    .arg(info.fileName())
                    .arg(stored)
                    .arg(info.size()));
            status = ExitTransfer;
            continue;
        }
        const QString cdnUrl = resultFor(outcome.result.toList(), path).value(QStringLiteral("cdnURL")).toString();
        out(QStringLiteral("uploaded %1 as %2 (%3)%4\n")
                .arg(path, info.fileName(), ProgressDisplay::bytes(stored),
                     cdnUrl.isEmpty() ? QString() : QStringLiteral(", ") + cdnUrl));
    }
    return status;
}
