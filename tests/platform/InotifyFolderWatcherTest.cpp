#include "KinbookKit/platform/InotifyFolderWatcher.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::TempFolder;
using testing::writeFile;

// Runs each task at once on the posting thread, counting the posts, so the
// test can tell that notices go through the executor it was given.
class CountingExecutor final : public Executor {
public:
    void post(Task task) override {
        ++posts;
        task();
    }
    void postAfter(std::chrono::milliseconds, Task task) override { post(std::move(task)); }
    std::atomic<int> posts{0};
};

using File = std::pair<std::string, std::string>;

class InotifyFolderWatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_folder / "home");
        auto started = m_watcher.start(m_folder.path(), m_executor, record());
        ASSERT_TRUE(started.ok()) << started.error();
    }
    // The watcher's thread may be delivering a notice into the members below
    // it, which go before it does.
    void TearDown() override { m_watcher.stop(); }

    FolderWatcher::Callback record() {
        return [this](const FolderChange& change) {
            std::lock_guard lock(m_mutex);
            ++m_notices;
            m_unnamed = m_unnamed || change.unnamed;
            m_named.insert(change.files.begin(), change.files.end());
            m_changed.notify_all();
        };
    }

    // Waits, up to a generous limit, for a notice after `seen` ones.
    bool noticeAfter(int seen) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_notices > seen; });
    }
    // Waits for a notice naming `file`.
    bool named(const File& file) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_named.contains(file); });
    }
    bool unnamedAfter(int seen) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return m_notices > seen && m_unnamed; });
    }
    // Forgets what was noticed so far; returns how many notices there were.
    int reset() {
        std::lock_guard lock(m_mutex);
        m_named.clear();
        m_unnamed = false;
        return m_notices;
    }
    std::set<File> namedSoFar() {
        std::lock_guard lock(m_mutex);
        return m_named;
    }

    TempFolder m_folder;
    CountingExecutor m_executor;
    InotifyFolderWatcher m_watcher;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_notices = 0;
    bool m_unnamed = false;
    std::set<File> m_named;
};

TEST_F(InotifyFolderWatcherTest, NamesCardsWrittenRenamedAndDeletedByOtherPrograms) {
    EXPECT_TRUE(unnamedAfter(0)) << "what changed before the watch began is unknown";
    EXPECT_GE(m_executor.posts.load(), 1);
    const fs::path card = m_folder / "home" / "a.vcf";
    reset();
    writeFile(card, "BEGIN:VCARD\r\nEND:VCARD\r\n"); // an editor writing in place
    ASSERT_TRUE(named({"home", "a.vcf"})) << "in-place write";

    reset();
    writeFile(m_folder / "home" / "a.vcf5Tq0xw", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    writeFile(m_folder / "home" / ".b.vcf.tmp", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    fs::rename(m_folder / "home" / "a.vcf5Tq0xw", card); // how a sync run replaces a card
    fs::rename(m_folder / "home" / ".b.vcf.tmp", m_folder / "home" / "b.vcf");
    ASSERT_TRUE(named({"home", "a.vcf"})) << "rename into place";
    ASSERT_TRUE(named({"home", "b.vcf"}));
    // Temporaries are no cards: only the names they were renamed to count.
    EXPECT_EQ(namedSoFar(), (std::set<File>{{"home", "a.vcf"}, {"home", "b.vcf"}}));

    const int seen = reset();
    fs::remove(card);
    ASSERT_TRUE(named({"home", "a.vcf"})) << "delete";
    std::lock_guard lock(m_mutex);
    EXPECT_GT(m_notices, seen);
    EXPECT_FALSE(m_unnamed) << "a card's own events never need a scan of everything";
}

// Account folders that appear, are renamed or go: the cards they hold are
// named by nobody, and a new or renamed folder's cards are watched at once.
TEST_F(InotifyFolderWatcherTest, AccountFoldersThatAppearMoveOrGoAreReportedAndWatched) {
    int seen = reset();
    fs::create_directories(m_folder / "work");
    ASSERT_TRUE(unnamedAfter(seen)) << "appeared";
    // The folder's watch is in place before its notice is posted.
    reset();
    writeFile(m_folder / "work" / "b.vcf", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    EXPECT_TRUE(named({"work", "b.vcf"}));

    seen = reset();
    fs::rename(m_folder / "home", m_folder / "house");
    ASSERT_TRUE(unnamedAfter(seen)) << "renamed";
    reset();
    writeFile(m_folder / "house" / "c.vcf", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    ASSERT_TRUE(named({"house", "c.vcf"}));
    EXPECT_FALSE(namedSoFar().contains(File{"home", "c.vcf"}));

    seen = reset();
    fs::remove_all(m_folder / "house");
    EXPECT_TRUE(unnamedAfter(seen)) << "removed";
}

TEST_F(InotifyFolderWatcherTest, NothingIsDeliveredAfterStop) {
    m_watcher.stop();
    m_watcher.stop();
    int posts = m_executor.posts.load();
    writeFile(m_folder / "home" / "a.vcf", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    // The reader thread is gone, so there is nobody left to post; restarting
    // on the same folder proves the watcher is usable again. The restart's
    // own notice is the only one.
    auto restarted = m_watcher.start(m_folder.path(), m_executor, record());
    ASSERT_TRUE(restarted.ok());
    EXPECT_EQ(m_executor.posts.load(), posts + 1);
    EXPECT_FALSE(namedSoFar().contains(File{"home", "a.vcf"}));
    reset();
    fs::remove(m_folder / "home" / "a.vcf");
    EXPECT_TRUE(named({"home", "a.vcf"}));
}

TEST(InotifyFolderWatcher, AMissingRootIsAnError) {
    TempFolder folder;
    CountingExecutor executor;
    InotifyFolderWatcher watcher;
    auto started = watcher.start(folder / "missing", executor, [](const FolderChange&) {});
    ASSERT_FALSE(started.ok());
    EXPECT_NE(started.error().find("missing"), std::string::npos);
}

} // namespace
} // namespace kinbook
