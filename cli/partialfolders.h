#pragma once

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

// The partial downloads that this process writes under a temporary folder. The
// plugin downloads a content into a folder of its own under the temporary
// folder and holds a lock file beside it ("<folder>.lock", with the writer's
// process id) for as long as it writes there; the plugin runs inside ztcli, so
// a lock with ztcli's own process id marks a download of this run. A merge
// that stopped part way left its merged part beside the destination; the
// folder's ".merge" record names it, and it counts and goes with the folder.
class PartialFolders
{
public:
    // One content folder: what its plan record says it is of (name empty and
    // size -1 when it does not say), the bytes in it, and whether a live
    // process holds its lock.
    struct Partial
    {
        QString folder;
        QString name;
        qint64 fileSize = -1;
        qint64 bytes = 0;
        QDateTime modified;
        qint64 holder = 0; // the live process downloading into it, or 0
    };
    static QList<Partial> list(const QString &temporaryFolder);
    // Removes a folder nobody holds, and its lock file; false when it stays.
    static bool discard(const Partial &partial);

    // The content folders under temporaryFolder locked by this process now.
    static QStringList heldByThisProcess(const QString &temporaryFolder);
    // Removes each folder with everything in it; returns those that are gone.
    static QStringList remove(const QStringList &folders);
};
