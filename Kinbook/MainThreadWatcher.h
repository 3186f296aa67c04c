#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/text/KinLog.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

class QEvent;
class QObject;

namespace kinbook {

// Watches the GUI thread from a background thread: it repeatedly asks the GUI
// thread to run an empty task and measures, on the monotonic clock, how long
// the task waited. A wait of `threshold` or more is logged as
//
//     main thread stalled 250 ms (PeopleTableView Paint)
//
// naming the event the GUI thread was delivering when the wait crossed the
// threshold (see noteEventStart). A stall that begins between two probes is
// measured from the second probe, so a figure may fall short of the real
// stall by up to one `interval`.
//
// Create and destroy it on the GUI thread; the destructor stops the thread.
class MainThreadWatcher {
public:
    struct Options {
        std::chrono::milliseconds threshold{100};
        // The pause between one answered probe and the next.
        std::chrono::milliseconds interval{20};
        // What the probes' waits are measured on; it must outlive the watcher.
        const Clock* clock = &Clock::system();
    };

    explicit MainThreadWatcher(KinLog log, Options options);
    explicit MainThreadWatcher(KinLog log) : MainThreadWatcher(std::move(log), Options()) {}
    ~MainThreadWatcher();

    MainThreadWatcher(const MainThreadWatcher&) = delete;
    MainThreadWatcher& operator=(const MainThreadWatcher&) = delete;

    // The figures so far, for diagnostics and benchmarks. Thread-safe.
    int stallCount() const { return m_stallCount.load(); }
    std::chrono::milliseconds longestStall() const {
        return std::chrono::milliseconds(m_longestStall.load());
    }

    // The application calls these around the outermost event it delivers on
    // the GUI thread, so that a stall can say what was running. Only the
    // class name and the event type are kept: both outlive the event.
    static void noteEventStart(const QObject* receiver, const QEvent* event);
    static void noteEventEnd();
    // "PeopleTableView Paint", or "no event" between events.
    static std::string currentActivity();

private:
    void run();

    const KinLog m_log;
    const Options m_options;
    QObject* const m_context; // on the GUI thread; answers the probes

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false; // guarded by m_mutex

    std::atomic<int> m_stallCount{0};
    std::atomic<long long> m_longestStall{0};
    DedicatedThread m_thread; // last: starts once everything above exists
};

} // namespace kinbook
