#pragma once

#include <QObject>

namespace Upload {
Q_NAMESPACE

// Where a file item or chunk item stands. The numbers are stable: they are
// compared across the upload classes and show up in logs.
enum State : int {
    New = 0,         // made, not yet initialised
    Initialised = 1, // file item init succeeded
    Running = 2,
    Finished = 3,
    Stopped = 4,     // kept in the cache, resumes on the next start
    Aborted = 5,     // cache entry removed, starts from scratch next time
    Failed = 6,
};
Q_ENUM_NS(State)

} // namespace Upload
