#include "download/downloadchunk.h"
#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadsinglefile.h"
#include "download/downloadtask.h"
#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

// A download that reports success is byte-identical to the source; one that
// meets a fault fails with a code and keeps what the next run can use. Three
// chunks of 1 MiB and a tail, against a scripted server that states the file's
// SHA-256 on every answer and misbehaves once.
class tst_DownloadIntegrity : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void chunkAnswerJudged_data();
    void chunkAnswerJudged();
    void faultyAnswerThenResume_data();
    void faultyAnswerThenResume();
    void chunkFilesLeftBehind_data();
    void chunkFilesLeftBehind();
    void filesWithoutTagsStayApart();

private:
    static constexpr qint64 C = 1024 * 1024;
    // Runs one batch for d.bin; the batch's code.
    int runBatch();
    QString chunkFolder(const QByteArray &tag) const;
    QByteArray downloaded() const;
    ScriptedResponse serveFile(const ScriptedRequest &request) const;

    TestEnvironment m_environment;
    QTemporaryDir m_temporary;
    QScopedPointer<QTemporaryDir> m_target;
    QScopedPointer<ScriptedServer> m_server;
    QByteArray m_content;
    QByteArray m_reprDigest; // of m_content
};

namespace {
QByteArray reprDigest(const QByteArray &content)
{
    return "sha-256=:" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64() + ":";
}
} // namespace

void tst_DownloadIntegrity::initTestCase()
{
    GlobalManager::instance();
    DownloadGlobal::instance()->setTemporaryStoragePath(m_temporary.path());
    DownloadGlobal::instance()->setChunkSize(1);
    m_content.resize(3 * C + 77);
    for (int i = 0; i < m_content.size(); ++i)
        m_content[i] = char((i * 7) ^ (i >> 11));
    m_reprDigest = reprDigest(m_content);
}

void tst_DownloadIntegrity::init()
{
    m_target.reset(new QTemporaryDir);
    m_server.reset(new ScriptedServer);
    QVERIFY(m_server->start());
    QDir(m_temporary.path()).removeRecursively();
    QDir().mkpath(m_temporary.path());
}

int tst_DownloadIntegrity::runBatch()
{
    auto task = QSharedPointer<DownloadTask>::create();
    QFile::remove(m_target->filePath("d.bin"));
    if (task->isValid(m_target->filePath("d.bin"), m_server->baseUrl() + "/download", "d.bin") != 0)
        return -1;
    Downloader downloader;
    downloader.addTask(task);
    int code = -1;
    connect(&downloader, &Downloader::finished, this,
            [&](ZTErrorCode status, const QList<DownloadTask *> &) { code = status; });
    if (downloader.start() != 0)
        return -2;
    (void)QTest::qWaitFor([&] { return code != -1; }, 20000);
    return code;
}

QString tst_DownloadIntegrity::chunkFolder(const QByteArray &tag) const
{
    return m_temporary.path() + "/"
        + QString::fromLatin1(QCryptographicHash::hash(QByteArray::number(m_content.size()) + tag,
                                                       QCryptographicHash::Md5).toHex());
}

ScriptedResponse tst_DownloadIntegrity::serveFile(const ScriptedRequest &request) const
{
    return ScriptedResponse::file(m_content, request, "\"d\"", "d.bin").header("Repr-Digest", m_reprDigest);
}

