#include "clirun.h"
#include "filedigest.h"
#include "fileserviceprocess.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// Peak memory of ztcli moving a file larger than its bounds. Bodies stream
// through bounded buffers, so the peak must not follow the file: an upload
// that reads a whole file, or a download whose reply buffers what the disk
// has not taken yet, grows with it.
class tst_ZtcliMemory : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void largeFileStaysWithinBounds();
};

namespace {
constexpr qint64 MiB = 1024 * 1024;
constexpr qint64 PartSize = 8 * MiB;          // the service's default
constexpr double UploadBoundMiB = 4 * 8 + 64; // transfers at once x part size + 64 MiB
constexpr double DownloadBoundMiB = 128;
constexpr qint64 FileSize = 256 * MiB;        // past both bounds by far
} // namespace

void tst_ZtcliMemory::largeFileStaysWithinBounds()
{
#if defined(__SANITIZE_ADDRESS__)
    QSKIP("the sanitizer's shadow memory and quarantine are not the program's own");
#endif
    QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/time")), "make deps installs it");
    QTemporaryDir home, store, local;
    FileServiceProcess service(store.path(), {"--chunk-size", QString::number(PartSize)});
    QVERIFY(service.start());
    // A sparse file: large on the wire, cheap on this disk.
    const QString source = local.filePath(QStringLiteral("large.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(FileSize));
    file.close();
    const QByteArray digest = sha256OfFile(source);

    CliRun cli(home.path());
    cli.setWrapper({"/usr/bin/time", "-f", "peak-kib %M"});
    const auto peakMiB = [&cli] {
        const QRegularExpressionMatch peak = QRegularExpression(QStringLiteral("peak-kib (\\d+)")).match(cli.err());
        return peak.hasMatch() ? peak.captured(1).toDouble() / 1024 : -1;
    };
    QCOMPARE(cli.run({"-q", "--server", service.baseUrl(), "upload", source}, 300000), ExitSuccess);
    qInfo("upload peak %.0f MiB", peakMiB());
    QVERIFY2(peakMiB() > 0 && peakMiB() <= UploadBoundMiB, qPrintable(cli.output()));
    QCOMPARE(sha256OfFile(QDir(store.path()).filePath(QStringLiteral("large.bin"))), digest);

    QCOMPARE(cli.run({"-q", "--server", service.baseUrl(), "--temp", local.filePath("partial"), "download", "large.bin",
                      "--to", local.filePath("back")}, 300000),
             ExitSuccess);
    qInfo("download peak %.0f MiB", peakMiB());
    QVERIFY2(peakMiB() > 0 && peakMiB() <= DownloadBoundMiB, qPrintable(cli.output()));
    QCOMPARE(sha256OfFile(local.filePath(QStringLiteral("back/large.bin"))), digest);
}

QTEST_GUILESS_MAIN(tst_ZtcliMemory)
#include "tst_ztclimemory.moc"
