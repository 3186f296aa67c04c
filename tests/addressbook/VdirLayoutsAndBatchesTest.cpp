// The folder layouts vdirsyncer and khard users keep, read and watched on
// real folders; and batches of cards that change all together or not at all.

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/platform/InotifyFolderWatcher.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

std::string card(const std::string& uid, const std::string& name) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + name + ";;;;\r\nFN:" + name + "\r\nUID:" + uid +
           "\r\nEND:VCARD\r\n";
}

std::vector<std::string> accountLabels(VdirAddressBook& book) {
    std::vector<std::string> labels;
    const auto accounts = book.accounts();
    EXPECT_TRUE(accounts.ok());
    for (const auto& account : accounts.ok() ? accounts.value() : std::vector<Account>{}) {
        labels.push_back(account.id + "=" + account.name);
    }
    return labels;
}

// Notices from a real inotify watch, counted.
class Notices {
public:
    std::function<void()> callback() {
        return [this] {
            std::lock_guard lock(m_mutex);
            ++m_count;
            m_changed.notify_all();
        };
    }
    int count() {
        std::lock_guard lock(m_mutex);
        return m_count;
    }
    bool waitBeyond(int seen) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_count > seen; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_count = 0;
};

TEST(VdirLayouts, CardsInTheRootAndCollectionsOneLevelDeeperAreAccounts) {
    testing::TempVdir vdir;
    const fs::path root = vdir.root();
    // Cards directly in the folder given, one pair of two collections (one
    // with a display name), a plain account, an empty one, a hidden folder.
    fs::create_directories(root);
    writeFile(root / "ROOT-1.vcf", card("ROOT-1", "Rooted"));
    vdir.write("nextcloud/contacts", "NC-1.vcf", card("NC-1", "Clouded"));
    vdir.write("nextcloud/z8f3a", "NC-2.vcf", card("NC-2", "Shared"));
    writeFile(root / "nextcloud" / "z8f3a" / "displayname", "Team\n");
    vdir.write("family", "FAM-1.vcf", card("FAM-1", "Kin"));
    fs::create_directories(root / "empty");
    vdir.write(".git", "X-1.vcf", card("X-1", "Hidden"));

    auto options = vdir.options();
    options.watcher = std::make_shared<InotifyFolderWatcher>();
    VdirAddressBook book(options);
    EXPECT_FALSE(book.holdsNoCards());
    EXPECT_EQ(accountLabels(book),
              (std::vector<std::string>{".=contacts", "empty=empty", "family=family",
                                        "nextcloud/contacts=nextcloud/contacts", "nextcloud/z8f3a=Team"}));
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    std::map<std::string, Texts> membership(read->membership.begin(), read->membership.end());
    EXPECT_EQ(membership["ROOT-1"], Texts{"."});
    EXPECT_EQ(membership["NC-2"], Texts{"nextcloud/z8f3a"});
    EXPECT_EQ(read->snapshot.people.size(), 4u);

    // Edits land in the right folder.
    ASSERT_TRUE(book.changeAnchor("NC-2", [](KinID::Anchor& anchor) { anchor.hidden = true; }).ok());
    EXPECT_NE(readFile(root / "nextcloud" / "z8f3a" / "NC-2.vcf").find("kinbook://c/"), std::string::npos);

    // Made after the read and before the watch: the first notice covers it.
    fs::remove(root / "family" / "FAM-1.vcf");
    ThreadPool pool(1);
    Notices notices;
    const auto observer = book.observeChanges(pool, notices.callback());
    ASSERT_TRUE(observer.ok());
    ASSERT_TRUE(notices.waitBeyond(0));
    auto token = *read->snapshot.historyToken;
    auto first = book.changesSince(token);
    ASSERT_TRUE(first.ok());
    EXPECT_EQ(first->deleted, std::set<std::string>{"FAM-1"});
    token = *first->token;

    // A collection that appears while Kinbook runs is an account at once,
    // and its cards reach the list through a notice: here written as sync
    // tools write, a temporary renamed into place.
    int seen = notices.count();
    fs::create_directories(root / "nextcloud" / "new-book");
    ASSERT_TRUE(notices.waitBeyond(seen));
    seen = notices.count();
    writeFile(root / "nextcloud" / "new-book" / ".NEW-1.vcf.tmp", card("NEW-1", "Newcomer"));
    fs::rename(root / "nextcloud" / "new-book" / ".NEW-1.vcf.tmp",
               root / "nextcloud" / "new-book" / "NEW-1.vcf");
    ASSERT_TRUE(notices.waitBeyond(seen));
    auto changes = book.changesSince(token);
    ASSERT_TRUE(changes.ok());
    ASSERT_EQ(changes->changed.size(), 1u);
    EXPECT_EQ(changes->changed[0].id, "NEW-1");
    EXPECT_EQ(changes->membership["NEW-1"], Texts{"nextcloud/new-book"});
    const auto accounts = accountLabels(book);
    EXPECT_NE(std::find(accounts.begin(), accounts.end(), "nextcloud/new-book=nextcloud/new-book"),
              accounts.end());
    token = *changes->token;

    // A card written in place, straight into the root, is heard of too.
    seen = notices.count();
    writeFile(root / "ROOT-2.vcf", card("ROOT-2", "Rooted Too"));
    ASSERT_TRUE(notices.waitBeyond(seen));
    changes = book.changesSince(token);
    ASSERT_TRUE(changes.ok());
    ASSERT_EQ(changes->changed.size(), 1u);
    EXPECT_EQ(changes->changed[0].id, "ROOT-2");
    book.stopObserving(*observer);
}

