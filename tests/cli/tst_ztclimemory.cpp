#include "filedigest.h"
#include "fileserviceprocess.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// Peak memory of ztcli moving a file several times larger than its bounds.
// Bodies stream through bounded buffers, so the peak must not follow the file:
// an upload that reads a whole file, or a download whose reply buffers what
// the disk has not taken yet, grows with it.
class tst_ZtcliMemory : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void largeFileStaysWithinBounds();

private:
    // Runs ztcli under /usr/bin/time; its exit status, and the peak in *peakMiB.
    int runMeasured(const QStringList &arguments, double *peakMiB, QString *output);

    QTemporaryDir m_home;
    QTemporaryDir m_store;
    QTemporaryDir m_local;
    QScopedPointer<FileServiceProcess> m_service;
};

namespace {
constexpr qint64 MiB = 1024 * 1024;
constexpr qint64 PartSize = 8 * MiB;          // the service's default
constexpr double UploadBoundMiB = 4 * 8 + 64; // transfers at once x part size + 64 MiB
constexpr double DownloadBoundMiB = 128;
constexpr qint64 FileSize = 480 * MiB;        // five times the upload bound
} // namespace

void tst_ZtcliMemory::initTestCase()
{
#if defined(__SANITIZE_ADDRESS__)
    QSKIP("the sanitizer's shadow memory and quarantine are not the program's own");
#endif
    QVERIFY(m_home.isValid() && m_store.isValid() && m_local.isValid());
    QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/time")), "make deps installs it");
    m_service.reset(new FileServiceProcess(m_store.path(), {"--chunk-size", QString::number(PartSize)}));
    QVERIFY(m_service->start());
}

int tst_ZtcliMemory::runMeasured(const QStringList &arguments, double *peakMiB, QString *output)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QDir home(m_home.path());
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), home.filePath(QStringLiteral("cache")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    env.remove(QStringLiteral("QT_LOGGING_RULES"));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral("/usr/bin/time"),
                  QStringList{"-f", "peak-kib %M", QStringLiteral(ZTCLI_PATH)} + arguments);
    if (!process.waitForFinished(300000)) {
        process.kill();
        process.waitForFinished(5000);
        return -1;
    }
    *output = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    const QRegularExpressionMatch peak = QRegularExpression(QStringLiteral("peak-kib (\\d+)")).match(*output);
    *peakMiB = peak.hasMatch() ? peak.captured(1).toDouble() / 1024 : -1;
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

void tst_ZtcliMemory::largeFileStaysWithinBounds()
{
    // A sparse file: large on the wire, cheap on this disk.
    const QString source = QDir(m_local.path()).filePath(QStringLiteral("large.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(FileSize));
    file.close();
    const QByteArray digest = sha256OfFile(source);

    double peak = 0;
    QString output;
    QCOMPARE(runMeasured({"--server", m_service->baseUrl(), "upload", source}, &peak, &output), 0);
    QVERIFY2(peak > 0, qPrintable(output));
    qInfo("upload peak %.0f MiB", peak);
    QVERIFY2(peak <= UploadBoundMiB, qPrintable(QStringLiteral("upload peak %1 MiB").arg(peak)));
    QCOMPARE(sha256OfFile(QDir(m_store.path()).filePath(QStringLiteral("large.bin"))), digest);

    QTemporaryDir target;
    QCOMPARE(runMeasured({"--server", m_service->baseUrl(), "--temp", QDir(target.path()).filePath("partial"),
                          "download", "large.bin", "--to", target.path()},
                         &peak, &output),
             0);
    QVERIFY2(peak > 0, qPrintable(output));
    qInfo("download peak %.0f MiB", peak);
    QVERIFY2(peak <= DownloadBoundMiB, qPrintable(QStringLiteral("download peak %1 MiB").arg(peak)));
    QCOMPARE(sha256OfFile(QDir(target.path()).filePath(QStringLiteral("large.bin"))), digest);
}

QTEST_GUILESS_MAIN(tst_ZtcliMemory)
#include "tst_ztclimemory.moc"
