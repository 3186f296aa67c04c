#include "KinbookKit/text/AppLog.h"

#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono;
using testing::readFile;
using testing::TempFolder;
using testing::writeFile;

constexpr sys_days dayOf(int y, unsigned m, unsigned d) {
    return sys_days{year{y} / month{m} / day{d}};
}

// 2026-11-22T13:03:05.123Z, shown in a zone one hour ahead of UTC.
const LogTime fixedTime{dayOf(2026, 11, 22) + 13h + 3min + 5s + 123ms, 1h};
constexpr const char* fixedStamp = "2026-11-22T14:03:05.123+0100";
constexpr const char* oneHourAhead = "XYZ-01"; // POSIX TZ: west of Greenwich is positive

// Sets an environment variable for one scope and puts the old value back.
class EnvironmentGuard {
public:
    EnvironmentGuard(const char* name, const char* value) : m_name(name) {
        if (const char* old = std::getenv(name)) {
            m_old = old;
        }
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }
    ~EnvironmentGuard() {
        if (m_old) {
            ::setenv(m_name, m_old->c_str(), 1);
        } else {
            ::unsetenv(m_name);
        }
    }
    EnvironmentGuard(const EnvironmentGuard&) = delete;
    EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;

private:
    const char* m_name;
    std::optional<std::string> m_old;
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Every line is stamped at fixedTime, in a zone one hour ahead of UTC.
class AppLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_folder.path().empty());
        ::tzset();
    }

    fs::path file() const { return m_folder / "app.log"; }
    fs::path oldFile() const { return m_folder / "app.log.1"; }
    std::string line(const std::string& category, const std::string& message) const {
        return std::string(fixedStamp) + " [" + category + "] " + message + "\n";
    }

    // The zone goes back to the process's own once the test is over.
    struct ReadZone {
        ~ReadZone() { ::tzset(); }
    } m_readZoneAfter;
    EnvironmentGuard m_zone{"TZ", oneHourAhead};
    testing::FakeClock m_clock{fixedTime.instant};
    TempFolder m_folder;
};

// A clock that notes the thread reading it, and fails its first reading
// when asked to.
class ProbeClock final : public Clock {
public:
    explicit ProbeClock(bool failFirst) : m_failFirst(failFirst) {}

    std::chrono::system_clock::time_point now() const override {
        m_reader = std::this_thread::get_id();
        if (m_failFirst.exchange(false)) {
            throw std::runtime_error("clock");
        }
        return fixedTime.instant;
    }
    std::chrono::steady_clock::time_point monotonicNow() const override { return {}; }

    std::thread::id reader() const { return m_reader.load(); }

private:
    mutable std::atomic<bool> m_failFirst;
    mutable std::atomic<std::thread::id> m_reader{};
};

TEST(AppLogTime, StampsLocalTimeToTheMillisecondWithTheZoneOffset) {
    struct Case {
        LogTime time;
        const char* stamp;
    };
    const Case cases[] = {
        {fixedTime, fixedStamp},
        {{dayOf(2026, 11, 22) + 13h + 3min + 5s + 123ms, 0s}, "2026-11-22T13:03:05.123+0000"},
        // Behind UTC, with half an hour: the sign and the minutes both show.
        {{dayOf(2026, 11, 22) + 13h + 3min + 5s + 123ms, -(3h + 30min)}, "2026-11-22T09:33:05.123-0330"},
        // The offset carries the local date into the next year, and back into February.
        {{dayOf(2026, 12, 31) + 23h + 30min + 7ms, 5h + 45min}, "2027-01-01T05:15:00.007+0545"},
        {{dayOf(2024, 3, 1) + 10min + 999ms, -1h}, "2024-02-29T23:10:00.999-0100"},
        // Fractions below the millisecond are cut, never rounded up into the next second.
        {{dayOf(2026, 1, 2) + 3h + 4min + 5s + 999999us, 0s}, "2026-01-02T03:04:05.999+0000"},
        {{dayOf(1969, 12, 31) + 23h + 59min + 59s + 500ms, 0s}, "1969-12-31T23:59:59.500+0000"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(AppLog::formatTime(c.time), c.stamp);
    }
}

TEST(AppLogTime, LocalTimeCarriesTheOffsetOfTheCurrentZone) {
    struct Zone {
        const char* tz;
        seconds offset;
    };
    // POSIX TZ strings count west of Greenwich as positive: "X-05:30" is 5.5 hours ahead.
    const Zone zones[] = {{"XYZ-05:30", 5h + 30min}, {"XYZ+03", -3h}, {"UTC0", 0s}};
    for (const Zone& zone : zones) {
        EnvironmentGuard tz("TZ", zone.tz);
        ::tzset();
        EXPECT_EQ(AppLog::localTime(fixedTime.instant), (LogTime{fixedTime.instant, zone.offset})) << zone.tz;
    }
    ::tzset();
}

TEST(AppLogLocation, FollowsXdgStateHomeElseTheHomeFolderFromTheUserDatabase) {
    std::string userHome;
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir[0] != '\0') {
        userHome = entry->pw_dir;
    }
    {
        EnvironmentGuard xdg("XDG_STATE_HOME", "/srv/state");
        EXPECT_EQ(AppLog::defaultLocation(), fs::path("/srv/state/kinbook/app.log"));
    }
    // An empty or relative XDG_STATE_HOME is not usable; a changed $HOME does
    // not move the log away from the user's real home folder.
    for (const char* unusable : {static_cast<const char*>(nullptr), "", "relative/state"}) {
        EnvironmentGuard xdg("XDG_STATE_HOME", unusable);
        EnvironmentGuard home("HOME", "/nonexistent-home");
        const std::string expected = (userHome.empty() ? std::string("/nonexistent-home") : userHome) +
                                     "/.local/state/kinbook/app.log";
        EXPECT_EQ(AppLog::defaultLocation(), fs::path(expected)) << (unusable ? unusable : "(unset)");
    }
}

