#pragma once

#include "hostcommand.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantList>

class PluginHost;

// How ServiceClient shows one transfer, and what it does when it is aborted.
struct TransferView
{
    QString label;                // empty: no progress shown
    qint64 alreadyThere = -1;     // what a resumed transfer starts from
    bool discardsOnAbort = false; // an abort removes this run's partial downloads
    qint64 total = -1;            // the size of the whole transfer when known here
};

// The file-service operations ztcli offers, each one command of the plugin
// called by name on its root (or, for the existence query, on its download
// command object) with the parameter maps a host sends.
class ServiceClient : public QObject
{
    Q_OBJECT
public:
    explicit ServiceClient(PluginHost *host, QObject *parent = nullptr); // host borrowed

    void setInterruptHandler(InterruptHandler *handler) { m_interrupts = handler; } // borrowed
    void setDisplay(ProgressDisplay *display) { m_display = display; }              // borrowed
    // Where the plugin keeps partial downloads; an aborted download's are removed.
    void setTemporaryFolder(const QString &folder) { m_temporaryFolder = folder; }
    // See HostCommand::setStallTimeoutMs; for transfers only.
    void setStallTimeoutMs(int ms) { m_stallMs = ms; }

    CommandOutcome setAddress(const QString &baseUrl);
    CommandOutcome list();                     // result: list of {"fileName", "fileSize", ...}
    CommandOutcome remove(const QString &name);
    CommandOutcome exists(const QString &name); // result: {"url", "bytesReceived", "bytesTotal"}
    CommandOutcome upload(const QStringList &absolutePaths, const QString &label);
    // Each name NAME lands as folder/NAME (or a free variant of it; see the result's "path").
    // onDisk: bytes of these downloads already under the temporary folder (the
    // figure a resumed download starts from), or -1 when not known.
    CommandOutcome download(const QStringList &names, const QString &folder, const QString &label,
                            qint64 onDisk = -1);

    // The existence query names the file in the address: the plugin probes it
    // before it knows any file name.
    QString downloadUrl(const QString &name) const;

    static QVariantMap findEntry(const QVariantList &listing, const QString &name);

private:
    CommandOutcome call(QObject *target, const char *slot, const QVariantMap &params,
                        const TransferView &view = TransferView());
    void discard(const QStringList &folders);
    bool awaitSecondInterrupt(const QStringList &stopped);

    PluginHost *m_host; // borrowed
    QPointer<InterruptHandler> m_interrupts;
    QPointer<ProgressDisplay> m_display;
    QString m_baseUrl;
    QString m_temporaryFolder;
    int m_stallMs = 0;
};
