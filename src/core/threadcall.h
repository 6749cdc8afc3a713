#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <type_traits>
#include <utility>

// Runs call on the thread of target and returns its result: directly when the
// caller is already there, otherwise as a blocking queued call. A blocking
// queued call on one's own thread would deadlock, hence the test.
template <typename Call>
auto callOnThreadOf(QObject *target, Call &&call) -> decltype(call())
{
    using Result = decltype(call());
    if (target->thread() == QThread::currentThread())
        return call();
    if constexpr (std::is_void_v<Result>) {
        QMetaObject::invokeMethod(target, std::forward<Call>(call), Qt::BlockingQueuedConnection);
    } else {
        Result result{};
        QMetaObject::invokeMethod(
            target, [&result, &call] { result = call(); }, Qt::BlockingQueuedConnection);
        return result;
    }
}
