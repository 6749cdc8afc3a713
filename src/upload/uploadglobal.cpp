#include "uploadglobal.h"

#include "core/encryption.h"
#include "network/networkmanager.h"
#include "core/logging.h"
#include "upload/fileitem.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QMutex>
#include <QSettings>
#include <QThread>
#include <QTimer>

#include <atomic>

namespace {

const QString CacheValueName = QStringLiteral("uploadInfo");
constexpr int CacheTimerIntervalMs = 24 * 60 * 60 * 1000;

std::atomic<UploadGlobal *> s_instance{nullptr};
// Guards the creation and the destruction of the instance.
QMutex s_instanceMutex;

// The cache key of a file: the same file (path, size, metadata-change time) with
// the same caller parameters always gives the same identifier; a touched or
// resized file gives a new one and so starts a fresh session.
QString fileIdentifier(const FileItem &item, const QFileInfo &file)
{
    const QString text = item.filePath + QString::number(item.totalSize)
                         + file.fileTime(QFileDevice::FileMetadataChangeTime).toString(Qt::TextDate)
                         + item.category + QChar(item.isPrivate ? 1 : 0) + item.userID;
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Md5).toHex());
}

QVariantMap decipher(const QString &name, const QString &text)
{
    QVariantMap map;
    if (!Encryption::instance()->deserializeFileToData(text, map)) {
        // A damaged value would otherwise fail every upload for good; reading
        // it as empty lets uploads start fresh, and the next write replaces it.
        qCCritical(ztLog) << "upload cache unreadable, starting empty" << name;
        return QVariantMap();
    }
    return map;
}

} // namespace

UploadGlobal::UploadGlobal()
    : m_cacheTimer(new QTimer(this))
    , m_writeTimer(new QTimer(this))
{
    m_cacheTimer->setObjectName(QStringLiteral("cacheTimer"));
    connect(m_cacheTimer, &QTimer::timeout, this, &UploadGlobal::clearCache);
    m_writeTimer->setSingleShot(true);
    m_writeTimer->setTimerType(Qt::PreciseTimer); // never sooner than WriteDelayMs
    m_writeTimer->setInterval(WriteDelayMs);
    connect(m_writeTimer, &QTimer::timeout, this, &UploadGlobal::flush);
    qCDebug(ztLog) << "zephyrtide dll port";
    m_cacheTimer->start(CacheTimerIntervalMs);
}

UploadGlobal::~UploadGlobal()
{
    // What a stop or the last finished parts left in memory reaches the store
    // before the plugin goes.
    flush();
}

UploadGlobal *UploadGlobal::instance()
{
    UploadGlobal *global = s_instance.load();
    if (!global) {
        QMutexLocker locker(&s_instanceMutex);
        global = s_instance.load();
        if (!global) {
            global = new UploadGlobal; // owned by the process; destroy() frees it
            s_instance.store(global);
        }
    }
    return global;
}

void UploadGlobal::destroy()
{
    UploadGlobal *global = nullptr;
    {
        QMutexLocker locker(&s_instanceMutex);
        global = s_instance.exchange(nullptr);
    }
    delete global; // its last write happens outside the creation lock
}

UploadGlobal *UploadGlobal::existingInstance()
{
    return s_instance.load();
}

void UploadGlobal::setManager(Zephyrtide::Manager *manager)
{
    m_manager = manager;
}

Zephyrtide::Manager *UploadGlobal::manager() const
{
    return m_manager;
}

QSharedPointer<NetworkManager> UploadGlobal::networkManager() const
{
    return m_networkManager;
}

void UploadGlobal::setNetworkManager(const QSharedPointer<NetworkManager> &manager)
{
    m_networkManager = manager;
}

std::unique_ptr<QSettings> UploadGlobal::openStore()
{
#ifdef Q_OS_WIN
    return std::make_unique<QSettings>(
        QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\Marbelnix\\Zephyrtide"),
        QSettings::NativeFormat);
#else
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("Marbelnix"),
                                       QStringLiteral("Zephyrtide"));
#endif
}

