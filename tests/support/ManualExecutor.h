#pragma once

#include "KinbookKit/Executor.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

namespace kinbook::testing {

// An executor that runs nothing until the test says so, with virtual time:
// delayed tasks become due only when the test advances the clock. Tests that
// use it never sleep and never read the wall clock.
class ManualExecutor final : public Executor {
public:
    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

    // Runs ready tasks, including those they post, until none is ready.
    // Returns how many ran.
    std::size_t runUntilIdle();

    // Moves virtual time forward, running every task that falls due on the
    // way, in due order, and everything those tasks post.
    void advance(std::chrono::milliseconds duration);

    std::chrono::milliseconds now() const { return m_now; }
    std::size_t pendingCount() const { return m_tasks.size(); }

private:
    std::chrono::milliseconds m_now{0};
    std::uint64_t m_sequence = 0;
    // Keyed by (due time, posting order), so equal due times run in order.
    std::map<std::pair<std::chrono::milliseconds, std::uint64_t>, Task> m_tasks;
};

} // namespace kinbook::testing
