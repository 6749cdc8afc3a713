#include "downloadglobal.h"

#include "accessmanagerpool.h"
#include "network/networkmanager.h"
#include "core/logging.h"

#include <QDir>
#include <QMutex>
#include <QStandardPaths>

#include <atomic>

namespace {
std::atomic<DownloadGlobal *> s_instance{nullptr};
QMutex s_mutex;
}

DownloadGlobal::DownloadGlobal()
    : m_temporaryStoragePath(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation)
                             + QLatin1String("/Zephyrtide"))
    , m_networkManager(new NetworkManager)
    , m_accessManagers(std::make_unique<AccessManagerPool>())
{
    // The default folder is not made here: a host that configures its own
    // path must not find one in the user's documents. A batch makes whichever
    // folder it uses when it starts.
}

DownloadGlobal::~DownloadGlobal() = default;

DownloadGlobal *DownloadGlobal::instance()
{
    DownloadGlobal *settings = s_instance.load();
    if (!settings) {
        QMutexLocker locker(&s_mutex);
        settings = s_instance.load();
        if (!settings) {
            settings = new DownloadGlobal; // lives for the process
            s_instance.store(settings);
        }
    }
    return settings;
}

void DownloadGlobal::setTemporaryStoragePath(const QString &path)
{
    if (path == m_temporaryStoragePath)
        return;
    qCDebug(ztLog) << "temporaryStoragePath update" << path;
    m_temporaryStoragePath = path;
    if (!QDir().mkpath(path))
        qCCritical(ztLog) << "m_path create fail" << path;
}

void DownloadGlobal::setChunkSize(qint64 megabytes)
{
    if (megabytes == m_chunkSize)
        return;
    m_chunkSize = megabytes << 20;
}

void DownloadGlobal::setChunkSizeInBytes(qint64 bytes)
{
    if (bytes > 0)
        m_chunkSize = bytes;
}
