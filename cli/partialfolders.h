#pragma once

#include <QString>
#include <QStringList>

// The partial downloads that this process writes under a temporary folder. The
// plugin downloads a content into a folder of its own under the temporary
// folder and holds a lock file beside it ("<folder>.lock", with the writer's
// process id) for as long as it writes there; the plugin runs inside ztcli, so
// a lock with ztcli's own process id marks a download of this run.
class PartialFolders
{
public:
    // The content folders under temporaryFolder locked by this process now.
    static QStringList heldByThisProcess(const QString &temporaryFolder);
    // Removes each folder with everything in it; returns those that are gone.
    static QStringList remove(const QStringList &folders);
};
