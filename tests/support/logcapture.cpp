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
    if (PluginCategory == QLatin1String(context.category)) {
        QMutexLocker locker(&self->m_mutex);
        self->m_lines.append({type, message});
    }
    if (self->m_previous && type != QtDebugMsg)
        self->m_previous(type, context, message);
}

int LogCapture::count(const QString &text, int type) const
{
    QMutexLocker locker(&m_mutex);
    return int(std::count_if(m_lines.cbegin(), m_lines.cend(), [&](const QPair<int, QString> &line) {
        return (type < 0 || line.first == type) && line.second.contains(text);
    }));
}
