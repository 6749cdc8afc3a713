#pragma once

#include "command.h"
#include "hostcommand.h"

#include <QScopedPointer>
#include <QVariantList>

#include <functional>

class PluginHost;
class ProgressDisplay;
class ServiceClient;

// A command that talks to the file service: it checks the server address and
// --cacert, loads the plugin, points it at the service and then runs
// runOnService(). Errors are reported with the host's error code and mapped
// to an exit status in one place, report().
class ServiceCommand : public Command
{
public:
    explicit ServiceCommand(const QString &name);
    ~ServiceCommand() override;

protected:
    // Local mistakes are usage errors, found before anything loads.
    virtual bool localFilesUsable() { return true; }
    virtual int runOnService() = 0;

    ServiceClient *client() const { return m_client.data(); }
    // --temp as the plugin was configured with it.
    QString sessionTempFolder() const { return m_temporaryFolder; }

    // Lists the service once, which also proves it is reachable; 0 or an exit status.
    int fetchListing(QVariantList &listing);
    // Says what failed and returns its exit status; context: ErrorText::Context.
    int report(const QString &what, const CommandOutcome &outcome, int context);
    // Runs a transfer again after a failure that another attempt may get past, up to --retry times.
    CommandOutcome withRetries(const QString &what, const std::function<CommandOutcome()> &attempt);
    // A job's files as an error names them: the one file, or how many.
    static QString jobName(const QStringList &files);

private:
    int run() final;
    QString serverAddress(); // from --server or ZT_SERVER, checked; empty after a usage error
    bool loadAuthorities();  // the PEM of --cacert; false after a usage error
    QVariantMap hostConfig() const;
    int openSession();       // 0 or an exit status
    static bool worthRetrying(const CommandOutcome &outcome);

    QString m_server;
    QString m_temporaryFolder;
    QByteArray m_authorities; // PEM text of --cacert, handed to the host configuration
    QScopedPointer<PluginHost> m_host;
    QScopedPointer<ServiceClient> m_client;
    QScopedPointer<ProgressDisplay> m_display;
};