QByteArray tst_DownloadIntegrity::downloaded() const
{
    QFile file(m_target->filePath("d.bin"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void tst_DownloadIntegrity::chunkAnswerJudged_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("contentRange");
    QTest::addColumn<QByteArray>("etag");
    QTest::addColumn<qint64>("from");
    QTest::addColumn<QString>("probeTag");
    QTest::addColumn<bool>("taken");
    QTest::addColumn<QByteArray>("digest");   // the answer's Repr-Digest
    QTest::addColumn<QByteArray>("probeSha"); // what the probe stated
    const QByteArray d = "\"d\"";
    const QByteArray none;
    QTest::newRow("206, the range asked for") << 206 << QByteArray("bytes 5-9/10") << d << qint64(5) << "d" << true << none << none;
    QTest::newRow("206, total unknown") << 206 << QByteArray("bytes 5-9/*") << d << qint64(5) << "d" << true << none << none;
    QTest::newRow("200 for a chunk from byte 0") << 200 << QByteArray() << d << qint64(0) << "d" << true << none << none;
    QTest::newRow("no tag at the probe: any tag") << 206 << QByteArray("bytes 0-9/10") << QByteArray("\"e\"") << qint64(0) << "" << true << none << none;
    QTest::newRow("200 for a chunk further on") << 200 << QByteArray() << d << qint64(5) << "d" << false << none << none;
    QTest::newRow("404") << 404 << QByteArray() << d << qint64(0) << "d" << false << none << none;
    QTest::newRow("206 from another byte") << 206 << QByteArray("bytes 4-9/10") << d << qint64(5) << "d" << false << none << none;
    QTest::newRow("206 without Content-Range") << 206 << QByteArray() << d << qint64(0) << "d" << false << none << none;
    QTest::newRow("206, first byte not a number") << 206 << QByteArray("bytes x-9/10") << d << qint64(0) << "d" << false << none << none;
    QTest::newRow("206, no first byte") << 206 << QByteArray("bytes /10") << d << qint64(0) << "d" << false << none << none;
    QTest::newRow("206, last byte before the first") << 206 << QByteArray("bytes 9-0/10") << d << qint64(9) << "d" << false << none << none;
    QTest::newRow("206, another unit") << 206 << QByteArray("items 0-9/10") << d << qint64(0) << "d" << false << none << none;
    QTest::newRow("206, another tag") << 206 << QByteArray("bytes 0-9/10") << QByteArray("W/\"d\"") << qint64(0) << "d" << false << none << none;
    const QByteArray a = QCryptographicHash::hash("a", QCryptographicHash::Sha256);
    const QByteArray b = QCryptographicHash::hash("b", QCryptographicHash::Sha256);
    const QByteArray range = "bytes 0-9/10";
    QTest::newRow("the probe's sha-256") << 206 << range << d << qint64(0) << "d" << true << reprDigest("a") << a;
    QTest::newRow("another sha-256") << 206 << range << d << qint64(0) << "d" << false << reprDigest("b") << a;
    QTest::newRow("another sha-256 among other algorithms")
        << 206 << range << d << qint64(0) << "d" << false << "sha-512=:AAAA:, " + reprDigest("b") << a;
    QTest::newRow("only an algorithm not known here") << 206 << range << d << qint64(0) << "d" << true
                                                      << QByteArray("sha-512=:AAAA:") << a;
    QTest::newRow("no digest on the answer") << 206 << range << d << qint64(0) << "d" << true << none << a;
    QTest::newRow("a digest, none at the probe") << 206 << range << d << qint64(0) << "d" << true << reprDigest("b")
                                                 << QByteArray();
}

// The check on an answer's headers alone, before any byte may be written.
void tst_DownloadIntegrity::chunkAnswerJudged()
{
    QFETCH(int, status);
    QFETCH(QByteArray, contentRange);
    QFETCH(QByteArray, etag);
    QFETCH(qint64, from);
    QFETCH(QString, probeTag);
    QFETCH(bool, taken);
    QFETCH(QByteArray, digest);
    QFETCH(QByteArray, probeSha);
    const QString reason = DownloadChunk::refusal(status, contentRange, etag, from, probeTag, digest, probeSha);
    QVERIFY2(reason.isEmpty() == taken, qPrintable(reason));
}

void tst_DownloadIntegrity::faultyAnswerThenResume_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("contentRange");
    QTest::addColumn<qint64>("dropAfter");
    QTest::addColumn<qint64>("keptInChunk2");
    QTest::addColumn<QByteArray>("changed"); // "tag" or "digest": the header that says another version
    const QByteArray same;
    QTest::newRow("404 with an error page") << 404 << QByteArray() << qint64(-1) << qint64(0) << same;
    QTest::newRow("416 with an error page") << 416 << QByteArray() << qint64(-1) << qint64(0) << same;
    QTest::newRow("206 for another range")
        << 206 << QByteArray("bytes 0-1048576/3145805") << qint64(-1) << qint64(0) << same;
    QTest::newRow("206 whose tag changed since the probe") << 206 << QByteArray() << qint64(-1) << qint64(0)
                                                           << QByteArray("tag");
    QTest::newRow("206 whose sha-256 changed since the probe") << 206 << QByteArray() << qint64(-1) << qint64(0)
                                                               << QByteArray("digest");
    QTest::newRow("dropped at the first byte") << 206 << QByteArray() << qint64(0) << qint64(0) << same;
    QTest::newRow("dropped mid-chunk") << 206 << QByteArray() << qint64(300000) << qint64(300000) << same;
    QTest::newRow("dropped before the last byte") << 206 << QByteArray() << qint64(C) << qint64(C) << same;
}

void tst_DownloadIntegrity::faultyAnswerThenResume()
{
    QFETCH(int, status);
    QFETCH(QByteArray, contentRange);
    QFETCH(qint64, dropAfter);
    QFETCH(qint64, keptInChunk2);
    QFETCH(QByteArray, changed);
    bool faulted = false;
    m_server->setHandler([&](const ScriptedRequest &r) {
        ScriptedResponse response = serveFile(r);
        if (faulted || !r.header("Range").startsWith("bytes=1048576-"))
            return response;
        faulted = true;
        if (status != 206) {
            ScriptedResponse page;
            page.status = status;
            page.body = "<html><body>no such range</body></html>";
            return page;
        }
        if (!changed.isEmpty()) // the same bytes, said to be another version's
            response = ScriptedResponse::file(m_content, r, changed == "tag" ? "\"e\"" : "\"d\"", "d.bin")
                           .header("Repr-Digest", changed == "digest" ? reprDigest("another") : m_reprDigest);
        if (!contentRange.isEmpty()) {
            response.headers.clear();
            response.header("ETag", "\"d\"").header("Content-Range", contentRange);
            response.body = m_content.left(C + 1);
        }
        response.dropAfterBytes = dropAfter;
        return response;
    });

    QCOMPARE(runBatch(), int(Zephyrtide::Error::GeneralFailure));
    QVERIFY(!QFileInfo::exists(m_target->filePath("d.bin")) || QFileInfo(m_target->filePath("d.bin")).size() == 0);
    // Nothing of a refused answer was written; what came of a good one stays.
    QCOMPARE(QFileInfo(chunkFolder("d") + "/2").size(), keptInChunk2);

    QVERIFY(m_server->waitUntilQuiet()); // the requests of the run that failed, answered
    const qint64 before = m_server->bodyBytesSent();
    qint64 kept = 0;
    for (const QFileInfo &chunk : QDir(chunkFolder("d")).entryInfoList(QDir::Files))
        kept += chunk.size();
    QCOMPARE(runBatch(), 0);
    QCOMPARE(downloaded(), m_content);
    // Only what the chunk files lacked travelled again (and the probe's two bytes).
    QCOMPARE(m_server->bodyBytesSent() - before, 3 * (C + 1) + 77 - kept + 2);
    QVERIFY(!QDir(chunkFolder("d")).exists());
}

void tst_DownloadIntegrity::chunkFilesLeftBehind_data()
{
    QTest::addColumn<QByteArray>("chunk1");
    QTest::addColumn<qint64>("plannedIn"); // the chunk size the folder records; 0: no record
    QTest::addColumn<QByteArray>("askedFor"); // a range the run asks for; "bytes=0-..." fetches chunk 1 anew
    QTest::addColumn<int>("code"); // of the first run; a second one then brings the file
    const QByteArray half = "bytes=524288-1048576"; // chunk 2 of a plan in chunks of 512 KiB
    QTest::newRow("cut to exactly the chunk size: asks for the overlap byte")
        << QByteArray("share") << C << QByteArray("bytes=1048576-1048576") << 0;
    QTest::newRow("garbage past its range: left out of the merge") << QByteArray("garbage") << C << QByteArray() << 0;
    QTest::newRow("begun in chunks of 512 KiB: resumed in them") << QByteArray("half") << C / 2 << half << 0;
    QTest::newRow("no plan recorded: begun afresh") << QByteArray("share") << 0LL << QByteArray("bytes=0-1048576") << 0;
    QTest::newRow("damaged in place, size unchanged: the digest refuses it")
        << QByteArray("damaged") << C << QByteArray("bytes=0-1048576") << int(Zephyrtide::Error::GeneralFailure);
}

void tst_DownloadIntegrity::chunkFilesLeftBehind()
{
    QFETCH(QByteArray, chunk1);
    QFETCH(qint64, plannedIn);
    QFETCH(QByteArray, askedFor);
    QFETCH(int, code);
    m_server->setHandler([&](const ScriptedRequest &r) { return serveFile(r); });
    if (plannedIn > 0)
        QVERIFY(DownloadSingleFile::recordPlan(chunkFolder("d"), plannedIn, QByteArray()));
    QDir().mkpath(chunkFolder("d"));
    QFile file(chunkFolder("d") + "/1");
    QVERIFY(file.open(QIODevice::WriteOnly));
    QByteArray damaged = m_content.left(C + 1);
    damaged[4711] = ~damaged[4711];
    const QMap<QByteArray, QByteArray> contents{{"share", m_content.left(C)},
                                                {"garbage", m_content.left(C + 1) + QByteArray(100, '#')},
                                                {"half", m_content.left(C / 2 + 1)},
                                                {"damaged", damaged}};
    file.write(contents.value(chunk1));
    file.close();

    QCOMPARE(runBatch(), code);
    if (code != 0) {
        // Nothing under the file's name, and nothing of the folder for the next run.
        QCOMPARE(QDir(m_target->path()).entryList(QDir::Files | QDir::Hidden), QStringList());
        QVERIFY(!QDir(chunkFolder("d")).exists());
        QCOMPARE(runBatch(), 0);
    }
    QCOMPARE(downloaded(), m_content);
    QStringList ranges;
    for (const ScriptedRequest &r : m_server->requests())
        ranges << QString::fromLatin1(r.header("Range"));
    QCOMPARE(ranges.contains(QString::fromLatin1(askedFor)), !askedFor.isEmpty());
    // Chunk 1 is fetched anew only from a folder that cannot be resumed.
    QCOMPARE(ranges.filter(QRegularExpression("^bytes=0-\\d{3,}$")).size(), askedFor.startsWith("bytes=0-") ? 1 : 0);
}

void tst_DownloadIntegrity::filesWithoutTagsStayApart()
{
    // Every file comes from the one download address; without an ETag only the
    // name tells two files of the same size apart.
    QByteArray other = m_content;
    std::reverse(other.begin(), other.end());
    const QMap<QByteArray, QByteArray> contents{{"a.bin", m_content}, {"b.bin", other}};
    m_server->setHandler([&](const ScriptedRequest &r) {
        const QByteArray name = QJsonDocument::fromJson(r.body).object().value("fileName").toString().toUtf8();
        return ScriptedResponse::file(contents.value(name), r);
    });
    Downloader downloader;
    for (const QByteArray &name : contents.keys()) {
        auto task = QSharedPointer<DownloadTask>::create();
        const QString path = m_target->filePath(QString::fromLatin1(name));
        QCOMPARE(task->isValid(path, m_server->baseUrl() + "/download", QString::fromLatin1(name)), 0);
        QVERIFY(downloader.addTask(task));
    }
    int code = -1;
    connect(&downloader, &Downloader::finished, this,
            [&](ZTErrorCode status, const QList<DownloadTask *> &) { code = status; });
    QCOMPARE(downloader.start(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(code, 0, 20000);
    for (const QByteArray &name : contents.keys()) {
        QFile file(m_target->filePath(QString::fromLatin1(name)));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY2(file.readAll() == contents.value(name), name.constData());
    }
}

QTEST_MAIN(tst_DownloadIntegrity)
#include "tst_downloadintegrity.moc"
