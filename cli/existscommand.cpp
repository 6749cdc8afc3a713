#include "existscommand.h"

#include "errortext.h"
#include "exitcode.h"
#include "progressdisplay.h"
#include "serviceclient.h"

QString ExistsCommand::summary() const
{
    return QStringLiteral("tell whether NAME is stored and how much of it is already downloaded here");
}

QString ExistsCommand::description() const
{
    return QStringLiteral("Tells whether NAME is stored on the service, its size, and how many of its\n"
                          "bytes an interrupted download has already put under --temp. Exit status 0 when\n"
                          "it is stored, 1 when it is not.");
}

QList<Command::Operand> ExistsCommand::operands() const
{
    return {{QStringLiteral("NAME"), QStringLiteral("a file name on the service"), QStringLiteral("NAME")}};
}

QString ExistsCommand::operandError(const QStringList &operands, const QCommandLineParser &) const
{
    return operands.size() == 1 ? QString() : QStringLiteral("exists takes exactly one file name");
}

int ExistsCommand::runOnService()
{
    const QString name = operandList().first();
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    const QVariantMap entry = ServiceClient::findEntry(listing, name);

    const CommandOutcome outcome = client()->exists(name);
    if (!outcome.succeeded())
        return report(QStringLiteral("asking about %1").arg(name), outcome, ErrorText::ServiceRequest);
    const QVariantMap state = outcome.result.toMap();
    const qint64 received = state.value(QStringLiteral("bytesReceived")).toLongLong();
    const qint64 total = state.value(QStringLiteral("bytesTotal"), -1).toLongLong();

    if (entry.isEmpty()) {
        out(QStringLiteral("%1: not on the service\n").arg(name));
        return ExitNotFound;
    }
    const qint64 size = entry.value(QStringLiteral("fileSize")).toLongLong();
    QString partial = QStringLiteral("no partial download under %1").arg(sessionTempFolder());
    if (received > 0) {
        partial = QStringLiteral("%1 bytes (%2%) already downloaded")
                      .arg(received)
                      .arg(size > 0 ? int(100.0 * double(qMin(received, size)) / double(size)) : 100);
    }
    out(QStringLiteral("%1: stored, %2 bytes (%3); %4\n")
            .arg(name)
            .arg(size)
            .arg(ProgressDisplay::bytes(size), partial));
    if (total >= 0 && total != size)
        err(QStringLiteral("ztcli: the plugin's probe saw %1 bytes, the listing says %2\n").arg(total).arg(size));
    return ExitSuccess;
}
