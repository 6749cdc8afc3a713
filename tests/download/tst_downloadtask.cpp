#include "download/downloadglobal.h"
#include "download/downloadtask.h"
#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QtTest>

using Error = Zephyrtide::Error;

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
        QTest::addColumn<QString>("serverTag"); // before normalisation; empty: from the URL
        QTest::addColumn<QString>("fileName"); // empty: the probe fails
        QTest::addColumn<QStringList>("present"); // the user's files in the folder already
        const auto row = [](const char *tag, int status, const QByteArrayList &lines, const QString &name, qint64 size,
                            const QString &serverTag, const QString &fileName, const QStringList &present = {}) {
            QTest::newRow(tag) << status << lines << name << size << serverTag << fileName << present;
        };
        const QByteArray length = "Content-Length: 2", t1 = "ETag: \"t1\"", of3 = "Content-Range: bytes 0-1/3";
        const QByteArray of9 = "Content-Range: bytes 0-1/9", of1000 = "Content-Range: bytes 0-1/1000";
        const QByteArray named = "Content-Disposition: attachment; filename=";
        row("range then length", 206, {of1000, length, t1}, "a.bin", 1000, "t1", "a.bin");
        row("length then range", 206, {length, of1000, t1}, "a.bin", 1000, "t1", "a.bin");
        row("200: full length", 200, {"Content-Length: 5", "ETag: \"t2\""}, "a.bin", 5, "t2", "a.bin");
        row("total only: */5", 206, {"Content-Range: bytes */5", "Content-Length: 0"}, "a.bin", 5, "", "a.bin");
        row("lower-case etag honoured", 206, {of9, length, "etag: \"low\""}, "a.bin", 9, "low", "a.bin");
        row("weak etag loses quotes and slash", 206, {of9, length, "ETag: W/\"x\""}, "a.bin", 9, "Wx", "a.bin");
        row("403", 403, {"Content-Length: 0"}, "a.bin", -1, "", "a.bin");
        row("name from Content-Disposition, percent-encoded UTF-8", 206, {of3, length, named + "Gr%C3%BC%C3%9Fe.txt"},
            "", 3, "", QStringLiteral("Grüße.txt"));
        // A server's name that would put the file outside the host's folder is no name at all.
        for (const char *name : {"..%2F..%2Fevil.sh", "..%5Cevil.sh", "..", "a%00b"})
            row(qPrintable(QStringLiteral("name refused: %1").arg(name)), 206, {of3, length, named + name}, "", 3, "",
                "");
        row("no name anywhere", 206, {of3, length}, "", 3, "", "");
        // Beside the user's files: the free name the task takes, what its folder tag is made of.
        row("a.txt and a(1).txt taken: a(2).txt", 206, {of9, length, t1}, "a.txt", 9, "t1", "a(2).txt",
            {"a.txt", "a(1).txt"});
        row("no dot: trailing dot kept", 206, {of9, length}, "report", 9, "", "report(1).", {"report"});
        row("double suffix", 206, {of9, length, t1}, "a.tar.gz", 9, "t1", "a(1).tar.gz", {"a.tar.gz"});
    }
    void probeHeaders()
    {
        QFETCH(int, status);
        QFETCH(QByteArrayList, headers);
        QFETCH(QString, name);
        QFETCH(qint64, size);
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
                if (line.startsWith("Content-Length"))
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
        const ZTErrorCode code = task.isValid(folder + "/" + name, server.baseUrl() + "/files/x", name);
        QCOMPARE(code, ok ? Error::NoError : Error::ParseError);
        QCOMPARE(task.fileSize, size);
        QCOMPARE(task.fileName, fileName);
        QCOMPARE(server.requests().first().method, QByteArray("POST"));
        QCOMPARE(server.requests().first().header("Range"), QByteArray("bytes=0-1"));
        if (!ok)
            return;
        // Without a server tag: the address and the name asked for, not the free name given.
        const QString identity = serverTag.isEmpty() ? "files%x/" + (name.isEmpty() ? fileName : name) : serverTag;
        const QString tag = QCryptographicHash::hash((QString::number(size) + identity).toUtf8(),
                                                     QCryptographicHash::Md5).toHex();
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
