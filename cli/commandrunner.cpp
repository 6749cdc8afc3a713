#include "commandrunner.h"

#include "certificatecheck.h"
#include "demorun.h"
#include "errortext.h"
#include "exitcode.h"
#include "fileserviceprocess.h"
#include "helptext.h"
#include "interrupthandler.h"
#include "pluginhost.h"
#include "partialfolders.h"
#include "progressdisplay.h"
#include "serviceclient.h"

#include <zephyrtide/error.h>

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QSslCertificate>
#include <QUrl>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

QString padded(const QString &text, int width)
{
    return text.leftJustified(width, QLatin1Char(' '));
}

// The service reports the time of change as seconds since the epoch or as text.
QString modifiedText(const QVariant &value)
{
    bool isNumber = false;
    const double seconds = value.toDouble(&isNumber);
    if (value.type() != QVariant::String && isNumber)
        return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000)).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    return value.toString();
}

// The upload's result map of the file at path.
QVariantMap resultFor(const QVariantList &results, const QString &path)
{
    for (const QVariant &result : results) {
        const QVariantMap map = result.toMap();
        if (map.value(QStringLiteral("filePath")).toString() == path)
            return map;
    }
    return QVariantMap();
}

} // namespace

CommandRunner::CommandRunner(const CommandLine &line, QObject *parent)
    : QObject(parent)
    , m_line(line)
    , m_interrupts(new InterruptHandler(this))
{
    m_stdout.open(stdout, QIODevice::WriteOnly | QIODevice::Unbuffered);
    m_stderr.open(stderr, QIODevice::WriteOnly | QIODevice::Unbuffered);
}

CommandRunner::~CommandRunner()
{
    // The plugin lets go of the client's replies before the host goes away.
    m_client.reset();
    m_host.reset();
}

void CommandRunner::out(const QString &text)
{
    m_stdout.write(text.toUtf8());
}

void CommandRunner::err(const QString &text)
{
    m_stderr.write(text.toUtf8());
}

void CommandRunner::applyLogRules(bool verbose)
{
    // Without a level the rule covers all four: debug, info, warning, critical.
    QLoggingCategory::setFilterRules(verbose ? QStringLiteral("zephyrtide.dll=true")
                                             : QStringLiteral("zephyrtide.dll=false"));
}

QString CommandRunner::defaultTempFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
           + QStringLiteral("/ztcli/partial");
}

int CommandRunner::run()
{
    if (!m_line.isValid()) {
        err(QStringLiteral("ztcli: %1\n").arg(m_line.error()) + HelpText::usageHint());
        return ExitUsage;
    }
    if (m_line.helpRequested()) {
        out(m_line.helpTopic().isEmpty() ? HelpText::general() : HelpText::command(m_line.helpTopic()));
        return ExitSuccess;
    }
    if (m_line.versionRequested()) {
        out(QStringLiteral("ztcli %1, host of plugin interface %2\n")
                .arg(QStringLiteral(ZT_CLI_VERSION), QLatin1String(PluginHost::Iid)));
        return ExitSuccess;
    }
    applyLogRules(m_line.verbose());

    const QString command = m_line.command();
    if (command == QLatin1String("serve"))
        return runServe();
    if (command == QLatin1String("demo"))
        return runDemo();
    if (command == QLatin1String("partial"))
        return runPartial();
    if (command == QLatin1String("upload") && !uploadFilesReadable())
        return ExitUsage;
    m_server = serverAddress();
    if (m_server.isEmpty() || !loadAuthorities())
        return ExitUsage;
    if (const int status = openSession())
        return status;

    if (command == QLatin1String("list"))
        return runList();
    if (command == QLatin1String("delete"))
        return runDelete();
    if (command == QLatin1String("upload"))
        return runUpload();
    if (command == QLatin1String("download"))
        return runDownload();
    return runExists();
}

// Local mistakes are usage errors and are found before anything loads.
bool CommandRunner::uploadFilesReadable()
{
    for (const QString &file : m_line.operands()) {
        const QFileInfo info(file);
        if (!info.isFile() || !info.isReadable()) {
            err(QStringLiteral("ztcli: %1 is not a readable file\n").arg(file));
            return false;
        }
    }
    return true;
}

