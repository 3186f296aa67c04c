#include "tests/support/ManualExecutor.h"

namespace kinbook::testing {

void ManualExecutor::post(Task task) {
    m_tasks.emplace(std::pair{m_now, m_sequence++}, std::move(task));
}

void ManualExecutor::postAfter(std::chrono::milliseconds delay, Task task) {
    m_tasks.emplace(std::pair{m_now + delay, m_sequence++}, std::move(task));
}

std::size_t ManualExecutor::runUntilIdle() {
    std::size_t count = 0;
    while (!m_tasks.empty() && m_tasks.begin()->first.first <= m_now) {
        auto node = m_tasks.extract(m_tasks.begin());
        node.mapped()();
        ++count;
    }
    return count;
}

void ManualExecutor::advance(std::chrono::milliseconds duration) {
    const auto end = m_now + duration;
    runUntilIdle();
    while (!m_tasks.empty() && m_tasks.begin()->first.first <= end) {
        m_now = m_tasks.begin()->first.first;
        runUntilIdle();
    }
    m_now = end;
    runUntilIdle();
}

} // namespace kinbook::testing
