#include "interrupthandler.h"

#include <QEventLoop>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {
int s_pipe[2] = {-1, -1};
}

void InterruptHandler::onSignal(int)
{
    const int saved = errno;
    const char byte = 1;
    // Async-signal-safe; a full pipe only loses signals beyond the first few.
    (void)::write(s_pipe[1], &byte, 1);
    errno = saved;
}

InterruptHandler::InterruptHandler(QObject *parent)
    : QObject(parent)
{
    if (s_pipe[0] >= 0) {
        qWarning("InterruptHandler: another instance is active");
        return;
    }
    if (::pipe2(s_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        s_pipe[0] = s_pipe[1] = -1;
        qWarning("InterruptHandler: pipe failed; Ctrl-C ends ztcli at once");
        return;
    }
    m_notifier = new QSocketNotifier(s_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &InterruptHandler::drain);

    struct sigaction action {};
    action.sa_handler = &InterruptHandler::onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &m_previousInt);
    sigaction(SIGTERM, &action, &m_previousTerm);
}

InterruptHandler::~InterruptHandler()
{
    if (!m_notifier)
        return;
    sigaction(SIGINT, &m_previousInt, nullptr);
    sigaction(SIGTERM, &m_previousTerm, nullptr);
    delete m_notifier;
    m_notifier = nullptr;
    ::close(s_pipe[0]);
    ::close(s_pipe[1]);
    s_pipe[0] = s_pipe[1] = -1;
}

void InterruptHandler::drain()
{
    char bytes[16];
    ssize_t n;
    while ((n = ::read(s_pipe[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < n; ++i)
            Q_EMIT interrupted(++m_count);
    }
}

bool InterruptHandler::sleep(int ms)
{
    const int before = m_count;
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    connect(this, &InterruptHandler::interrupted, &loop, &QEventLoop::quit);
    loop.exec();
    return m_count == before;
}
