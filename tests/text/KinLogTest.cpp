#include "KinbookKit/text/KinLog.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/platform/SystemdJournal.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kinbook {
namespace {

using namespace std::chrono;
using testing::readFile;
using testing::TempFolder;

// 2026-11-22T13:03:05.123Z, in UTC: the lines' stamps stay the same in
// whatever zone the tests run.
const sys_time<milliseconds> fixedTime{sys_days{year{2026} / 11 / 22} + 13h + 3min + 5s + 123ms};
constexpr const char* stamp = "2026-11-22T13:03:05.123+0000";

// Shows times in UTC for as long as it lives.
class UtcZone {
public:
    UtcZone() {
        if (const char* old = std::getenv("TZ")) {
            m_old = old;
        }
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    ~UtcZone() {
        if (m_old) {
            ::setenv("TZ", m_old->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    UtcZone(const UtcZone&) = delete;
    UtcZone& operator=(const UtcZone&) = delete;

private:
    std::optional<std::string> m_old;
};

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

class KinLogTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(m_folder.path().empty()); }

    std::string fileText() {
        m_file.flush();
        return readFile(m_folder / "app.log");
    }
    static std::string line(const std::string& category, const std::string& message) {
        return std::string(stamp) + " [" + category + "] " + message + "\n";
    }

    UtcZone m_zone;
    testing::FakeClock m_clock{fixedTime};
    TempFolder m_folder;
    AppLog m_file{m_folder / "app.log", m_clock};
    CapturingPlatformLog m_platform;
};

TEST_F(KinLogTest, InfoReachesThePlatformLogBeforeReturningAndTheFileUnchanged) {
    const KinLog log("list", m_file, m_platform);
    log.info("load: 1204 people in 85 ms");
    // The platform copy is synchronous: no flush needed to see it.
    EXPECT_EQ(m_platform.lines(),
              (std::vector<PlatformLine>{{LogLevel::info, "list", "load: 1204 people in 85 ms"}}));
    EXPECT_EQ(fileText(), line("list", "load: 1204 people in 85 ms"));
}

TEST_F(KinLogTest, ErrorLinesArePrefixedInTheFileOnly) {
    const KinLog log("sidecar", m_file, m_platform);
    log.error("restore: Ada Lovelace: the file is damaged");
    EXPECT_EQ(m_platform.lines(),
              (std::vector<PlatformLine>{
                  {LogLevel::error, "sidecar", "restore: Ada Lovelace: the file is damaged"}}));
    EXPECT_EQ(fileText(), line("sidecar", "ERROR restore: Ada Lovelace: the file is damaged"));
}

TEST_F(KinLogTest, PrivatePartsAreRedactedInThePlatformLogOnly) {
    const KinLog log("search", m_file, m_platform);
    log.info(LogMessage("search: ").privateText("Émile Zola").publicText(" 12 ms"));
    log.error(
        LogMessage("search: ").privateText("a").publicText(" then ").privateText("b").publicText(" failed"));
    EXPECT_EQ(m_platform.lines(), (std::vector<PlatformLine>{
                                      {LogLevel::info, "search", "search: <private> 12 ms"},
                                      {LogLevel::error, "search", "search: <private> then <private> failed"},
                                  }));
    EXPECT_EQ(fileText(),
              line("search", "search: Émile Zola 12 ms") + line("search", "ERROR search: a then b failed"));
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
