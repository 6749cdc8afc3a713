#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "randomfile.h"
#include "core/zterrorcode.h"
#include "plugin/ztserver.h"
#include "testenvironment.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using Error = Zephyrtide::Error;
constexpr qint64 C = 1024 * 1024; // the host's chunk size

// Downloads through the plugin, as a host drives them, from the reference file
// service on loopback: every file must arrive byte-identical.
class tst_DownloadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_temporary.reset(new QTemporaryDir);
        m_store.reset(new QTemporaryDir);
        m_target.reset(new QTemporaryDir);
        m_service.reset(new FileServiceProcess(m_store->path()));
        QVERIFY(m_service->start());
        m_host.reset(new Zephyrtide::Manager);
        m_host->setConfigData({{"startDownload", QVariantMap{{"chunkSize", 1}, {"temporaryStoragePath", m_temporary->path()}}}});
        m_root.reset(new ZTServer);
        QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager", Q_ARG(Zephyrtide::Manager *, m_host.data())));
        QVERIFY(HostCall(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}}).succeeded());
    }

    void cleanup()
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        m_root.reset();
        m_host.reset();
        m_service.reset();
    }

    // Sizes about the chunk size, and one content for two folders (one transfer,
    // copied), in one batch; the same batch again brings each file under a free name.
    void sizesAroundTheChunkSizeTwice()
    {
        QMap<QString, QByteArray> digests;
        QStringList names;
        for (qint64 size : {qint64(0), qint64(1), C - 1, C, C + 1, 2 * C, 2 * C + 1, 5 * C + 12345}) {
            names << QStringLiteral("f%1.bin").arg(size);
            digests.insert(names.last(), storeFile(names.last(), size));
        }
        digests.insert("same.bin", storeFile("same.bin", 3 * C + 5));
        names << "a/same.bin" << "b/same.bin";
        for (const QString &suffix : {QString(), QStringLiteral("(1)")}) {
            const auto call = download(batch(names, "in/"));
            QCOMPARE(call->error(), Error::NoError);
            const QVariantList results = call->result().value("result").toList();
            QCOMPARE(results.size(), names.size() - 1); // the kept task of same.bin, once per further destination
            for (const QVariant &entry : results) {
                const QVariantMap map = entry.toMap();
                QCOMPARE(map.keys(), QStringList({"fileSize", "filename", "path", "url"}));
                QVERIFY2(map.value("filename").toString().contains(suffix), qPrintable(map.value("filename").toString()));
                QCOMPARE(map.value("url").toString(), m_service->baseUrl() + "/download");
            }
            for (const QString &name : names) {
                const QString path = m_target->filePath("in/" + name).replace(".bin", suffix + ".bin");
                QCOMPARE(sha256OfFile(path), digests.value(name.section('/', -1)));
            }
            QCOMPARE(chunkFolders(), 0); // merged and cleared
            QVERIFY(call->keepAlives > 0);
            QVERIFY(!call->progress.isEmpty() && call->progress.last().second > 0);
            QCOMPARE(call->progress.last().first, call->progress.last().second);
        }
    }

    // Small files end before the service is killed (from the host's progress
    // handler, at the first report after they are whole), the large one is cut:
    // the batch fails, the finished files stay whole, and the next run (at the
    // service's new address) brings every file identical.
    void serviceGoneMidBatch()
    {
        const QMap<QString, QByteArray> digests{{"gone-mid.bin", storeFile("gone-mid.bin", 16 * C)},
                                                {"gone-small.bin", storeFile("gone-small.bin", 2 * C + 5)},
                                                {"gone-byte.bin", storeFile("gone-byte.bin", 1)}};
        const auto whole = [&](const QString &name) { return sha256OfFile(m_target->filePath(name)) == digests.value(name); };
        bool killed = false;
        const auto cut = download(batch(digests.keys()), [&](Zephyrtide::Reply *reply) {
            connect(reply, &Zephyrtide::Reply::downloadProgress, reply, [&] {
                if (!killed && whole("gone-small.bin") && whole("gone-byte.bin")) {
                    killed = true;
                    m_service->kill();
                }
            });
        });
        QVERIFY(killed);
        QCOMPARE(cut->finishedCount(), 1);
        QVERIFY2(cut->errorCode() > 0, qPrintable(QString::number(cut->errorCode())));
        QCOMPARE(chunkFolders(), 1); // what came stays
        QVERIFY(whole("gone-small.bin") && whole("gone-byte.bin"));

        m_service.reset(new FileServiceProcess(m_store->path())); // the same files, at another address
        QVERIFY(m_service->start());
        QVERIFY(HostCall(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}}).succeeded());
        const auto call = download(batch(digests.keys()));
        QCOMPARE(call->error(), Error::NoError);
        QCOMPARE(call->result().value("result").toList().size(), digests.size());
        for (const QVariant &entry : call->result().value("result").toList()) {
            const QString path = entry.toMap().value("path").toString();
            const QString requested = entry.toMap().value("filename").toString().remove(QStringLiteral("(1)"));
            QVERIFY2(sha256OfFile(path) == digests.value(requested), qPrintable(path));
        }
        QCOMPARE(chunkFolders(), 0);
    }

    // The probe takes a 404's error page for the file; its chunks then fail.
    void unknownFile() { QCOMPARE(download(batch({"nope.bin"}))->error(), Error::GeneralFailure); }

    // What a stopped download holds, as the host asks for it by address.
    void isExist()
    {
        storeFile("probe.bin", 8 * C);
        const QString query = "/download?fileName=probe.bin";
        QCOMPARE(isExist(query).value("bytesReceived").toLongLong(), 0);
        QCOMPARE(isExist(query).value("bytesTotal").toLongLong(), 8 * C);
        const auto stopped = download(batch({"probe.bin"}), [](Zephyrtide::Reply *reply) {
            connect(reply, &Zephyrtide::Reply::downloadProgress, reply, [reply](qint64 done) {
                if (done > 0)
                    Q_EMIT reply->stop(); // eight chunks: the first report is not the last
            });
        });
        QCOMPARE(stopped->error(), Error::Stopped);
        qint64 onDisk = 0;
        for (const QFileInfo &folder : QDir(m_temporary->path()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QFileInfo &chunk : QDir(folder.filePath()).entryInfoList(QDir::Files))
                onDisk += chunk.size();
        }
        QVERIFY(onDisk > 0);
        QCOMPARE(isExist(query).value("bytesReceived").toLongLong(), onDisk);
        QCOMPARE(download(batch({"probe.bin"}))->error(), Error::NoError); // merged, and its chunks gone
        QCOMPARE(isExist(query).value("bytesReceived").toLongLong(), 0);
        QCOMPARE(ZTErrorCode(isExist(QString()).value("errorCode").toInt()), Error::MissingParameter);
        // A 403 to the probe: nothing to restore, the fresh task's values.
        QCOMPARE(isExist("/download?fileName=..%2Fx").value("bytesTotal").toLongLong(), -1);
    }

