#include "KinbookKit/addressbook/VdirAddressBook.h"

#include "KinbookKit/platform/VipsImageScaler.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/TempFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vips/vips.h>

#include <gtest/gtest.h>

#include <set>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

const std::string kJane = "BEGIN:VCARD\r\n"
                          "VERSION:3.0\r\n"
                          "N:Appleseed;Jane;;;\r\n"
                          "FN:Jane Appleseed\r\n"
                          "ORG:Acme;\r\n"
                          "TITLE:Engineer\r\n"
                          "TEL;type=CELL;type=VOICE:+1 212 555 0100\r\n"
                          "item1.EMAIL;type=INTERNET:jane@acme.test\r\n"
                          "item1.X-ABLabel:_$!<Other>!$_\r\n"
                          "item2.ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA\r\n"
                          "item2.X-ABADR:us\r\n"
                          "X-CUSTOM;x-param=1:kept as it is\r\n"
                          "UID:JANE-1\r\n"
                          "END:VCARD\r\n";

const std::string kGroup = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Friends;;;;\r\nFN:Friends\r\n"
                           "X-ADDRESSBOOKSERVER-KIND:group\r\n"
                           "X-ADDRESSBOOKSERVER-MEMBER:urn:uuid:JANE-1\r\nUID:GROUP-1\r\nEND:VCARD\r\n";

const std::string kNoted = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora;;;\r\nFN:Nora Noted\r\n"
                           "NOTE:Met at the fair.\r\nUID:NORA-1\r\nEND:VCARD\r\n";

class VdirAddressBookTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root() / "family");
        fs::create_directories(root() / "work");
        writeFile(root() / "family" / "displayname", "  Family\n");
        writeFile(root() / "work" / "displayname", "None\n");
        writeFile(root() / "family" / "JANE-1.vcf", kJane);
        writeFile(root() / "family" / "GROUP-1.vcf", kGroup);
        writeFile(root() / "work" / "NORA-1.vcf", kNoted);
        writeFile(root() / "work" / "broken.vcf", "this is not a card at all");
        writeFile(root() / "work" / ".hidden.vcf", kJane);
        writeFile(root() / "work" / "editor-backup.vcf.tmp", kJane);
    }

    fs::path root() const { return m_folder / "contacts"; }

    // What another program does to the book while Kinbook looks away.
    void editJaneAndDropNora() const {
        std::string edited = kJane;
        edited.replace(edited.find("TITLE:Engineer"), 14, "TITLE:Director");
        writeFile(root() / "family" / "JANE-1.vcf", edited);
        fs::remove(root() / "work" / "NORA-1.vcf");
    }

    VdirAddressBook::Options options() {
        VdirAddressBook::Options options;
        options.root = root();
        options.stateFolder = m_folder / "state";
        options.heldNotesFile = m_folder / "data" / "notes-in-flight.json";
        options.log = m_log;
        options.pauseBeforeRetry = [this](std::chrono::milliseconds delay) { m_sleeps.push_back(delay); };
        return options;
    }

    testing::TempFolder m_folder;
    AppLog m_appLog{m_folder / "log" / "app.log"};
    std::shared_ptr<KinLog> m_log = std::make_shared<KinLog>("store", m_appLog);
    std::vector<std::chrono::milliseconds> m_sleeps;
};

