#include "download/downloadchunk.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

// One chunk against a scripted server: how its range goes out on the wire and
// what lands in its file.
class tst_DownloadChunk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void rangeGoesOutInWindows_data();
    void rangeGoesOutInWindows();

private:
    TestEnvironment m_environment;
};

namespace {
constexpr qint64 MiB = 1024 * 1024;
constexpr qint64 Window = 8 * MiB; // the most a chunk asks for in one request

// The first and last byte of a "bytes=a-b" request header.
QPair<qint64, qint64> askedRange(const QByteArray &header)
{
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^bytes=(\\d+)-(\\d+)$")).match(QString::fromLatin1(header));
    return match.hasMatch() ? qMakePair(match.captured(1).toLongLong(), match.captured(2).toLongLong())
                            : qMakePair(qint64(-1), qint64(-1));
}
} // namespace

void tst_DownloadChunk::rangeGoesOutInWindows_data()
{
    QTest::addColumn<qint64>("chunkSize");
    QTest::addColumn<qint64>("present"); // already in the chunk file
    QTest::addColumn<qint64>("served"); // the most the server sends for one request
    QTest::addColumn<int>("requests");
    const qint64 all = 1 << 30;
    QTest::newRow("smaller than a window") << 5 * MiB << qint64(0) << all << 1;
    QTest::newRow("exactly one window") << Window << qint64(0) << all << 2; // and the overlap byte
    QTest::newRow("a window less its overlap byte") << Window - 1 << qint64(0) << all << 1;
    QTest::newRow("two windows and a byte") << 2 * Window + 1 << qint64(0) << all << 3;
    QTest::newRow("resumed: only the rest, in windows") << 2 * Window + 1 << 3 * MiB << all << 2;
    QTest::newRow("server ends every range early") << 2 * Window << qint64(0) << 3 * MiB << 6;
    QTest::newRow("covers its range: no request") << 5 * MiB << 5 * MiB + 1 << all << 0;
}

void tst_DownloadChunk::rangeGoesOutInWindows()
{
    QFETCH(qint64, chunkSize);
    QFETCH(qint64, present);
    QFETCH(qint64, served);
    QFETCH(int, requests);

    // The chunk's range within a larger file, so that its last byte is not the file's.
    QByteArray content(chunkSize + 2 * MiB, Qt::Uninitialized);
    for (int i = 0; i < content.size(); ++i)
        content[i] = char((i * 31) ^ (i >> 13));
    const qint64 first = MiB;
    const qint64 last = first + chunkSize - 1;

    ScriptedServer server;
    QVERIFY(server.start());
    QList<QPair<qint64, qint64>> asked;
    server.setHandler([&](const ScriptedRequest &r) {
        asked << askedRange(r.header("Range"));
        QPair<qint64, qint64> sent = asked.last();
        sent.second = qMin(sent.second, sent.first + served - 1);
        ScriptedResponse response;
        response.status = 206;
        response.header("Content-Range", QStringLiteral("bytes %1-%2/%3")
                                             .arg(sent.first).arg(sent.second).arg(content.size()).toLatin1());
        response.body = content.mid(sent.first, sent.second - sent.first + 1);
        return response;
    });

    QTemporaryDir folder;
    QFile existing(folder.filePath("1"));
    QVERIFY(existing.open(QIODevice::WriteOnly));
    existing.write(content.mid(first, present));
    existing.close();

    DownloadChunk chunk(QSharedPointer<QNetworkAccessManager>::create());
    chunk.lastChunk = false;
    chunk.fileName = QStringLiteral("c.bin");
    qint64 reported = 0;
    connect(&chunk, &DownloadChunk::downloadProgress, this, [&](qlonglong delta, qlonglong) { reported += delta; });
    QSignalSpy finished(&chunk, &DownloadChunk::finished);
    QSignalSpy failed(&chunk, &DownloadChunk::errorOccurred);
    // A chunk but the last asks for its overlap byte too: "last" is one past its share.
    QVERIFY(chunk.start(folder.path(), folder.filePath("1"), server.baseUrl() + "/download", first,
                        last + 1, QStringLiteral("t")));
    QVERIFY(finished.count() == 1 || finished.wait(20000));
    QCOMPARE(failed.count(), 0);

    QFile file(folder.filePath("1"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll() == content.mid(first, chunkSize + 1));
    QCOMPARE(reported, chunkSize + 1); // what was there, then each byte that came, once
    QCOMPARE(asked.size(), requests);
    // A reused connection would make every window wait for a delayed ACK.
    QCOMPARE(server.connectionCount(), requests);
    qint64 next = first + present;
    for (const auto &range : qAsConst(asked)) {
        QCOMPARE(range.first, next); // each request picks up where the file ends
        QVERIFY2(range.second - range.first + 1 <= Window, qPrintable(QString::number(range.second)));
        next = qMin(range.second, range.first + served - 1) + 1;
    }
}

QTEST_MAIN(tst_DownloadChunk)
#include "tst_downloadchunk.moc"
