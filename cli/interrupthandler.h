#pragma once

#include <QObject>

#include <csignal>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a Qt signal on the event loop. The signal
// handler only writes one byte to a pipe; a QSocketNotifier on the other end
// counts the signals and emits interrupted() from whatever event loop runs,
// including the plugin's nested ones.
//
// One instance at a time: it owns the process's SIGINT/SIGTERM disposition
// while it lives and restores the previous one when destroyed.
class InterruptHandler : public QObject
{
    Q_OBJECT
public:
    explicit InterruptHandler(QObject *parent = nullptr);
    ~InterruptHandler() override;

    bool isActive() const { return m_notifier != nullptr; }
    int count() const { return m_count; }
    // Waits ms in an event loop; false when a signal cut the wait short.
    bool sleep(int ms);

Q_SIGNALS:
    // count: 1 for the first signal, 2 for the second, ...
    void interrupted(int count);

private:
    static void onSignal(int signal);
    void drain();

    QSocketNotifier *m_notifier = nullptr; // child
    int m_count = 0;
    struct sigaction m_previousInt {};
    struct sigaction m_previousTerm {};
};