std::vector<std::string> idsOf(const std::vector<Person>& people) {
    std::vector<std::string> ids;
    for (const auto& person : people) {
        ids.push_back(person.id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST_F(VdirAddressBookTest, AccountsAreFoldersNamedByTheirDisplayNameAndAskingCreatesTheRoot) {
    VdirAddressBook book(options());
    const auto accounts = book.accounts();
    ASSERT_TRUE(accounts.ok());
    EXPECT_EQ(*accounts, (std::vector<Account>{{"family", "Family"}, {"work", "work"}}));
    EXPECT_EQ(book.defaultAccountID(), "family");

    auto icloud = options();
    icloud.accountKinds = {{"work", AccountContainer::Kind::cardDAV}};
    icloud.defaultAccountID = "work";
    writeFile(root() / "work" / "displayname", "Contacts");
    EXPECT_EQ(VdirAddressBook(icloud).accounts()->back().name, "iCloud");

    auto missing = options();
    missing.root = m_folder / "new-contacts";
    VdirAddressBook created(missing);
    EXPECT_EQ(created.access(), AddressBookAccess::notDetermined);
    EXPECT_EQ(created.requestAccess(), AddressBookAccess::granted);
    const auto own = created.accounts();
    ASSERT_TRUE(own.ok());
    ASSERT_EQ(own->size(), 1u);
    EXPECT_EQ(own->front().name, "On My Computer");
    writeFile(m_folder / "plain-file", "x");
    missing.root = m_folder / "plain-file";
    EXPECT_EQ(VdirAddressBook(missing).access(), AddressBookAccess::denied);
}

TEST_F(VdirAddressBookTest, FullReadSkipsGroupsHiddenTemporaryAndBrokenFiles) {
    VdirAddressBook book(options());
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(idsOf(read->snapshot.people), (std::vector<std::string>{"JANE-1", "NORA-1"}));
    EXPECT_TRUE(read->snapshot.historyToken.has_value());
    EXPECT_TRUE(read->snapshot.fullReadAt.has_value());
    EXPECT_EQ(read->membership.at("JANE-1"), std::vector<std::string>{"family"});
    EXPECT_EQ(read->membership.at("NORA-1"), std::vector<std::string>{"work"});

    const auto namesOnly = book.readAll({.details = false, .takeToken = false, .membership = false});
    ASSERT_TRUE(namesOnly.ok());
    EXPECT_FALSE(namesOnly->snapshot.historyToken.has_value());
    EXPECT_TRUE(namesOnly->membership.empty());
    for (const auto& person : namesOnly->snapshot.people) {
        EXPECT_FALSE(person.detailed);
    }
    // The broken file is reported, never rewritten or removed.
    m_appLog.flush();
    EXPECT_NE(readFile(m_folder / "log" / "app.log").find("skipped card"), std::string::npos);
    EXPECT_EQ(readFile(root() / "work" / "broken.vcf"), "this is not a card at all");
}

TEST_F(VdirAddressBookTest, SavingADraftChangesOnlyTheEditedLines) {
    VdirAddressBook book(options());
    auto draft = book.draft("JANE-1");
    ASSERT_TRUE(draft.ok());
    const auto cardBefore = book.card("JANE-1");
    ASSERT_TRUE(cardBefore.ok());

    draft->jobTitle = "Principal Engineer";
    draft->phones.push_back({"NEW-PHONE-ID", "_$!<Work>!$_", "+1 212 555 0199", true});
    const auto saved = book.save(*draft);
    ASSERT_TRUE(saved.ok()) << saved.error().description();
    EXPECT_EQ(saved->kind, SaveOutcome::Kind::saved);

    const std::string after = readFile(root() / "family" / "JANE-1.vcf");
    EXPECT_NE(after.find("TITLE:Principal Engineer\r\n"), std::string::npos);
    for (const char* kept :
         {"TEL;type=CELL;type=VOICE:+1 212 555 0100\r\n", "item1.X-ABLabel:_$!<Other>!$_\r\n",
          "item2.ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA\r\n",
          "X-CUSTOM;x-param=1:kept as it is\r\n", "UID:JANE-1\r\n"}) {
        EXPECT_NE(after.find(kept), std::string::npos) << kept;
    }
    const auto cardAfter = book.card("JANE-1");
    ASSERT_TRUE(cardAfter.ok());
    ASSERT_EQ(cardAfter->phones.size(), 2u);
    EXPECT_EQ(cardAfter->phones[0].id, cardBefore->phones[0].id); // untouched phone keeps its identity
    EXPECT_EQ(cardAfter->phones[1].id, "NEW-PHONE-ID");           // the new one keeps the editor's
    EXPECT_EQ(cardAfter->addresses, cardBefore->addresses);

    // Saving the same draft again changes nothing on disk.
    const auto stamp = fs::last_write_time(root() / "family" / "JANE-1.vcf");
    auto again = book.draft("JANE-1");
    ASSERT_TRUE(book.save(*again).ok());
    EXPECT_EQ(fs::last_write_time(root() / "family" / "JANE-1.vcf"), stamp);
    EXPECT_EQ(readFile(root() / "family" / "JANE-1.vcf"), after);
}

TEST_F(VdirAddressBookTest, ANewCardGoesToTheDefaultAccountUnderItsUID) {
    VdirAddressBook book(options());
    auto draft = ContactDraft::empty();
    draft.givenName = "Olu";
    draft.familyName = "Ade";
    draft.emails.push_back({"MAIL-ID", "", "olu@example.test", true});
    const auto saved = book.save(draft);
    ASSERT_TRUE(saved.ok());
    const fs::path file = root() / "family" / (saved->id + ".vcf");
    ASSERT_TRUE(fs::exists(file));
    const auto card = book.card(saved->id);
    ASSERT_TRUE(card.ok());
    EXPECT_EQ(card->givenName, "Olu");
    ASSERT_EQ(card->emails.size(), 1u);
    EXPECT_EQ(card->emails[0].id, "MAIL-ID");
    EXPECT_NE(readFile(file).find("UID:" + saved->id + "\r\n"), std::string::npos);
}

TEST_F(VdirAddressBookTest, RefusalsAreTheAddressBooksOwnErrorsAndLeaveEveryCardAsItWas) {
    const std::string pat = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Plain;Pat;;;\r\nFN:Pat Plain\r\nUID:PAT-1\r\n"
                            "END:VCARD\r\n";
    writeFile(root() / "work" / "PAT-1.vcf", pat);
    auto opts = options();
    opts.readOnlyAccounts = {"work"};
    VdirAddressBook book(opts);
    auto draft = book.draft("PAT-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "P";
    EXPECT_EQ(book.save(*draft).error(), AddressBookError::readOnly());
    EXPECT_EQ(book.card("NO-SUCH-CARD").error(), AddressBookError::notFound());
    // One person's cards in two accounts: refused by one, the change leaves both alone.
    const auto photo = book.setPhoto(std::vector<std::string>{"JANE-1", "PAT-1"},
                                     std::vector<std::uint8_t>{0xFF, 0xD8, 0xFF, 0xD9});
    ASSERT_FALSE(photo.ok());
    EXPECT_EQ(photo.error().code, AddressBookError::Code::readOnly);
    EXPECT_EQ(readFile(root() / "family" / "JANE-1.vcf"), kJane);
    EXPECT_EQ(readFile(root() / "work" / "PAT-1.vcf"), pat);
}

TEST_F(VdirAddressBookTest, ExportDeleteAndImportKeepTheCardsBytes) {
    VdirAddressBook book(options());
    const std::vector<std::string> ids{"JANE-1"};
    const auto exported = book.exportVCards(ids);
    ASSERT_TRUE(exported.ok());
    EXPECT_EQ(*exported, kJane);
    ASSERT_TRUE(book.remove(ids).ok());
    EXPECT_FALSE(fs::exists(root() / "family" / "JANE-1.vcf"));
    EXPECT_EQ(book.remove(ids).error(), AddressBookError::notFound());
    const auto imported = book.importVCards(*exported, "work");
    ASSERT_TRUE(imported.ok());
    EXPECT_EQ(*imported, ids); // the UID comes back, so sync tools see the same card
    EXPECT_EQ(readFile(root() / "work" / "JANE-1.vcf"), kJane);
    // Importing again while the UID is taken gives the copy a new one.
    const auto copy = book.importVCards(*exported, "work");
    ASSERT_TRUE(copy.ok());
    EXPECT_NE(copy->front(), "JANE-1");
}

TEST_F(VdirAddressBookTest, AnchorChangesWriteOneAnchorFirstAndKeepTheKinID) {
    VdirAddressBook book(options());
    const auto first =
        book.changeAnchor("JANE-1", [](KinID::Anchor& anchor) { anchor.circle = ContactCircle::friends; });
    ASSERT_TRUE(first.ok());
    EXPECT_EQ(first->id.size(), 8u);
    const auto second = book.changeAnchor("JANE-1", [](KinID::Anchor& anchor) { anchor.hidden = true; });
    ASSERT_TRUE(second.ok());
    EXPECT_EQ(second->id, first->id);
    EXPECT_EQ(second->circle, ContactCircle::friends);
    const auto card = book.card("JANE-1");
    ASSERT_TRUE(card.ok());
    EXPECT_EQ(card->kinID, first->id);
    EXPECT_TRUE(card->urls.empty()); // the anchor is never a visible web address
    const auto people = book.readPeople(std::vector<std::string>{"JANE-1"});
    ASSERT_TRUE(people.ok());
    ASSERT_EQ(people->size(), 1u);
    EXPECT_TRUE(people->front().hidden);
    EXPECT_EQ(people->front().circle, ContactCircle::friends);
}

// Made while Kinbook was away: the old token learns of them after a
// restart, and the token taken with the new read starts after them.
TEST_F(VdirAddressBookTest, ChangesSinceATokenReportOutsideEditsAndDeletesAcrossARestart) {
    std::vector<std::uint8_t> token;
    {
        VdirAddressBook book(options());
        token = *book.readAll({})->snapshot.historyToken;
    }
    editJaneAndDropNora();

    VdirAddressBook book(options());
    const auto read = book.readAll({.details = false, .takeToken = true, .membership = false});
    ASSERT_TRUE(read.ok());
    const auto changes = book.changesSince(token);
    ASSERT_TRUE(changes.ok());
    EXPECT_FALSE(changes->startOver);
    ASSERT_EQ(changes->changed.size(), 1u);
    EXPECT_EQ(changes->changed[0].jobTitle, "Director");
    EXPECT_EQ(changes->deleted, std::set<std::string>{"NORA-1"});
    EXPECT_EQ(changes->membership.at("JANE-1"), std::vector<std::string>{"family"});
    for (const auto& later : {*read->snapshot.historyToken, *changes->token}) {
        const auto nothing = book.changesSince(later);
        ASSERT_TRUE(nothing.ok());
        EXPECT_TRUE(nothing->changed.empty());
        EXPECT_TRUE(nothing->deleted.empty());
    }
    EXPECT_TRUE(book.changesSince(std::vector<std::uint8_t>{1, 2, 3})->startOver);
}

std::vector<std::uint8_t> makeJpeg(int width, int height) {
    VipsImageScaler started; // starts libvips
    VipsImage* image = nullptr;
    vips_black(&image, width, height, "bands", 3, nullptr);
    void* buffer = nullptr;
    std::size_t length = 0;
    vips_jpegsave_buffer(image, &buffer, &length, nullptr);
    g_object_unref(image);
    std::vector<std::uint8_t> bytes(static_cast<std::uint8_t*>(buffer),
                                    static_cast<std::uint8_t*>(buffer) + length);
    g_free(buffer);
    return bytes;
}

TEST_F(VdirAddressBookTest, PhotosAndThumbnails) {
    auto opts = options();
    opts.imageScaler = std::make_shared<VipsImageScaler>();
    VdirAddressBook book(opts);
    const auto photo = makeJpeg(1200, 800);
    ASSERT_TRUE(book.setPhoto(std::vector<std::string>{"JANE-1"}, photo).ok());
    EXPECT_EQ(book.image("JANE-1").value(), photo);

    const auto thumbnails = book.thumbnails(std::vector<std::string>{"JANE-1", "NORA-1"});
    ASSERT_EQ(thumbnails.size(), 1u);
    VipsImage* small = vips_image_new_from_buffer(thumbnails.at("JANE-1").data(),
                                                  thumbnails.at("JANE-1").size(), "", nullptr);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(vips_image_get_width(small), 256);
    EXPECT_LE(vips_image_get_height(small), 256);
    g_object_unref(small);

    EXPECT_EQ(book.copyPhoto("JANE-1", "NORA-1").value(), true);
    EXPECT_EQ(book.image("NORA-1").value(), photo);
}

// A watcher the test speaks for: each notice says what the test says.
class ScriptedWatcher final : public FolderWatcher {
public:
    Result<void, std::string> start(const std::filesystem::path&, Executor&, Callback onChange) override {
        m_onChange = std::move(onChange);
        return {};
    }
    void stop() override { m_onChange = nullptr; }
    void notice(const FolderChange& change) const {
        if (m_onChange) {
            m_onChange(change);
        }
    }
    bool watching() const { return m_onChange != nullptr; }

private:
    Callback m_onChange;
};

TEST_F(VdirAddressBookTest, ARefreshAfterANoticeReadsWhatItNames) {
    auto opts = options();
    auto watcher = std::make_shared<ScriptedWatcher>();
    opts.watcher = watcher;
    VdirAddressBook book(opts);
    testing::ManualExecutor executor;
    int notices = 0;
    ASSERT_TRUE(book.observeChanges(executor, [&] { ++notices; }).ok());
    watcher->notice(FolderChange{{}, true}); // the watch's first notice
    auto token = *book.readAll({})->snapshot.historyToken;

    editJaneAndDropNora();
    watcher->notice(FolderChange{{{"family", "JANE-1.vcf"}}, false});
    auto changes = book.changesSince(token);
    ASSERT_TRUE(changes.ok());
    ASSERT_EQ(changes->changed.size(), 1u);
    EXPECT_EQ(changes->changed[0].jobTitle, "Director");
    EXPECT_TRUE(changes->deleted.empty()) << "a change no notice named waits";

    // The kernel dropped events: the next refresh looks at every file.
    watcher->notice(FolderChange{{}, true});
    changes = book.changesSince(*changes->token);
    ASSERT_TRUE(changes.ok());
    EXPECT_TRUE(changes->changed.empty());
    EXPECT_EQ(changes->deleted, std::set<std::string>{"NORA-1"});
    EXPECT_EQ(notices, 3);
}

TEST_F(VdirAddressBookTest, EveryObserverHearsUntilItLeavesAndTheWatchEndsWithTheLast) {
    // Two lists on the main thread and one elsewhere: one leaving must not
    // deafen the others, and one that left hears nothing it had queued.
    auto opts = options();
    auto watcher = std::make_shared<ScriptedWatcher>();
    opts.watcher = watcher;
    VdirAddressBook book(opts);
    testing::ManualExecutor main;
    testing::ManualExecutor other;
    int first = 0;
    int second = 0;
    int elsewhere = 0;
    const auto firstID = book.observeChanges(main, [&] { ++first; });
    const auto secondID = book.observeChanges(main, [&] { ++second; });
    const auto elsewhereID = book.observeChanges(other, [&] { ++elsewhere; });
    ASSERT_TRUE(firstID.ok() && secondID.ok() && elsewhereID.ok());
    EXPECT_NE(*firstID, *secondID);

    watcher->notice(FolderChange{{}, true});
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(elsewhere, 0) << "heard on its own executor, not the watch's";
    other.runUntilIdle();
    EXPECT_EQ(elsewhere, 1);

    book.stopObserving(*firstID);
    EXPECT_TRUE(watcher->watching());
    watcher->notice(FolderChange{{{"family", "JANE-1.vcf"}}, false});
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
    book.stopObserving(*elsewhereID);
    other.runUntilIdle();
    EXPECT_EQ(elsewhere, 1) << "a notice queued before it left";

    book.stopObserving(*firstID); // again: nothing
    book.stopObserving(*secondID);
    EXPECT_FALSE(watcher->watching());
    const auto again = book.observeChanges(main, [&] { ++first; });
    ASSERT_TRUE(again.ok());
    EXPECT_TRUE(watcher->watching());
    watcher->notice(FolderChange{{}, true});
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 2);
}

TEST_F(VdirAddressBookTest, ASaveNeverOverwritesNorRecreatesACardChangedSinceItsRead) {
    const fs::path jane = root() / "family" / "JANE-1.vcf";
    std::string synced = kJane;
    synced.replace(synced.find("kept as it is"), 13, "kept as it iz"); // same size
    // A fault in one window of the save, for the next `times` saves through it.
    struct Window {
        std::function<void(const fs::path&)> hook;
        int times = 0;
        void operator()(const fs::path& file) {
            if (times > 0) {
                --times;
                hook(file);
            }
        }
    };
    Window afterRead;
    Window beforeCommit;
    auto opts = options();
    opts.afterRead = [&](const fs::path& file) { afterRead(file); };
    opts.beforeCommit = [&](const fs::path& file) { beforeCommit(file); };
    VdirAddressBook book(opts);
    const auto syncRewrites = [&](const fs::path& file) {
        writeFile(file, synced);
        fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(5));
    };
    auto draft = book.draft("JANE-1");
    ASSERT_TRUE(draft.ok());

    // A sync tool's rewrite in each window of the save: right after the
    // read, and between the temporary file and the rename. Seen, the save
    // pauses once and is made again on the new card.
    for (Window* window : {&afterRead, &beforeCommit}) {
        writeFile(jane, kJane);
        m_sleeps.clear();
        *window = {syncRewrites, 1};
        draft->nickname = window == &afterRead ? "JJ" : "Janie";
        ASSERT_TRUE(book.save(*draft).ok());
        EXPECT_EQ(m_sleeps, std::vector<std::chrono::milliseconds>{std::chrono::milliseconds(300)});
        const std::string written = readFile(jane);
        EXPECT_NE(written.find("kept as it iz"), std::string::npos);
        EXPECT_NE(written.find("NICKNAME:" + draft->nickname), std::string::npos);
    }
    // Changed again under the second attempt: the save is refused, and the
    // card on disk is the sync's.
    writeFile(jane, kJane);
    m_sleeps.clear();
    beforeCommit = {syncRewrites, 2};
    draft->nickname = "Jay";
    EXPECT_FALSE(book.save(*draft).ok());
    EXPECT_EQ(m_sleeps.size(), 1u);
    EXPECT_EQ(readFile(jane), synced);

    // A card deleted by sync during the edit stays deleted.
    for (auto* window : {&afterRead, &beforeCommit}) {
        writeFile(jane, kJane);
        *window = {[](const fs::path& file) { fs::remove(file); }, 1};
        draft->nickname = "Gone";
        const auto result = book.save(*draft);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error().code, AddressBookError::Code::notFound);
        EXPECT_FALSE(fs::exists(jane));
    }

    // While a save is about to rename, every other Kinbook process is kept
    // out of this address book (an flock on another descriptor is another
    // process's as far as the lock goes).
    writeFile(jane, kJane);
    int othersLockedOut = -1;
    beforeCommit.times = 1;
    beforeCommit.hook = [&](const fs::path&) {
        const int fd = ::open(book.lockFile().c_str(), O_RDWR | O_CLOEXEC);
        othersLockedOut = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK ? 1 : 0;
        if (fd >= 0) {
            ::close(fd);
        }
    };
    draft->nickname = "Locked";
    ASSERT_TRUE(book.save(*draft).ok());
    EXPECT_EQ(othersLockedOut, 1);
    const int fd = ::open(book.lockFile().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0); // and let go after it
    ::close(fd);
}

} // namespace
} // namespace kinbook