private:
    QByteArray storeFile(const QString &name, qint64 size) // its SHA-256
    {
        return writeRandomFile(m_store->filePath(name), size, quint32(size) + 17) ? sha256OfFile(m_store->filePath(name)) : "";
    }

    QVariantMap batch(const QStringList &names, const QString &folder = QString()) const
    {
        QVariantList files;
        for (const QString &name : names) // "folder/name", or the name into the target folder
            files << QVariantMap{{"filename", name.section('/', -1)}, {"path", m_target->filePath(folder + name)}};
        return {{"files", files}};
    }

    // The call, once finished or after a bound.
    std::unique_ptr<HostCall> download(const QVariantMap &params, const std::function<void(Zephyrtide::Reply *)> &beforeCall = {})
    {
        std::unique_ptr<HostCall> call(new HostCall(m_root.data(), "zt_apply_startDownload", params, beforeCall));
        call->wait(60000);
        return call;
    }

    QVariantMap isExist(const QString &query)
    {
        QObject *command = nullptr;
        for (QObject *child : m_root->children())
            command = QByteArray(child->metaObject()->className()) == "StartDownload" ? child : command;
        HostCall call(command, "zt_apply_isExist", {{"url", query.isEmpty() ? query : m_service->baseUrl() + query}});
        return call.succeeded() ? call.result().value("result").toMap() : QVariantMap{{"errorCode", call.errorCode()}};
    }

    int chunkFolders() const { return QDir(m_temporary->path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(); }

    TestEnvironment m_environment;
    QScopedPointer<QTemporaryDir> m_temporary, m_store, m_target;
    QScopedPointer<FileServiceProcess> m_service;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
};

QTEST_MAIN(tst_DownloadEndToEnd)
#include "tst_downloadendtoend.moc"
