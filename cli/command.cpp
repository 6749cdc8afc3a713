#include "command.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

QString Command::operandError(const QStringList &operands, const QCommandLineParser &) const
{
    if (operands.isEmpty())
        return QString();
    return QStringLiteral("%1 takes no operands, got \"%2\"").arg(m_name, operands.first());
}

int Command::start(const QCommandLineParser &line, QFile *out, QFile *err, InterruptHandler *interrupts)
{
    m_line = &line;
    m_out = out;
    m_err = err;
    m_interrupts = interrupts;
    return run();
}

QString Command::defaultTempFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
           + QStringLiteral("/ztcli/partial");
}

QString Command::value(const QString &option, const QString &fallback) const
{
    return m_line->isSet(option) ? m_line->value(option) : fallback;
}

qint64 Command::number(const QString &option, qint64 fallback) const
{
    return m_line->isSet(option) ? m_line->value(option).toLongLong() : fallback;
}

QString Command::temporaryFolder() const
{
    return QDir(value(QStringLiteral("temp"), defaultTempFolder())).absolutePath();
}

void Command::out(const QString &text)
{
    m_out->write(text.toUtf8());
}

void Command::err(const QString &text)
{
    m_err->write(text.toUtf8());
}
