#include "KinbookKit/RunLoop.h"

#include "KinbookKit/Clock.h"

namespace kinbook {

void RunLoop::post(Task task) {
    postAfter(std::chrono::milliseconds(0), std::move(task));
}

void RunLoop::postAfter(std::chrono::milliseconds delay, Task task) {
    {
        std::lock_guard lock(m_mutex);
        m_tasks.emplace(std::pair{kinbook::Clock::system().monotonicNow() + delay, m_sequence++},
                        std::move(task));
    }
    m_wake.notify_all();
}

bool RunLoop::next(Task& task, bool wait) {
    std::unique_lock lock(m_mutex);
    while (true) {
        if (!m_tasks.empty() && m_tasks.begin()->first.first <= kinbook::Clock::system().monotonicNow()) {
            task = std::move(m_tasks.extract(m_tasks.begin()).mapped());
            return true;
        }
        if (!wait) {
            return false;
        }
        if (m_tasks.empty()) {
            m_wake.wait(lock);
        } else {
            m_wake.wait_until(lock, m_tasks.begin()->first.first);
        }
    }
}

void RunLoop::runUntil(const std::function<bool()>& done) {
    Task task;
    while (!done()) {
        if (next(task, true)) {
            task();
            task = nullptr;
        }
    }
}

void RunLoop::runPending() {
    Task task;
    while (next(task, false)) {
        task();
        task = nullptr;
    }
}

} // namespace kinbook
