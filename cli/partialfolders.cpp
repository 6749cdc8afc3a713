#include "partialfolders.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>

#include <cerrno>
#include <csignal>

namespace {
const QString LockSuffix = QStringLiteral(".lock");
const QString PlanName = QStringLiteral(".plan"); // the plugin's record of what a folder holds

// The process holding the lock at path, when it is alive; 0 otherwise.
qint64 liveHolder(const QString &path)
{
    QLockFile lock(path);
    qint64 pid = 0;
    QString host;
    QString application;
    if (!lock.getLockInfo(&pid, &host, &application) || pid <= 0)
        return 0;
    return ::kill(pid_t(pid), 0) == 0 || errno == EPERM ? pid : 0;
}
} // namespace

QList<PartialFolders::Partial> PartialFolders::list(const QString &temporaryFolder)
{
    QList<Partial> partials;
    const QDir temporary(temporaryFolder);
    for (const QFileInfo &entry : temporary.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name)) {
        Partial partial;
        partial.folder = entry.absoluteFilePath();
        partial.modified = entry.lastModified();
        QFile plan(QDir(partial.folder).filePath(PlanName));
        if (plan.open(QIODevice::ReadOnly)) {
            const QJsonObject record = QJsonDocument::fromJson(plan.read(4096)).object();
            partial.name = record.value(QStringLiteral("fileName")).toString();
            if (record.contains(QStringLiteral("fileSize")))
                partial.fileSize = record.value(QStringLiteral("fileSize")).toVariant().toLongLong();
        }
        QDirIterator files(partial.folder, QDir::Files | QDir::Hidden);
        while (files.hasNext()) {
            files.next();
            if (files.fileName() != PlanName)
                partial.bytes += files.fileInfo().size();
        }
        partial.holder = liveHolder(partial.folder + LockSuffix);
        partials.append(partial);
    }
    return partials;
}

bool PartialFolders::discard(const Partial &partial)
{
    if (partial.holder != 0 || !QDir(partial.folder).removeRecursively())
        return false;
    QFile::remove(partial.folder + LockSuffix);
    return true;
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
