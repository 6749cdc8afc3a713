#include "core/encryption.h"
#include "logcapture.h"
#include "plugin/ztserver.h"
#include "testenvironment.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"

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
} // namespace

// The upload-session cache and building file items, against a settings store
// in a temporary folder.
class tst_UploadGlobal : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { store()->clear(); }
    void cleanup() { UploadGlobal::destroy(); }

    void initBuildsItem_data()
    {
        QTest::addColumn<QVariantMap>("extra");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("contentType"); // null: refused
        QTest::newRow("public, type from the name") << QVariantMap() << "notes.txt" << "text/plain";
        QTest::newRow("private, json") << QVariantMap{{"private", true}} << "answer.json" << "application/json";
        QTest::newRow("non-ASCII category and user") << QVariantMap{{"category", "相册"}, {"userID", "Zoë"}}
                                                     << "notes.txt" << "text/plain";
        QTest::newRow("type given") << QVariantMap{{"contentType", "application/x-vault"}} << "notes.txt"
                                    << "application/x-vault";
        QTest::newRow("type given empty stays empty") << QVariantMap{{"contentType", ""}} << "notes.txt" << "";
        QTest::newRow("refused: no file there") << QVariantMap{{"filePath", "/nonexistent/notes.txt"}} << "notes.txt"
                                                << QString();
        QTest::newRow("refused: a folder") << QVariantMap{{"filePath", QDir::tempPath()}} << "notes.txt" << QString();
        QTest::newRow("refused: empty category") << QVariantMap{{"category", ""}} << "notes.txt" << QString();
    }
    void initBuildsItem()
    {
        QFETCH(QVariantMap, extra);
        QFETCH(QString, fileName);
        QFETCH(QString, contentType);
        const QString path = makeFile(fileName, QByteArray(1234, 'n'));
        QVariantMap params = paramsFor(path);
        params.insert(extra);

        FileItem item;
        const bool built = UploadGlobal::instance()->initFileItem(item, params);
        QCOMPARE(built, !contentType.isNull());
        QCOMPARE(item.state == Upload::Initialised, built);
        if (!built)
            return;
        QCOMPARE(item.fileName, fileName);
        QCOMPARE(item.contentType, contentType);
        QVERIFY(item.preview);
        QCOMPARE(item.source, 1u);
        QCOMPARE(item.originParams, params);
        // The service's "fileMD5" and the cache's key: path, size, metadata-change
        // time (makeFile() leaves the modification time long past), category, the
        // private flag as one character, user id; a touched or resized file starts afresh.
        const QString seed = path + "1234"
                             + QFileInfo(path).fileTime(QFileDevice::FileMetadataChangeTime).toString(Qt::TextDate)
                             + params.value("category").toString() + QChar(params.value("private").toBool() ? 1 : 0)
                             + params.value("userID").toString();
        QCOMPARE(item.identifier, QString::fromLatin1(QCryptographicHash::hash(seed.toUtf8(),
                                                                               QCryptographicHash::Md5).toHex()));
    }

    void cacheSetGetRemove()
    {
        // What is stored is damaged (the key does not open it: another
        // machine's); read as empty, it costs no upload, and the next write
        // replaces it. The ways a value can be damaged are Encryption's.
        const QVariantMap theirs{{"0123456789abcdef0123456789abcdef", QVariantMap{{"category", "x"}}}};
        store()->setValue(CacheKey, Encryption(QByteArray(16, 'o')).serializeDataToFile(theirs));
        LogCapture log;
        UploadGlobal *global = UploadGlobal::instance();
        FileItem item = sessionFor("holiday-photos.zip", "session-secret");
        QCOMPARE(log.count("upload cache unreadable", QtCriticalMsg), 1);
        global->setInfo(item);
        QCOMPARE(global->getInfo(item.identifier), item.toCacheMap());
        // A second file's entry reaches the store together with the first, in one write.
        FileItem other = sessionFor("b.bin", "session-b");
        global->setInfo(other);
        const int writes = global->cacheWrites();
        QCOMPARE(global->readValue(CacheKey), QVariant(QVariantMap()));
        global->flush();
        QCOMPARE(global->cacheWrites(), writes + 1);
        QCOMPARE(global->readValue(CacheKey).toMap().size(), 2);
        // The keys an older version wrote, and reads back.
        const QVariantMap entry = global->readValue(CacheKey).toMap().value(item.identifier).toMap();
        QCOMPARE(entry.keys(),
                 QStringList({"bucket", "bytesSent", "category", "cdnURL", "contentType", "currentRequestTime",
                              "dfsID", "fileName", "filePath", "identifier", "originParams", "preview", "private",
                              "source", "totalChunks", "totalSize", "uploadInfo", "uploadedChunk", "userID"}));
        QCOMPARE(entry.value("uploadInfo").toMap().keys(),
                 QStringList({"chunkSize", "chunks", "expires", "method", "uploadID"}));
        // It holds live upload tokens: none of it is stored as plain text, ...
        const QString settingsFile = m_environment.settingsPath() + "/Marbelnix/Zephyrtide.conf";
        QFile raw(settingsFile);
        QVERIFY(raw.open(QIODevice::ReadOnly));
        const QByteArray bytes = raw.readAll();
        QVERIFY(bytes.contains("uploadInfo"));
        for (const QString &plain : {item.identifier, QStringLiteral("holiday-photos"), QStringLiteral("PhotoVault"),
                                     QStringLiteral("u-1001"), QStringLiteral("session-secret"),
                                     QStringLiteral("partNumber")})
            QVERIFY2(!bytes.contains(plain.toUtf8()), qPrintable(plain));

        // What is not yet written when the plugin unloads is written then.
        global->removeInfo(item);
        UploadGlobal::destroy();
        global = UploadGlobal::instance();
        QCOMPARE(global->readValue(CacheKey).toMap().keys(), QStringList({other.identifier}));
        // ... and no one but its owner reads it, after a rewrite too.
        QCOMPARE(QFileInfo(settingsFile).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup
                                                          | QFile::WriteOther | QFile::ExeGroup | QFile::ExeOther),
                 QFile::Permissions());

        // A second run of the file in this later process finds its entry,
        // which wins over parameters the identifier does not cover.
        QVariantMap again = paramsFor(other.filePath);
        again.insert("preview", false);
        again.insert("contentType", "application/x-other");
        FileItem second;
        QVERIFY(global->initFileItem(second, again));
        QCOMPARE(second.toCacheMap(), other.toCacheMap());

        // Entries leave the cache only when their upload ends, never by age.
        auto *timer = global->findChild<QTimer *>("cacheTimer");
        QVERIFY(timer && timer->isActive());
        const QString before = store()->value(CacheKey).toString();
        QSignalSpy fired(timer, &QTimer::timeout);
        timer->setInterval(5); // let the day pass quickly
        QVERIFY(fired.wait(5000));
        QVERIFY(!global->getInfo(other.identifier).isEmpty());
        QCOMPARE(store()->value(CacheKey).toString(), before);
    }

    void otherProcessWrites_data()
    {
        QTest::addColumn<QString>("theirs"); // their change to the stored value
        QTest::addColumn<QString>("mine");   // the entry this process then sets
        QTest::addColumn<QStringList>("stored");
        QTest::addColumn<int>("sharedVersion"); // -1: no "shared" entry
        // "shared" is in the cache when both start.
        QTest::newRow("each adds an entry: both kept") << "add" << "mine" << QStringList{"mine", "shared", "theirs"}
                                                       << 1;
        QTest::newRow("they remove one this process left alone: it stays removed")
            << "remove" << "mine" << QStringList{"mine"} << -1;
        QTest::newRow("they remove one this process updated: the update is kept")
            << "remove" << "shared" << QStringList{"shared"} << 2;
    }
    // Another process (a second host, a command-line run) writes the value while
    // this one keeps the cache in memory: a write of this one lays only its own
    // changes over what is stored then, and a refresh takes theirs in.
    void otherProcessWrites()
    {
        QFETCH(QString, theirs);
        QFETCH(QString, mine);
        QFETCH(QStringList, stored);
        QFETCH(int, sharedVersion);
        const auto entry = [](const QString &identifier, int version) {
            FileItem item;
            item.identifier = identifier;
            item.uploadedChunk = version;
            return item;
        };
        const auto versionOf = [](const QVariantMap &entry) { return entry.value("uploadedChunk", -1).toInt(); };
        UploadGlobal *global = UploadGlobal::instance();
        global->setInfo(entry("shared", 1));
        global->flush();

        QVariantMap cache = global->readValue(CacheKey).toMap();
        if (theirs == "add")
            cache.insert("theirs", entry("theirs", 1).toCacheMap());
        else
            cache.remove("shared");
        store()->setValue(CacheKey, Encryption::instance()->serializeDataToFile(cache));

        global->setInfo(entry(mine, mine == "mine" ? 1 : 2));
        global->flush();
        cache = global->readValue(CacheKey).toMap();
        QCOMPARE(cache.keys(), stored);
        QCOMPARE(versionOf(cache.value("shared").toMap()), sharedVersion);
        QCOMPARE(versionOf(global->getInfo("shared")), sharedVersion);

        // Their later change reaches this process when the next job refreshes.
        cache.insert("later", entry("later", 1).toCacheMap());
        store()->setValue(CacheKey, Encryption::instance()->serializeDataToFile(cache));
        QVERIFY(global->getInfo("later").isEmpty());
        global->refresh();
        QCOMPARE(global->getInfo("later").value("identifier").toString(), QStringLiteral("later"));
    }

    // The root object takes the upload engine with it when the host unloads
    // the plugin: none of it (its timers) may outlive the plugin's code.
    void rootTakesUploadGlobal()
    {
        auto root = std::make_unique<ZTServer>();
        QVERIFY(UploadGlobal::instance());
        root.reset();
        QCOMPARE(UploadGlobal::existingInstance(), nullptr);
    }