bool UploadGlobal::readText(const QString &name, QString &text)
{
    const std::unique_ptr<QSettings> store = openStore();
    if (!store->allKeys().contains(name))
        return false;
    text = store->value(name).toString();
    return true;
}

void UploadGlobal::writeText(const QString &name, const QString &text)
{
    const std::unique_ptr<QSettings> store = openStore();
    restrictToOwner(store->fileName());
    store->setValue(name, text);
    store->sync();
    restrictToOwner(store->fileName());
}

QVariant UploadGlobal::readValue(const QString &name) const
{
    QString text;
    if (!readText(name, text))
        return QVariant();
    return decipher(name, text);
}

void UploadGlobal::writeValue(const QString &name, const QVariant &value)
{
    writeText(name, Encryption::instance()->serializeDataToFile(value.toMap()));
}

// The cache holds live upload tokens: only its owner may read it, from its
// first byte on (the file is made before anything is written to it) and after
// every rewrite.
void UploadGlobal::restrictToOwner(const QString &path)
{
#ifdef Q_OS_WIN
    Q_UNUSED(path) // the registry keeps the current user's hive to that user
#else
    const QFileInfo info(path);
    if (!info.exists()) {
        QDir().mkpath(info.absolutePath());
        QFile create(path);
        if (!create.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            return;
    }
    if (!QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner))
        qCCritical(ztLog) << "upload cache permissions" << path;
#endif
}

void UploadGlobal::loadLocked()
{
    if (m_loaded)
        return;
    m_storedPresent = readText(CacheValueName, m_storedText);
    m_cache = m_storedPresent ? decipher(CacheValueName, m_storedText) : QVariantMap();
    m_loaded = true;
}

// Takes in the stored value when another process wrote it since this one last
// read or wrote it; this process's own changes stay on top.
void UploadGlobal::takeInStoredLocked()
{
    QString text;
    const bool present = readText(CacheValueName, text);
    m_loaded = true;
    if (present == m_storedPresent && text == m_storedText)
        return;
    QVariantMap merged = present ? decipher(CacheValueName, text) : QVariantMap();
    for (const QString &identifier : qAsConst(m_changed)) {
        if (m_cache.contains(identifier))
            merged.insert(identifier, m_cache.value(identifier));
        else
            merged.remove(identifier);
    }
    m_cache = merged;
    m_storedPresent = present;
    m_storedText = text;
}

void UploadGlobal::takeMovedLocked()
{
    for (auto it = m_moved.cbegin(); it != m_moved.cend(); ++it) {
        const QSharedPointer<FileItem> item = it.value().toStrongRef();
        if (!item)
            continue; // its job is gone; what was taken before stays
        m_cache.insert(it.key(), item->toCacheMap());
        m_changed.insert(it.key());
        qCInfo(ztLog) << "upload set info" << it.key();
    }
    m_moved.clear();
}

void UploadGlobal::writeLocked()
{
    takeMovedLocked();
    if (m_changed.isEmpty())
        return;
    takeInStoredLocked();
    m_storedText = Encryption::instance()->serializeDataToFile(m_cache);
    m_storedPresent = true;
    writeText(CacheValueName, m_storedText);
    m_changed.clear();
    ++m_writes;
}

void UploadGlobal::scheduleWrite()
{
    if (QThread::currentThread() == thread()) {
        armWriteTimer();
        return;
    }
    QMetaObject::invokeMethod(this, &UploadGlobal::armWriteTimer, Qt::QueuedConnection);
}

void UploadGlobal::armWriteTimer()
{
    // Not restarted by later changes: a change waits WriteDelayMs at most.
    if (!m_writeTimer->isActive())
        m_writeTimer->start();
}

QVariantMap UploadGlobal::getInfo(const QString &identifier)
{
    QMutexLocker locker(&m_cacheMutex);
    loadLocked();
    const QSharedPointer<FileItem> moved = m_moved.value(identifier).toStrongRef();
    if (moved)
        return moved->toCacheMap();
    return m_cache.value(identifier).toMap();
}

