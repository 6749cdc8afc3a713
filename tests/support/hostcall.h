#pragma once

#include <QtTest>

#include <zephyrtide/error.h>

#include <functional>

class QObject;
namespace Zephyrtide {
class Reply;
}

// Calls a command slot of the plugin by name, as the host does, with a fresh
// reply whose signals are recorded from before the call. Slots that wait in a
// nested loop return only when they are done, so some replies are finished by
// the time the constructor returns. beforeCall, when given, gets the reply
// before the slot runs, so the host's side can act on it during the call (stop
// it, or finish it with the host's time-out while the slot waits).
class HostCall
{
public:
    HostCall(QObject *root, const char *slot, const QVariantMap &params = QVariantMap(),
             const std::function<void(Zephyrtide::Reply *)> &beforeCall = {});
    ~HostCall();

    bool invoked() const { return m_invoked; }
    Zephyrtide::Reply *reply() const { return m_reply.data(); }

    // Waits (bounded) for finished() and returns its map; empty on time-out.
    QVariantMap wait(int timeoutMs = 20000)
    {
        (void)QTest::qWaitFor([this] { return !m_results.isEmpty(); }, timeoutMs);
        return result();
    }
    QVariantMap result() const { return m_results.value(0); }
    int finishedCount() const { return m_results.size(); }
    int errorCode() const { return result().value(QStringLiteral("errorCode"), -1).toInt(); }
    Zephyrtide::Error::ErrorCode error() const { return Zephyrtide::Error::ErrorCode(errorCode()); }
    bool succeeded() const { return result().value(QStringLiteral("status")).toString() == QLatin1String("success"); }

    QList<QPair<qint64, qint64>> progress; // download or upload progress, as emitted
    int keepAlives = 0;

private:
    QScopedPointer<Zephyrtide::Reply> m_reply;
    QList<QVariantMap> m_results;
    bool m_invoked = false;
};
