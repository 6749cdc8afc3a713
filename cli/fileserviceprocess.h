#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QProcess;

// The reference file service as a child process: started on a port (0 picks
// a free one), ready once it has printed its address as the first line on
// stdout, and stopped on destruction at the latest. The child is also told by
// the kernel to end with ztcli, so a crash leaves nothing running.
class FileServiceProcess : public QObject
{
    Q_OBJECT
public:
    explicit FileServiceProcess(QObject *parent = nullptr);
    ~FileServiceProcess() override;

    // ZT_FILESERVICE, else the service in the source tree ztcli was built from.
    static QString scriptPath();
    // The system interpreter: the service needs Debian's python3-aiohttp.
    static QString interpreter();
    static QStringList arguments(const QString &root, int port, qint64 chunkSize = 0);

    bool start(const QString &root, int port = 0, int timeoutMs = 20000);
    QString baseUrl() const { return m_baseUrl; }
    QString errorString() const { return m_error; }
    void setEchoLog(bool echo) { m_echo = echo; }

    // SIGTERM, then SIGKILL if it has not ended within timeoutMs.
    void stop(int timeoutMs = 5000);

private:
    void readLog();

    QProcess *m_process; // child
    QString m_baseUrl;
    QString m_error;
    QByteArray m_logTail; // last lines of stderr, for error messages
    bool m_echo = false;
};
