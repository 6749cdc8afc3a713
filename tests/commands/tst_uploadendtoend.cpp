#include "filedigest.h"
#include "fileserviceprocess.h"
#include "hostcall.h"
#include "plugin/ztserver.h"
#include "randomfile.h"
#include "testenvironment.h"
#include "upload/uploadglobal.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QtTest>

// Uploads through the plugin, as the host drives it, to the reference file
// service on loopback, cut part-way and resumed: the stored file must be
// byte-identical to the source. 32 parts, four of them in flight at a cut.
class tst_UploadEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void interruptedThenResumed_data();
    void interruptedThenResumed();

private:
    static constexpr qint64 ChunkSize = 256 * 1024;
    static constexpr qint64 Size = 32 * ChunkSize;

    QVariantMap filesParam() const;
    // Starts an upload of the source and stops (or aborts) it once bytes of it went out.
    void interruptPartWay(qint64 bytes, bool abort);
    QSet<QString> uploadIdsInLog();

    TestEnvironment m_environment;
    QScopedPointer<QTemporaryDir> m_sources;
    QScopedPointer<QTemporaryDir> m_store;
    QScopedPointer<FileServiceProcess> m_service;
    QScopedPointer<Zephyrtide::Manager> m_host;
    QScopedPointer<ZTServer> m_root;
    QString m_path; // the source, of Size random bytes
};

void tst_UploadEndToEnd::init()
{
    m_sources.reset(new QTemporaryDir);
    m_store.reset(new QTemporaryDir);
    m_host.reset(new Zephyrtide::Manager);
    m_root.reset(new ZTServer);
    QVERIFY(QMetaObject::invokeMethod(m_root.data(), "zt_set_manager",
                                      Q_ARG(Zephyrtide::Manager *, m_host.data())));
    UploadGlobal::instance()->removeAll();
    m_path = m_sources->filePath("up.bin");
    QVERIFY(writeRandomFile(m_path, Size, 7));
    m_service.reset(new FileServiceProcess(m_store->path(), {"--chunk-size", QString::number(ChunkSize)}));
    QVERIFY(m_service->start());
    QVERIFY(HostCall(m_root.data(), "zt_apply_setIP", {{"ip", m_service->baseUrl()}}).succeeded());
}

void tst_UploadEndToEnd::cleanup()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_root.reset();
    m_host.reset();
    m_service.reset();
}

QVariantMap tst_UploadEndToEnd::filesParam() const
{
    return {{"files", QVariantList{QVariantMap{{"filePath", m_path}, {"userID", "tester"}, {"private", true}}}}};
}

// The host's side acts on the progress report that passes bytes, on the next
// turn of the event loop: the cut does not depend on how fast the parts go.
void tst_UploadEndToEnd::interruptPartWay(qint64 bytes, bool abort)
{
    HostCall run(m_root.data(), "zt_apply_startUpload", filesParam(), [&](Zephyrtide::Reply *reply) {
        connect(reply, &Zephyrtide::Reply::uploadProgress, reply, [reply, bytes, abort](qint64 sent) {
            if (sent >= bytes)
                Q_EMIT(abort ? reply->abort() : reply->stop());
        }, Qt::QueuedConnection);
    });
    run.wait(60000);
    QCOMPARE(run.error(), abort ? Zephyrtide::Error::Aborted : Zephyrtide::Error::Stopped);
    // A stopped file keeps its session on this side; an aborted one leaves nothing to resume from.
    QCOMPARE(UploadGlobal::instance()->readValue("uploadInfo").toMap().size(), abort ? 0 : 1);
}

QSet<QString> tst_UploadEndToEnd::uploadIdsInLog()
{
    QSet<QString> ids;
    static const QRegularExpression line(QStringLiteral("part \\d+ of (\\w+):"));
    auto it = line.globalMatch(QString::fromUtf8(m_service->log()));
    while (it.hasNext())
        ids.insert(it.next().captured(1));
    return ids;
}

void tst_UploadEndToEnd::interruptedThenResumed_data()
{
    QTest::addColumn<QStringList>("interruptions");
    QTest::newRow("stop, resume") << QStringList{"stop"};
    QTest::newRow("stop, resume, stop again, resume") << QStringList{"stop", "stop"};
    QTest::newRow("abort, start again") << QStringList{"abort"};
}

// Each run is cut once another eighth of the file went out; the last one runs
// to the end. The service keeps the session throughout, also for an aborted
// run, and a part resumes where both sides agree it got to: only parts in
// flight at a cut (four at most) can go again, and no byte may be skipped.
void tst_UploadEndToEnd::interruptedThenResumed()
{
    QFETCH(QStringList, interruptions);
    for (int i = 0; i < interruptions.size() && !QTest::currentTestFailed(); ++i)
        interruptPartWay(Size / 8 * (i + 1), interruptions.at(i) == QLatin1String("abort"));
    if (QTest::currentTestFailed())
        return;
    // The service's log arrives through the event loop.
    QTRY_VERIFY_WITH_TIMEOUT(m_service->partBytesReceived() > 0, 10000);
    QVERIFY(m_service->partBytesReceived() < Size);

    HostCall last(m_root.data(), "zt_apply_startUpload", filesParam());
    last.wait(60000);
    QCOMPARE(last.error(), Zephyrtide::Error::NoError);
    QCOMPARE(sha256OfFile(m_store->filePath("up.bin")), sha256OfFile(m_path));
    // Every part line of the file comes before the one that says it is stored.
    QTRY_VERIFY_WITH_TIMEOUT(m_service->log().contains("stored up.bin ("), 10000);
    QCOMPARE(uploadIdsInLog().size(), 1);
    const qint64 resent = m_service->partBytesReceived() - Size;
    QVERIFY2(resent >= 0 && resent <= interruptions.size() * 4 * ChunkSize, qPrintable(QString::number(resent)));
}

QTEST_MAIN(tst_UploadEndToEnd)
#include "tst_uploadendtoend.moc"
