#include "core/globalmanager.h"
#include "network/networkmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/clouduploader.h"
#include "upload/fileitem.h"
#include "upload/uploadglobal.h"
#include "uploadfixture.h"

#include <zephyrtide/manager.h>

#include <QtTest>

using Zephyrtide::Error;

// A job of several files against a scripted upload service (parts of 4 bytes):
// one result per file, progress summed over them, one outcome per run.
class tst_CloudUploader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { QVERIFY(m_upload.setUp()); }
    void cleanup() { m_upload.tearDown(); }

    void filesFinishOnceWithResults()
    {
        const QVariantList given = files(3);
        CloudUploader job;
        QVERIFY(job.setFiles(given));
        // Each report is what the files have sent by then, each byte counted once.
        QList<QPair<qint64, qint64>> reported;
        connect(&job, &CloudUploader::progress, this, [&job, &reported](qint64 sent, qint64 total) {
            qint64 sum = 0;
            for (const auto &item : job.fileItems())
                sum += item->bytesSent;
            QCOMPARE(sent, sum);
            reported << qMakePair(sent, total);
        });
        QSignalSpy finished(&job, &CloudUploader::finished);
        QSignalSpy error(&job, &CloudUploader::errorOccurred);
        QVERIFY(job.start());
        QVERIFY(finished.wait(10000));
        QCOMPARE(finished.count(), 1);
        QCOMPARE(error.count(), 0);
        QCOMPARE(m_upload.service->requestsTo("/upload/part").size(), 3 + 3 + 3); // 9, 10, 11 bytes

        QStringList paths;
        for (const QVariant &entry : finished.first().first().toList()) {
            const QVariantMap map = entry.toMap();
            QCOMPARE(map.value("category").toString(), QStringLiteral("Zephyrtide")); // the host's "mine" overridden
            QCOMPARE(map.value("dfsID").toString(), QStringLiteral("Zephyrtide"));
            QCOMPARE(map.value("private").toBool(), map.value("filePath").toString().endsWith("f1.bin"));
            paths << map.value("filePath").toString();
        }
        paths.sort();
        QStringList givenPaths;
        for (const QVariant &file : given)
            givenPaths << file.toMap().value("filePath").toString();
        QCOMPARE(paths, givenPaths);
        // Summed over the files, never back, ending at the total.
        QVERIFY(!reported.isEmpty());
        for (int i = 0; i < reported.size(); ++i) {
            QCOMPARE(reported.at(i).second, 30LL);
            QVERIFY(i == 0 || reported.at(i).first >= reported.at(i - 1).first);
        }
        QCOMPARE(reported.last().first, 30LL);
        // A finished job leaves nothing to resume.
        QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), 0);
    }

    void refusedStarts()
    {
        CloudUploader job;
        QSignalSpy error(&job, &CloudUploader::errorOccurred);
        QVERIFY(!job.setFiles({}));
        QVERIFY(!job.start());
        QCOMPARE(error.takeFirst().first().value<ZTErrorCode>(), Error::ParseError);
        m_upload.service->holdParts = true;
        QVERIFY(job.setFiles(files(1)));
        QVERIFY(job.start());
        QTRY_VERIFY_WITH_TIMEOUT(m_upload.server->heldCount() > 0, 5000);
        QVERIFY(job.start()); // accepted: it runs already
        QCOMPARE(error.count(), 1);
        QCOMPARE(error.first().first().value<ZTErrorCode>(), Error::AlreadyRunning);
        QCOMPARE(job.state(), int(CloudUploader::Running));
        m_upload.server->release();
    }

    // A part fails: the job reports that failure, never finished(), and keeps
    // the file's session, less the parts that went through, for a later run.
    void failingFileFailsJob()
    {
        m_upload.service->partStatus.insert(2, 500);
        CloudUploader job;
        QVERIFY(job.setFiles(files(1)));
        QSignalSpy finished(&job, &CloudUploader::finished);
        QSignalSpy error(&job, &CloudUploader::errorOccurred);
        job.start(); // false when the failure came while it still asked for a session
        QTRY_COMPARE_WITH_TIMEOUT(error.count(), 1, 5000);
        QCOMPARE(error.first().first().value<ZTErrorCode>(), ZTErrorCode(20480 + QNetworkReply::InternalServerError));
        QCOMPARE(job.state(), int(CloudUploader::Failed));
        QCOMPARE(job.fileItems().first()->state, Upload::Failed);
        // Parts 1 and 3 are answered too, and end nothing more.
        QTRY_COMPARE_WITH_TIMEOUT(UploadGlobal::instance()->networkManager()->runningCount(), 0, 5000);
        QCOMPARE(m_upload.service->requestsTo("/upload/part").size(), 3);
        QCOMPARE(finished.count() + error.count(), 1);
        QCOMPARE(m_upload.service->requestsTo("/upload/complete").size(), 0);
        const QVariantMap cached = UploadGlobal::instance()->getInfo(job.fileItems().first()->identifier);
        QCOMPARE(cached.value("uploadInfo").toMap().value("chunks").toList().size(), 1);
    }

private:
    // count files of 9, 10, 11, ... bytes, as the host lists them.
    QVariantList files(int count)
    {
        QVariantList list;
        for (int i = 0; i < count; ++i) {
            QFile file(m_dir.filePath(QStringLiteral("f%1.bin").arg(i)));
            if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray(9 + i, char('a' + i))) != 9 + i)
                return {};
            list << QVariantMap{{"filePath", file.fileName()}, {"category", "mine"}, {"private", i % 2 == 1}};
        }
        return list;
    }

    TestEnvironment m_environment;
    QTemporaryDir m_dir;
    UploadFixture m_upload;
};

QTEST_MAIN(tst_CloudUploader)
#include "tst_clouduploader.moc"