void UploadGlobal::setInfo(const FileItem &item)
{
    QMutexLocker locker(&m_cacheMutex);
    loadLocked();
    const QVariantMap entry = item.toCacheMap();
    qCDebug(ztLog) << "upload cache" << entry;
    m_cache.insert(item.identifier, entry);
    m_moved.remove(item.identifier);
    m_changed.insert(item.identifier);
    qCInfo(ztLog) << "upload set info" << item.identifier;
    scheduleWrite();
}

void UploadGlobal::noteProgress(const QSharedPointer<FileItem> &item)
{
    if (!item)
        return;
    QMutexLocker locker(&m_cacheMutex);
    m_moved.insert(item->identifier, item);
    scheduleWrite();
}

void UploadGlobal::removeInfo(const FileItem &item)
{
    removeInfos({item.identifier});
}

void UploadGlobal::removeInfos(const QStringList &identifiers)
{
    if (identifiers.isEmpty())
        return;
    QMutexLocker locker(&m_cacheMutex);
    loadLocked();
    for (const QString &identifier : identifiers) {
        m_cache.remove(identifier);
        m_moved.remove(identifier);
        m_changed.insert(identifier);
        qCDebug(ztLog) << "upload remove info" << identifier;
    }
    scheduleWrite();
}

ZTErrorCode UploadGlobal::removeAll()
{
    QMutexLocker locker(&m_cacheMutex);
    m_cache.clear();
    m_moved.clear();
    m_changed.clear();
    m_storedText = Encryption::instance()->serializeDataToFile(m_cache);
    m_storedPresent = true;
    m_loaded = true;
    writeText(CacheValueName, m_storedText);
    ++m_writes;
    return Zephyrtide::Error::NoError;
}

void UploadGlobal::flush()
{
    if (QThread::currentThread() == thread())
        m_writeTimer->stop();
    QMutexLocker locker(&m_cacheMutex);
    writeLocked();
}

void UploadGlobal::refresh()
{
    QMutexLocker locker(&m_cacheMutex);
    if (!m_loaded) {
        loadLocked();
        return;
    }
    takeInStoredLocked();
}

int UploadGlobal::cacheWrites() const
{
    QMutexLocker locker(&m_cacheMutex);
    return m_writes;
}

bool UploadGlobal::initFileItem(FileItem &item, const QVariantMap &params)
{
    const QString filePath = params.value(QStringLiteral("filePath")).toString();
    const QFileInfo file(filePath);
    if (filePath.isEmpty() || !file.isFile()) {
        qCCritical(ztLog) << "init fail " << params;
        return false;
    }

    item.originParams = params;
    item.category = params.value(QStringLiteral("category")).toString();
    item.isPrivate = params.value(QStringLiteral("private")).toBool();
    item.filePath = filePath;
    item.userID = params.value(QStringLiteral("userID")).toString();
    item.preview = params.value(QStringLiteral("preview")).toBool();
    item.fileName = file.fileName();
    // A given content type wins even when empty: the caller asked for it.
    item.contentType = params.contains(QStringLiteral("contentType"))
                           ? params.value(QStringLiteral("contentType")).toString()
                           : QMimeDatabase().mimeTypeForFile(filePath).name();
    item.totalSize = file.size();
    if (params.contains(QStringLiteral("source")))
        item.source = params.value(QStringLiteral("source")).toUInt();
    item.identifier = fileIdentifier(item, file);

    const QVariantMap cached = getInfo(item.identifier);
    if (!cached.isEmpty()) {
        qCDebug(ztLog) << "local info exist" << filePath;
        item.fromCacheMap(cached);
    }

    if (item.category.isEmpty() || item.filePath.isEmpty() || item.identifier.isEmpty()) {
        qCCritical(ztLog) << "init fail " << params;
        return false;
    }
    item.state = Upload::Initialised;
    return true;
}

void UploadGlobal::clearCache()
{
    // Deliberately nothing. A session leaves the cache only when its upload
    // ends (removeInfo) or the host clears everything (removeAll): a file
    // stopped days ago must still resume, and whether its server session is
    // still good is decided by its own expiry (FileItem::sessionValid), not
    // by the age of the cache.
}
