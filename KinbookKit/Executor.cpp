#include "KinbookKit/Executor.h"

#include "KinbookKit/Clock.h"

#include <system_error>

namespace kinbook {

ThreadPool::ThreadPool(unsigned threadCount) {
    m_threads.reserve(threadCount);
    for (unsigned i = 0; i < threadCount; ++i) {
        m_threads.emplace_back([this] { work(); });
    }
}

ThreadPool::~ThreadPool() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    for (auto& thread : m_threads) {
        thread.join();
    }
}

void ThreadPool::post(Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_ready.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void ThreadPool::postAfter(std::chrono::milliseconds delay, Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_delayed.push(Timed{kinbook::Clock::system().monotonicNow() + delay, m_sequence++, std::move(task)});
    }
    // Every worker re-evaluates its wait deadline: the new task may be due
    // sooner than the one they were waiting for.
    m_wake.notify_all();
}

void ThreadPool::work() {
    std::unique_lock lock(m_mutex);
    for (;;) {
        while (!m_delayed.empty() && m_delayed.top().due <= kinbook::Clock::system().monotonicNow()) {
            m_ready.push_back(std::move(const_cast<Timed&>(m_delayed.top()).task));
            m_delayed.pop();
        }
        if (!m_ready.empty()) {
            Task task = std::move(m_ready.front());
            m_ready.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (m_stopping) {
            return;
        }
        if (m_delayed.empty()) {
            m_wake.wait(lock);
        } else {
            m_wake.wait_until(lock, m_delayed.top().due);
        }
    }
}

SerialQueue::SerialQueue(Executor& underlying)
    : m_underlying(underlying), m_state(std::make_shared<State>()) {}

void SerialQueue::post(Task task) {
    enqueue(m_underlying, m_state, std::move(task));
}

void SerialQueue::enqueue(Executor& underlying, const std::shared_ptr<State>& state, Task task) {
    bool startDrain = false;
    {
        std::lock_guard lock(state->mutex);
        state->tasks.push_back(std::move(task));
        if (!state->draining) {
            state->draining = true;
            startDrain = true;
        }
    }
    if (startDrain) {
        underlying.post([state] { drain(state); });
    }
}

void SerialQueue::postAfter(std::chrono::milliseconds delay, Task task) {
    // The delay runs on the underlying executor; the task then joins this
    // queue's order at the moment it becomes due.
    // A queue destroyed before the delay ends drops the task.
    std::weak_ptr<State> weak = m_state;
    Executor& underlying = m_underlying;
    m_underlying.postAfter(delay, [&underlying, weak, task = std::move(task)]() mutable {
        if (auto state = weak.lock()) {
            enqueue(underlying, state, std::move(task));
        }
    });
}

void SerialQueue::waitUntilIdle() {
    std::unique_lock lock(m_state->mutex);
    m_state->idle.wait(lock, [&] { return !m_state->draining; });
}

void SerialQueue::drain(const std::shared_ptr<State>& state) {
    for (;;) {
        Task task;
        {
            std::lock_guard lock(state->mutex);
            if (state->tasks.empty()) {
                state->draining = false;
                state->idle.notify_all();
                return;
            }
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        task();
    }
}

void runInParallel(unsigned parts, const std::function<void(unsigned part)>& part) {
    if (parts == 0) {
        return;
    }
    std::vector<std::thread> others;
    others.reserve(parts - 1);
    // The other parts are waited for even when this thread's part throws:
    // they work on the caller's data.
    struct Joiner {
        std::vector<std::thread>& threads;
        ~Joiner() {
            for (auto& thread : threads) {
                thread.join();
            }
        }
    } joiner{others};
    for (unsigned index = 1; index < parts; ++index) {
        try {
            others.emplace_back([&part, index] { part(index); });
        } catch (const std::system_error&) {
            part(index);
        }
    }
    part(0);
}

DedicatedThread::DedicatedThread(std::function<void()> body) : m_thread(std::move(body)) {}

DedicatedThread::~DedicatedThread() {
    join();
}

void DedicatedThread::join() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

} // namespace kinbook