TEST(VdirLayouts, AFolderWithoutCardsAnywhereSaysSo) {
    testing::TempVdir vdir;
    fs::create_directories(vdir.root() / "pair" / "empty-collection");
    writeFile(vdir.root() / "notes.txt", "not a card");
    VdirAddressBook book(vdir.options());
    EXPECT_TRUE(book.holdsNoCards());
    vdir.write("pair/empty-collection", "A-1.vcf", card("A-1", "Ann"));
    EXPECT_FALSE(book.holdsNoCards());
}

class VdirBatches : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* id : {"A-1", "B-2", "C-3"}) {
            vdir.write("family", std::string(id) + ".vcf", card(id, id));
        }
    }

    // The store, failing the second card a batch stages.
    VdirAddressBook::Options failingSecond() {
        auto options = vdir.options();
        options.stageCard = [this](const fs::path&) { return ++staged != 2; };
        return options;
    }

    std::map<fs::path, std::string> files() const {
        std::map<fs::path, std::string> result;
        for (const auto& entry : fs::directory_iterator(vdir.root() / "family")) {
            result[entry.path()] = readFile(entry.path());
        }
        return result;
    }

    testing::TempVdir vdir;
    int staged = 0;
};

TEST_F(VdirBatches, AFailureOnTheSecondCardLeavesEveryCardAsItWas) {
    VdirAddressBook book(failingSecond());
    const auto before = files();
    const std::vector<std::string> ids{"A-1", "B-2", "C-3"};

    const auto removed = book.remove(ids);
    ASSERT_FALSE(removed.ok());
    EXPECT_NE(removed.error().description().find("B-2"), std::string::npos) << removed.error().description();
    EXPECT_EQ(files(), before);

    staged = 0;
    const std::vector<std::uint8_t> jpeg{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 0xFF, 0xD9};
    const auto photos = book.setPhoto(ids, jpeg);
    ASSERT_FALSE(photos.ok());
    EXPECT_NE(photos.error().description().find("B-2"), std::string::npos) << photos.error().description();
    EXPECT_EQ(files(), before);
    EXPECT_NE(vdir.log().find("save failed (AddressBookError store photo B-2: "), std::string::npos);

    staged = 0;
    const auto imported =
        book.importVCards(card("D-4", "Dee") + card("E-5", "Eve") + card("F-6", "Fay"), "family");
    ASSERT_FALSE(imported.ok());
    EXPECT_NE(imported.error().description().find("E-5"), std::string::npos)
        << imported.error().description();
    EXPECT_EQ(files(), before);

    // Without the fault each batch goes through whole.
    VdirAddressBook healthy(vdir.options());
    ASSERT_TRUE(healthy.setPhoto(ids, jpeg).ok());
    for (const auto& [path, bytes] : files()) {
        EXPECT_NE(bytes.find("PHOTO;ENCODING=b;TYPE=JPEG:"), std::string::npos) << path;
    }
    ASSERT_TRUE(healthy.importVCards(card("D-4", "Dee") + card("E-5", "Eve"), "family").ok());
    ASSERT_TRUE(healthy.remove(ids).ok());
    EXPECT_EQ(files().size(), 2u);
}

} // namespace
} // namespace kinbook
