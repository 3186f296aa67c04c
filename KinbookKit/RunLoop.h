#pragma once

#include "KinbookKit/Executor.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace kinbook {

// The main executor of a program without a GUI event loop (the command-line
// tool, the benchmarks): tasks posted from any thread run on the thread that
// calls runUntil(), one at a time, in order. The tool makes one, hands it to
// the people list as its main executor, and runs it until the load it asked
// for has finished:
//
//     RunLoop main;
//     ThreadPool pool;
//     PeopleList list(main, pool, book);
//     bool loaded = false;
//     list.load([&] { loaded = true; });
//     main.runUntil([&] { return loaded; });
//
// Tasks still queued when the loop is destroyed are dropped.
class RunLoop final : public Executor {
public:
    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

    // Runs tasks as they fall due until `done` holds, checking it before
    // each task. Call it from one thread at a time.
    void runUntil(const std::function<bool()>& done);

    // Runs tasks until none is due, without waiting for delayed ones.
    void runPending();

private:
    using Clock = std::chrono::steady_clock;

    // Takes the next due task, waiting for one unless `wait` is false.
    bool next(Task& task, bool wait);

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::uint64_t m_sequence = 0;                                        // guarded by m_mutex
    std::map<std::pair<Clock::time_point, std::uint64_t>, Task> m_tasks; // guarded by m_mutex
};

} // namespace kinbook
