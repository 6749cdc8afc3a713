#include "fileserviceprocess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QUrl>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int LogTailBytes = 4096;

// The child gets its own process group, so that Ctrl-C on the terminal reaches
// only ztcli, which then stops the transfer and the service in that order; and
// the kernel sends it SIGTERM when ztcli ends, however it ends.
class ChildProcess : public QProcess
{
public:
    using QProcess::QProcess;

protected:
    void setupChildProcess() override
    {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    }
};

} // namespace

FileServiceProcess::FileServiceProcess(QObject *parent)
    : QObject(parent)
    , m_process(new ChildProcess(this))
{
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    connect(m_process, &QProcess::readyReadStandardError, this, &FileServiceProcess::readLog);
}

FileServiceProcess::~FileServiceProcess()
{
    stop();
}

QString FileServiceProcess::scriptPath()
{
    const QString fromEnvironment = qEnvironmentVariable("ZT_FILESERVICE");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    // An installed ztcli takes the service installed with it, not the sources
    // it was built from.
    const QString installed = QDir::cleanPath(
        QDir(QCoreApplication::applicationDirPath()).absoluteFilePath(QStringLiteral(ZT_INSTALLED_FILESERVICE)));
    return QFileInfo::exists(installed) ? installed : QStringLiteral(ZT_DEFAULT_FILESERVICE);
}

QString FileServiceProcess::interpreter()
{
    return QStringLiteral("/usr/bin/python3");
}

QStringList FileServiceProcess::arguments(const QString &root, int port, qint64 chunkSize)
{
    QStringList list{scriptPath(), QStringLiteral("--root"), root, QStringLiteral("--host"),
                     QStringLiteral("127.0.0.1"), QStringLiteral("--port"), QString::number(port)};
    if (chunkSize > 0)
        list << QStringLiteral("--chunk-size") << QString::number(chunkSize);
    return list;
}

void FileServiceProcess::readLog()
{
    const QByteArray data = m_process->readAllStandardError();
    if (m_echo)
        fwrite(data.constData(), 1, size_t(data.size()), stderr);
    m_logTail = (m_logTail + data).right(LogTailBytes);
}

bool FileServiceProcess::start(const QString &root, int port, int timeoutMs)
{
    const QString script = scriptPath();
    if (!QFileInfo::exists(script)) {
        m_error = QStringLiteral("the reference file service is not at %1 (set ZT_FILESERVICE)").arg(script);
        return false;
    }
    m_process->start(interpreter(), arguments(root, port));
    if (!m_process->waitForStarted(timeoutMs)) {
        m_error = QStringLiteral("cannot start %1: %2").arg(interpreter(), m_process->errorString());
        return false;
    }
    // The first stdout line is the address; everything before it would be a bug.
    const QDeadlineTimer deadline(timeoutMs);
    while (!m_process->canReadLine() && m_process->state() == QProcess::Running && !deadline.hasExpired())
        m_process->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    const QString line = QString::fromUtf8(m_process->readLine()).trimmed();
    const QUrl url(line);
    if (line.isEmpty() || !url.isValid() || url.scheme() != QLatin1String("http") || url.port() <= 0) {
        readLog();
        m_error = QStringLiteral("the reference file service did not report its address%1%2")
                      .arg(line.isEmpty() ? QString() : QStringLiteral(" (it said \"%1\")").arg(line),
                           m_logTail.isEmpty() ? QString()
                                               : QStringLiteral(":\n") + QString::fromUtf8(m_logTail));
        stop();
        return false;
    }
    m_baseUrl = line;
    // Whatever it prints later is not ours to keep.
    connect(m_process, &QProcess::readyReadStandardOutput, this,
            [this] { m_process->readAllStandardOutput(); });
    return true;
}

void FileServiceProcess::stop(int timeoutMs)
{
    if (m_process->state() == QProcess::NotRunning)
        return;
    m_process->terminate();
    if (!m_process->waitForFinished(timeoutMs)) {
        m_process->kill();
        m_process->waitForFinished(timeoutMs);
    }
}
