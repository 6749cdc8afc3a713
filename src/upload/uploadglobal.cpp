#include "uploadglobal.h"

#include "commands/encryption.h"
#include "network/networkmanager.h"
#include "plugin/logging.h"
#include "upload/fileitem.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QMutex>
#include <QSettings>
#include <QTimer>

#include <atomic>

namespace {

const QString CacheValueName = QStringLiteral("uploadInfo");
constexpr int CacheTimerIntervalMs = 24 * 60 * 60 * 1000;

std::atomic<UploadGlobal *> s_instance{nullptr};
// Guards the creation of the instance and every read-modify-write of the cache.
QMutex s_mutex;

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

} // namespace

UploadGlobal::UploadGlobal()
    : m_cacheTimer(new QTimer(this))
{
    connect(m_cacheTimer, &QTimer::timeout, this, &UploadGlobal::clearCache);
    qCDebug(ztLog) << "zephyrtide dll port";
    m_cacheTimer->start(CacheTimerIntervalMs);
}

UploadGlobal::~UploadGlobal() = default;

UploadGlobal *UploadGlobal::instance()
{
    UploadGlobal *global = s_instance.load();
    if (!global) {
        QMutexLocker locker(&s_mutex);
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
    QMutexLocker locker(&s_mutex);
    delete s_instance.exchange(nullptr);
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

QVariant UploadGlobal::readValue(const QString &name) const
{
    const std::unique_ptr<QSettings> store = openStore();
    if (!store->allKeys().contains(name))
        return QVariant();
    QVariantMap map;
    if (!Encryption::instance()->deserializeFileToData(store->value(name).toString(), map)) {
        // A damaged value would otherwise fail every upload for good; reading
        // it as empty lets uploads start fresh, and the next write replaces it.
        qCCritical(ztLog) << "upload cache unreadable, starting empty" << name;
        return QVariantMap();
    }
    return map;
}

void UploadGlobal::writeValue(const QString &name, const QVariant &value)
{
    const std::unique_ptr<QSettings> store = openStore();
    restrictToOwner(store->fileName());
    store->setValue(name, Encryption::instance()->serializeDataToFile(value.toMap()));
    store->sync();
    restrictToOwner(store->fileName());
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

QVariantMap UploadGlobal::readCache() const
{
    return readValue(CacheValueName).toMap();
}

QVariantMap UploadGlobal::getInfo(const QString &identifier)
{
    QMutexLocker locker(&s_mutex);
    return readCache().value(identifier).toMap();
}

void UploadGlobal::setInfo(const FileItem &item)
{
    QMutexLocker locker(&s_mutex);
    QVariantMap cache = readCache();
    const QVariantMap entry = item.toCacheMap();
    qCDebug(ztLog) << "upload cache" << entry;
    cache.insert(item.identifier, entry);
    qCInfo(ztLog) << "upload set info" << item.identifier;
    writeValue(CacheValueName, cache);
}

void UploadGlobal::removeInfo(const FileItem &item)
{
    QMutexLocker locker(&s_mutex);
    QVariantMap cache = readCache();
    cache.remove(item.identifier);
    qCDebug(ztLog) << "upload remove info" << item.identifier;
    writeValue(CacheValueName, cache);
}

ZTErrorCode UploadGlobal::removeAll()
{
    QMutexLocker locker(&s_mutex);
    writeValue(CacheValueName, QVariantMap());
    return Zephyrtide::Error::NoError;
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
