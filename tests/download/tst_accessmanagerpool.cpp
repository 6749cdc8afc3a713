#include "download/accessmanagerpool.h"

#include <QtTest>
#include <QtNetwork>

// The access managers that chunks share: never more connections on one than
// Qt opens to a host, and a manager goes with its last lease.
class tst_AccessManagerPool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void packing_data()
    {
        QTest::addColumn<QList<int>>("lends"); // connections asked, in order
        QTest::addColumn<int>("managers");
        QTest::newRow("a four-chunk file leaves room for two") << QList<int>{4, 1, 1} << 1;
        QTest::newRow("two four-chunk files: one each") << QList<int>{4, 4} << 2;
        QTest::newRow("a small file after two large ones fills the first gap") << QList<int>{4, 4, 2} << 2;
        QTest::newRow("more than six asked counts as six") << QList<int>{9, 1} << 2;
        QTest::newRow("none asked counts as one") << QList<int>{0, 0, 0, 0, 0, 0, 0} << 2;
        QTest::newRow("a thousand small files: a manager per six") << QVector<int>(1000, 1).toList() << 167;
    }
    void packing()
    {
        QFETCH(QList<int>, lends);
        QFETCH(int, managers);
        AccessManagerPool pool;
        QList<QSharedPointer<QNetworkAccessManager>> leases;
        QHash<QNetworkAccessManager *, int> lent;
        for (int connections : lends) {
            leases.append(pool.lend(connections));
            lent[leases.last().data()] += qBound(1, connections, AccessManagerPool::ConnectionsPerManager);
        }
        QCOMPARE(pool.managerCount(), managers);
        QCOMPARE(lent.size(), managers);
        for (int count : qAsConst(lent))
            QVERIFY2(count <= AccessManagerPool::ConnectionsPerManager, qPrintable(QString::number(count)));
    }

    void lastLeaseEndsTheManager()
    {
        AccessManagerPool pool;
        auto full = pool.lend(6);
        auto copy = full; // as a chunk holds it
        auto other = pool.lend(1);
        QVERIFY(other != full);
        QPointer<QNetworkAccessManager> first(full.data());
        full.reset();
        QCOMPARE(pool.managerCount(), 2); // a copy still holds the lease
        copy.reset();
        QCOMPARE(pool.managerCount(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(first.isNull(), 5000);
        auto more = pool.lend(5);
        QCOMPARE(more, other); // the room the other lease left is lent again
        QVERIFY(pool.lend(1) != other);
    }
};

QTEST_MAIN(tst_AccessManagerPool)
#include "tst_accessmanagerpool.moc"
