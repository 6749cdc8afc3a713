#include "network/filerangedevice.h"
#include "randomfile.h"

#include <QtTest>

// A window on a file, sent as a request body: exactly its bytes, seekable
// within it, and refused when the file cannot give all of them.
class tst_FileRangeDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(writeRandomFile(m_path, m_content.size(), 7)); }

    void readsTheRange_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("opens");
        const int read = QIODevice::ReadOnly;
        QTest::newRow("middle: stops where the file goes on") << qint64(1000) << qint64(5000) << read << true;
        QTest::newRow("the whole file") << qint64(0) << qint64(100000) << read << true;
        QTest::newRow("empty, at the end") << qint64(100000) << qint64(0) << read << true;
        QTest::newRow("one byte past the end") << qint64(90000) << qint64(10001) << read << false;
        QTest::newRow("negative offset") << qint64(-1) << qint64(10) << read << false;
        QTest::newRow("negative length") << qint64(0) << qint64(-1) << read << false;
        QTest::newRow("for writing") << qint64(0) << qint64(10) << int(QIODevice::ReadWrite) << false;
    }
    void readsTheRange()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(int, mode);
        QFETCH(bool, opens);
        QVERIFY(!FileRangeDevice(m_dir.filePath("gone.bin"), 0, 0).open(QIODevice::ReadOnly));
        FileRangeDevice device(m_path, offset, length);
        QCOMPARE(device.open(QIODevice::OpenMode(mode)), opens);
        QCOMPARE(device.isOpen(), opens);
        if (!opens)
            return;
        QCOMPARE(device.size(), length);
        QCOMPARE(device.readAll(), m_content.mid(offset, length));
        QVERIFY(device.atEnd());
        // A resent body starts over; a seek is relative to the range.
        QVERIFY(device.seek(length / 2));
        QCOMPARE(device.readAll(), m_content.mid(offset + length / 2, length - length / 2));
        QVERIFY(device.seek(0));
        QCOMPARE(device.read(10), m_content.mid(offset, qMin<qint64>(10, length)));
        QVERIFY(!device.seek(length + 1));
        QVERIFY(!device.seek(-1));
    }

private:
    QTemporaryDir m_dir;
    const QString m_path = m_dir.filePath("source.bin");
    const QByteArray m_content = randomBytes(100000, 7);
};

QTEST_MAIN(tst_FileRangeDevice)
#include "tst_filerangedevice.moc"
