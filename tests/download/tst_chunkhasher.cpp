#include "download/chunkhasher.h"
#include "randomfile.h"

#include <QtTest>

namespace {
constexpr qint64 MiB = 1024 * 1024;
}

// The digest of a file taken from its chunk files' shares, on a pooled thread.
class tst_ChunkHasher : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { m_folder.reset(new QTemporaryDir); }

    void digestOfShares_data()
    {
        QTest::addColumn<QList<int>>("files");  // bytes in each chunk file; -1: none
        QTest::addColumn<QList<int>>("shares"); // of each, the bytes that are the content's
        QTest::addColumn<int>("hashed");        // shares reported; all: a digest, else none
        const int MiB = int(::MiB);
        QTest::newRow("three files, overlap bytes left out") << QList<int>{MiB + 1, MiB + 1, 77} << QList<int>{MiB, MiB, 77} << 3;
        QTest::newRow("an empty share") << QList<int>{0, 10} << QList<int>{0, 10} << 2;
        QTest::newRow("none") << QList<int>{} << QList<int>{} << 0;
        QTest::newRow("second file short of its share: no digest") << QList<int>{10, 9, 10} << QList<int>{10, 10, 10} << 1;
        QTest::newRow("first file missing: no digest") << QList<int>{-1, 10} << QList<int>{10, 10} << 0;
    }
    void digestOfShares()
    {
        QFETCH(QList<int>, files);
        QFETCH(QList<int>, shares);
        QFETCH(int, hashed);
        ChunkHasher hasher;
        QSignalSpy reports(&hasher, &ChunkHasher::hashed);
        QSignalSpy finished(&hasher, &ChunkHasher::finished);
        QCryptographicHash expected(QCryptographicHash::Sha256);
        for (int i = 0; i < files.size(); ++i) {
            const QString path = m_folder->filePath(QString::number(i + 1));
            QVERIFY(files.at(i) < 0 || writeRandomFile(path, files.at(i), quint32(i)));
            expected.addData(randomBytes(qMax(files.at(i), 0), quint32(i)).left(shares.at(i)));
            hasher.add(path, shares.at(i));
        }
        hasher.close();
        QVERIFY(finished.wait(10000));
        QCOMPARE(finished.first().first().toByteArray(), hashed == files.size() ? expected.result() : QByteArray());
        QCOMPARE(reports.count(), hashed); // every share hashed is reported, in order, before the digest
        for (int i = 0; i < reports.count(); ++i)
            QCOMPARE(reports.at(i).first().toInt(), i + 1);
    }

private:
    QScopedPointer<QTemporaryDir> m_folder;
};

QTEST_MAIN(tst_ChunkHasher)
#include "tst_chunkhasher.moc"
