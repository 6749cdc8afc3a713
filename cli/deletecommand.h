#pragma once

#include "servicecommand.h"

// `ztcli delete NAME...`: a name that is not stored is reported and the others still go.
class DeleteCommand : public ServiceCommand
{
public:
    DeleteCommand() : ServiceCommand(QStringLiteral("delete")) {}
    QString summary() const override;
    QString description() const override;
    QList<Operand> operands() const override;
    QString operandError(const QStringList &operands, const QCommandLineParser &line) const override;

protected:
    int runOnService() override;
};
