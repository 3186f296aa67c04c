#pragma once

#include "KinbookKit/text/PlatformLog.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace kinbook::testing {

// Runs the GUI thread's events until `done` holds or `limit` has passed;
// returns whether it holds. The limit only guards against a hang: tests never
// assert on how long anything took.
template <typename Predicate>
bool runEventsUntil(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > limit.count()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// Runs the GUI thread's events for a while, for things that must have had
// the chance to happen (or not to).
inline void runEventsFor(std::chrono::milliseconds duration) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < duration.count()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
}

// A platform log that keeps every line, for tests that check what was logged.
class RecordingLog final : public PlatformLog {
public:
    void write(LogLevel, std::string_view, std::string_view message) override {
        std::lock_guard lock(m_mutex);
        m_lines.emplace_back(message);
    }

    std::vector<std::string> lines() const {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }

    std::vector<std::string> linesStartingWith(std::string_view prefix) const {
        std::vector<std::string> found;
        for (const auto& line : lines()) {
            if (line.starts_with(prefix)) {
                found.push_back(line);
            }
        }
        return found;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

} // namespace kinbook::testing
