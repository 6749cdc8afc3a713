#pragma once

#include "plugin/zterrorcode.h"

#include <QObject>
#include <QPointer>
#include <QSharedPointer>
#include <QVariant>

#include <memory>

class FileItem;
class NetworkManager;
class QSettings;
class QTimer;

// The upload engine's process-wide object: the host's manager, the network
// manager that all chunk uploads share, and the encrypted cache of upload
// sessions, kept as one value "uploadInfo" in the user's settings (a map from
// file item identifier to FileItem::toCacheMap()).
//
// Created on first instance(); destroyed by the root object when the host
// unloads the plugin. Cache writes (setInfo, removeInfo, removeAll) are
// read-modify-writes of the whole value and hold the process-wide mutex.
class UploadGlobal : public QObject
{
    Q_OBJECT
public:
    static UploadGlobal *instance();
    static void destroy();
    // For tests: the live instance or null, without creating one.
    static UploadGlobal *existingInstance();

    void setManager(Zephyrtide::Manager *manager);
    Zephyrtide::Manager *manager() const;

    // Empty until the first chunk upload creates it.
    QSharedPointer<NetworkManager> networkManager() const;
    void setNetworkManager(const QSharedPointer<NetworkManager> &manager);

    // A part that moves no byte for this long fails (and resumes on the next
    // run), as a download chunk does: a hung service never holds an upload.
    int partStallTimeoutMs() const { return m_partStallTimeoutMs; }
    void setPartStallTimeoutMs(int ms) { m_partStallTimeoutMs = ms; }

    // The map stored under name, deciphered; an invalid QVariant when there is
    // none, an empty map when the stored text cannot be deciphered.
    QVariant readValue(const QString &name) const;
    // Stores value (as a map) enciphered under name, replacing what was there.
    void writeValue(const QString &name, const QVariant &value);

    // The cache entry of identifier, or an empty map.
    QVariantMap getInfo(const QString &identifier);
    void setInfo(const FileItem &item);
    void removeInfo(const FileItem &item);
    // Empties the cache, so no file resumes an earlier session. Always NoError.
    ZTErrorCode removeAll();

    // Fills item from the caller's map ("filePath", "category", "private",
    // "userID", "preview", "contentType", "source") and, when the cache holds
    // an entry for the same file and parameters, from that entry. True (and
    // state Initialised) when the item is usable.
    bool initFileItem(FileItem &item, const QVariantMap &params);

public Q_SLOTS:
    void clearCache();

private:
    UploadGlobal();
    ~UploadGlobal() override;

    static std::unique_ptr<QSettings> openStore();
    static void restrictToOwner(const QString &path);
    QVariantMap readCache() const;

    QPointer<Zephyrtide::Manager> m_manager; // the host's, not owned
    QTimer *m_cacheTimer = nullptr;          // child
    QSharedPointer<NetworkManager> m_networkManager;
    int m_partStallTimeoutMs = 30000;
};
