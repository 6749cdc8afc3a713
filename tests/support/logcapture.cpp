#include "logcapture.h"

namespace {
LogCapture *s_current = nullptr;
}

LogCapture::LogCapture()
{
    s_current = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    LogCapture *self = s_current;
    if (!self)
        return;
    {
        QMutexLocker locker(&self->m_mutex);
        self->m_lines.append({type, QString::fromLatin1(context.category), message});
    }
    if (self->m_previous && type != QtDebugMsg)
        self->m_previous(type, context, message);
}

QList<LogCapture::Line> LogCapture::lines() const
{
    QMutexLocker locker(&m_mutex);
    return m_lines;
}

int LogCapture::count(const QString &text, QtMsgType type) const
{
    QMutexLocker locker(&m_mutex);
    int n = 0;
    for (const Line &line : m_lines) {
        if (line.type == type && line.category == QLatin1String("zephyrtide.dll")
            && line.message.contains(text))
            ++n;
    }
    return n;
}

int LogCapture::count(const QString &text) const
{
    QMutexLocker locker(&m_mutex);
    int n = 0;
    for (const Line &line : m_lines) {
        if (line.category == QLatin1String("zephyrtide.dll") && line.message.contains(text))
            ++n;
    }
    return n;
}

void LogCapture::clear()
{
    QMutexLocker locker(&m_mutex);
    m_lines.clear();
}
