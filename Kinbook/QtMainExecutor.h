#pragma once

#include "KinbookKit/Executor.h"

#include <QObject>

namespace kinbook {

// The main actor's executor: runs tasks on the GUI thread, between events,
// so the people list and every view share one thread and need no locks.
// Background work posts its results here from any thread.
//
// Must be created and destroyed on the GUI thread, after the application
// object exists. Tasks still pending when it is destroyed are dropped; a
// caller must not post once it is gone (the list that owns the background
// work outlives none of its executors).
class QtMainExecutor final : public Executor {
public:
    QtMainExecutor();
    ~QtMainExecutor() override;

    QtMainExecutor(const QtMainExecutor&) = delete;
    QtMainExecutor& operator=(const QtMainExecutor&) = delete;

    // Thread-safe.
    void post(Task task) override;
    // Thread-safe. The delay starts once the GUI thread has taken the task:
    // timers only run on threads with an event loop, which the background
    // pool's threads lack.
    void postAfter(std::chrono::milliseconds delay, Task task) override;

private:
    QObject* m_context; // lives on the GUI thread; receives the tasks as queued calls
};

} // namespace kinbook
