#include "Kinbook/MainThreadWatcher.h"

#include "KinbookKit/text/AppLog.h"
#include "tests/app/AppTestSupport.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <QMetaObject>
#include <QObject>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kinbook {
namespace {

using namespace std::chrono_literals;
using testing::RecordingLog;
using testing::runEventsUntil;

// The object a blocking task is delivered to, so the stall line can name it.
class SlowWork final : public QObject {
    Q_OBJECT
};

// A fake clock that lets the test see the watcher's readings: each one is
// counted, and the latest kept, once it has been taken. Readings on the GUI
// thread (the probes' answers) are not counted.
class WatchedClock final : public Clock {
public:
    std::chrono::system_clock::time_point now() const override { return m_time.now(); }
    std::chrono::steady_clock::time_point monotonicNow() const override {
        const auto reading = m_time.monotonicNow();
        if (std::this_thread::get_id() != m_guiThread) {
            {
                std::lock_guard lock(m_mutex);
                ++m_watcherReadings;
                m_latest = reading;
            }
            m_read.notify_all();
        }
        return reading;
    }

    void advance(std::chrono::nanoseconds step) { m_time.advance(step); }

    int watcherReadings() const {
        std::lock_guard lock(m_mutex);
        return m_watcherReadings;
    }
    // Waits until the watcher has taken more than `count` readings, or
    // one of `time` or later; false if it never does.
    bool waitForReadingsAbove(int count) const {
        std::unique_lock lock(m_mutex);
        return m_read.wait_for(lock, 20s, [&] { return m_watcherReadings > count; });
    }
    bool waitForReadingOf(std::chrono::steady_clock::time_point time) const {
        std::unique_lock lock(m_mutex);
        return m_read.wait_for(lock, 20s, [&] { return m_latest >= time; });
    }

private:
    testing::FakeClock m_time;
    const std::thread::id m_guiThread = std::this_thread::get_id();
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_read;
    mutable int m_watcherReadings = 0;                      // guarded by m_mutex
    mutable std::chrono::steady_clock::time_point m_latest; // guarded by m_mutex
};

TEST(MainThreadWatcher, AStalledGuiThreadIsLoggedOnceWithTheStallAndWhatRan) {
    testing::TempFolder folder;
    AppLog file(folder / "app.log");
    RecordingLog platform;
    WatchedClock clock;
    MainThreadWatcher watcher(KinLog("app", file, platform),
                              {.threshold = 100ms, .interval = 20ms, .clock = &clock});

    // The GUI thread is held until a probe is waiting on it, then 250 ms
    // pass, and it is held on until the watcher has seen them pass.
    SlowWork work;
    bool held = false;
    bool waited = false;
    QMetaObject::invokeMethod(
        &work,
        [&] {
            held = clock.waitForReadingsAbove(clock.watcherReadings());
            clock.advance(250ms);
            waited = clock.waitForReadingOf(clock.monotonicNow());
        },
        Qt::QueuedConnection);
    ASSERT_TRUE(runEventsUntil([&] { return held && watcher.stallCount() > 0; }));
    ASSERT_TRUE(waited);
    // A few more answered probes, where a second line would show if the
    // watcher wrongly wrote one.
    const int readings = clock.watcherReadings();
    ASSERT_TRUE(runEventsUntil([&] { return clock.watcherReadings() >= readings + 3; }));

    const auto lines = platform.linesStartingWith("main thread stalled ");
    ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? "" : lines.back());
    EXPECT_EQ(lines[0], "main thread stalled 250 ms (kinbook::SlowWork MetaCall)");
    EXPECT_EQ(watcher.stallCount(), 1);
    EXPECT_EQ(watcher.longestStall(), 250ms);
}

TEST(MainThreadWatcher, StopsWhileItsProbeIsStillWaitingForTheGuiThread) {
    RecordingLog platform;
    testing::TempFolder folder;
    AppLog file(folder / "app.log");
    // No events are run, so the first probe is never answered; the
    // destructor must not wait for it.
    { MainThreadWatcher watcher(KinLog("app", file, platform)); }
    EXPECT_TRUE(platform.lines().empty());
}

} // namespace
} // namespace kinbook

#include "MainThreadWatcherTest.moc"
