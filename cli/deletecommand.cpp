#include "deletecommand.h"

#include "errortext.h"
#include "exitcode.h"
#include "serviceclient.h"

QString DeleteCommand::summary() const
{
    return QStringLiteral("delete stored files");
}

QString DeleteCommand::description() const
{
    return QStringLiteral("Deletes the named files from the service. A name that is not stored is\n"
                          "reported, the others are still deleted, and the exit status is 1.");
}

QList<Command::Operand> DeleteCommand::operands() const
{
    return {{QStringLiteral("NAME"), QStringLiteral("a file stored on the service"), QStringLiteral("NAME...")}};
}

QString DeleteCommand::operandError(const QStringList &operands, const QCommandLineParser &) const
{
    return operands.isEmpty() ? QStringLiteral("delete needs at least one file name") : QString();
}

int DeleteCommand::runOnService()
{
    // A "notExist" answer reaches the host as a general failure, so the
    // listing tells which names are stored; the others are never sent.
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    int status = ExitSuccess;
    for (const QString &name : operandList()) {
        if (ServiceClient::findEntry(listing, name).isEmpty()) {
            err(QStringLiteral("ztcli: %1: not on the service\n").arg(name));
            status = ExitNotFound;
            continue;
        }
        const CommandOutcome outcome = client()->remove(name);
        if (!outcome.succeeded())
            return report(QStringLiteral("deleting %1").arg(name), outcome, ErrorText::ServiceRequest);
        out(QStringLiteral("deleted %1\n").arg(name));
    }
    return status;
}
