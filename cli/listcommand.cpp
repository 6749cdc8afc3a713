#include "listcommand.h"

#include "exitcode.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <QDateTime>
#include <QJsonDocument>

namespace {

QString padded(const QString &text, int width)
{
    return text.leftJustified(width, QLatin1Char(' '));
}

// The service reports the time of change as seconds since the epoch or as text.
QString modifiedText(const QVariant &value)
{
    bool isNumber = false;
    const double seconds = value.toDouble(&isNumber);
    if (value.type() != QVariant::String && isNumber)
        return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000)).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    return value.toString();
}

} // namespace

QString ListCommand::summary() const
{
    return QStringLiteral("list the files stored on the service");
}

QString ListCommand::description() const
{
    return QStringLiteral("Lists the files stored on the service: name, size and time of change.");
}

QList<Command::Option> ListCommand::options() const
{
    return {{QCommandLineOption(QStringLiteral("json"), QStringLiteral("print the service's list as JSON instead of a table"))}};
}

int ListCommand::runOnService()
{
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    if (isSet(QStringLiteral("json"))) {
        out(QString::fromUtf8(QJsonDocument::fromVariant(listing).toJson(QJsonDocument::Indented)));
        return ExitSuccess;
    }
    int nameWidth = 4;
    for (const QVariant &entry : listing)
        nameWidth = qMax(nameWidth, entry.toMap().value(QStringLiteral("fileName")).toString().size());
    out(padded(QStringLiteral("NAME"), nameWidth) + QStringLiteral("  %1  %2  MODIFIED\n")
            .arg(QStringLiteral("BYTES"), 14).arg(padded(QStringLiteral("SIZE"), 10)));
    qint64 total = 0;
    for (const QVariant &entry : listing) {
        const QVariantMap map = entry.toMap();
        const qint64 size = map.value(QStringLiteral("fileSize")).toLongLong();
        total += size;
        out(padded(map.value(QStringLiteral("fileName")).toString(), nameWidth)
            + QStringLiteral("  %1  %2  %3\n")
                  .arg(size, 14)
                  .arg(padded(ProgressDisplay::bytes(size), 10), modifiedText(map.value(QStringLiteral("modified")))));
    }
    out(QStringLiteral("%1 file(s), %2\n").arg(listing.size()).arg(ProgressDisplay::bytes(total)));
    return ExitSuccess;
}
