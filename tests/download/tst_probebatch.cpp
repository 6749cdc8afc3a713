#include "download/downloadglobal.h"
#include "downloadfixture.h"
#include "filedigest.h"
#include "hostcall.h"
#include "network/networkmanager.h"
#include "core/globalmanager.h"

#include <QtTest>

using Error = Zephyrtide::Error;

// A batch's files probed several at a time, never more than the download
// queue's limit, and decided in the files' order.
class tst_ProbeBatch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { GlobalManager::instance(); } // registers "ZTErrorCode"
    void init() { QVERIFY(f.setUp()); }
    void cleanup() { f.tearDown(); }

    void probesOfABatch_data()
    {
        QTest::addColumn<int>("files"); // f1.bin to fN.bin; the user's f1.bin is there already
        QTest::addColumn<Zephyrtide::Manager::NetLimit>("limit");
        QTest::addColumn<int>("refused"); // the file whose probe is answered 403; 0 for none
        QTest::addColumn<int>("unmade"); // the file whose folder cannot be made; 0 for none
        QTest::addColumn<int>("probes"); // that reach the server
        QTest::addColumn<int>("atOnce"); // the most in flight
        QTest::addColumn<ZTErrorCode>("code");
        const auto normal = Zephyrtide::Manager::Normal;
        QTest::newRow("12 files, four at a time") << 12 << normal << 0 << 0 << 12 << 4 << Error::NoError;
        QTest::newRow("12 files, two at a time") << 12 << Zephyrtide::Manager::Low << 0 << 0 << 12 << 2 << Error::NoError;
        QTest::newRow("file 3 refused: 20695 for all") << 12 << normal << 3 << 0 << 12 << 4 << Error::ParseError;
        // The first file that cannot run decides, as when probed one by one; none is sent after a folder fails.
        QTest::newRow("file 3 refused, file 7's folder: 20695") << 12 << normal << 3 << 7 << 6 << 4 << Error::ParseError;
        QTest::newRow("file 3's folder, file 2 refused: 20695") << 12 << normal << 2 << 3 << 2 << 2 << Error::ParseError;
        QTest::newRow("file 3's folder, file 7 refused: 20699") << 12 << normal << 7 << 3 << 2 << 2 << Error::FileError;
    }

    // Each probe is held until as many as may be in flight have come (or the last
    // one has): probes sent one after the other would wait for an answer that
    // never comes. A batch that fails leaves the user's folder as it was; one that
    // arrives brings every file, f1.bin under a free name.
    void probesOfABatch()
    {
        QFETCH(int, files);
        QFETCH(Zephyrtide::Manager::NetLimit, limit);
        QFETCH(int, refused);
        QFETCH(int, unmade);
        QFETCH(int, probes);
        QFETCH(int, atOnce);
        QFETCH(ZTErrorCode, code);
        NetworkManager &queue = *DownloadGlobal::instance()->networkManager();
        queue.setNetLimit(limit);
        const auto restore = qScopeGuard([&] { queue.setNetLimit(Zephyrtide::Manager::High); });
        f.serve(10 * 1024 + 3);
        QVERIFY(f.writeFile(f.target->filePath("f1.bin"), "mine"));
        QVERIFY(f.writeFile(f.target->filePath("blocker"), "")); // where a folder should be
        int seen = 0, mostOpen = 0;
        f.shape = [&](const ScriptedRequest &r, ScriptedResponse &response) {
            if (r.header("Range") != "bytes=0-1")
                return; // a chunk
            mostOpen = qMax(mostOpen, f.server->openRequests());
            if (refused > 0 && r.body.contains("\"f" + QByteArray::number(refused) + ".bin\""))
                response = ScriptedResponse::json("{}", 403);
            response.hold = true;
            if (++seen == probes || f.server->heldCount() + 1 == queue.netLimit() + 1)
                QMetaObject::invokeMethod(f.server.data(), [this] { f.server->release(); }, Qt::QueuedConnection);
        };
        QVariantList list;
        QStringList arrived{"blocker", "f1.bin"};
        for (int i = 1; i <= files; ++i) {
            const QString name = QStringLiteral("f%1.bin").arg(i);
            list << QVariantMap{{"filename", name}, {"path", f.target->filePath(i == unmade ? "blocker/" + name : name)}};
            arrived << (i == 1 ? "f1(1).bin" : name);
        }
        arrived.sort();
        HostCall call(f.root.data(), "zt_apply_startDownload", {{"files", list}});
        call.wait();
        QCOMPARE(call.finishedCount(), 1);
        QCOMPARE(call.error(), code);
        QCOMPARE(seen, probes);
        QCOMPARE(mostOpen, atOnce);
        QCOMPARE(sha256OfFile(f.target->filePath("f1.bin")), QCryptographicHash::hash("mine", QCryptographicHash::Sha256));
        QCOMPARE(f.filesIn(f.target->path()), code == Error::NoError ? arrived : QStringList({"blocker", "f1.bin"}));
        QStringList paths;
        for (const QVariant &entry : call.result().value("result").toList())
            paths << entry.toMap().value("path").toString();
        QCOMPARE(paths.size(), code == Error::NoError ? files : 0);
        for (int i = 1; i <= paths.size(); ++i) {
            const QString path = f.target->filePath(i == 1 ? "f1(1).bin" : QStringLiteral("f%1.bin").arg(i));
            QCOMPARE(paths.count(path), 1);
            QCOMPARE(sha256OfFile(path), f.digestOf("f" + QByteArray::number(i) + ".bin"));
        }
    }

private:
    DownloadFixture f;
};

QTEST_MAIN(tst_ProbeBatch)
#include "tst_probebatch.moc"
