#include "randomfile.h"
#include "upload/filechunkbody.h"

#include <QtTest>
#include <QtNetwork>

// The body of one part: its bytes from the file, their digest computed once.
class tst_FileChunkBody : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Longer than the read size of 1 MiB: the digest is of every piece read.
    // Prepared (by the queue, on its worker), it is there before open(); a
    // retry's open() sends the same one, even if the file changed meanwhile.
    // An empty part (all of its bytes went before) opens too.
    void opensTheRangeWithItsDigest()
    {
        const qint64 size = 3 * 1024 * 1024 + 5;
        const QString path = m_dir.filePath("source.bin");
        QVERIFY(writeRandomFile(path, size, 3));
        const QByteArray expected = randomBytes(size, 3).mid(5);
        const QByteArray digest = QCryptographicHash::hash(expected, QCryptographicHash::Md5).toBase64();
        FileChunkBody body(path, 5, size - 5);
        QVERIFY(body.digest().isEmpty());
        body.prepare();
        QCOMPARE(body.digest(), digest);
        QNetworkRequest request;
        QScopedPointer<QIODevice> device(body.open(request));
        QVERIFY(device);
        QCOMPARE(device->readAll(), expected);
        QCOMPARE(request.rawHeader("fileMD5"), digest);
        QCOMPARE(request.header(QNetworkRequest::ContentLengthHeader).toLongLong(), size - 5);

        QVERIFY(writeRandomFile(path, size, 99));
        QNetworkRequest retry;
        device.reset(body.open(retry));
        QCOMPARE(retry.rawHeader("fileMD5"), digest);
        FileChunkBody empty(path, 100, 0);
        device.reset(empty.open(retry));
        QVERIFY(device);
        QCOMPARE(retry.rawHeader("fileMD5"), QByteArray("1B2M2Y8AsgTpgAmY7PhCfg==")); // the MD5 of nothing
    }

private:
    QTemporaryDir m_dir;
};

QTEST_MAIN(tst_FileChunkBody)
#include "tst_filechunkbody.moc"
