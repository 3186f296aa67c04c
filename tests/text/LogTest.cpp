// The app log file behind Help > Show App Log, and the per-area loggers that
// write each line to it and to the platform log.

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/platform/SystemdJournal.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/SavedEnvironment.h"
#include "tests/support/TempFolder.h"

#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
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
class EnvironmentGuard : testing::SavedEnvironment {
public:
    EnvironmentGuard(const char* name, const char* value) : SavedEnvironment{name} {
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }
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

// A clock that notes the thread reading it, and fails its first reading.
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

    // A clock that throws loses its line, and the writer goes on. The clock
    // is read on the writer's own thread, never the caller's.
    ProbeClock failing(true);
    AppLog throwing(m_folder / "other.log", failing);
    throwing.write("list", "lost");
    throwing.write("list", "kept");
    throwing.flush();
    EXPECT_EQ(readFile(m_folder / "other.log"), line("list", "kept"));
    EXPECT_NE(failing.reader(), std::thread::id{});
    EXPECT_NE(failing.reader(), std::this_thread::get_id());
}

// ---------------------------------------------------------------------------
// KinLog

struct PlatformLine {
    LogLevel level;
    std::string category;
    std::string message;
    bool operator==(const PlatformLine&) const = default;
};

void PrintTo(const PlatformLine& line, std::ostream* out) {
    *out << (line.level == LogLevel::error ? "error" : "info") << " [" << line.category << "] "
         << line.message;
}

class CapturingPlatformLog final : public PlatformLog {
public:
    void write(LogLevel level, std::string_view category, std::string_view message) override {
        std::lock_guard lock(m_mutex);
        m_lines.push_back({level, std::string(category), std::string(message)});
    }
    std::vector<PlatformLine> lines() const {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<PlatformLine> m_lines;
};

class ThrowingPlatformLog final : public PlatformLog {
public:
    void write(LogLevel, std::string_view, std::string_view) override { throw std::runtime_error("journal"); }
};

// Puts the process-wide platform log back to none, whatever the test did.
struct ProcessPlatformLogReset {
    ~ProcessPlatformLogReset() { KinLog::setPlatformLog(nullptr); }
};

// A logger over the app log above and a platform log that keeps its lines.
class KinLogTest : public AppLogTest {
protected:
    std::string fileText() {
        m_file.flush();
        return readFile(file());
    }

    AppLog m_file{file(), m_clock};
    CapturingPlatformLog m_platform;
};

TEST_F(KinLogTest, PlatformLogGetsRedactedLinesAtOnceAndTheFileWholeOnes) {
    const KinLog log("search", m_file, m_platform);
    log.info("load: 1204 people in 85 ms");
    log.error("restore: Ada Lovelace: the file is damaged");
    log.info(LogMessage("search: ").privateText("Émile Zola").publicText(" 12 ms"));
    log.error(
        LogMessage("search: ").privateText("a").publicText(" then ").privateText("b").publicText(" failed"));
    EXPECT_EQ(m_platform.lines(),
              (std::vector<PlatformLine>{
                  {LogLevel::info, "search", "load: 1204 people in 85 ms"},
                  {LogLevel::error, "search", "restore: Ada Lovelace: the file is damaged"},
                  {LogLevel::info, "search", "search: <private> 12 ms"},
                  {LogLevel::error, "search", "search: <private> then <private> failed"},
              }));
    EXPECT_EQ(fileText(), line("search", "load: 1204 people in 85 ms") +
                              line("search", "ERROR restore: Ada Lovelace: the file is damaged") +
                              line("search", "search: Émile Zola 12 ms") +
                              line("search", "ERROR search: a then b failed"));
}

TEST_F(KinLogTest, ProcessWidePlatformLogServesLoggersMadeBeforeIt) {
    ProcessPlatformLogReset reset;
    const KinLog log("list", m_file); // made before the platform log is installed, as statics are
    log.info("before");
    KinLog::setPlatformLog(&m_platform);
    log.info("during");
    KinLog::setPlatformLog(nullptr);
    log.info("after");
    EXPECT_EQ(m_platform.lines(), (std::vector<PlatformLine>{{LogLevel::info, "list", "during"}}));
    EXPECT_EQ(fileText(), line("list", "before") + line("list", "during") + line("list", "after"));
}

TEST_F(KinLogTest, AFailingPlatformLogDoesNotCostTheFileLine) {
    ThrowingPlatformLog throwing;
    const KinLog log("list", m_file, throwing);
    log.error("save: failed");
    EXPECT_EQ(fileText(), line("list", "ERROR save: failed"));
}

// Against the real journal, where this machine runs one.
TEST_F(KinLogTest, JournalEntriesCarryIdentifierCategoryPriorityAndRedaction) {
    if (!SystemdJournal::isRunning()) {
        GTEST_SKIP() << "no systemd journal runs on this machine";
    }
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0) {
        GTEST_SKIP() << "the journal cannot be read by this user";
    }
    struct Closer {
        sd_journal* journal;
        ~Closer() { sd_journal_close(journal); }
    } closer{journal};
    ASSERT_GE(sd_journal_seek_tail(journal), 0);
    ASSERT_GE(sd_journal_previous(journal), 0);

    const std::string category = "test-" + makeUUID();
    ASSERT_GE(sd_journal_add_match(journal, ("KINBOOK_CATEGORY=" + category).c_str(), 0), 0);
    SystemdJournal platform;
    const KinLog log(category, m_file, platform);
    log.error(LogMessage("search: ").privateText("secret query"));

    auto field = [&](const char* name) {
        const void* data = nullptr;
        size_t length = 0;
        if (sd_journal_get_data(journal, name, &data, &length) < 0) {
            return std::string();
        }
        std::string text(static_cast<const char*>(data), length);
        return text.substr(text.find('=') + 1);
    };
    const auto deadline = steady_clock::now() + 10s;
    while (sd_journal_next(journal) <= 0) {
        if (steady_clock::now() > deadline) {
            GTEST_SKIP() << "the entry was sent but this user cannot read it back";
        }
        sd_journal_wait(journal, 500'000);
    }
    EXPECT_EQ(field("MESSAGE"), "search: <private>");
    EXPECT_EQ(field("PRIORITY"), std::to_string(LOG_ERR));
    EXPECT_EQ(field("SYSLOG_IDENTIFIER"), "kinbook");
    EXPECT_EQ(fileText(), line(category, "ERROR search: secret query"));
}

} // namespace
} // namespace kinbook
