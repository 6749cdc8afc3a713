#include "logcapture.h"

namespace {
LogCapture *s_current = nullptr;
QLoggingCategory::CategoryFilter s_previousFilter = nullptr;
const QLatin1String PluginCategory("zephyrtide.dll");
}

LogCapture::LogCapture()
{
    s_current = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
    m_previousFilter = s_previousFilter = QLoggingCategory::installFilter(&LogCapture::filter);
}

LogCapture::~LogCapture()
{
    QLoggingCategory::installFilter(m_previousFilter); // back to the rules the test runs with
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
}

void LogCapture::filter(QLoggingCategory *category)
{
    if (s_previousFilter)
        s_previousFilter(category);
    if (PluginCategory == QLatin1String(category->categoryName()))
        category->setEnabled(QtDebugMsg, true);
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

int LogCapture::countLines(const QString &text, const QtMsgType *type) const
{
    QMutexLocker locker(&m_mutex);
    int n = 0;
    for (const Line &line : m_lines) {
        if ((!type || line.type == *type) && line.category == PluginCategory && line.message.contains(text))
            ++n;
    }
    return n;
}

int LogCapture::count(const QString &text, QtMsgType type) const
{
    return countLines(text, &type);
}

int LogCapture::count(const QString &text) const
{
    return countLines(text, nullptr);
}

void LogCapture::clear()
{
    QMutexLocker locker(&m_mutex);
    m_lines.clear();
}
