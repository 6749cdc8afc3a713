#include "download/downloadglobal.h"
#include "download/downloadtask.h"
#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QTest>

// The probe against a scripted server: the size, the file's name and the
// content folder's tag (without a server tag, the address and the name tell
// apart files of one size), and the free names a task takes beside the user's.
class tst_DownloadTask : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        GlobalManager::instance();
        DownloadGlobal::instance()->setTemporaryStoragePath(m_dir.filePath("temporary"));
    }

    void probeHeaders_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArrayList>("headers");
        QTest::addColumn<QString>("name"); // asked for
        QTest::addColumn<qint64>("size"); // -1: the probe fails
        QTest::addColumn<bool>("ranges");
        QTest::addColumn<QString>("serverTag"); // before normalisation; empty: from the URL
        QTest::addColumn<QString>("fileName"); // empty: the probe fails
        const QByteArray length = "Content-Length: 2", of3 = "Content-Range: bytes 0-1/3", of9 = "Content-Range: bytes 0-1/9";
        const QByteArray of1000 = "Content-Range: bytes 0-1/1000", t1 = "ETag: \"t1\"";
        const QString a = "a.bin";
        const qint64 none = -1;
        QTest::newRow("range then length") << 206 << QByteArrayList{of1000, length, t1} << a << qint64(1000) << true << "t1" << a;
        QTest::newRow("length then range") << 206 << QByteArrayList{length, of1000, t1} << a << qint64(1000) << true << "t1" << a;
        QTest::newRow("200: no ranges, full length") << 200 << QByteArrayList{"Content-Length: 5", "ETag: \"t2\""} << a << qint64(5) << false << "t2" << a;
        QTest::newRow("total only: */5") << 206 << QByteArrayList{"Content-Range: bytes */5", "Content-Length: 0"} << a << qint64(5) << true << "" << a;
        QTest::newRow("lower-case etag honoured") << 206 << QByteArrayList{of9, length, "etag: \"low\""} << a << qint64(9) << true << "low" << a;
        QTest::newRow("weak etag loses quotes and slash") << 206 << QByteArrayList{of9, length, "ETag: W/\"x\""} << a << qint64(9) << true << "Wx" << a;
        QTest::newRow("lower-case content-length ignored: no size") << 200 << QByteArrayList{"content-length: 2"} << a << none << false << "" << a;
        QTest::newRow("403") << 403 << QByteArrayList{"Content-Length: 0"} << a << none << false << "" << a;
        QTest::newRow("name from Content-Disposition, percent-encoded UTF-8")
            << 206 << QByteArrayList{of3, length, "Content-Disposition: attachment; filename=Gr%C3%BC%C3%9Fe.txt"} << ""
            << qint64(3) << true << "" << QStringLiteral("Grüße.txt");
        // A server's name that would put the file outside the host's folder is no name at all.
        for (const char *name : {"..%2F..%2Fevil.sh", "..%5Cevil.sh", "..", "a%00b"})
            QTest::addRow("name from Content-Disposition refused: %s", name)
                << 206 << QByteArrayList{of3, length, "Content-Disposition: attachment; filename=" + QByteArray(name)} << ""
                << qint64(3) << true << "" << "";
        QTest::newRow("no name anywhere") << 206 << QByteArrayList{of3, length} << "" << qint64(3) << true << "" << "";
    }
    void probeHeaders()
    {
        QFETCH(int, status);
        QFETCH(QByteArrayList, headers);
        QFETCH(QString, name);
        QFETCH(qint64, size);
        QFETCH(bool, ranges);
        QFETCH(QString, serverTag);
        QFETCH(QString, fileName);
        ScriptedServer server;
        QVERIFY(server.start());
        server.setHandler([&](const ScriptedRequest &) {
            ScriptedResponse response;
            response.status = status;
            for (const QByteArray &line : headers) {
                const int colon = line.indexOf(':');
                response.header(line.left(colon), line.mid(colon + 2));
                if (line.toLower().startsWith("content-length"))
                    response.body = QByteArray(line.mid(colon + 2).toInt(), 'x');
            }
            return response;
        });
        const QString folder = m_dir.filePath(QString::number(qHash(QTest::currentDataTag())));
        DownloadTask task;
        const bool ok = size >= 0 && !fileName.isEmpty();
        QCOMPARE(task.isValid(folder + "/" + name, server.baseUrl() + "/files/x", name) == Zephyrtide::Error::NoError, ok);
        QCOMPARE(task.fileSize, size);
        QCOMPARE(task.rangeSupported, ranges);
        QCOMPARE(task.fileName, fileName);
        QCOMPARE(server.requests().first().method, QByteArray("POST"));
        QCOMPARE(server.requests().first().header("Range"), QByteArray("bytes=0-1"));
        if (!ok)
            return;
        const QString identity = serverTag.isEmpty() ? "files%x/" + fileName : serverTag;
        const QString tag = QCryptographicHash::hash((QString::number(size) + identity).toUtf8(), QCryptographicHash::Md5).toHex();
        QCOMPARE(task.etag, tag);
        QCOMPARE(task.tempDir, DownloadGlobal::instance()->temporaryStoragePath() + "/" + tag);
        QCOMPARE(task.filePath, folder + "/" + fileName);
    }

    void collisionNames_data()
    {
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QString>("asked");
        QTest::addColumn<QString>("given");
        QTest::newRow("free name kept") << QStringList{} << "a.txt" << "a.txt";
        QTest::newRow("a.txt and a(1).txt taken: a(2).txt") << QStringList{"a.txt", "a(1).txt"} << "a.txt" << "a(2).txt";
        QTest::newRow("no dot: trailing dot kept") << QStringList{"report"} << "report" << "report(1).";
        QTest::newRow("double suffix") << QStringList{"a.tar.gz"} << "a.tar.gz" << "a(1).tar.gz";
    }
    void collisionNames()
    {
        QFETCH(QStringList, present);
        QFETCH(QString, asked);
        QFETCH(QString, given);
        QTemporaryDir folder;
        for (const QString &name : present) {
            QFile file(folder.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("taken") == 5);
        }
        DownloadTask task;
        task.m_path = folder.path();
        task.fileName = asked;
        task.filePath = folder.filePath(asked);
        QCOMPARE(task.checkFileIsExist(task.filePath), folder.filePath(given));
        QCOMPARE(task.fileName, given);
        QCOMPARE(task.filePath, folder.filePath(given));
        // A new name is reserved at once by an empty file; a free one is left alone.
        QCOMPARE(QFileInfo(folder.filePath(given)).exists(), !present.isEmpty());
        QCOMPARE(QFileInfo(folder.filePath(given)).size(), 0);
    }

private:
    TestEnvironment m_environment;
    QTemporaryDir m_dir;
};

QTEST_MAIN(tst_DownloadTask)
#include "tst_downloadtask.moc"