QString CommandRunner::serverAddress()
{
    QString address = m_line.value(QStringLiteral("server"), qEnvironmentVariable("ZT_SERVER")).trimmed();
    if (address.isEmpty()) {
        err(QStringLiteral("ztcli: no server address: give --server URL or set ZT_SERVER\n")
            + HelpText::usageHint());
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

bool CommandRunner::loadAuthorities()
{
    if (!m_line.isSet(QStringLiteral("cacert")))
        return true;
    const QString path = m_line.value(QStringLiteral("cacert"));
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

QVariantMap CommandRunner::hostConfig(const QString &tempFolder) const
{
    QVariantMap downloads{{QStringLiteral("temporaryStoragePath"), tempFolder}};
    if (m_line.isSet(QStringLiteral("chunk-size-mb")))
        downloads.insert(QStringLiteral("chunkSize"), m_line.number(QStringLiteral("chunk-size-mb"), 0));
    QVariantMap config{{QStringLiteral("startDownload"), downloads}};
    const QString token = m_line.value(QStringLiteral("token"), qEnvironmentVariable("ZT_TOKEN"));
    if (!token.isEmpty())
        config.insert(QStringLiteral("token"), token);
    if (!m_authorities.isEmpty())
        config.insert(QStringLiteral("caCertificates"), QString::fromUtf8(m_authorities));
    return config;
}

int CommandRunner::openSession()
{
    const QString temp = QDir(m_line.value(QStringLiteral("temp"), defaultTempFolder())).absolutePath();
    m_temporaryFolder = temp;
    m_host.reset(new PluginHost);
    if (!m_host->open(PluginHost::defaultPluginPath(), hostConfig(temp))) {
        err(QStringLiteral("ztcli: %1\n").arg(m_host->errorString()));
        return ExitSetup;
    }
    m_display.reset(new ProgressDisplay(ProgressDisplay::modeForStderr(m_line.isSet(QStringLiteral("quiet"))),
                                        &m_stderr, &m_stderr));
    m_client.reset(new ServiceClient(m_host.data()));
    m_client->setInterruptHandler(m_interrupts);
    m_client->setDisplay(m_display.data());
    m_client->setTemporaryFolder(temp);
    m_client->setStallTimeoutMs(int(m_line.number(QStringLiteral("timeout"), 0)) * 1000);
    const CommandOutcome outcome = m_client->setAddress(m_server);
    if (!outcome.succeeded())
        return report(QStringLiteral("setting the service address"), outcome, ErrorText::ServiceRequest);
    return ExitSuccess;
}

int CommandRunner::report(const QString &what, const CommandOutcome &outcome, int context)
{
    if (!outcome.invoked) {
        err(QStringLiteral("ztcli: %1: the plugin has no command for it\n").arg(what));
        return ExitSetup;
    }
    if (outcome.stalled) {
        err(QStringLiteral("ztcli: %1 failed: no progress for %2 s (--timeout); running the same command again resumes it\n")
                .arg(what)
                .arg(m_line.number(QStringLiteral("timeout"), 0)));
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

// A job's files as an error names them: the one file, or how many.
QString CommandRunner::jobName(const QStringList &files)
{
    return files.size() == 1 ? QFileInfo(files.first()).fileName() : QStringLiteral("%1 files").arg(files.size());
}

// Runs a transfer again after a failure that another attempt may get past,
// up to --retry times, waiting 1, 2, 4 ... 30 s in between; every attempt
// resumes from what the ones before it left.
CommandOutcome CommandRunner::withRetries(const QString &what, const std::function<CommandOutcome()> &attempt)
{
    const int retries = int(m_line.number(QStringLiteral("retry"), 0));
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
        if (!m_interrupts->sleep(seconds * 1000)) {
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
bool CommandRunner::worthRetrying(const CommandOutcome &outcome)
{
    if (!outcome.invoked)
        return false;
    return outcome.stalled || ErrorText::isNetworkError(outcome.code)
           || outcome.code == Zephyrtide::Error::GeneralFailure || outcome.code == Zephyrtide::Error::ParseError;
}

int CommandRunner::fetchListing(QVariantList &listing)
{
    const CommandOutcome outcome = m_client->list();
    if (!outcome.succeeded())
        return report(QStringLiteral("listing the service"), outcome, ErrorText::ServiceRequest);
    listing = outcome.result.toList();
    return ExitSuccess;
}

int CommandRunner::runServe()
{
    const QString script = FileServiceProcess::scriptPath();
    if (!QFileInfo::exists(script)) {
        err(QStringLiteral("ztcli: the reference file service is not at %1 (set ZT_FILESERVICE)\n").arg(script));
        return ExitSetup;
    }
    const QString root = QDir(m_line.value(QStringLiteral("root"), QStringLiteral("zt-store"))).absolutePath();
    if (!QDir().mkpath(root)) {
        err(QStringLiteral("ztcli: cannot create %1\n").arg(root));
        return ExitUsage;
    }
    const int port = int(m_line.number(QStringLiteral("port"), 8080));
    // The service takes over this process: it stays in the foreground, gets
    // Ctrl-C itself and prints its address first.
    QList<QByteArray> words{FileServiceProcess::interpreter().toLocal8Bit()};
    for (const QString &argument : FileServiceProcess::arguments(root, port))
        words.append(argument.toLocal8Bit());
    QVector<char *> argv;
    for (QByteArray &word : words)
        argv.append(word.data());
    argv.append(nullptr);
    delete m_interrupts; // give SIGINT back to its default before exec
    m_interrupts = nullptr;
    ::execv(argv.first(), argv.data());
    err(QStringLiteral("ztcli: cannot run %1: %2\n").arg(FileServiceProcess::interpreter(),
                                                        QString::fromLocal8Bit(strerror(errno))));
    return ExitSetup;
}

int CommandRunner::runList()
{
    const CommandOutcome outcome = m_client->list();
    if (!outcome.succeeded())
        return report(QStringLiteral("listing the service"), outcome, ErrorText::ServiceRequest);
    const QVariantList listing = outcome.result.toList();
    if (m_line.isSet(QStringLiteral("json"))) {
        out(QString::fromUtf8(QJsonDocument::fromVariant(listing).toJson(QJsonDocument::Indented)));
        return ExitSuccess;
    }
    int nameWidth = 4;
    for (const QVariant &entry : listing)
        nameWidth = qMax(nameWidth, entry.toMap().value(QStringLiteral("fileName")).toString().size());
    out(padded(QStringLiteral("NAME"), nameWidth) + QStringLiteral("  %1  %2  MODIFIED\n")
            .arg(QStringLiteral("BYTES"), 14).arg(padded(QStringLiteral("SIZE"), 10)));
    qint64 total = 0;
    for (const QVariant &entry : listing) {
        const QVariantMap map = entry.toMap();
        const qint64 size = map.value(QStringLiteral("fileSize")).toLongLong();
        total += size;
        out(padded(map.value(QStringLiteral("fileName")).toString(), nameWidth)
            + QStringLiteral("  %1  %2  %3\n")
                  .arg(size, 14)
                  .arg(padded(ProgressDisplay::bytes(size), 10), modifiedText(map.value(QStringLiteral("modified")))));
    }
    out(QStringLiteral("%1 file(s), %2\n").arg(listing.size()).arg(ProgressDisplay::bytes(total)));
    return ExitSuccess;
}

int CommandRunner::runDelete()
{
    // A "notExist" answer reaches the host as a general failure, so the
    // listing tells which names are stored; the others are never sent.
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    int status = ExitSuccess;
    for (const QString &name : m_line.operands()) {
        if (ServiceClient::findEntry(listing, name).isEmpty()) {
            err(QStringLiteral("ztcli: %1: not on the service\n").arg(name));
            status = status == ExitSuccess ? int(ExitNotFound) : status;
            continue;
        }
        const CommandOutcome outcome = m_client->remove(name);
        if (!outcome.succeeded())
            return report(QStringLiteral("deleting %1").arg(name), outcome, ErrorText::ServiceRequest);
        out(QStringLiteral("deleted %1\n").arg(name));
    }
    return status;
}

int CommandRunner::runExists()
{
    const QString name = m_line.operands().first();
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    const QVariantMap entry = ServiceClient::findEntry(listing, name);

    const CommandOutcome outcome = m_client->exists(name);
    if (!outcome.succeeded())
        return report(QStringLiteral("asking about %1").arg(name), outcome, ErrorText::ServiceRequest);
    const QVariantMap state = outcome.result.toMap();
    const qint64 received = state.value(QStringLiteral("bytesReceived")).toLongLong();
    const qint64 total = state.value(QStringLiteral("bytesTotal"), -1).toLongLong();

    if (entry.isEmpty()) {
        out(QStringLiteral("%1: not on the service\n").arg(name));
        return ExitNotFound;
    }
    const qint64 size = entry.value(QStringLiteral("fileSize")).toLongLong();
    QString partial = QStringLiteral("no partial download under %1").arg(m_temporaryFolder);
    if (received > 0) {
        partial = QStringLiteral("%1 bytes (%2%) already downloaded")
                      .arg(received)
                      .arg(size > 0 ? int(100.0 * double(qMin(received, size)) / double(size)) : 100);
    }
    out(QStringLiteral("%1: stored, %2 bytes (%3); %4\n")
            .arg(name)
            .arg(size)
            .arg(ProgressDisplay::bytes(size), partial));
    if (total >= 0 && total != size)
        err(QStringLiteral("ztcli: the plugin's probe saw %1 bytes, the listing says %2\n").arg(total).arg(size));
    return ExitSuccess;
}

int CommandRunner::runUpload()
{
    QStringList paths;
    for (const QString &file : m_line.operands())
        paths.append(QFileInfo(file).absoluteFilePath());
    // Listing first tells an unreachable service from a failed transfer.
    QVariantList before;
    if (const int status = fetchListing(before))
        return status;

    const QString label = paths.size() == 1 ? QStringLiteral("upload %1").arg(QFileInfo(paths.first()).fileName())
                                            : QStringLiteral("upload %1 files").arg(paths.size());
    const CommandOutcome outcome = withRetries(QStringLiteral("upload"), [&] { return m_client->upload(paths, label); });
    if (!outcome.succeeded())
        return report(QStringLiteral("upload of %1").arg(jobName(paths)), outcome, ErrorText::Transfer);

    QVariantList after;
    if (const int status = fetchListing(after))
        return status;
    int status = ExitSuccess;
    for (const QString &path : paths) {
        const QFileInfo info(path);
        const QVariantMap entry = ServiceClient::findEntry(after, info.fileName());
        const qint64 stored = entry.value(QStringLiteral("fileSize"), -1).toLongLong();
        if (stored != info.size()) {
            err(QStringLiteral("ztcli: %1 is stored with %2 bytes, the local file has %3\n")
                    .arg(info.fileName())
                    .arg(stored)
                    .arg(info.size()));
            status = ExitTransfer;
            continue;
        }
        const QString cdnUrl = resultFor(outcome.result.toList(), path).value(QStringLiteral("cdnURL")).toString();
        out(QStringLiteral("uploaded %1 as %2 (%3)%4\n")
                .arg(path, info.fileName(), ProgressDisplay::bytes(stored),
                     cdnUrl.isEmpty() ? QString() : QStringLiteral(", ") + cdnUrl));
    }
    return status;
}

// Whether files can be made in folder, which is made first when missing. The
// file system is asked by making one: permission bits say nothing for root or
// on a read-only mount.
bool CommandRunner::canWriteIn(const QString &folder)
{
    if (!QDir().mkpath(folder))
        return false;
    QTemporaryFile probe(QDir(folder).filePath(QStringLiteral(".ztcli-write-check-XXXXXX")));
    return probe.open();
}

int CommandRunner::runDownload()
{
    // Both folders are checked before anything moves, not found unusable at
    // the merge after the whole transfer.
    const QString output = m_line.isSet(QStringLiteral("output"))
                               ? QFileInfo(m_line.value(QStringLiteral("output"))).absoluteFilePath()
                               : QString();
    const QString folder = output.isEmpty()
                               ? QDir(m_line.value(QStringLiteral("to"), QStringLiteral("."))).absolutePath()
                               : QFileInfo(output).absolutePath();
    if (!canWriteIn(folder)) {
        err(QStringLiteral("ztcli: cannot write in the destination folder %1\n").arg(folder));
        return ExitUsage;
    }
    if (!canWriteIn(m_temporaryFolder)) {
        err(QStringLiteral("ztcli: cannot write in the folder for partial downloads %1 (see --temp)\n")
                .arg(m_temporaryFolder));
        return ExitUsage;
    }
    QVariantList listing;
    if (const int status = fetchListing(listing))
        return status;
    // A missing name is reported and the others still come, as curl does.
    QStringList names;
    QHash<QString, qint64> sizes;
    for (const QString &name : m_line.operands()) {
        const QVariantMap entry = ServiceClient::findEntry(listing, name);
        if (entry.isEmpty()) {
            err(QStringLiteral("ztcli: %1: not on the service\n").arg(name));
            continue;
        }
        names.append(name);
        sizes.insert(name, entry.value(QStringLiteral("fileSize")).toLongLong());
    }
    const int missingStatus = names.size() == m_line.operands().size() ? int(ExitSuccess) : int(ExitNotFound);
    if (names.isEmpty())
        return missingStatus;

    const QString label = names.size() == 1 ? QStringLiteral("download %1").arg(names.first())
                                            : QStringLiteral("download %1 files").arg(names.size());
    const CommandOutcome outcome = withRetries(QStringLiteral("download"), [&] {
        return m_client->download(names, folder, label, bytesOnDisk(names));
    });
    if (!outcome.succeeded())
        return report(QStringLiteral("download of %1").arg(jobName(names)), outcome, ErrorText::Transfer);

    int status = ExitSuccess;
    for (const QVariant &item : outcome.result.toList()) {
        const QVariantMap task = item.toMap();
        const QString name = task.value(QStringLiteral("filename")).toString();
        QString path = task.value(QStringLiteral("path")).toString();
        const qint64 expected = sizes.value(name, task.value(QStringLiteral("fileSize")).toLongLong());
        const qint64 actual = QFileInfo(path).size();
        if (!QFileInfo::exists(path) || actual != expected) {
            err(QStringLiteral("ztcli: %1 has %2 bytes, the service has %3\n").arg(path).arg(actual).arg(expected));
            status = ExitTransfer;
            continue;
        }
        if (!output.isEmpty() && !placeAt(path, output)) {
            status = ExitTransfer;
            continue;
        }
        if (!output.isEmpty())
            path = output;
        out(QStringLiteral("downloaded %1 to %2 (%3)\n").arg(name, path, ProgressDisplay::bytes(actual)));
    }
    return status == ExitSuccess ? missingStatus : status;
}

// The plugin never writes over a file: it gives the download a free name
// beside it. --output replaces, as curl -o does, in one step once the new
// file is complete, so the old one stays until then.
bool CommandRunner::placeAt(const QString &downloaded, const QString &output)
{
    if (downloaded == output)
        return true;
    if (::rename(QFile::encodeName(downloaded).constData(), QFile::encodeName(output).constData()) == 0)
        return true;
    err(QStringLiteral("ztcli: cannot put %1 in place of %2: %3\n").arg(downloaded, output, QString::fromLocal8Bit(std::strerror(errno))));
    return false;
}

// What earlier runs left of these downloads under --temp, so that a resumed
// download says how far it really was; asked only when there is anything there.
qint64 CommandRunner::bytesOnDisk(const QStringList &names)
{
    if (QDir(m_temporaryFolder).isEmpty())
        return 0;
    qint64 sum = 0;
    for (const QString &name : names) {
        const CommandOutcome outcome = m_client->exists(name);
        if (!outcome.succeeded())
            return -1;
        sum += outcome.result.toMap().value(QStringLiteral("bytesReceived")).toLongLong();
    }
    return sum;
}

// Needs neither the service nor the plugin: what is under --temp is on disk.
int CommandRunner::runPartial()
{
    const QString temp = QDir(m_line.value(QStringLiteral("temp"), defaultTempFolder())).absolutePath();
    const QList<PartialFolders::Partial> partials = PartialFolders::list(temp);
    const bool clear = m_line.isSet(QStringLiteral("clear"));
    const QString only = m_line.operands().value(0);
    int matched = 0;
    qint64 total = 0;
    for (const PartialFolders::Partial &partial : partials) {
        const QString name = partial.name.isEmpty() ? QStringLiteral("(unnamed) ") + QFileInfo(partial.folder).fileName()
                                                    : partial.name;
        if (!only.isEmpty() && partial.name != only)
            continue;
        ++matched;
        total += partial.bytes;
        const QString size = partial.fileSize > 0
                                 ? QStringLiteral("%1 of %2 (%3%)")
                                       .arg(ProgressDisplay::bytes(partial.bytes), ProgressDisplay::bytes(partial.fileSize))
                                       .arg(int(100.0 * double(qMin(partial.bytes, partial.fileSize)) / double(partial.fileSize)))
                                 : ProgressDisplay::bytes(partial.bytes);
        if (!clear) {
            out(QStringLiteral("%1  %2  %3%4\n")
                    .arg(name, size, partial.modified.toString(QStringLiteral("yyyy-MM-dd HH:mm")),
                         partial.holder ? QStringLiteral("  (being downloaded by process %1)").arg(partial.holder)
                                        : QString()));
        } else if (PartialFolders::discard(partial)) {
            out(QStringLiteral("removed %1 (%2)\n").arg(name, ProgressDisplay::bytes(partial.bytes)));
        } else {
            err(QStringLiteral("ztcli: kept %1: %2\n")
                    .arg(name, partial.holder ? QStringLiteral("being downloaded by process %1").arg(partial.holder)
                                              : QStringLiteral("cannot remove %1").arg(partial.folder)));
        }
    }
    if (!only.isEmpty() && matched == 0) {
        err(QStringLiteral("ztcli: no partial download of %1 under %2\n").arg(only, temp));
        return ExitNotFound;
    }
    if (!clear)
        out(QStringLiteral("%1 partial download(s), %2, under %3\n").arg(matched).arg(ProgressDisplay::bytes(total), temp));
    return ExitSuccess;
}

int CommandRunner::runDemo()
{
    DemoRun demo(&m_stdout, &m_stderr, m_interrupts);
    demo.setVerbose(m_line.verbose());
    return demo.run(m_line.number(QStringLiteral("size-mb"), DemoRun::DefaultSizeMiB));
}
