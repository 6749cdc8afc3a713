#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>

// The reference file service, run as a child process on loopback port 0 over a
// folder of the test's. Stopped (or killed) on destruction. It is started
// directly, or through a launcher that takes "--root R --port 0" and prints
// the base address first (ztcli's "serve", say).
class FileServiceProcess
{
public:
    explicit FileServiceProcess(const QString &root, const QStringList &options = QStringList());
    ~FileServiceProcess();

    // Before start(): the program and its first arguments, and the environment.
    void setLauncher(const QString &program, const QStringList &arguments);
    void setEnvironment(const QProcessEnvironment &environment) { m_process.setProcessEnvironment(environment); }

    bool start(int timeoutMs = 15000); // waits for the base address it prints
    void stop();                       // SIGTERM, bounded wait, then SIGKILL
    void kill();                       // SIGKILL, as a crash would

    QString baseUrl() const { return m_baseUrl; }
    QString root() const { return m_root; }
    // What the service wrote to stderr so far (one line per part received).
    QByteArray log();
    // Calls seen with log() from the event loop whenever the service writes to
    // its log, so that a test can act at once on a line (kill it, say).
    void onLog(const std::function<void(const QByteArray &log)> &seen);
    // Bytes of part bodies the service received, from its log.
    qint64 partBytesReceived();

private:
    QString m_root;
    QStringList m_options;
    QString m_program; // empty: python3 runs the service's script
    QStringList m_launcherArguments;
    QProcess m_process;
    QString m_baseUrl;
    QByteArray m_log;
};
