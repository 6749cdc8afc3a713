#include "hostcommand.h"

#include "interrupthandler.h"
#include "progressdisplay.h"

#include <zephyrtide/error.h>
#include <zephyrtide/reply.h>

#include <QEventLoop>
#include <QTextStream>
#include <QTimer>

#include <cstdio>

HostCommand::HostCommand(QObject *target, const char *slot, const QVariantMap &params,
                         QObject *parent)
    : QObject(parent)
    , m_target(target)
    , m_slot(slot)
    , m_params(params)
    , m_reply(new Zephyrtide::Reply(QString::fromLatin1(slot), params))
    , m_grace(new QTimer(this))
    , m_stall(new QTimer(this))
{
    m_grace->setSingleShot(true);
    connect(m_grace, &QTimer::timeout, this, &HostCommand::escalate);
    m_stall->setSingleShot(true);
    connect(m_stall, &QTimer::timeout, this, &HostCommand::onStalled);
}

HostCommand::~HostCommand()
{
    // A reply the plugin never finished may still be in its hands; the process
    // is about to end, so it is left alone rather than pulled from under it.
    if (m_finished || !m_outcome.invoked)
        m_reply->deleteLater();
}

void HostCommand::note(const QString &text)
{
    if (m_display) {
        m_display->note(text);
        return;
    }
    QTextStream(stderr) << text << '\n';
}

CommandOutcome HostCommand::run()
{
    connect(m_reply, &Zephyrtide::Reply::finished, this, &HostCommand::onFinished);
    if (m_display) {
        connect(m_reply, &Zephyrtide::Reply::downloadProgress, m_display.data(), &ProgressDisplay::update);
        connect(m_reply, &Zephyrtide::Reply::uploadProgress, m_display.data(), &ProgressDisplay::update);
    }
    if (m_stallMs > 0) {
        connect(m_reply, &Zephyrtide::Reply::downloadProgress, this, &HostCommand::onProgress);
        connect(m_reply, &Zephyrtide::Reply::uploadProgress, this, &HostCommand::onProgress);
        m_stall->start(m_stallMs);
    }
    if (m_interrupts)
        connect(m_interrupts.data(), &InterruptHandler::interrupted, this, &HostCommand::onInterrupted);

    if (!m_target)
        return m_outcome;
    m_outcome.invoked = QMetaObject::invokeMethod(m_target, m_slot.constData(), Qt::DirectConnection,
                                                  Q_ARG(Zephyrtide::Reply *, m_reply),
                                                  Q_ARG(QVariantMap, m_params));
    if (!m_outcome.invoked)
        return m_outcome;

    // A Ctrl-C that came while the slot still ran (probing, asking for a
    // session) may have been emitted before the plugin listened; say it again.
    if (!m_finished && m_interruptLevel == 1)
        Q_EMIT m_reply->stop();
    else if (!m_finished && m_interruptLevel == 2)
        sendAbort();

    if (!m_finished && m_interruptLevel < 3) {
        QEventLoop loop;
        m_loop = &loop;
        loop.exec();
        m_loop = nullptr;
    }
    m_grace->stop();
    m_stall->stop();
    if (m_interrupts)
        disconnect(m_interrupts.data(), nullptr, this, nullptr);
    return m_outcome;
}

void HostCommand::sendAbort()
{
    Q_EMIT aborting();
    Q_EMIT m_reply->abort();
}

void HostCommand::onFinished(const QVariantMap &map)
{
    if (m_finished)
        return;
    m_finished = true;
    m_outcome.status = map.value(QStringLiteral("status")).toString();
    m_outcome.code = map.value(QStringLiteral("errorCode"), -1).toInt();
    m_outcome.result = map.value(QStringLiteral("result"));
    if (m_loop)
        m_loop->quit();
}

void HostCommand::onInterrupted()
{
    if (m_finished)
        return;
    m_outcome.interrupted = true;
    escalate();
}

// Only bytes count: a transfer that reports the same figure again, or keeps
// waiting in the queue, is not moving.
void HostCommand::onProgress(qint64 done)
{
    if (done == m_lastDone || m_interruptLevel > 0)
        return;
    m_lastDone = done;
    m_stall->start(m_stallMs);
}

void HostCommand::onStalled()
{
    if (m_finished || m_interruptLevel > 0)
        return;
    m_outcome.stalled = true;
    m_interruptLevel = 1;
    note(QStringLiteral("No progress for %1 s; stopping, the next run resumes.").arg(m_stallMs / 1000));
    m_grace->start(m_graceMs);
    Q_EMIT m_reply->stop();
}

void HostCommand::escalate()
{
    if (m_finished)
        return;
    ++m_interruptLevel;
    if (m_interruptLevel == 1) {
        note(QStringLiteral("Stopping; the next run resumes. Press Ctrl-C again to abort."));
        m_grace->start(m_graceMs);
        Q_EMIT stopping();
        Q_EMIT m_reply->stop();
        return;
    }
    if (m_interruptLevel == 2) {
        note(QStringLiteral("Aborting; partial data is discarded."));
        m_grace->start(m_graceMs);
        sendAbort();
        return;
    }
    note(QStringLiteral("Not waiting for the plugin any longer."));
    m_outcome.interrupted = true;
    m_outcome.status = QStringLiteral("fail");
    m_outcome.code = Zephyrtide::Error::Aborted;
    if (m_loop)
        m_loop->quit();
}
