#pragma once

#include <QString>

// Everything `ztcli --help` and `ztcli help COMMAND` print. The README's ztcli
// section carries the general text verbatim; a test keeps the two in step.
class HelpText
{
public:
    static QString general();
    static QString command(const QString &name); // empty for an unknown name
    static QString usageHint(); // the one line printed after a usage error
};
