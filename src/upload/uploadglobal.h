#pragma once

#include "core/zterrorcode.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QSharedPointer>
#include <QVariant>
#include <QWeakPointer>

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
// unloads the plugin.
//
// The cache is read once and then kept deciphered here; changes go to the
// stored value together, at most every 500 ms (WriteDelayMs), so a finished
// part costs no rewrite of every entry of every file. flush() writes at once;
// the upload job calls it when it stops, aborts, fails or ends, and the
// destructor does, so nothing a stop promised is lost at unload. After a crash
// only the last 500 ms of finished parts are sent again.
//
// Another process (a second host, a command-line run) may use the same value.
// A write therefore lays only this process's changes over what is stored at
// that moment, entry by entry, and refresh() (at the start of every job)
// takes in what others wrote since. Two processes that write the same entry
// at once are not reconciled: the later write wins, as it always did.
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
    // Takes item's entry as it is now; stored within WriteDelayMs.
    void setInfo(const FileItem &item);
    // Notes that item moved on (a part finished or progressed): its entry is
    // taken when the cache is next written, so many parts cost one entry.
    void noteProgress(const QSharedPointer<FileItem> &item);
    void removeInfo(const FileItem &item);
    // One change for all of them, however many.
    void removeInfos(const QStringList &identifiers);
    // Empties the cache, so no file resumes an earlier session; written at
    // once. Always NoError.
    ZTErrorCode removeAll();
    // Writes what changed now, if anything did.
    void flush();
    // Takes in what another process stored since this one last read or wrote,
    // keeping this process's own changes over it.
    void refresh();
    // How often the stored value has been written: a diagnostic, and what
    // tests count to see that the cost of a part does not grow with the file.
    int cacheWrites() const;

    static constexpr int WriteDelayMs = 500;

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
    static bool readText(const QString &name, QString &text);
    static void writeText(const QString &name, const QString &text);
    void loadLocked();
    void takeInStoredLocked();
    void takeMovedLocked();
    void writeLocked();
    void scheduleWrite();
    void armWriteTimer();

    QPointer<Zephyrtide::Manager> m_manager; // the host's, not owned
    QTimer *m_cacheTimer = nullptr;          // child
    QTimer *m_writeTimer = nullptr;          // child; single shot, WriteDelayMs

    // Guards everything below; taken by calls from any thread.
    mutable QMutex m_cacheMutex;
    bool m_loaded = false;
    QVariantMap m_cache;      // identifier -> entry, as this process sees it
    bool m_storedPresent = false;
    QString m_storedText;     // the stored value as last read or written here
    QSet<QString> m_changed;  // entries set or removed here since the last write
    // Items whose entries are taken at the next write; weak, as a job may go first.
    QHash<QString, QWeakPointer<FileItem>> m_moved;
    int m_writes = 0;
    QSharedPointer<NetworkManager> m_networkManager;
    int m_partStallTimeoutMs = 30000;
};
