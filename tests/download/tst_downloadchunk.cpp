#include "download/downloadchunk.h"
#include "randomfile.h"
#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QtTest>
#include <QtNetwork>

namespace {
constexpr qint64 MiB = 1024 * 1024;
constexpr qint64 Window = 8 * MiB; // the most a chunk asks for in one request

QByteArray reprDigest(const QByteArray &content)
{
    return "sha-256=:" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64() + ":";
}

// An answer's headers, with the chunk's first byte and what its probe saw.
struct Answer {
    int status;
    QByteArray contentRange, etag;
    qint64 from;
    QString probeTag;
    QByteArray digest, probeSha; // the answer's Repr-Digest; the SHA-256 the probe stated
};
} // namespace
Q_DECLARE_METATYPE(Answer)

// One chunk against a scripted server: how its range goes out on the wire,
// what lands in its file, and which answers it refuses.
class tst_DownloadChunk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { GlobalManager::instance(); } // registers "ZTErrorCode" for the spies
    void init()
    {
        m_folder.reset(new QTemporaryDir); // the chunk file "1"
        m_server.reset(new ScriptedServer);
        QVERIFY(m_server->start());
    }

    void rangeGoesOutInWindows_data()
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
    void rangeGoesOutInWindows()
    {
        QFETCH(qint64, chunkSize);
        QFETCH(qint64, present);
        QFETCH(qint64, served);
        QFETCH(int, requests);
        // The chunk's range within a larger file, so that its last byte is not the file's.
        const QByteArray content = randomBytes(chunkSize + 2 * MiB);
        const qint64 first = MiB, last = first + chunkSize - 1;
        QList<QPair<qint64, qint64>> asked;
        m_server->setHandler([&](const ScriptedRequest &r) {
            const auto range = QRegularExpression("^bytes=(\\d+)-(\\d+)$").match(QString::fromLatin1(r.header("Range")));
            asked << qMakePair(range.captured(1).toLongLong(), range.captured(2).toLongLong());
            const qint64 from = asked.last().first, to = qMin(asked.last().second, from + served - 1);
            ScriptedResponse response;
            response.status = 206;
            response.header("Content-Range", QStringLiteral("bytes %1-%2/%3").arg(from).arg(to).arg(content.size()).toLatin1());
            response.body = content.mid(from, to - from + 1);
            return response;
        });
        QFile file(m_folder->filePath("1"));
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content.mid(first, present)) == present);
        file.close();
        DownloadChunk chunk(QSharedPointer<QNetworkAccessManager>::create());
        chunk.lastChunk = false;
        chunk.fileName = QStringLiteral("c.bin");
        qint64 reported = 0;
        connect(&chunk, &DownloadChunk::downloadProgress, this, [&](qlonglong delta, qlonglong) { reported += delta; });
        QSignalSpy finished(&chunk, &DownloadChunk::finished);
        QSignalSpy failed(&chunk, &DownloadChunk::errorOccurred);
        // A chunk but the last asks for its overlap byte too: "last" is one past its share.
        QVERIFY(chunk.start(m_folder->path(), file.fileName(), m_server->baseUrl() + "/download", first, last + 1, "t"));
        QVERIFY(finished.count() == 1 || finished.wait(20000));
        QCOMPARE(failed.count(), 0);
        QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll() == content.mid(first, chunkSize + 1));
        QCOMPARE(reported, chunkSize + 1); // what was there, then each byte that came, once
        QCOMPARE(asked.size(), requests);
        // A reused connection would make every window wait for a delayed ACK.
        QCOMPARE(m_server->connectionCount(), requests);
        qint64 next = first + present;
        for (const auto &range : qAsConst(asked)) {
            QCOMPARE(range.first, next); // each request picks up where the file ends
            QVERIFY2(range.second - range.first + 1 <= Window, qPrintable(QString::number(range.second)));
            next = qMin(range.second, range.first + served - 1) + 1;
        }
    }

    void answerRefused_data()
    {
        QTest::addColumn<Answer>("answer");
        QTest::addColumn<bool>("taken");
        const QByteArray d = "\"d\"", none, range = "bytes 0-9/10", a = QCryptographicHash::hash("a", QCryptographicHash::Sha256);
        QTest::newRow("206, the range asked for") << Answer{206, "bytes 5-9/10", d, 5, "d", none, none} << true;
        QTest::newRow("206, total unknown") << Answer{206, "bytes 5-9/*", d, 5, "d", none, none} << true;
        QTest::newRow("200 for a chunk from byte 0") << Answer{200, none, d, 0, "d", none, none} << true;
        QTest::newRow("no tag at the probe: any tag") << Answer{206, range, "\"e\"", 0, "", none, none} << true;
        QTest::newRow("200 for a chunk further on") << Answer{200, none, d, 5, "d", none, none} << false;
        QTest::newRow("404") << Answer{404, none, d, 0, "d", none, none} << false;
        QTest::newRow("206 from another byte") << Answer{206, "bytes 4-9/10", d, 5, "d", none, none} << false;
        QTest::newRow("206 without Content-Range") << Answer{206, none, d, 0, "d", none, none} << false;
        QTest::newRow("206, no first byte") << Answer{206, "bytes /10", d, 0, "d", none, none} << false;
        QTest::newRow("206, last byte before the first") << Answer{206, "bytes 9-0/10", d, 9, "d", none, none} << false;
        QTest::newRow("206, another unit") << Answer{206, "items 0-9/10", d, 0, "d", none, none} << false;
        QTest::newRow("206, another tag") << Answer{206, range, "W/\"d\"", 0, "d", none, none} << false;
        QTest::newRow("the probe's sha-256") << Answer{206, range, d, 0, "d", reprDigest("a"), a} << true;
        QTest::newRow("another sha-256") << Answer{206, range, d, 0, "d", reprDigest("b"), a} << false;
        QTest::newRow("another sha-256 among other algorithms")
            << Answer{206, range, d, 0, "d", "sha-512=:AAAA:, " + reprDigest("b"), a} << false;
        QTest::newRow("only an algorithm not known here") << Answer{206, range, d, 0, "d", "sha-512=:AAAA:", a} << true;
        QTest::newRow("no digest on the answer") << Answer{206, range, d, 0, "d", none, a} << true;
        QTest::newRow("a digest, none at the probe") << Answer{206, range, d, 0, "d", reprDigest("b"), none} << true;
    }

    // The check on an answer's headers alone, before any byte may be written.
    void answerRefused()
    {
        QFETCH(Answer, answer);
        QFETCH(bool, taken);
        const QString reason = DownloadChunk::refusal(answer.status, answer.contentRange, answer.etag, answer.from,
                                                      answer.probeTag, answer.digest, answer.probeSha);
        QVERIFY2(reason.isEmpty() == taken, qPrintable(reason));
    }

private:
    TestEnvironment m_environment;
    QScopedPointer<ScriptedServer> m_server;
    QScopedPointer<QTemporaryDir> m_folder;
};

QTEST_MAIN(tst_DownloadChunk)
#include "tst_downloadchunk.moc"
