#pragma once

#include "command.h"

// `ztcli serve`: the reference file service in the foreground. ztcli execs
// it, so the service gets Ctrl-C itself and prints its address first.
class ServeCommand : public Command
{
public:
    ServeCommand() : Command(QStringLiteral("serve")) {}
    QString summary() const override;
    QString description() const override;
    QList<Option> options() const override;
    bool watchesInterrupts() const override { return false; }

protected:
    int run() override;
};
