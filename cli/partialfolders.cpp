#include "partialfolders.h"

#include <QCoreApplication>
#include <QDir>
#include <QLockFile>

namespace {
const QString LockSuffix = QStringLiteral(".lock");
}

QStringList PartialFolders::heldByThisProcess(const QString &temporaryFolder)
{
    QStringList folders;
    const QDir temporary(temporaryFolder);
    const QStringList locks = temporary.entryList({QLatin1Char('*') + LockSuffix}, QDir::Files | QDir::Hidden);
    for (const QString &name : locks) {
        QLockFile lock(temporary.filePath(name));
        qint64 pid = 0;
        QString host;
        QString application;
        if (lock.getLockInfo(&pid, &host, &application) && pid == QCoreApplication::applicationPid())
            folders.append(temporary.filePath(name.chopped(LockSuffix.size())));
    }
    return folders;
}

QStringList PartialFolders::remove(const QStringList &folders)
{
    QStringList removed;
    for (const QString &folder : folders) {
        QDir dir(folder);
        if (dir.exists() && dir.removeRecursively())
            removed.append(folder);
    }
    return removed;
}