TEST_F(AppLogTest, AppendsTimeCategoryAndMessageAsOneLine) {
    writeFile(file(), "earlier line\n");
    {
        AppLog log(file(), m_clock);
        log.write("list", "load: 1204 people in 85 ms");
        log.write("search", "search: Émile 3 ms");
        log.flush();
        EXPECT_EQ(readFile(file()), "earlier line\n" + line("list", "load: 1204 people in 85 ms") +
                                        line("search", "search: Émile 3 ms"));
    }
}

TEST_F(AppLogTest, CreatesTheMissingFolderPrivateToTheUser) {
    const fs::path nested = m_folder / "state" / "kinbook" / "app.log";
    AppLog log(nested, m_clock);
    EXPECT_FALSE(fs::exists(nested.parent_path())) << "nothing is created before the first line";
    log.write("sidecar", "sidecar: ready");
    log.flush();
    EXPECT_EQ(readFile(nested), line("sidecar", "sidecar: ready"));
    // The log holds what the user searched for.
    EXPECT_EQ(fs::status(nested).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(nested.parent_path()).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST_F(AppLogTest, WritesOnItsOwnThreadNotTheCallers) {
    ProbeClock clock(false);
    AppLog log(file(), clock);
    log.write("list", "step");
    log.flush();
    EXPECT_NE(clock.reader(), std::thread::id{});
    EXPECT_NE(clock.reader(), std::this_thread::get_id());
}

TEST_F(AppLogTest, KeepsTheOrderOfEachThreadsLinesWithNoneLostOrTorn) {
    constexpr int threadCount = 4;
    constexpr int linesPerThread = 250;
    {
        AppLog log(file(), m_clock);
        std::vector<std::thread> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back([&log, t] {
                for (int n = 0; n < linesPerThread; ++n) {
                    log.write("t" + std::to_string(t), std::to_string(n));
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        // No flush: destruction writes what is queued.
    }
    const std::vector<std::string> lines = linesOf(readFile(file()));
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(threadCount * linesPerThread));
    std::vector<int> next(threadCount, 0);
    for (const std::string& text : lines) {
        const std::string prefix = std::string(fixedStamp) + " [t";
        ASSERT_EQ(text.rfind(prefix, 0), 0u) << text;
        const std::size_t close = text.find("] ", prefix.size());
        ASSERT_NE(close, std::string::npos) << text;
        const int t = std::stoi(text.substr(prefix.size(), close - prefix.size()));
        ASSERT_TRUE(t >= 0 && t < threadCount) << text;
        EXPECT_EQ(text.substr(close + 2), std::to_string(next[static_cast<std::size_t>(t)]++)) << text;
    }
}

TEST_F(AppLogTest, RotatesOnlyAboveTheLimitBeforeTheNextLine) {
    writeFile(oldFile(), "generation before\n");
    writeFile(file(), "");
    fs::resize_file(file(), AppLog::rotationLimit); // exactly at the limit: kept
    const std::string first = line("list", "first");
    const std::string second = line("list", "second");

    AppLog log(file(), m_clock);
    log.write("list", "first");
    log.flush();
    EXPECT_EQ(fs::file_size(file()), AppLog::rotationLimit + first.size());
    EXPECT_EQ(readFile(oldFile()), "generation before\n");

    // Now above the limit: the file becomes the old generation, replacing the
    // one before, and the line starts a new file.
    log.write("list", "second");
    log.flush();
    EXPECT_EQ(readFile(file()), second);
    ASSERT_EQ(fs::file_size(oldFile()), AppLog::rotationLimit + first.size());
    EXPECT_EQ(readFile(oldFile()).substr(AppLog::rotationLimit), first);
}

TEST_F(AppLogTest, RotatesAFileOneByteAboveTheLimit) {
    writeFile(file(), "");
    fs::resize_file(file(), AppLog::rotationLimit + 1);
    AppLog log(file(), m_clock);
    log.write("list", "next");
    log.flush();
    EXPECT_EQ(readFile(file()), line("list", "next"));
    EXPECT_EQ(fs::file_size(oldFile()), AppLog::rotationLimit + 1);
}

TEST_F(AppLogTest, UnwritableLocationsLoseTheLineQuietly) {
    // A regular file where a folder should be: the folder cannot be made.
    writeFile(m_folder / "blocker", "not a folder");
    AppLog underFile(m_folder / "blocker" / "kinbook" / "app.log", m_clock);
    underFile.write("list", "lost");
    underFile.flush();
    EXPECT_EQ(readFile(m_folder / "blocker"), "not a folder");

    // A folder where the file should be.
    fs::create_directory(file());
    AppLog onFolder(file(), m_clock);
    onFolder.write("list", "lost");
    onFolder.flush();
    EXPECT_TRUE(fs::is_directory(file()));
    EXPECT_TRUE(fs::is_empty(file()));

    // A clock that throws loses its line, and the writer goes on.
    ProbeClock failing(true);
    AppLog throwing(m_folder / "other.log", failing);
    throwing.write("list", "lost");
    throwing.write("list", "kept");
    throwing.flush();
    EXPECT_EQ(readFile(m_folder / "other.log"), line("list", "kept"));
}

} // namespace
} // namespace kinbook
