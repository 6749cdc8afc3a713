#include "core/encryption.h"
#include "logcapture.h"
#include "plugin/ztserver.h"
#include "testenvironment.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>

#include <QtTest>

#include <memory>

namespace {
const QString CacheKey = QStringLiteral("uploadInfo");

std::unique_ptr<QSettings> store()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, "Marbelnix", "Zephyrtide");
}

QVariantMap paramsFor(const QString &path)
{
    return {{"filePath", path}, {"category", "PhotoVault"}, {"private", false},
            {"userID", "u-1001"}, {"preview", true},         {"source", 1}};
}

// A session as the single-file uploader leaves it after "/upload/info".
void giveSession(FileItem &item, const QString &uploadID)
{
    item.uploadID = uploadID;
    item.chunkSize = 4;
    item.totalChunks = 4;
    item.uploadedChunk = 1;
    item.expires = 3600;
    item.method = QStringLiteral("PUT");
    item.currentRequestTime = QDateTime::currentDateTime();
    item.chunks = {QVariantMap{{"url", "http://127.0.0.1/c?partNumber=2"}, {"headers", QVariantMap{{"x-part", 2}}},
                               {"bytesSent", 3}}};
    item.bytesSent = 7;
    item.cdnURL = QStringLiteral("http://cdn.example/f");
}
} // namespace

