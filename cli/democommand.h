#pragma once

#include "command.h"

// `ztcli demo`: the whole job end to end against a private file service (DemoRun).
class DemoCommand : public Command
{
public:
    DemoCommand() : Command(QStringLiteral("demo")) {}
    QString summary() const override;
    QString description() const override;
    QList<Option> options() const override;

protected:
    int run() override;
};
