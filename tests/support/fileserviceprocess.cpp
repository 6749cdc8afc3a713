#include "fileserviceprocess.h"

bool FileServiceProcess::start(int timeoutMs)
{
    m_process.start(QStringLiteral("/usr/bin/python3"),
                    QStringList{QStringLiteral("-B"), QStringLiteral(ZT_SOURCE_DIR "/fileservice/zt-fileservice"),
                                QStringLiteral("--root"), m_root, QStringLiteral("--port"), QStringLiteral("0")}
                        + m_options);
    if (!m_process.waitForStarted(timeoutMs))
        return false;
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(timeoutMs))
            return false;
    }
    m_baseUrl = QString::fromUtf8(m_process.readLine()).trimmed();
    return m_baseUrl.startsWith(QLatin1String("http://127.0.0.1:"))
           || m_baseUrl.startsWith(QLatin1String("https://127.0.0.1:"));
}

void FileServiceProcess::stop()
{
    m_process.terminate(); // like kill(), nothing to do once the process has ended
    if (!m_process.waitForFinished(10000))
        kill();
}

void FileServiceProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished(10000);
}

QByteArray FileServiceProcess::log()
{
    m_log += m_process.readAllStandardError();
    return m_log;
}

void FileServiceProcess::onLog(const std::function<void(const QByteArray &)> &seen)
{
    QObject::connect(&m_process, &QProcess::readyReadStandardError, [this, seen] { seen(log()); });
}

qint64 FileServiceProcess::partBytesReceived()
{
    static const QRegularExpression line(QStringLiteral("part \\d+ of \\w+: (\\d+) bytes"));
    qint64 total = 0;
    auto it = line.globalMatch(QString::fromUtf8(log()));
    while (it.hasNext())
        total += it.next().captured(1).toLongLong();
    return total;
}
