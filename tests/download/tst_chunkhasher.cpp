#include "download/chunkhasher.h"

#include <QCryptographicHash>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

// The digest of a file taken from its chunk files' shares, on a pooled thread.
class tst_ChunkHasher : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void digestOfShares_data();
    void digestOfShares();
};

void tst_ChunkHasher::digestOfShares_data()
{
    QTest::addColumn<QList<int>>("files");  // bytes in each chunk file
    QTest::addColumn<QList<int>>("shares"); // of each, the bytes that are the content's
    QTest::addColumn<int>("hashed");        // shares reported; all: a digest, else none
    const int MiB = 1024 * 1024;
    QTest::newRow("three files, overlap bytes left out") << QList<int>{MiB + 1, MiB + 1, 77} << QList<int>{MiB, MiB, 77} << 3;
    QTest::newRow("a share larger than a read block") << QList<int>{3 * MiB + 5} << QList<int>{3 * MiB + 5} << 1;
    QTest::newRow("an empty share") << QList<int>{0, 10} << QList<int>{0, 10} << 2;
    QTest::newRow("none") << QList<int>{} << QList<int>{} << 0;
    QTest::newRow("second file short of its share: no digest") << QList<int>{10, 9, 10} << QList<int>{10, 10, 10} << 1;
    QTest::newRow("first file missing: no digest") << QList<int>{-1, 10} << QList<int>{10, 10} << 0;
}

void tst_ChunkHasher::digestOfShares()
{
    QFETCH(QList<int>, files);
    QFETCH(QList<int>, shares);
    QFETCH(int, hashed);
    QTemporaryDir folder;
    ChunkHasher hasher;
    QSignalSpy reports(&hasher, &ChunkHasher::hashed);
    QSignalSpy finished(&hasher, &ChunkHasher::finished);
    QCryptographicHash expected(QCryptographicHash::Sha256);
    for (int i = 0; i < files.size(); ++i) {
        QByteArray bytes(qMax(files.at(i), 0), Qt::Uninitialized);
        for (int b = 0; b < bytes.size(); ++b)
            bytes[b] = char((b * 7 + i) ^ (b >> 9));
        QFile file(folder.filePath(QString::number(i + 1)));
        QVERIFY(files.at(i) < 0 || (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()));
        file.close();
        expected.addData(bytes.left(shares.at(i)));
        hasher.add(file.fileName(), shares.at(i));
    }
    hasher.close();
    QVERIFY(finished.wait(10000));
    QCOMPARE(finished.first().first().toByteArray(), hashed == files.size() ? expected.result() : QByteArray());
    QList<int> counts;
    for (const QList<QVariant> &report : qAsConst(reports))
        counts << report.first().toInt();
    QCOMPARE(counts.size(), hashed); // every share hashed is reported, in order, before the digest
    for (int i = 0; i < counts.size(); ++i)
        QCOMPARE(counts.at(i), i + 1);
}

QTEST_GUILESS_MAIN(tst_ChunkHasher)
#include "tst_chunkhasher.moc"
