#pragma once

#include "interrupthandler.h"
#include "progressdisplay.h"

#include <QObject>
#include <QPointer>
#include <QVariantMap>

class QEventLoop;
class QTimer;
namespace Zephyrtide {
class Reply;
}

// How one command ended, from the reply map the plugin finished it with.
struct CommandOutcome
{
    bool invoked = false;     // the slot existed and was called
    bool interrupted = false; // Ctrl-C arrived while it ran
    bool stalled = false;     // stopped because no byte moved for the stall time-out
    int code = -1;            // "errorCode"; -1 when no map came
    QString status;           // "success" or "fail"
    QVariant result;

    bool succeeded() const { return invoked && status == QLatin1String("success") && code == 0; }
};

// Calls one slot of the plugin by name, as the host does, with a fresh
// Zephyrtide::Reply and a parameter map, and waits in a local event loop until
// the reply is finished. Progress signals feed the display; Ctrl-C emits the
// reply's stop(), a second one its abort(), and a third stops waiting.
//
// Call order: construct, optionally showProgress()/watchInterrupts(), run() once.
class HostCommand : public QObject
{
    Q_OBJECT
public:
    HostCommand(QObject *target, const char *slot, const QVariantMap &params,
                QObject *parent = nullptr);
    ~HostCommand() override;

    void showProgress(ProgressDisplay *display) { m_display = display; }   // borrowed
    void watchInterrupts(InterruptHandler *handler) { m_interrupts = handler; } // borrowed
    // After a stop() (or abort()) that the plugin does not answer within this
    // time, escalate to abort() (or stop waiting).
    void setInterruptGraceMs(int ms) { m_graceMs = ms; }
    // A transfer that moves no byte for this long is stopped (and resumes on
    // the next run); 0, the default, waits for ever.
    void setStallTimeoutMs(int ms) { m_stallMs = ms; }

    CommandOutcome run();
    Zephyrtide::Reply *reply() const { return m_reply; }

Q_SIGNALS:
    // Right before the reply's stop() or abort() goes out for a Ctrl-C, while
    // the plugin still holds what it is working on.
    void stopping();
    void aborting();

private:
    void onFinished(const QVariantMap &map);
    void onInterrupted();
    void onProgress(qint64 done);
    void onStalled();
    void escalate();
    void sendAbort();
    void note(const QString &text);

    QPointer<QObject> m_target; // the plugin's, borrowed
    QByteArray m_slot;
    QVariantMap m_params;
    Zephyrtide::Reply *m_reply; // ours; released with deleteLater when done
    QPointer<ProgressDisplay> m_display;
    QPointer<InterruptHandler> m_interrupts;
    QEventLoop *m_loop = nullptr; // the one run() waits in
    QTimer *m_grace = nullptr;    // child
    int m_graceMs = 15000;
    QTimer *m_stall = nullptr; // child
    int m_stallMs = 0;
    qint64 m_lastDone = -1;
    int m_interruptLevel = 0;     // 0 none, 1 stop sent, 2 abort sent, 3 gave up
    CommandOutcome m_outcome;
    bool m_finished = false;
};
