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
// The plugin's record of a merge that stopped part way: the merged file it
// names lies beside the download's destination, not in the folder.
const QString MergeRecordName = QStringLiteral(".merge");

struct MergedPart
{
    QString path; // empty when the folder has none
    qint64 bytes = 0;
    qint64 wholeChunks = 0; // chunks it holds whole: their files, if still there, are about to go
};

MergedPart mergedPartOf(const QString &folder)
{
    QFile file(QDir(folder).filePath(MergeRecordName));
    if (!file.open(QIODevice::ReadOnly))
        return MergedPart();
    const QJsonObject record = QJsonDocument::fromJson(file.read(16384)).object();
    const QString path = record.value(QStringLiteral("path")).toString();
    if (!path.endsWith(QLatin1String(".ztmerge")) || !QFileInfo::exists(path))
        return MergedPart();
    const qint64 recorded = record.value(QStringLiteral("mergedBytes")).toVariant().toLongLong();
    const qint64 chunkSize = record.value(QStringLiteral("chunkSize")).toVariant().toLongLong();
    const qint64 bytes = qMin(QFileInfo(path).size(), recorded);
    return MergedPart{path, bytes, chunkSize > 0 ? bytes / chunkSize : 0};
}

// A content folder goes with the merged part it records.
bool removeContentFolder(const QString &folder)
{
    const MergedPart merged = mergedPartOf(folder);
    if (!merged.path.isEmpty())
        QFile::remove(merged.path);
    return QDir(folder).removeRecursively();
}

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
        const MergedPart merged = mergedPartOf(partial.folder);
        partial.bytes = merged.bytes;
        QDirIterator files(partial.folder, QDir::Files | QDir::Hidden);
        while (files.hasNext()) {
            files.next();
            bool chunk = false;
            const qint64 number = files.fileName().toLongLong(&chunk);
            if (files.fileName() != PlanName && files.fileName() != MergeRecordName && !(chunk && number <= merged.wholeChunks))
                partial.bytes += files.fileInfo().size();
        }
        partial.holder = liveHolder(partial.folder + LockSuffix);
        partials.append(partial);
    }
    return partials;
}

bool PartialFolders::discard(const Partial &partial)
{
    if (partial.holder != 0 || !removeContentFolder(partial.folder))
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
        if (QDir(folder).exists() && removeContentFolder(folder))
            removed.append(folder);
    }
    return removed;
}
