#include "downloadfixture.h"
#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "randomfile.h"
#include "core/globalmanager.h"

#include <zephyrtide/reply.h>

#include <QtTest>

#include <memory>

using Error = Zephyrtide::Error;
constexpr qint64 C = 1024 * 1024; // the host's chunk size

// Downloads through the plugin, as a host drives them, from the reference file
// service on loopback: every file must arrive byte-identical.
class tst_DownloadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { GlobalManager::instance(); }
    void init()
    {
        m_store.reset(new QTemporaryDir);
        m_service.reset(new FileServiceProcess(m_store->path()));
        QVERIFY(m_service->start());
        QVERIFY(f.setUp(m_service->baseUrl()));
    }
    void cleanup()
    {
        f.tearDown();
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
            const auto call = download(f.batch(names, f.target->filePath("in")));
            QCOMPARE(call->error(), Error::NoError);
            const QVariantList results = call->result().value("result").toList();
            QCOMPARE(results.size(), names.size() - 1); // the kept task of same.bin, once per further destination
            for (const QVariant &entry : results) {
                const QString name = entry.toMap().value("filename").toString();
                QVERIFY2(name.contains(suffix), qPrintable(name));
            }
            for (const QString &name : names) {
                const QString path = f.target->filePath("in/" + name).replace(".bin", suffix + ".bin");
                QCOMPARE(sha256OfFile(path), digests.value(name.section('/', -1)));
            }
            QCOMPARE(chunkFolders(), 0); // merged and cleared
            QVERIFY(call->keepAlives > 0);
            QVERIFY(!call->progress.isEmpty() && call->progress.last().second > 0);
            QCOMPARE(call->progress.last().first, call->progress.last().second);
        }
    }

    // Small files end before the service is killed (from the host's progress
    // handler, once they are whole and the large one has bytes on disk), the
    // large one is cut: the batch fails, the finished files stay whole, and the
    // next run (at the service's new address) brings every file identical.
    void serviceGoneMidBatch()
    {
        const QMap<QString, QByteArray> digests{{"gone-mid.bin", storeFile("gone-mid.bin", 16 * C)},
                                                {"gone-small.bin", storeFile("gone-small.bin", 2 * C + 5)},
                                                {"gone-byte.bin", storeFile("gone-byte.bin", 1)}};
        const auto whole = [&](const QString &name) { return sha256OfFile(f.target->filePath(name)) == digests.value(name); };
        bool killed = false;
        const auto cut = download(f.batch(digests.keys(), f.target->path()), [&](Zephyrtide::Reply *reply) {
            connect(reply, &Zephyrtide::Reply::downloadProgress, reply, [&] {
                if (!killed && whole("gone-small.bin") && whole("gone-byte.bin") && heldBytes() > 0) {
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
        QVERIFY(HostCall(f.root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}}).succeeded());
        const auto call = download(f.batch(digests.keys(), f.target->path()));
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
    void unknownFile()
    {
        QCOMPARE(download(f.batch({"nope.bin"}, f.target->path()))->error(), Error::GeneralFailure);
    }

private:
    QByteArray storeFile(const QString &name, qint64 size) // its SHA-256
    {
        return writeRandomFile(m_store->filePath(name), size, quint32(size) + 17) ? sha256OfFile(m_store->filePath(name)) : "";
    }

    // The call, once finished or after a bound.
    std::unique_ptr<HostCall> download(const QVariantMap &params, const std::function<void(Zephyrtide::Reply *)> &beforeCall = {})
    {
        std::unique_ptr<HostCall> call(new HostCall(f.root.data(), "zt_apply_startDownload", params, beforeCall));
        call->wait(60000);
        return call;
    }

    QFileInfoList chunkFolderList() const { return QDir(f.temporary->path()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot); }
    int chunkFolders() const { return chunkFolderList().size(); }
    qint64 heldBytes() const
    {
        qint64 sum = 0;
        for (const QFileInfo &folder : chunkFolderList())
            sum += f.bytesIn(folder.filePath());
        return sum;
    }

    DownloadFixture f; // its scripted server unused
    QScopedPointer<QTemporaryDir> m_store; // the service's files
    QScopedPointer<FileServiceProcess> m_service;
};

QTEST_MAIN(tst_DownloadEndToEnd)
#include "tst_downloadendtoend.moc"
