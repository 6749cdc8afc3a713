#pragma once

#include "servicecommand.h"

// `ztcli exists NAME`: whether NAME is stored, and how much of it an
// interrupted download has already put under --temp.
class ExistsCommand : public ServiceCommand
{
public:
    ExistsCommand() : ServiceCommand(QStringLiteral("exists")) {}
    QString summary() const override;
    QString description() const override;
    QList<Operand> operands() const override;
    QString operandError(const QStringList &operands, const QCommandLineParser &line) const override;

protected:
    int runOnService() override;
};
