#pragma once

#include <QSharedPointer>
#include <QString>

#include <memory>

class AccessManagerPool;
class NetworkManager;

// The download engine's settings, one per process: where task folders live,
// how large a chunk is, the engine's request queue and the access managers
// its files borrow. Created on first use,
// never destroyed. The command object sets the path and the chunk size from
// the host's configuration.
class DownloadGlobal
{
public:
    static DownloadGlobal *instance();

    // The default, in the user's documents, may not exist yet: it is made
    // when first used.
    QString temporaryStoragePath() const { return m_temporaryStoragePath; }
    // Creates the folder; keeps the value even when that fails.
    void setTemporaryStoragePath(const QString &path);

    qint64 chunkSize() const { return m_chunkSize; }
    // Takes megabytes. An argument equal to the stored byte count is ignored:
    // the byte count is compared with the megabytes on purpose, as it always was.
    void setChunkSize(qint64 megabytes);
    // Takes bytes, for chunks smaller than a MiB (a file of many small parts).
    void setChunkSizeInBytes(qint64 bytes);

    QSharedPointer<NetworkManager> networkManager() const { return m_networkManager; }
    AccessManagerPool *accessManagers() const { return m_accessManagers.get(); }

private:
    DownloadGlobal();
    ~DownloadGlobal();

    QString m_temporaryStoragePath;
    qint64 m_chunkSize = 52428800;
    QSharedPointer<NetworkManager> m_networkManager;
    std::unique_ptr<AccessManagerPool> m_accessManagers;
};
