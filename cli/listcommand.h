#pragma once

#include "servicecommand.h"

// `ztcli list [--json]`: the files stored on the service, as a table or as the service's JSON.
class ListCommand : public ServiceCommand
{
public:
    ListCommand() : ServiceCommand(QStringLiteral("list")) {}
    QString summary() const override;
    QString description() const override;
    QList<Option> options() const override;

protected:
    int runOnService() override;
};
