#include "KinbookKit/addressbook/InotifyFolderWatcher.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

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

class InotifyFolderWatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_folder / "home");
        auto started = m_watcher.start(m_folder.path(), m_executor, [this] {
            std::lock_guard lock(m_mutex);
            ++m_notices;
            m_changed.notify_all();
        });
        ASSERT_TRUE(started.ok()) << started.error();
    }

    // Waits, up to a generous limit, for a notice after `seen` ones.
    bool noticeAfter(int seen) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_notices > seen; });
    }
    int notices() {
        std::lock_guard lock(m_mutex);
        return m_notices;
    }

    TempFolder m_folder;
    CountingExecutor m_executor;
    InotifyFolderWatcher m_watcher;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_notices = 0;
};

TEST_F(InotifyFolderWatcherTest, ReportsCardsWrittenRenamedAndDeletedByOtherPrograms) {
    const fs::path card = m_folder / "home" / "a.vcf";
    int seen = notices();
    writeFile(card, "BEGIN:VCARD\r\nEND:VCARD\r\n"); // an editor writing in place
    ASSERT_TRUE(noticeAfter(seen)) << "in-place write";

    seen = notices();
    writeFile(m_folder / "home" / "a.vcf5Tq0xw", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    fs::rename(m_folder / "home" / "a.vcf5Tq0xw", card); // how a sync run replaces a card
    ASSERT_TRUE(noticeAfter(seen)) << "rename into place";

    seen = notices();
    fs::remove(card);
    ASSERT_TRUE(noticeAfter(seen)) << "delete";
    EXPECT_GE(m_executor.posts.load(), 3);
}

TEST_F(InotifyFolderWatcherTest, AnAccountFolderThatAppearsIsWatchedToo) {
    int seen = notices();
    fs::create_directories(m_folder / "work");
    ASSERT_TRUE(noticeAfter(seen));
    // The folder's watch is in place before its notice is posted.
    seen = notices();
    writeFile(m_folder / "work" / "b.vcf", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    EXPECT_TRUE(noticeAfter(seen));
}

TEST_F(InotifyFolderWatcherTest, AnAccountFolderRemovedIsReported) {
    int seen = notices();
    fs::remove_all(m_folder / "home");
    EXPECT_TRUE(noticeAfter(seen));
}

TEST_F(InotifyFolderWatcherTest, NothingIsDeliveredAfterStop) {
    m_watcher.stop();
    m_watcher.stop();
    int posts = m_executor.posts.load();
    writeFile(m_folder / "home" / "a.vcf", "BEGIN:VCARD\r\nEND:VCARD\r\n");
    // The reader thread is gone, so there is nobody left to post; restarting
    // on the same folder proves the watcher is usable again.
    auto restarted = m_watcher.start(m_folder.path(), m_executor, [this] {
        std::lock_guard lock(m_mutex);
        ++m_notices;
        m_changed.notify_all();
    });
    ASSERT_TRUE(restarted.ok());
    EXPECT_EQ(m_executor.posts.load(), posts);
    int seen = notices();
    fs::remove(m_folder / "home" / "a.vcf");
    EXPECT_TRUE(noticeAfter(seen));
}

TEST(InotifyFolderWatcher, AMissingRootIsAnError) {
    TempFolder folder;
    CountingExecutor executor;
    InotifyFolderWatcher watcher;
    auto started = watcher.start(folder / "missing", executor, [] {});
    ASSERT_FALSE(started.ok());
    EXPECT_NE(started.error().find("missing"), std::string::npos);
}

} // namespace
} // namespace kinbook
