#include "servicecommand.h"

#include "certificatecheck.h"
#include "commandline.h"
#include "errortext.h"
#include "exitcode.h"
#include "interrupthandler.h"
#include "pluginhost.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <zephyrtide/error.h>

#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QUrl>

ServiceCommand::ServiceCommand(const QString &name)
    : Command(name)
{
}

ServiceCommand::~ServiceCommand()
{
    // The plugin lets go of the client's replies before the host goes away.
    m_client.reset();
    m_host.reset();
}

int ServiceCommand::run()
{
    if (!localFilesUsable())
        return ExitUsage;
    m_server = serverAddress();
    if (m_server.isEmpty() || !loadAuthorities())
        return ExitUsage;
    if (const int status = openSession())
        return status;
    return runOnService();
}

QString ServiceCommand::serverAddress()
{
    QString address = value(QStringLiteral("server"), qEnvironmentVariable("ZT_SERVER")).trimmed();
    if (address.isEmpty()) {
        err(QStringLiteral("ztcli: no server address: give --server URL or set ZT_SERVER\n")
            + CommandLine::usageHint());
        return QString();
    }
    while (address.endsWith(QLatin1Char('/')))
        address.chop(1);
    const QUrl url(address, QUrl::StrictMode);
    const bool web = url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    // QUrl takes "host:" for the default port; a user who typed the colon
    // meant a port and left it out.
    const bool portLeftOut = address.section(QLatin1Char('/'), 2, 2).endsWith(QLatin1Char(':'));
    if (!url.isValid() || !web || url.host().isEmpty() || portLeftOut || url.hasQuery() || url.hasFragment()) {
        err(QStringLiteral("ztcli: \"%1\" is not a file service address such as http://127.0.0.1:8080\n")
                .arg(address));
        return QString();
    }
    return address;
}

bool ServiceCommand::loadAuthorities()
{
    if (!isSet(QStringLiteral("cacert")))
        return true;
    const QString path = value(QStringLiteral("cacert"));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        err(QStringLiteral("ztcli: cannot read the certificate file %1: %2\n").arg(path, file.errorString()));
        return false;
    }
    m_authorities = file.readAll();
    if (QSslCertificate::fromData(m_authorities, QSsl::Pem).isEmpty()) {
        err(QStringLiteral("ztcli: %1 holds no PEM certificate\n").arg(path));
        return false;
    }
    return true;
}

QVariantMap ServiceCommand::hostConfig() const
{
    QVariantMap downloads{{QStringLiteral("temporaryStoragePath"), m_temporaryFolder}};
    if (isSet(QStringLiteral("chunk-size-mb")))
        downloads.insert(QStringLiteral("chunkSize"), number(QStringLiteral("chunk-size-mb"), 0));
    QVariantMap config{{QStringLiteral("startDownload"), downloads}};
    const QString token = value(QStringLiteral("token"), qEnvironmentVariable("ZT_TOKEN"));
    if (!token.isEmpty())
        config.insert(QStringLiteral("token"), token);
    if (!m_authorities.isEmpty())
        config.insert(QStringLiteral("caCertificates"), QString::fromUtf8(m_authorities));
    return config;
}

int ServiceCommand::openSession()
{
    m_temporaryFolder = temporaryFolder();
    m_host.reset(new PluginHost);
    if (!m_host->open(PluginHost::defaultPluginPath(), hostConfig())) {
        err(QStringLiteral("ztcli: %1\n").arg(m_host->errorString()));
        return ExitSetup;
    }
    m_display.reset(new ProgressDisplay(ProgressDisplay::modeForStderr(isSet(QStringLiteral("quiet"))),
                                        stderrFile(), stderrFile()));
    m_client.reset(new ServiceClient(m_host.data()));
    m_client->setInterruptHandler(interrupts());
    m_client->setDisplay(m_display.data());
    m_client->setTemporaryFolder(m_temporaryFolder);
    m_client->setStallTimeoutMs(int(number(QStringLiteral("timeout"), 0)) * 1000);
    const CommandOutcome outcome = m_client->setAddress(m_server);
    if (!outcome.succeeded())
        return report(QStringLiteral("setting the service address"), outcome, ErrorText::ServiceRequest);
    return ExitSuccess;
}

