#pragma once

#include "commandline.h"
#include "hostcommand.h"

#include <QFile>
#include <QObject>
#include <QScopedPointer>

#include <functional>

class InterruptHandler;
class PluginHost;
class ProgressDisplay;
class ServiceClient;

// Runs one parsed ztcli command line and returns its exit status (exitcode.h).
// The plugin is loaded only for the commands that talk to a service.
class CommandRunner : public QObject
{
    Q_OBJECT
public:
    explicit CommandRunner(const CommandLine &line, QObject *parent = nullptr);
    ~CommandRunner() override;

    int run();

    // Logging of the plugin's category "zephyrtide.dll": off unless verbose.
    static void applyLogRules(bool verbose);
    // Default folder for partial downloads.
    static QString defaultTempFolder();

private:
    int runServe();
    int runList();
    int runDelete();
    int runUpload();
    int runDownload();
    int runPartial();
    CommandOutcome withRetries(const QString &what, const std::function<CommandOutcome()> &attempt);
    static bool worthRetrying(const CommandOutcome &outcome);
    static QString jobName(const QStringList &files);
    static bool canWriteIn(const QString &folder);
    bool placeAt(const QString &downloaded, const QString &output);
    int runExists();
    int runDemo();

    bool uploadFilesReadable();
    // Server address from --server or ZT_SERVER, checked; empty after a usage error.
    QString serverAddress();
    // The certificate authorities of --cacert; false after a usage error.
    bool loadAuthorities();
    QVariantMap hostConfig(const QString &tempFolder) const;
    // Loads the plugin and points it at the service; 0 or an exit status.
    int openSession();
    // Lists the service once, which also proves it is reachable; 0 or an exit status.
    int fetchListing(QVariantList &listing);

    qint64 bytesOnDisk(const QStringList &names);
    int report(const QString &what, const CommandOutcome &outcome, int context);
    void out(const QString &text);
    void err(const QString &text);

    CommandLine m_line;
    QFile m_stdout;
    QFile m_stderr;
    QString m_server;
    QString m_temporaryFolder;
    QByteArray m_authorities; // PEM text of --cacert, handed to the host configuration
    InterruptHandler *m_interrupts;        // child
    QScopedPointer<PluginHost> m_host;
    QScopedPointer<ServiceClient> m_client;
    QScopedPointer<ProgressDisplay> m_display;
};
