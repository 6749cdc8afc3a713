#pragma once

#include "servicecommand.h"

// `ztcli upload FILE...`: all files in one job, each stored under its own file
// name; afterwards each stored size is compared with the local file's.
class UploadCommand : public ServiceCommand
{
public:
    UploadCommand() : ServiceCommand(QStringLiteral("upload")) {}
    QString summary() const override;
    QString description() const override;
    QList<Operand> operands() const override;
    QString operandError(const QStringList &operands, const QCommandLineParser &line) const override;

protected:
    bool localFilesUsable() override;
    int runOnService() override;
};
