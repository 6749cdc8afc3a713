#include "randomfile.h"
#include "upload/filechunkbody.h"

#include <QCryptographicHash>
#include <QNetworkRequest>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

// The body of one part: its bytes from the file, their digest computed once.
class tst_FileChunkBody : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void opensTheRangeWithItsDigest_data();
    void opensTheRangeWithItsDigest();
    void digestComputedOnce();
    void unreadableRange_data();
    void unreadableRange();

private:
    QTemporaryDir m_dir;
    QString m_path;
};

void tst_FileChunkBody::init()
{
    m_path = m_dir.filePath("source.bin");
    QVERIFY(writeRandomFile(m_path, 3 * 1024 * 1024 + 5, 3));
}

void tst_FileChunkBody::opensTheRangeWithItsDigest_data()
{
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<qint64>("length");
    QTest::newRow("first part") << qint64(0) << qint64(1000);
    // Longer than the read size of 1 MiB: the digest is of every piece read.
    QTest::newRow("a part spanning reads, to the end") << qint64(5) << qint64(3 * 1024 * 1024);
    QTest::newRow("empty part") << qint64(100) << qint64(0);
}

void tst_FileChunkBody::opensTheRangeWithItsDigest()
{
    QFETCH(qint64, offset);
    QFETCH(qint64, length);
    const QByteArray expected = randomBytes(3 * 1024 * 1024 + 5, 3).mid(offset, length);
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
void tst_FileChunkBody::digestComputedOnce()
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

void tst_FileChunkBody::unreadableRange_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<qint64>("offset");
    QTest::newRow("no such file") << "gone.bin" << qint64(0);
    QTest::newRow("range past the end") << "source.bin" << qint64(3 * 1024 * 1024);
}

void tst_FileChunkBody::unreadableRange()
{
    QFETCH(QString, name);
    QFETCH(qint64, offset);
    FileChunkBody body(m_dir.filePath(name), offset, 10);
    QNetworkRequest request;
    QCOMPARE(body.open(request), nullptr);
    QVERIFY(body.digest().isEmpty());
    QVERIFY(request.rawHeader("fileMD5").isEmpty());
}

QTEST_MAIN(tst_FileChunkBody)
#include "tst_filechunkbody.moc"