int ServiceCommand::fetchListing(QVariantList &listing)
{
    const CommandOutcome outcome = m_client->list();
    if (!outcome.succeeded())
        return report(QStringLiteral("listing the service"), outcome, ErrorText::ServiceRequest);
    listing = outcome.result.toList();
    return ExitSuccess;
}

int ServiceCommand::report(const QString &what, const CommandOutcome &outcome, int context)
{
    if (!outcome.invoked) {
        err(QStringLiteral("ztcli: %1: the plugin has no command for it\n").arg(what));
        return ExitSetup;
    }
    if (outcome.stalled) {
        err(QStringLiteral("ztcli: %1 failed: no progress for %2 s (--timeout); running the same command again resumes it\n")
                .arg(what)
                .arg(number(QStringLiteral("timeout"), 0)));
        return ExitTransfer;
    }
    err(QStringLiteral("ztcli: %1 failed: %2\n").arg(what, ErrorText::describe(outcome.code)));
    if (outcome.code == Zephyrtide::Error::SslHandshakeFailed) {
        const QStringList reasons = CertificateCheck::refusals(
            QUrl(m_server), QSslCertificate::fromData(m_authorities, QSsl::Pem));
        if (!reasons.isEmpty())
            err(QStringLiteral("ztcli: the service's certificate was refused: %1\n").arg(reasons.join(QStringLiteral("; "))));
    }
    const int status = ErrorText::exitCode(outcome.code, ErrorText::Context(context));
    if (context == ErrorText::Transfer && worthRetrying(outcome))
        err(QStringLiteral("ztcli: running the same command again resumes it; --retry N does so by itself\n"));
    if (status == ExitServer && context == ErrorText::ServiceRequest)
        err(QStringLiteral("ztcli: file service: %1\n").arg(m_server));
    return status;
}

QString ServiceCommand::jobName(const QStringList &files)
{
    return files.size() == 1 ? QFileInfo(files.first()).fileName() : QStringLiteral("%1 files").arg(files.size());
}

// Waits 1, 2, 4 ... 30 s between attempts; every attempt resumes from what
// the ones before it left.
CommandOutcome ServiceCommand::withRetries(const QString &what, const std::function<CommandOutcome()> &attempt)
{
    const int retries = int(number(QStringLiteral("retry"), 0));
    for (int done = 0;; ++done) {
        CommandOutcome outcome = attempt();
        if (outcome.succeeded() || outcome.interrupted || done == retries || !worthRetrying(outcome))
            return outcome;
        const int seconds = qMin(1 << qMin(done, 5), 30);
        err(QStringLiteral("ztcli: %1 failed: %2; retrying in %3 s (%4 of %5)\n")
                .arg(what, outcome.stalled ? QStringLiteral("no progress") : ErrorText::describe(outcome.code))
                .arg(seconds)
                .arg(done + 1)
                .arg(retries));
        if (!interrupts()->sleep(seconds * 1000)) {
            outcome.interrupted = true;
            outcome.stalled = false;
            outcome.code = Zephyrtide::Error::Stopped; // what is on disk stays for the next run
            return outcome;
        }
    }
}

// What another attempt may get past: the network, a service that answered
// with an error status or not at all, a probe that failed. A full disk, an
// unwritable file, a refusal or another run on the same content come back
// the same.
bool ServiceCommand::worthRetrying(const CommandOutcome &outcome)
{
    if (!outcome.invoked)
        return false;
    return outcome.stalled || ErrorText::isNetworkError(outcome.code)
           || outcome.code == Zephyrtide::Error::GeneralFailure || outcome.code == Zephyrtide::Error::ParseError;
}
