#include "Kinbook/MainThreadWatcher.h"

#include "KinbookKit/text/AppLog.h"
#include "tests/app/AppTestSupport.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <QMetaObject>
#include <QObject>
#include <charconv>
#include <thread>

namespace kinbook {
namespace {

using testing::RecordingLog;
using testing::runEventsFor;
using testing::runEventsUntil;

// The object a blocking task is delivered to, so the stall line can name it.
class SlowWork final : public QObject {
    Q_OBJECT
};

int stalledMilliseconds(const std::string& line) {
    constexpr std::string_view prefix = "main thread stalled ";
    int value = -1;
    std::from_chars(line.data() + prefix.size(), line.data() + line.size(), value);
    return value;
}

TEST(MainThreadWatcher, AGuiThreadBlockedFor250MillisecondsIsLoggedOnceWithAboutThatDelay) {
    testing::TempFolder folder;
    AppLog file(folder / "app.log");
    RecordingLog platform;
    MainThreadWatcher watcher(KinLog("app", file, platform));

    // Let the watcher settle into its rhythm of answered probes first.
    runEventsFor(std::chrono::milliseconds(100));

    SlowWork work;
    bool blocked = false;
    QMetaObject::invokeMethod(
        &work,
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            blocked = true;
        },
        Qt::QueuedConnection);
    ASSERT_TRUE(runEventsUntil([&] { return blocked && watcher.stallCount() > 0; }));
    // Time for a second line to appear, if the watcher wrongly wrote one.
    runEventsFor(std::chrono::milliseconds(100));

    const auto lines = platform.linesStartingWith("main thread stalled ");
    ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? "" : lines.back());
    // A stall that begins between two probes is measured from the second.
    const int milliseconds = stalledMilliseconds(lines[0]);
    EXPECT_GE(milliseconds, 200) << lines[0];
    EXPECT_LT(milliseconds, 1000) << lines[0];
    EXPECT_NE(lines[0].find("SlowWork MetaCall)"), std::string::npos) << lines[0];
    EXPECT_EQ(watcher.longestStall().count(), milliseconds);
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
