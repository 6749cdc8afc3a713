#pragma once

#include "command.h"

// `ztcli partial [--clear [NAME]]`: what interrupted downloads left under
// --temp, or their removal. Needs neither the service nor the plugin.
class PartialCommand : public Command
{
public:
    PartialCommand() : Command(QStringLiteral("partial")) {}
    QString summary() const override;
    QString description() const override;
    QList<Option> options() const override;
    QList<Operand> operands() const override;
    QString operandError(const QStringList &operands, const QCommandLineParser &line) const override;

protected:
    int run() override;
};
