#include "download/downloadglobal.h"
#include "download/downloadtask.h"
#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QtTest>

// The probe against a scripted server: the size, the file's name and the
// content folder's tag (without a server tag, the address and the name tell
// apart files of one size, by the name asked for), and the free names a task
// takes beside the user's.
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
        QTest::addColumn<QStringList>("present"); // the user's files in the folder already
        const QByteArray length = "Content-Length: 2", of3 = "Content-Range: bytes 0-1/3", of9 = "Content-Range: bytes 0-1/9";
        const QByteArray of1000 = "Content-Range: bytes 0-1/1000", t1 = "ETag: \"t1\"";
        const QString a = "a.bin";
        const qint64 none = -1;
        const QStringList mine; // none of the user's files in the way
        QTest::newRow("range then length") << 206 << QByteArrayList{of1000, length, t1} << a << qint64(1000) << true << "t1" << a << mine;
        QTest::newRow("length then range") << 206 << QByteArrayList{length, of1000, t1} << a << qint64(1000) << true << "t1" << a << mine;
        QTest::newRow("200: no ranges, full length") << 200 << QByteArrayList{"Content-Length: 5", "ETag: \"t2\""} << a
            << qint64(5) << false << "t2" << a << mine;
        QTest::newRow("total only: */5") << 206 << QByteArrayList{"Content-Range: bytes */5", "Content-Length: 0"} << a
            << qint64(5) << true << "" << a << mine;
        QTest::newRow("lower-case etag honoured") << 206 << QByteArrayList{of9, length, "etag: \"low\""} << a
            << qint64(9) << true << "low" << a << mine;
        QTest::newRow("weak etag loses quotes and slash") << 206 << QByteArrayList{of9, length, "ETag: W/\"x\""} << a
            << qint64(9) << true << "Wx" << a << mine;
        QTest::newRow("lower-case content-length ignored: no size") << 200 << QByteArrayList{"content-length: 2"} << a
            << none << false << "" << a << mine;
        QTest::newRow("403") << 403 << QByteArrayList{"Content-Length: 0"} << a << none << false << "" << a << mine;
        QTest::newRow("name from Content-Disposition, percent-encoded UTF-8")
            << 206 << QByteArrayList{of3, length, "Content-Disposition: attachment; filename=Gr%C3%BC%C3%9Fe.txt"} << ""
            << qint64(3) << true << "" << QStringLiteral("Grüße.txt") << mine;
        // A server's name that would put the file outside the host's folder is no name at all.
        for (const char *name : {"..%2F..%2Fevil.sh", "..%5Cevil.sh", "..", "a%00b"})
            QTest::addRow("name from Content-Disposition refused: %s", name)
                << 206 << QByteArrayList{of3, length, "Content-Disposition: attachment; filename=" + QByteArray(name)} << ""
                << qint64(3) << true << "" << "" << mine;
        QTest::newRow("no name anywhere") << 206 << QByteArrayList{of3, length} << "" << qint64(3) << true << "" << "" << mine;
        // Beside the user's files: the free name the task takes, what its folder tag is made of.
        QTest::newRow("a.txt and a(1).txt taken: a(2).txt") << 206 << QByteArrayList{of9, length, t1} << "a.txt" << qint64(9) << true
                                                            << "t1" << "a(2).txt" << QStringList{"a.txt", "a(1).txt"};
        QTest::newRow("no dot: trailing dot kept") << 206 << QByteArrayList{of9, length} << "report" << qint64(9) << true << ""
                                                   << "report(1)." << QStringList{"report"};
        QTest::newRow("double suffix") << 206 << QByteArrayList{of9, length, t1} << "a.tar.gz" << qint64(9) << true << "t1"
                                       << "a(1).tar.gz" << QStringList{"a.tar.gz"};
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
        QFETCH(QStringList, present);
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
        QVERIFY(QDir().mkpath(folder));
        for (const QString &taken : present)
            QVERIFY(QFile(folder + "/" + taken).open(QIODevice::WriteOnly));
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
        // Without a server tag: the address and the name asked for, not the free name given.
        const QString identity = serverTag.isEmpty() ? "files%x/" + (name.isEmpty() ? fileName : name) : serverTag;
        const QString tag = QCryptographicHash::hash((QString::number(size) + identity).toUtf8(), QCryptographicHash::Md5).toHex();
        QCOMPARE(task.etag, tag);
        QCOMPARE(task.tempDir, DownloadGlobal::instance()->temporaryStoragePath() + "/" + tag);
        QCOMPARE(task.filePath, folder + "/" + fileName);
        // A new name is reserved at once by an empty file; a free one is left alone.
        QCOMPARE(QFileInfo(task.filePath).exists(), !present.isEmpty());
        QCOMPARE(QFileInfo(task.filePath).size(), 0);
    }

private:
    TestEnvironment m_environment;
    QTemporaryDir m_dir;
};

QTEST_MAIN(tst_DownloadTask)
#include "tst_downloadtask.moc"
