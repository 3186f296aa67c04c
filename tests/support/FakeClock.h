#pragma once

#include "KinbookKit/Clock.h"

#include <atomic>
#include <chrono>

namespace kinbook::testing {

// A clock that stands still until the test moves it. Both readings move
// together, so a duration measured across advance() is exactly what was
// advanced. Thread-safe, like the real one.
class FakeClock final : public Clock {
public:
    // Starts at 2026-01-01 00:00:00 UTC on the wall clock.
    FakeClock() = default;
    explicit FakeClock(std::chrono::system_clock::time_point wall)
        : m_wall(wall.time_since_epoch().count()) {}

    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::time_point(std::chrono::system_clock::duration(m_wall.load()));
    }
    std::chrono::steady_clock::time_point monotonicNow() const override {
        return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(m_steady.load()));
    }

    void advance(std::chrono::nanoseconds step) {
        m_wall += std::chrono::duration_cast<std::chrono::system_clock::duration>(step).count();
        m_steady += std::chrono::duration_cast<std::chrono::steady_clock::duration>(step).count();
    }
    // Sets the wall clock only, as when the user changes the system time.
    void setNow(std::chrono::system_clock::time_point wall) { m_wall = wall.time_since_epoch().count(); }

private:
    static constexpr std::chrono::system_clock::duration::rep kNewYear2026 =
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::seconds(1767225600))
            .count();

    std::atomic<std::chrono::system_clock::duration::rep> m_wall{kNewYear2026};
    std::atomic<std::chrono::steady_clock::duration::rep> m_steady{0};
};

} // namespace kinbook::testing
