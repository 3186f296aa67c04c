// Saving the editor's drafts through the people list, and undo and redo:
// every undo must put the card's file back byte for byte, and never over a
// change made elsewhere since.

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;

// An iPhone-shaped card: a group, a year-less birthday, a photo-less REV.
const std::string kBob = "BEGIN:VCARD\r\nVERSION:3.0\r\nPRODID:-//Apple Inc.//iOS 17.4//EN\r\n"
                         "N:Brown;Bob;;;\r\nFN:Bob Brown\r\nTEL;type=CELL;type=VOICE:+1 212 555 0100\r\n"
                         "item1.EMAIL;type=INTERNET:bob@work.example\r\nitem1.X-ABLabel:_$!<Work>!$_\r\n"
                         "BDAY;X-APPLE-OMIT-YEAR=1604:1604-03-15\r\nREV:2020-01-01T00:00:00Z\r\n"
                         "UID:BOB-1\r\nEND:VCARD\r\n";

class PeopleEditingTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("home", "BOB-1.vcf", kBob);
        m_book = std::make_shared<VdirAddressBook>(m_vdir.options());
        PeopleListOptions options;
        options.log = std::make_shared<KinLog>("list", m_appLog);
        options.clock = &m_clock;
        m_list = std::make_unique<PeopleList>(m_main, m_background, m_book, std::move(options));
        m_list->trash().setTrash(std::make_shared<ContactTrash>(m_folder / "Documents"));
        m_list->editing().setOnHistoryChange([this] { ++m_historyChanges; });
        m_list->load();
        run();
    }

    void run() {
        while (m_main.runUntilIdle() + m_background.runUntilIdle() > 0) {
        }
    }

    PeopleEditing& editing() { return m_list->editing(); }
    fs::path bobFile() const { return m_vdir.root() / "home" / "BOB-1.vcf"; }

    Result<SavedContact, ActionError> save(ContactDraft draft) {
        std::optional<Result<SavedContact, ActionError>> saved;
        editing().save(std::move(draft), [&](auto result) { saved.emplace(std::move(result)); });
        run();
        EXPECT_TRUE(saved);
        return saved.value_or(failure(ActionError{AddressBookError::notFound()}));
    }

    ActionResult step(bool undo) {
        std::optional<ActionResult> result;
        auto done = [&](ActionResult r) { result.emplace(std::move(r)); };
        undo ? editing().undo(done) : editing().redo(done);
        run();
        EXPECT_TRUE(result);
        return result.value_or(ActionResult());
    }

    std::size_t cardFiles() {
        std::size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(m_vdir.root())) {
            count += entry.path().extension() == ".vcf" ? 1 : 0;
        }
        return count;
    }

    testing::TempVdir m_vdir;
    testing::TempFolder m_folder;
    AppLog m_appLog{m_folder / "app.log"};
    testing::FakeClock m_clock;
    testing::ManualExecutor m_main;
    testing::ManualExecutor m_background;
    std::shared_ptr<VdirAddressBook> m_book;
    std::unique_ptr<PeopleList> m_list;
    int m_historyChanges = 0;
};

TEST_F(PeopleEditingTest, AnEditShowsAtOnceAndUndoAndRedoPutBackTheExactBytes) {
    EXPECT_EQ(editing().undoTitle(), std::nullopt);
    auto draft = m_book->draft("BOB-1");
    ASSERT_TRUE(draft.ok());
    draft->givenName = "Robert";
    draft->phones[0].value = "+1 212 555 0199";
    const auto saved = save(*draft);
    ASSERT_TRUE(saved.ok());
    EXPECT_EQ(saved->cardID, "BOB-1");
    EXPECT_EQ(saved->personID, "BOB-1");
    // The list holds the new name without a full read.
    ASSERT_TRUE(m_list->person("BOB-1"));
    EXPECT_EQ(m_list->person("BOB-1")->givenName, "Robert");
    const std::string edited = readFile(bobFile());
    EXPECT_NE(edited, kBob);
    EXPECT_EQ(editing().undoTitle(), "Undo Edit Contact");

    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), kBob);
    EXPECT_EQ(m_list->person("BOB-1")->givenName, "Bob");
    EXPECT_EQ(editing().undoTitle(), std::nullopt);
    EXPECT_EQ(editing().redoTitle(), "Redo Edit Contact");

    ASSERT_TRUE(step(false).ok());
    EXPECT_EQ(readFile(bobFile()), edited);
    EXPECT_EQ(editing().undoTitle(), "Undo Edit Contact");
    EXPECT_GE(m_historyChanges, 3);

    // A save that changes nothing is nothing to undo.
    const auto again = save(*m_book->draft("BOB-1"));
    ASSERT_TRUE(again.ok());
    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), kBob);
}

