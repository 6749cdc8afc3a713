#include "serviceclient.h"

#include "interrupthandler.h"
#include "partialfolders.h"
#include "pluginhost.h"
#include "progressdisplay.h"

#include <zephyrtide/error.h>

#include <QDir>
#include <QFileInfo>
#include <QTextStream>
#include <QUrl>

#include <unistd.h>

namespace {
const QString UploadCategory = QStringLiteral("Zephyrtide");
constexpr int SecondInterruptWindowMs = 2000; // after a stopped download
}

ServiceClient::ServiceClient(PluginHost *host, QObject *parent)
    : QObject(parent)
    , m_host(host)
{
}

CommandOutcome ServiceClient::call(QObject *target, const char *slot, const QVariantMap &params,
                                   const TransferView &view)
{
    // A Ctrl-C between two commands ends the sequence before the next one.
    if (m_interrupts && m_interrupts->count() > 0) {
        CommandOutcome outcome;
        outcome.invoked = outcome.interrupted = true;
        outcome.status = QStringLiteral("fail");
        outcome.code = Zephyrtide::Error::Stopped;
        return outcome;
    }
    HostCommand command(target, slot, params);
    command.watchInterrupts(m_interrupts);
    // The plugin keeps a download's chunks when it is aborted as when it is
    // stopped; ztcli promises that an abort discards them. Which folders are
    // this run's is known only while the plugin still writes them.
    QStringList aborted;
    QStringList stopped;
    if (view.discardsOnAbort && !m_temporaryFolder.isEmpty()) {
        connect(&command, &HostCommand::aborting, this,
                [this, &aborted] { aborted = PartialFolders::heldByThisProcess(m_temporaryFolder); });
        connect(&command, &HostCommand::stopping, this,
                [this, &stopped] { stopped = PartialFolders::heldByThisProcess(m_temporaryFolder); });
    }
    const bool showsProgress = m_display && !view.label.isEmpty();
    if (!view.label.isEmpty())
        command.setStallTimeoutMs(m_stallMs);
    if (showsProgress) {
        command.showProgress(m_display);
        m_display->begin(view.label);
        m_display->setAlreadyThere(view.alreadyThere);
        m_display->setKnownTotal(view.total);
    }
    CommandOutcome outcome = command.run();
    if (showsProgress)
        m_display->finish(outcome.succeeded());
    if (aborted.isEmpty() && awaitSecondInterrupt(stopped)) {
        aborted = stopped;
        outcome.code = Zephyrtide::Error::Aborted;
    }
    discard(aborted);
    return outcome;
}

// A stop ends a download within a fraction of a second, often before a user
// at the terminal can press Ctrl-C again; so ztcli waits two seconds more once
// the download has stopped, and a second Ctrl-C meanwhile discards what it
// left, as an abort does. A run that nobody watches at a terminal exits at once.
bool ServiceClient::awaitSecondInterrupt(const QStringList &stopped)
{
    if (stopped.isEmpty() || !m_interrupts || m_interrupts->count() != 1 || !isatty(STDIN_FILENO))
        return false;
    return !m_interrupts->sleep(SecondInterruptWindowMs);
}

void ServiceClient::discard(const QStringList &folders)
{
    for (const QString &folder : PartialFolders::remove(folders)) {
        const QString text = QStringLiteral("Removed the partial download in %1").arg(folder);
        if (m_display)
            m_display->note(text);
        else
            QTextStream(stderr) << text << '\n';
    }
}

CommandOutcome ServiceClient::setAddress(const QString &baseUrl)
{
    m_baseUrl = baseUrl;
    return call(m_host->root(), "zt_apply_setIP", {{QStringLiteral("ip"), baseUrl}});
}

CommandOutcome ServiceClient::list()
{
    return call(m_host->root(), "zt_apply_fileList", QVariantMap());
}

CommandOutcome ServiceClient::remove(const QString &name)
{
    return call(m_host->root(), "zt_apply_delete", {{QStringLiteral("filename"), name}});
}

QString ServiceClient::downloadUrl(const QString &name) const
{
    return m_baseUrl + QStringLiteral("/download?fileName=")
           + QString::fromLatin1(QUrl::toPercentEncoding(name));
}

CommandOutcome ServiceClient::exists(const QString &name)
{
    QObject *downloads = m_host->commandObject("StartDownload");
    if (!downloads) {
        CommandOutcome outcome;
        outcome.status = QStringLiteral("fail");
        outcome.code = Zephyrtide::Error::NoManager;
        return outcome;
    }
    return call(downloads, "zt_apply_isExist", {{QStringLiteral("url"), downloadUrl(name)}});
}

CommandOutcome ServiceClient::upload(const QStringList &absolutePaths, const QString &label)
{
    QVariantList files;
    TransferView view{label};
    view.total = 0;
    for (const QString &path : absolutePaths) {
        view.total += QFileInfo(path).size();
        files.append(QVariantMap{{QStringLiteral("filePath"), path},
                                 {QStringLiteral("category"), UploadCategory},
                                 {QStringLiteral("private"), false},
                                 {QStringLiteral("userID"), QString()}});
    }
    return call(m_host->root(), "zt_apply_startUpload", {{QStringLiteral("files"), files}}, view);
}

CommandOutcome ServiceClient::download(const QStringList &names, const QString &folder,
                                       const QString &label, qint64 onDisk)
{
    const QDir destination(folder);
    QVariantList files;
    for (const QString &name : names) {
        // "path" is the destination file itself; the plugin takes its folder from it.
        files.append(QVariantMap{{QStringLiteral("filename"), name},
                                 {QStringLiteral("path"), destination.absoluteFilePath(name)}});
    }
    return call(m_host->root(), "zt_apply_startDownload", {{QStringLiteral("files"), files}},
                {label, onDisk, true});
}

QVariantMap ServiceClient::findEntry(const QVariantList &listing, const QString &name)
{
    for (const QVariant &entry : listing) {
        const QVariantMap map = entry.toMap();
        if (map.value(QStringLiteral("fileName")).toString() == name)
            return map;
    }
    return QVariantMap();
}