// The upload-session cache and building file items, against a settings store
// in a temporary folder.
class tst_UploadGlobal : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_files.reset(new QTemporaryDir);
        QVERIFY(m_files->isValid());
        store()->clear();
    }
    void cleanup()
    {
        UploadGlobal::destroy();
        store()->clear();
        m_files.reset();
    }

    void initBuildsItem_data()
    {
        QTest::addColumn<QVariantMap>("extra"); // an invalid value removes the parameter
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("contentType");
        QTest::newRow("public, type from the name") << QVariantMap() << "notes.txt" << "text/plain";
        QTest::newRow("private, json") << QVariantMap{{"private", true}} << "answer.json" << "application/json";
        QTest::newRow("no user, no source") << QVariantMap{{"userID", QVariant()}, {"source", QVariant()}}
                                            << "notes.txt" << "text/plain";
        QTest::newRow("non-ASCII category and user") << QVariantMap{{"category", "相册"}, {"userID", "Zoë"}}
                                                     << "notes.txt" << "text/plain";
        QTest::newRow("type given") << QVariantMap{{"contentType", "application/x-vault"}} << "notes.txt"
                                    << "application/x-vault";
        QTest::newRow("type given empty stays empty") << QVariantMap{{"contentType", ""}} << "notes.txt" << "";
    }
    void initBuildsItem()
    {
        QFETCH(QVariantMap, extra);
        QFETCH(QString, fileName);
        QFETCH(QString, contentType);
        const QString path = makeFile(fileName, QByteArray(1234, 'n'));
        QVariantMap params = paramsFor(path);
        for (auto it = extra.cbegin(); it != extra.cend(); ++it)
            it.value().isValid() ? void(params.insert(it.key(), it.value())) : void(params.remove(it.key()));

        FileItem item;
        QVERIFY(UploadGlobal::instance()->initFileItem(item, params));
        QCOMPARE(item.state, Upload::Initialised);
        QCOMPARE(item.filePath, path);
        QCOMPARE(item.fileName, fileName);
        QCOMPARE(item.contentType, contentType);
        QCOMPARE(item.totalSize, qint64(1234));
        QCOMPARE(item.category, params.value("category").toString());
        QCOMPARE(item.isPrivate, params.value("private").toBool());
        QCOMPARE(item.userID, params.value("userID").toString());
        QVERIFY(item.preview);
        QCOMPARE(item.source, params.value("source", 0).toUInt());
        QCOMPARE(item.originParams, params);
        // The service's "fileMD5": path, size, metadata-change time, category,
        // the private flag as one character, user id.
        const QString seed = path + "1234"
                             + QFileInfo(path).fileTime(QFileDevice::FileMetadataChangeTime).toString(Qt::TextDate)
                             + item.category + QChar(item.isPrivate ? 1 : 0) + item.userID;
        QCOMPARE(item.identifier, QString::fromLatin1(QCryptographicHash::hash(seed.toUtf8(),
                                                                               QCryptographicHash::Md5).toHex()));
    }

    void initRefuses_data()
    {
        QTest::addColumn<QString>("filePath");
        QTest::addColumn<QVariant>("category");
        QTest::newRow("empty path") << QString() << QVariant("PhotoVault");
        QTest::newRow("no file there") << "missing.txt" << QVariant("PhotoVault");
        QTest::newRow("a folder") << "." << QVariant("PhotoVault");
        QTest::newRow("empty category, file exists") << "exists.txt" << QVariant("");
        QTest::newRow("no category, file exists") << "exists.txt" << QVariant();
    }
    void initRefuses()
    {
        QFETCH(QString, filePath);
        QFETCH(QVariant, category);
        makeFile("exists.txt");
        QVariantMap params = paramsFor(filePath.isEmpty() ? filePath : m_files->filePath(filePath));
        params.remove("category");
        if (category.isValid())
            params.insert("category", category);
        LogCapture log;
        FileItem item;
        QVERIFY(!UploadGlobal::instance()->initFileItem(item, params));
        QVERIFY(item.state != Upload::Initialised);
        QCOMPARE(log.count("init fail ", QtCriticalMsg), 1);
    }

    void cacheSetGetRemove()
    {
        UploadGlobal *global = UploadGlobal::instance();
        FileItem item = sessionFor("a.bin", "session-a");
        LogCapture log;
        QVERIFY(global->getInfo(item.identifier).isEmpty());
        global->setInfo(item);
        QCOMPARE(log.count("upload set info", QtInfoMsg), 1);
        QCOMPARE(log.count(item.identifier, QtInfoMsg), 1);
        QCOMPARE(global->getInfo(item.identifier), item.toCacheMap());

        // A second file has an entry of its own, replaced by its later write;
        // both changes reach the store together, in one write.
        FileItem other = sessionFor("b.bin", "session-b");
        global->setInfo(other);
        other.uploadedChunk = 3;
        global->setInfo(other);
        const int writes = global->cacheWrites();
        QCOMPARE(global->readValue(CacheKey), QVariant());
        global->flush();
        QCOMPARE(global->cacheWrites(), writes + 1);
        QCOMPARE(global->readValue(CacheKey).toMap().size(), 2);

        global->removeInfo(item);
        QCOMPARE(log.count("upload remove info", QtDebugMsg), 1);
        QVERIFY(global->getInfo(item.identifier).isEmpty());
        QCOMPARE(global->getInfo(other.identifier).value("uploadedChunk").toInt(), 3);
        global->removeInfo(item); // not there: changes nothing, does not fail
        QVERIFY(global->getInfo(item.identifier).isEmpty());

        // What is not yet written when the plugin unloads is written then.
        other.uploadedChunk = 4;
        global->setInfo(other);
        UploadGlobal::destroy();
        const QVariantMap stored = UploadGlobal::instance()->readValue(CacheKey).toMap();
        QCOMPARE(stored.keys(), QStringList({other.identifier}));
        QCOMPARE(stored.value(other.identifier).toMap().value("uploadedChunk").toInt(), 4);
    }

    void secondRun_data()
    {
        QTest::addColumn<QString>("change");
        QTest::newRow("unchanged: the earlier entry is found") << "";
        QTest::newRow("touched (metadata time): a new identifier") << "touch";
        QTest::newRow("resized: a new identifier") << "resize";
    }
    // A second run of the same file in a later process (the entry read from the
    // store), with parameters that the identifier does not cover.
    void secondRun()
    {
        QFETCH(QString, change);
        const FileItem first = sessionFor("resume.bin", "session-r");
        UploadGlobal::instance()->setInfo(first);
        UploadGlobal::destroy();
        const QString path = first.filePath;
        if (change == "resize") {
            QFile file(path);
            QVERIFY(file.open(QIODevice::Append) && file.write("+") == 1);
        } else if (change == "touch") {
            // The time enters the identifier in whole seconds: touch until the second changes.
            const auto timeText = [&] {
                return QFileInfo(path).fileTime(QFileDevice::FileMetadataChangeTime).toString(Qt::TextDate);
            };
            const QString old = timeText();
            const QFile::Permissions permissions = QFile::permissions(path);
            bool flip = false;
            QTRY_VERIFY_WITH_TIMEOUT((flip = !flip, QFile::setPermissions(path, flip ? permissions | QFile::ExeOwner
                                                                                      : permissions),
                                      timeText() != old), 5000);
        }
        QVariantMap again = paramsFor(path);
        again.insert("preview", false);
        again.insert("contentType", "application/x-other");
        LogCapture log;
        FileItem second;
        QVERIFY(UploadGlobal::instance()->initFileItem(second, again));
        QCOMPARE(second.state, Upload::Initialised);
        if (!change.isEmpty()) {
            QVERIFY(second.identifier != first.identifier);
            QCOMPARE(log.count("local info exist"), 0);
            QVERIFY(second.uploadID.isEmpty());
            QVERIFY(second.chunks.isEmpty());
            return;
        }
        // The earlier run's entry wins over the parameters given now.
        QCOMPARE(log.count("local info exist", QtDebugMsg), 1);
        QCOMPARE(second.toCacheMap(), first.toCacheMap());
    }

    void storedTextIsNotPlain()
    {
        UploadGlobal *global = UploadGlobal::instance();
        const FileItem item = sessionFor("holiday-photos.zip", "session-secret");
        global->setInfo(item);
        global->flush();
        const QString stored = store()->value(CacheKey).toString();
        QVERIFY(QRegularExpression("^[A-Za-z0-9+/]+={0,2}$").match(stored).hasMatch());
        const QString settingsFile = m_environment.settingsPath() + "/Marbelnix/Zephyrtide.conf";
        QFile raw(settingsFile);
        QVERIFY(raw.open(QIODevice::ReadOnly));
        const QByteArray bytes = raw.readAll();
        QVERIFY(bytes.contains("uploadInfo"));
        for (const QString &plain : {item.identifier, QStringLiteral("holiday-photos"), QStringLiteral("PhotoVault"),
                                     QStringLiteral("u-1001"), QStringLiteral("session-secret"),
                                     QStringLiteral("partNumber")})
            QVERIFY2(!bytes.contains(plain.toUtf8()), qPrintable(plain));
        // It is the record form: the process-wide Encryption reads it back.
        QVariantMap cache;
        QVERIFY(Encryption::instance()->deserializeFileToData(stored, cache));
        QCOMPARE(cache.keys(), QStringList({item.identifier}));
        // It holds live upload tokens: no one but its owner reads it, after a rewrite too.
        global->removeInfo(item);
        global->flush();
        QCOMPARE(QFileInfo(settingsFile).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup
                                                          | QFile::WriteOther | QFile::ExeGroup | QFile::ExeOther),
                 QFile::Permissions());
    }

    void damagedCacheReadsEmpty_data()
    {
        QTest::addColumn<QString>("text");
        const QVariantMap cache{{"0123456789abcdef0123456789abcdef", QVariantMap{{"category", "x"}}}};
        const QString good = Encryption::instance()->serializeDataToFile(cache);
        QTest::newRow("not base64") << QStringLiteral("%%% damaged %%%");
        QTest::newRow("under another key") << Encryption(QByteArray(16, 'o')).serializeDataToFile(cache);
        QTest::newRow("truncated") << good.left(good.size() / 2);
        QTest::newRow("empty") << QString();
    }
    void damagedCacheReadsEmpty()
    {
        QFETCH(QString, text);
        store()->setValue(CacheKey, text);
        UploadGlobal *global = UploadGlobal::instance();
        LogCapture log;
        FileItem item = sessionFor("fresh.bin", "session-f");
        QCOMPARE(log.count("upload cache unreadable", QtCriticalMsg), 1);
        QCOMPARE(global->readValue(CacheKey), QVariant(QVariantMap()));
        // The next write replaces the damaged value with a good cache.
        global->setInfo(item);
        global->flush();
        QCOMPARE(global->readValue(CacheKey).toMap().keys(), QStringList({item.identifier}));
    }

    // Entries leave the cache only when their upload ends, never by age.
    void cacheTimerLeavesCache()
    {
        UploadGlobal *global = UploadGlobal::instance();
        auto *timer = global->findChild<QTimer *>("cacheTimer");
        QVERIFY(timer && timer->isActive());
        QCOMPARE(timer->interval(), 86400000);
        global->setInfo(sessionFor("kept.bin", "session-k"));
        global->flush();
        const QString before = store()->value(CacheKey).toString();
        QSignalSpy fired(timer, &QTimer::timeout);
        timer->setInterval(5); // let the day pass quickly
        QVERIFY(fired.wait(5000));
        QCOMPARE(store()->value(CacheKey).toString(), before);
    }

    void otherProcessWrites_data()
    {
        QTest::addColumn<QString>("theirs"); // their change to the stored value
        QTest::addColumn<QString>("mine");   // the entry this process then sets
        QTest::addColumn<QStringList>("stored");
        QTest::addColumn<int>("sharedChunks"); // -1: no "shared" entry
        // "shared" is in the cache when both start.
        QTest::newRow("each adds an entry: both kept") << "add" << "mine" << QStringList{"mine", "shared", "theirs"}
                                                       << 1;
        QTest::newRow("they remove one this process left alone: it stays removed")
            << "remove" << "mine" << QStringList{"mine"} << -1;
        QTest::newRow("they remove one this process updated: the update is kept")
            << "remove" << "shared" << QStringList{"shared"} << 2;
        QTest::newRow("both update the same one: the later write wins")
            << "update" << "shared" << QStringList{"shared"} << 2;
    }
    // Another process (a second host, a command-line run) writes the value while
    // this one keeps the cache in memory: a write of this one lays only its own
    // changes over what is stored then, and a refresh takes theirs in.
    void otherProcessWrites()
    {
        QFETCH(QString, theirs);
        QFETCH(QString, mine);
        QFETCH(QStringList, stored);
        QFETCH(int, sharedChunks);
        const auto entry = [](const QString &identifier, int chunks) {
            FileItem item;
            item.identifier = identifier;
            item.category = QStringLiteral("PhotoVault");
            while (item.chunks.size() < chunks)
                item.chunks << QVariantMap{{"url", "http://s/c?partNumber=1"}};
            return item;
        };
        const auto storeForThem = [](const QVariantMap &cache) {
            store()->setValue(CacheKey, Encryption::instance()->serializeDataToFile(cache));
        };
        const auto chunksOf = [](const QVariantMap &entry) {
            return entry.isEmpty() ? -1 : entry.value("uploadInfo").toMap().value("chunks").toList().size();
        };
        UploadGlobal *global = UploadGlobal::instance();
        global->setInfo(entry("shared", 1));
        global->flush();

        QVariantMap cache = global->readValue(CacheKey).toMap();
        if (theirs == "add")
            cache.insert("theirs", entry("theirs", 1).toCacheMap());
        else if (theirs == "remove")
            cache.remove("shared");
        else
            cache.insert("shared", entry("shared", 3).toCacheMap());
        storeForThem(cache);

        global->setInfo(entry(mine, mine == "mine" ? 1 : 2));
        global->flush();
        cache = global->readValue(CacheKey).toMap();
        QCOMPARE(cache.keys(), stored);
        QCOMPARE(chunksOf(cache.value("shared").toMap()), sharedChunks);
        QCOMPARE(chunksOf(global->getInfo("shared")), sharedChunks);

        // Their later change reaches this process when the next job refreshes.
        cache.insert("later", entry("later", 1).toCacheMap());
        storeForThem(cache);
        QVERIFY(global->getInfo("later").isEmpty());
        global->refresh();
        QCOMPARE(global->getInfo("later").value("identifier").toString(), QStringLiteral("later"));
    }

    void rootReachesUploadGlobal()
    {
        auto host = std::make_unique<Zephyrtide::Manager>();
        auto root = std::make_unique<ZTServer>();
        const auto setManager = [&](Zephyrtide::Manager *manager) {
            return QMetaObject::invokeMethod(root.get(), "zt_set_manager", Q_ARG(Zephyrtide::Manager *, manager));
        };
        QVERIFY(setManager(host.get()));
        QCOMPARE(UploadGlobal::instance()->manager(), host.get());
        QVERIFY(setManager(nullptr)); // stored unconditionally
        QCOMPARE(UploadGlobal::instance()->manager(), nullptr);
        // Only watched: a host manager that goes away leaves no dangling pointer.
        QVERIFY(setManager(host.get()));
        host.reset();
        QCOMPARE(UploadGlobal::instance()->manager(), nullptr);
        root.reset();
        QCOMPARE(UploadGlobal::existingInstance(), nullptr);
    }

private:
    QString makeFile(const QString &name, const QByteArray &content = "hello, cache\n")
    {
        QFile file(m_files->filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
    }
    // An item for a new file of name, with a session whose total size needs more than 32 bits.
    FileItem sessionFor(const QString &name, const QString &uploadID)
    {
        FileItem item;
        if (!UploadGlobal::instance()->initFileItem(item, paramsFor(makeFile(name))))
            qWarning("no item for %s", qPrintable(name));
        giveSession(item, uploadID);
        item.totalSize = (qint64(1) << 36) + 5;
        return item;
    }

    TestEnvironment m_environment;
    QScopedPointer<QTemporaryDir> m_files;
};

QTEST_MAIN(tst_UploadGlobal)
#include "tst_uploadglobal.moc"
