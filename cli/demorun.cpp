#include "demorun.h"

#include "errortext.h"
#include "exitcode.h"
#include "fileserviceprocess.h"
#include "interrupthandler.h"
#include "pluginhost.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStorageInfo>
#include <QTemporaryDir>

namespace {

constexpr qint64 MiB = 1024 * 1024;
constexpr int WriteBlock = 1024 * 1024;

// splitmix64: fast, and good enough that no two blocks of a sample repeat.
quint64 nextRandom(quint64 &state)
{
    quint64 z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

double rateOf(qint64 bytes, double seconds)
{
    return seconds > 0 ? double(bytes) / seconds : 0;
}

} // namespace

DemoRun::DemoRun(QIODevice *out, QIODevice *err, InterruptHandler *interrupts, QObject *parent)
    : QObject(parent)
    , m_out(out)
    , m_err(err)
    , m_interrupts(interrupts)
{
}

void DemoRun::say(const QString &text)
{
    m_out->write(text.toUtf8());
}

void DemoRun::complain(const QString &text)
{
    m_err->write(QStringLiteral("ztcli demo: %1\n").arg(text).toUtf8());
}

bool DemoRun::interrupted() const
{
    return m_interrupts && m_interrupts->count() > 0;
}

QByteArray DemoRun::writeSample(const QString &path, qint64 size, quint64 seed, bool asText)
{
    static const char words[] = "ztServer moves files in chunks and resumes where it stopped. ";
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray block(WriteBlock, Qt::Uninitialized);
    quint64 state = seed;
    for (qint64 left = size; left > 0;) {
        const int n = int(qMin<qint64>(left, block.size()));
        if (asText) {
            for (int i = 0; i < n; ++i)
                block[i] = words[(size - left + i) % (sizeof words - 1)];
        } else {
            auto *words64 = reinterpret_cast<quint64 *>(block.data());
            for (int i = 0; i < (n + 7) / 8; ++i)
                words64[i] = nextRandom(state);
        }
        if (file.write(block.constData(), n) != n)
            return QByteArray();
        hash.addData(block.constData(), n);
        left -= n;
        // Ctrl-C while hundreds of MiB are written should not wait for the end.
        QCoreApplication::processEvents();
        if (interrupted())
            return QByteArray();
    }
    return file.flush() ? hash.result() : QByteArray();
}

QByteArray DemoRun::sha256Of(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return hash.addData(&file) ? hash.result() : QByteArray();
}

int DemoRun::run(qint64 largeSizeMiB)
{
    const QList<Sample> plan{{QStringLiteral("notes.txt"), 4000, {}},
                             {QStringLiteral("photo.bin"), 3 * MiB + 1, {}},
                             {QStringLiteral("archive.bin"), largeSizeMiB * MiB, {}}};
    qint64 totalBytes = 0;
    for (const Sample &sample : plan)
        totalBytes += sample.size;

    // Declared first, removed last: the service and the plugin go before their files.
    QTemporaryDir work(QDir::temp().filePath(QStringLiteral("ztcli-demo-XXXXXX")));
    if (!work.isValid()) {
        complain(QStringLiteral("cannot make a temporary folder: %1").arg(work.errorString()));
        return ExitSetup;
    }
    // Samples, the stored copies, partial chunks and the downloads side by side.
    const qint64 needed = 4 * totalBytes + 64 * MiB;
    const qint64 available = QStorageInfo(work.path()).bytesAvailable();
    if (available >= 0 && available < needed) {
        complain(QStringLiteral("%1 has %2 free; the demo needs about %3 (try --size-mb)")
                     .arg(work.path(), ProgressDisplay::bytes(available), ProgressDisplay::bytes(needed)));
        return ExitSetup;
    }
    const QDir root(work.path());
    for (const char *folder : {"samples", "store", "downloads", "partial", "settings"})
        root.mkpath(QLatin1String(folder));
    // The plugin keeps upload sessions in the per-user settings; the demo's
    // stay in its own folder and go with it.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, root.filePath(QStringLiteral("settings")));

    say(QStringLiteral("ztcli demo: working in %1\n").arg(work.path()));
    FileServiceProcess service;
    service.setEchoLog(m_verbose);
    if (!service.start(root.filePath(QStringLiteral("store")))) {
        complain(service.errorString());
        return ExitSetup;
    }
    say(QStringLiteral("file service at %1\n").arg(service.baseUrl()));

    PluginHost host;
    const QVariantMap config{{QStringLiteral("startDownload"),
                              QVariantMap{{QStringLiteral("temporaryStoragePath"), root.filePath(QStringLiteral("partial"))}}}};
    if (!host.open(PluginHost::defaultPluginPath(), config)) {
        complain(host.errorString());
        return ExitSetup;
    }
    ProgressDisplay display(ProgressDisplay::modeForStderr(), m_err, m_err);
    ServiceClient client(&host);
    client.setInterruptHandler(m_interrupts);
    client.setDisplay(&display);
    CommandOutcome outcome = client.setAddress(service.baseUrl());
    if (!outcome.succeeded()) {
        complain(QStringLiteral("setting the address failed: %1").arg(ErrorText::describe(outcome.code)));
        return ErrorText::exitCode(outcome.code, ErrorText::ServiceRequest);
    }

    // 1. Samples.
    QElapsedTimer clock;
    clock.start();
    QList<Sample> samples;
    QStringList paths;
    quint64 seed = quint64(QDateTime::currentMSecsSinceEpoch());
    for (const Sample &planned : plan) {
        Sample sample = planned;
        const QString path = root.filePath(QStringLiteral("samples/") + sample.name);
        sample.sha256 = writeSample(path, sample.size, ++seed, sample.name.endsWith(QLatin1String(".txt")));
        if (interrupted()) {
            complain(QStringLiteral("interrupted"));
            return ExitInterrupted;
        }
        if (sample.sha256.isEmpty()) {
            complain(QStringLiteral("cannot write %1").arg(path));
            return ExitSetup;
        }
        samples.append(sample);
        paths.append(path);
    }
    say(QStringLiteral("made %1 sample files, %2, in %3\n")
            .arg(samples.size())
            .arg(ProgressDisplay::bytes(totalBytes), ProgressDisplay::seconds(clock.elapsed() / 1000.0)));

    // 2. Upload, all files in one job.
    clock.restart();
    outcome = client.upload(paths, QStringLiteral("upload %1 files").arg(paths.size()));
    const double uploadSeconds = clock.elapsed() / 1000.0;
    if (!outcome.succeeded()) {
        complain(QStringLiteral("upload failed: %1").arg(ErrorText::describe(outcome.code)));
        return ErrorText::exitCode(outcome.code, ErrorText::Transfer);
    }

    // 3. List: every sample must be there with its size.
    outcome = client.list();
    if (!outcome.succeeded()) {
        complain(QStringLiteral("listing failed: %1").arg(ErrorText::describe(outcome.code)));
        return ErrorText::exitCode(outcome.code, ErrorText::ServiceRequest);
    }
    const QVariantList listing = outcome.result.toList();
    say(QStringLiteral("the service lists %1 file(s):\n").arg(listing.size()));
    for (const QVariant &entry : listing) {
        const QVariantMap map = entry.toMap();
        say(QStringLiteral("  %1  %2\n")
                .arg(map.value(QStringLiteral("fileName")).toString(), -12)
                .arg(map.value(QStringLiteral("fileSize")).toLongLong(), 12));
    }
    QStringList names;
    for (const Sample &sample : samples) {
        const QVariantMap entry = ServiceClient::findEntry(listing, sample.name);
        if (entry.value(QStringLiteral("fileSize"), -1).toLongLong() != sample.size) {
            complain(QStringLiteral("%1 is not listed with its %2 bytes").arg(sample.name).arg(sample.size));
            return ExitTransfer;
        }
        names.append(sample.name);
    }

    // 4. Download into a fresh folder.
    const QString downloads = root.filePath(QStringLiteral("downloads"));
    clock.restart();
    outcome = client.download(names, downloads, QStringLiteral("download %1 files").arg(names.size()));
    const double downloadSeconds = clock.elapsed() / 1000.0;
    if (!outcome.succeeded()) {
        complain(QStringLiteral("download failed: %1").arg(ErrorText::describe(outcome.code)));
        return ErrorText::exitCode(outcome.code, ErrorText::Transfer);
    }

    // 5. Compare.
    say(QStringLiteral("\n%1  %2  %3  %4\n")
            .arg(QStringLiteral("file"), -12)
            .arg(QStringLiteral("size"), 12)
            .arg(QStringLiteral("sha-256"), -16)
            .arg(QStringLiteral("check")));
    bool allSame = true;
    for (const Sample &sample : samples) {
        const QString path = QDir(downloads).filePath(sample.name);
        const QByteArray copy = sha256Of(path);
        const bool same = copy == sample.sha256;
        allSame = allSame && same;
        say(QStringLiteral("%1  %2  %3  %4\n")
                .arg(sample.name, -12)
                .arg(sample.size, 12)
                .arg(QString::fromLatin1(sample.sha256.toHex().left(16)))
                .arg(same ? QStringLiteral("identical") : QStringLiteral("DIFFERENT")));
    }
    say(QStringLiteral("\nupload    %1 in %2, %3\n")
            .arg(ProgressDisplay::bytes(totalBytes), ProgressDisplay::seconds(uploadSeconds),
                 ProgressDisplay::rate(rateOf(totalBytes, uploadSeconds))));
    say(QStringLiteral("download  %1 in %2, %3\n")
            .arg(ProgressDisplay::bytes(totalBytes), ProgressDisplay::seconds(downloadSeconds),
                 ProgressDisplay::rate(rateOf(totalBytes, downloadSeconds))));
    if (!allSame) {
        complain(QStringLiteral("downloaded files differ from the originals"));
        return ExitTransfer;
    }
    say(QStringLiteral("all %1 files came back identical (SHA-256)\n").arg(samples.size()));
    return ExitSuccess;
}
