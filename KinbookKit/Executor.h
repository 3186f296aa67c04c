#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace kinbook {

// Somewhere to run work. The people list posts store reads and index building
// to a background pool and their results back to its own executor; delays
// (gathering store notices, retrying a save) go through postAfter so that a
// test's manual executor can run them in virtual time.
class Executor {
public:
    using Task = std::function<void()>;

    virtual ~Executor() = default;

    // Runs the task soon, on whatever thread the executor owns. Thread-safe.
    virtual void post(Task task) = 0;

    // Runs the task once at least `delay` has passed. Thread-safe.
    virtual void postAfter(std::chrono::milliseconds delay, Task task) = 0;
};

// A fixed set of worker threads. Tasks posted before destruction that are due
// still run; delayed tasks not yet due when the pool is destroyed are dropped.
class ThreadPool final : public Executor {
public:
    explicit ThreadPool(unsigned threadCount = std::max(2u, std::thread::hardware_concurrency()));
    ~ThreadPool() override;

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

private:
    using Clock = std::chrono::steady_clock;
    struct Timed {
        Clock::time_point due;
        std::uint64_t sequence;
        Task task;
        bool operator>(const Timed& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };

    void work();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_ready;                                                 // guarded by m_mutex
    std::priority_queue<Timed, std::vector<Timed>, std::greater<>> m_delayed; // guarded by m_mutex
    std::uint64_t m_sequence = 0;                                             // guarded by m_mutex
    bool m_stopping = false;                                                  // guarded by m_mutex
    std::vector<std::thread> m_threads;
};

// Runs tasks one at a time, in the order posted, on an underlying executor:
// the serial actors (snapshot cache, photos, Trash, the script queue, the log
// writer) are each one of these. State touched only from its tasks needs no
// lock. The queue may be destroyed while tasks are pending on the underlying
// executor; those tasks then still run in order. The underlying executor must
// outlive every task posted here.
class SerialQueue final : public Executor {
public:
    explicit SerialQueue(Executor& underlying);

    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

    // Blocks until every task posted before the call has run. Never call it
    // from a task of this queue.
    void waitUntilIdle();

private:
    struct State {
        std::mutex mutex;
        std::condition_variable idle;
        std::deque<Task> tasks;
        bool draining = false;
    };
    static void enqueue(Executor& underlying, const std::shared_ptr<State>& state, Task task);
    static void drain(const std::shared_ptr<State>& state);

    Executor& m_underlying;
    std::shared_ptr<State> m_state;
};

// Runs `part(0)` to `part(parts - 1)` at the same time and returns when every
// one is done: part 0 on the calling thread, each other part on a thread
// started for it here. For the large steps of a full read or a scan that
// split into shares writing nothing in common. Such a step often runs on a
// ThreadPool task already, so its parts never go to a pool, whose threads
// could all be waiting right here. A part whose thread can't be started runs
// on the calling thread instead: the work gets done either way. A part that
// throws on the calling thread is rethrown once the others are done, since
// they work on the caller's data.
void runInParallel(unsigned parts, const std::function<void(unsigned part)>& part);

// A thread of its own for a piece that waits most of the time (the
// main-thread watcher): started when made, joined when destroyed. Whatever
// makes `body` return is up to its owner, who must do it before then.
class DedicatedThread {
public:
    explicit DedicatedThread(std::function<void()> body);
    ~DedicatedThread();

    DedicatedThread(const DedicatedThread&) = delete;
    DedicatedThread& operator=(const DedicatedThread&) = delete;

    // Waits for the body to return; destroying it later then waits no more.
    void join();

private:
    std::thread m_thread;
};

} // namespace kinbook