private:
    QString makeFile(const QString &name, const QByteArray &content = "hello, cache\n")
    {
        QFile file(m_files.filePath(name));
        const QDateTime longPast = QDateTime::fromSecsSinceEpoch(1000000000);
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.flush()
                       && file.setFileTime(longPast, QFileDevice::FileModificationTime)
                   ? file.fileName()
                   : QString();
    }
    // An item for a new file of name, with a session as the single-file
    // uploader leaves it, whose total size needs more than 32 bits.
    FileItem sessionFor(const QString &name, const QString &uploadID)
    {
        FileItem item;
        if (!UploadGlobal::instance()->initFileItem(item, paramsFor(makeFile(name))))
            qWarning("no item for %s", qPrintable(name));
        item.uploadID = uploadID;
        item.chunkSize = 4;
        item.currentRequestTime = QDateTime::currentDateTime();
        item.chunks = {QVariantMap{{"url", "http://127.0.0.1/c?partNumber=2"}, {"headers", QVariantMap{{"x-part", 2}}},
                                   {"bytesSent", 3}}};
        item.bytesSent = 7;
        item.totalSize = (qint64(1) << 36) + 5;
        return item;
    }

    TestEnvironment m_environment;
    QTemporaryDir m_files;
};

QTEST_MAIN(tst_UploadGlobal)
#include "tst_uploadglobal.moc"
