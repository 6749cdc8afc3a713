#include "network/networkmanager.h"
#include "upload/clouduploader.h"
#include "upload/fileitem.h"
#include "uploadfixture.h"

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
        CloudUploader job;
        QVERIFY(job.setFiles(files(3)));
        // Each report is what the files have sent by then, each byte counted once.
        QList<qint64> reported;
        connect(&job, &CloudUploader::progress, this, [&job, &reported](qint64 sent, qint64 total) {
            qint64 sum = 0;
            for (const auto &item : job.fileItems())
                sum += item->bytesSent;
            QCOMPARE(sent, sum);
            QCOMPARE(total, 30LL);
            reported << sent;
        });
        QSignalSpy finished(&job, &CloudUploader::finished);
        QSignalSpy error(&job, &CloudUploader::errorOccurred);
        QVERIFY(job.start());
        QVERIFY(finished.wait(10000));
        QCOMPARE(finished.count(), 1);
        QCOMPARE(error.count(), 0);
        QCOMPARE(m_upload.service->requestsTo("/upload/part").size(), 3 + 3 + 3); // 9, 10, 11 bytes
        QCOMPARE(finished.first().first().toList().size(), 3);
        // Summed over the files, never back, ending at the total.
        QVERIFY(!reported.isEmpty());
        for (int i = 1; i < reported.size(); ++i)
            QVERIFY(reported.at(i) >= reported.at(i - 1));
        QCOMPARE(reported.last(), 30LL);
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
            const QString path = m_upload.makeFile(QStringLiteral("f%1.bin").arg(i), QByteArray(9 + i, char('a' + i)));
            list << QVariantMap{{"filePath", path}};
        }
        return list;
    }

    UploadFixture m_upload;
};

QTEST_MAIN(tst_CloudUploader)
#include "tst_clouduploader.moc"
