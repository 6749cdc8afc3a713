#pragma once

#include <QtTest>

#include <functional>

// The reference file service, run as a child process on loopback port 0 over a
// folder of the test's. Stopped (or killed) on destruction.
class FileServiceProcess
{
public:
    explicit FileServiceProcess(const QString &root, const QStringList &options = QStringList())
        : m_root(root), m_options(options) {}
    ~FileServiceProcess() { stop(); }

    bool start(int timeoutMs = 15000); // waits for the base address it prints
    void stop();                       // SIGTERM, bounded wait, then SIGKILL
    void kill();                       // SIGKILL, as a crash would

    QString baseUrl() const { return m_baseUrl; }
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
    QProcess m_process;
    QString m_baseUrl;
    QByteArray m_log;
};
