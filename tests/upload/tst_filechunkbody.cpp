#include "randomfile.h"
#include "upload/filechunkbody.h"

#include <QtTest>
#include <QtNetwork>

// The body of one part: its bytes from the file, their digest computed once.
class tst_FileChunkBody : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { QVERIFY(writeRandomFile(m_path, FileSize, 3)); }

    void opensTheRangeWithItsDigest_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        // Longer than the read size of 1 MiB: the digest is of every piece read.
        QTest::newRow("a part spanning reads, to the end") << qint64(5) << FileSize - 5;
        QTest::newRow("empty part") << qint64(100) << qint64(0);
    }
    void opensTheRangeWithItsDigest()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        const QByteArray expected = randomBytes(FileSize, 3).mid(offset, length);
        FileChunkBody body(m_path, offset, length);
        QNetworkRequest request;
        QScopedPointer<QIODevice> device(body.open(request));
        QVERIFY(device);
        QCOMPARE(device->readAll(), expected);
        const QByteArray digest = QCryptographicHash::hash(expected, QCryptographicHash::Md5).toBase64();
        QCOMPARE(request.rawHeader("fileMD5"), digest);
        QCOMPARE(request.header(QNetworkRequest::ContentLengthHeader).toLongLong(), length);
        QCOMPARE(body.digest(), digest);
    }

    // Prepared on the queue's worker, the digest is there before open(); a
    // retry's open() sends the same one, even if the file changed meanwhile.
    void digestComputedOnce()
    {
        FileChunkBody body(m_path, 0, 1000);
        QVERIFY(body.digest().isEmpty());
        QScopedPointer<QThread> worker(QThread::create([&body] { body.prepare(); }));
        worker->start();
        QVERIFY(worker->wait(10000));
        const QByteArray digest = body.digest();
        QVERIFY(!digest.isEmpty());
        QVERIFY(writeRandomFile(m_path, 2000, 99));
        QNetworkRequest request;
        QScopedPointer<QIODevice> device(body.open(request));
        QVERIFY(device);
        QCOMPARE(request.rawHeader("fileMD5"), digest);
    }

private:
    static constexpr qint64 FileSize = 3 * 1024 * 1024 + 5;
    QTemporaryDir m_dir;
    const QString m_path = m_dir.filePath("source.bin");
};

QTEST_MAIN(tst_FileChunkBody)
#include "tst_filechunkbody.moc"