TEST_F(PeopleEditingTest, UndoRefusesToOverwriteAChangeMadeElsewhere) {
    auto draft = m_book->draft("BOB-1");
    draft->nickname = "Bobby";
    ASSERT_TRUE(save(*draft).ok());
    // A sync run rewrote the card meanwhile.
    const std::string synced = readFile(bobFile()) + "";
    std::string other = synced;
    other.replace(other.find("Bobby"), 5, "Robbie");
    testing::writeFile(bobFile(), other);

    const auto undone = step(true);
    ASSERT_FALSE(undone.ok());
    EXPECT_NE(undone.error().description().find("changed elsewhere"), std::string::npos);
    EXPECT_EQ(readFile(bobFile()), other);
}

TEST_F(PeopleEditingTest, ANewContactIsSavedOnlyWithContentAndItsUndoDeletesIt) {
    const auto empty = save(ContactDraft::empty(std::nullopt, "home"));
    ASSERT_TRUE(empty.ok());
    EXPECT_EQ(empty->cardID, std::nullopt);
    EXPECT_EQ(cardFiles(), 1u);

    ContactDraft draft = ContactDraft::empty(std::nullopt, "home");
    draft.givenName = "Ada";
    draft.note = "Met at the museum.";
    draft.dates.push_back({"d1", "_$!<Anniversary>!$_", {6, 1, std::nullopt}, true});
    const auto saved = save(draft);
    ASSERT_TRUE(saved.ok());
    ASSERT_TRUE(saved->personID);
    const auto person = m_list->person(*saved->personID);
    ASSERT_TRUE(person);
    EXPECT_EQ(person->givenName, "Ada");
    EXPECT_EQ(cardFiles(), 2u);
    const auto back = m_book->draft(*saved->cardID);
    EXPECT_EQ(back->note, "Met at the museum.");
    ASSERT_EQ(back->dates.size(), 1u);
    EXPECT_EQ(back->dates[0].date, (DateComponents{6, 1, std::nullopt}));

    EXPECT_EQ(editing().undoTitle(), "Undo New Contact");
    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(cardFiles(), 1u);
    EXPECT_EQ(m_list->person(*saved->cardID), nullptr);
    ASSERT_TRUE(step(false).ok());
    EXPECT_EQ(cardFiles(), 2u);
}

TEST_F(PeopleEditingTest, RecordedActionsAndTheTrashAreUndoneToo) {
    const std::string phoneID = m_book->draft("BOB-1")->phones[0].id;
    std::optional<ActionResult> marked;
    editing().record(
        "Mark as Former", {"BOB-1"},
        [&](std::function<void(ActionResult)> done) {
            m_list->markFormer("BOB-1", phoneID, std::move(done));
        },
        [&](ActionResult result) { marked.emplace(std::move(result)); });
    run();
    ASSERT_TRUE(marked && marked->ok());
    EXPECT_NE(readFile(bobFile()), kBob);
    EXPECT_EQ(editing().undoTitle(), "Undo Mark as Former");
    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), kBob);

    const auto before = m_list->trash().items().size();
    m_list->trash({"BOB-1"}, [](TrashOutcome) {});
    run();
    ASSERT_EQ(m_list->trash().items().size(), before + 1);
    editing().recordTrash({m_list->trash().items().back().id});
    EXPECT_EQ(cardFiles(), 0u);
    EXPECT_EQ(editing().undoTitle(), "Undo Move to Trash");
    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(cardFiles(), 1u);
    EXPECT_EQ(m_list->trash().items().size(), before);
    ASSERT_TRUE(step(false).ok());
    EXPECT_EQ(cardFiles(), 0u);
}

TEST(UndoHistory, KeepsTheLastTwentyAndANewChangeForgetsTheUndone) {
    UndoHistory history;
    for (int i = 0; i < 25; ++i) {
        history.push({"Step " + std::to_string(i), {}, {}, {}, 0});
    }
    EXPECT_EQ(history.size(), UndoHistory::limit);
    EXPECT_EQ(history.nextUndo()->name, "Step 24");
    history.undid(*history.nextUndo());
    EXPECT_EQ(history.nextUndo()->name, "Step 23");
    EXPECT_EQ(history.nextRedo()->name, "Step 24");
    history.push({"Other", {}, {}, {}, 0});
    EXPECT_EQ(history.nextRedo(), nullptr);
}

} // namespace
} // namespace kinbook
