#pragma once

#include "servicecommand.h"

// `ztcli download NAME... [--to DIR] [-o FILE]`: all names in one batch; a
// name the service does not have is reported and the others still come.
class DownloadCommand : public ServiceCommand
{
public:
    DownloadCommand() : ServiceCommand(QStringLiteral("download")) {}
    QString summary() const override;
    QString description() const override;
    QList<Option> options() const override;
    QList<Operand> operands() const override;
    QString operandError(const QStringList &operands, const QCommandLineParser &line) const override;

protected:
    int runOnService() override;

private:
    static bool canWriteIn(const QString &folder);
    bool placeAt(const QString &downloaded, const QString &output);
    qint64 bytesOnDisk(const QStringList &names);
};
