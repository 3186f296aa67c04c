#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/ScriptedBook.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using Step = PeopleTrash::Step;
using testing::readFile;

// Jane has a card in two accounts, linked by her KinID; her home card has a
// note and a former work phone. Bob has one card.
const std::string kJaneHome = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
                              "TEL;type=ex-work:+1 212 555 0100\r\nNOTE:Allergic to cats.\r\n"
                              "URL:kinbook://c/K1\r\nUID:JANE-1\r\nEND:VCARD\r\n";
const std::string kJaneWork = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
                              "URL:kinbook://c/K1?p=1\r\nUID:JANE-2\r\nEND:VCARD\r\n";
const std::string kBob =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Brown;Bob;;;\r\nFN:Bob Brown\r\nUID:BOB-1\r\nEND:VCARD\r\n";

class PeopleTrashTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("home", "JANE-1.vcf", kJaneHome);
        m_vdir.write("work", "JANE-2.vcf", kJaneWork);
        m_vdir.write("home", "BOB-1.vcf", kBob);
        testing::writeFile(m_vdir.root() / "home" / "displayname", "iCloud");
        testing::writeFile(m_vdir.root() / "work" / "displayname", "Gmail");
    }

    // A list as the window makes one, on a fresh store over the same folders,
    // notes locked and read through the Contacts application.
    std::unique_ptr<PeopleList> makeList(ScriptRunner runScript = {}) {
        auto options = m_vdir.options();
        options.notesLocked = true;
        auto scripted = std::make_shared<testing::ScriptedBook>(options);
        m_book = std::shared_ptr<AddressBook>(scripted, &scripted->book);
        auto script = std::make_shared<ContactsAppScript>(scripted->host);
        PeopleListOptions listOptions;
        listOptions.log = m_log;
        listOptions.clock = &m_clock;
        listOptions.runScript = std::move(runScript);
        listOptions.readNotes = [scripted, script](const std::vector<std::string>& ids) {
            auto notes = script->readNotes(ids);
            return notes.ok() ? notes.value() : std::vector<std::string>(ids.size());
        };
        auto list = std::make_unique<PeopleList>(m_main, m_background, m_book, std::move(listOptions));
        list->trash().setTrash(m_trash);
        bool loaded = false;
        list->load([&] { loaded = true; });
        run();
        EXPECT_TRUE(loaded);
        return list;
    }

    void run() {
        while (m_main.runUntilIdle() + m_background.runUntilIdle() > 0) {
        }
    }

    TrashOutcome trash(PeopleList& list, std::vector<std::string> ids) {
        std::optional<TrashOutcome> outcome;
        list.trash(std::move(ids), [&](TrashOutcome o) { outcome = o; });
        run();
        EXPECT_TRUE(outcome);
        return outcome.value_or(TrashOutcome{});
    }

    Result<RestoreOutcome, ActionError> restore(PeopleList& list, const std::string& id) {
        std::optional<Result<RestoreOutcome, ActionError>> outcome;
        list.restore(id, [&](Result<RestoreOutcome, ActionError> o) { outcome.emplace(std::move(o)); });
        run();
        EXPECT_TRUE(outcome);
        return outcome.value_or(failure(ActionError{AddressBookError::notFound()}));
    }

    // Every card of the store's folders, by account, as text.
    std::vector<std::string> cardsIn(const std::string& account) {
        std::vector<std::string> cards;
        for (const auto& entry : fs::directory_iterator(m_vdir.root() / account)) {
            if (entry.path().extension() == ".vcf") {
                cards.push_back(readFile(entry.path()));
            }
        }
        return cards;
    }
    std::size_t janeCardsIn(const std::string& account) {
        const auto cards = cardsIn(account);
        return static_cast<std::size_t>(std::count_if(cards.begin(), cards.end(), [](const std::string& c) {
            return c.find("kinbook://c/K1") != std::string::npos;
        }));
    }

    std::string log() {
        m_appLog.flush();
        return readFile(m_folder / "app.log");
    }

    testing::TempVdir m_vdir;
    testing::TempFolder m_folder;
    AppLog m_appLog{m_folder / "app.log"};
    std::shared_ptr<KinLog> m_log = std::make_shared<KinLog>("list", m_appLog);
    testing::FakeClock m_clock;
    testing::ManualExecutor m_main;
    testing::ManualExecutor m_background;
    std::shared_ptr<AddressBook> m_book;
    std::shared_ptr<ContactTrash> m_trash = std::make_shared<ContactTrash>(m_folder / "Documents");
};

TEST_F(PeopleTrashTest, APersonInTwoAccountsLeavesAtOnceAndComesBackWholeWithTheirNote) {
    auto list = makeList();
    const auto kinID = list->person("JANE-1")->kinID;

    std::optional<TrashOutcome> outcome;
    list->trash({"JANE-2"}, [&](TrashOutcome o) { outcome = o; });
    // Gone from the list before the store has heard anything.
    EXPECT_EQ(list->pendingTrash(), std::set<std::string>{list->person("JANE-1")->id});
    EXPECT_EQ(list->matchCount(), 1);
    run();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->trashed, 1u);
    EXPECT_EQ(list->person("JANE-1"), nullptr);
    EXPECT_EQ(list->people().size(), 1u);
    EXPECT_TRUE(list->pendingTrash().empty());
    EXPECT_FALSE(list->trash().progress());
    EXPECT_EQ(janeCardsIn("home") + janeCardsIn("work"), 0u);
    ASSERT_EQ(list->trash().items().size(), 1u);
    const TrashItem item = list->trash().items().front();
    EXPECT_EQ(item.name, "Jane Appleseed");
    std::vector<std::string> accounts = item.accounts;
    std::sort(accounts.begin(), accounts.end());
    EXPECT_EQ(accounts, (std::vector<std::string>{"Gmail", "iCloud"}));
    const auto file = m_trash->read(item.id).value();
    ASSERT_EQ(file.cards.size(), 2u);
    for (const auto& card : file.cards) {
        EXPECT_EQ(card.note, card.accountName == "iCloud" ? std::optional<std::string>("Allergic to cats.")
                                                          : std::nullopt);
    }
    EXPECT_NE(log().find("trashed 2 cards"), std::string::npos);

    const auto restored = restore(*list, item.id);
    ASSERT_TRUE(restored.ok()) << restored.error().description();
    EXPECT_TRUE(restored->movedToDefault.empty());
    const auto jane = list->person(restored->cardIDs.front());
    ASSERT_NE(jane, nullptr);
    EXPECT_EQ(jane->kinID, kinID);
    EXPECT_EQ(jane->memberIDs.size(), 2u);
    EXPECT_EQ(list->people().size(), 2u);
    EXPECT_EQ(janeCardsIn("home"), 1u);
    EXPECT_EQ(janeCardsIn("work"), 1u);
    const auto home = cardsIn("home");
    const bool noteAndFormerBack = std::any_of(home.begin(), home.end(), [](const std::string& card) {
        return card.find("NOTE:Allergic to cats.") != std::string::npos &&
               card.find("ex-work") != std::string::npos;
    });
    EXPECT_TRUE(noteAndFormerBack);
    EXPECT_TRUE(list->trash().items().empty());
    EXPECT_TRUE(m_trash->list().empty());
    const std::string text = log();
    std::size_t at = 0;
    for (const char* line :
         {"restore: imported, mapping", "restore: 2 cards mapped", "restore: trash file removed",
          "restore: refetched", "restore: Jane Appleseed done"}) {
        at = text.find(line, at);
        EXPECT_NE(at, std::string::npos) << line;
    }
}

TEST_F(PeopleTrashTest, ABatchGoesOnPastAFailedPersonAndAGoneAccountSendsCardsToTheDefault) {
    auto list = makeList();
    fs::remove(m_vdir.root() / "home" / "BOB-1.vcf"); // gone behind the list's back
    const auto outcome = trash(*list, {"BOB-1", "JANE-1"});
    EXPECT_EQ(outcome.trashed, 1u);
    EXPECT_EQ(outcome.failed, 1u);
    EXPECT_NE(log().find("trash failed for one person: "), std::string::npos);
    ASSERT_EQ(list->trash().items().size(), 1u);

    // The Gmail account is removed before Jane comes back.
    fs::remove_all(m_vdir.root() / "work");
    list = makeList();
    const auto restored = restore(*list, list->trash().items().front().id);
    ASSERT_TRUE(restored.ok()) << restored.error().description();
    EXPECT_EQ(restored->movedToDefault, std::vector<std::string>{"Gmail"});
    EXPECT_EQ(janeCardsIn("home"), 2u);
}

TEST_F(PeopleTrashTest, ANoteThatCannotBePutBackKeepsTheTrashFile) {
    auto list = makeList();
    trash(*list, {"JANE-1"});
    list = makeList([](const SaveOutcome&) -> Result<void, AddressBookError> {
        return failure(AddressBookError::store("Contacts is not answering"));
    });
    const auto id = list->trash().items().front().id;
    const auto restored = restore(*list, id);
    ASSERT_FALSE(restored.ok());
    EXPECT_EQ(std::get<StepError>(restored.error().error).step, "put the note back (the Trash copy is kept)");
    EXPECT_TRUE(m_trash->read(id).ok());
}

// A crash at any step loses no card: each is in the store, or in a Trash
// file that brings it back with its note.
class PeopleTrashCrashTest : public PeopleTrashTest, public ::testing::WithParamInterface<Step> {};

TEST_P(PeopleTrashCrashTest, NothingIsLostWhereverTheProcessStops) {
    auto list = makeList();
    const Step crashAt = GetParam();
    list->trash().setFaultHook([crashAt](Step step) { return step != crashAt; });
    const bool whileTrashing = crashAt == Step::fileWritten || crashAt == Step::cardDeleted;
    if (whileTrashing) {
        list->trash({"JANE-1"}, [](TrashOutcome) { ADD_FAILURE() << "went on past the crash"; });
        run();
    } else {
        trash(*list, {"JANE-1"});
        list->restore(list->trash().items().front().id,
                      [](auto) { ADD_FAILURE() << "went on past the crash"; });
        run();
    }
    if (crashAt == Step::cardDeleted) {
        EXPECT_EQ(janeCardsIn("home") + janeCardsIn("work"), 1u); // stopped between the two
    }

    // Start again, as after a relaunch; restore what the Trash holds.
    list = makeList();
    ASSERT_EQ(m_trash->list().size(), 1u);
    const auto restored = restore(*list, m_trash->list().front().id);
    ASSERT_TRUE(restored.ok()) << restored.error().description();
    EXPECT_GE(janeCardsIn("home"), 1u);
    EXPECT_GE(janeCardsIn("work"), 1u);
    const auto home = cardsIn("home");
    EXPECT_TRUE(std::any_of(home.begin(), home.end(), [](const std::string& card) {
        return card.find("NOTE:Allergic to cats.") != std::string::npos;
    }));
    EXPECT_TRUE(m_trash->list().empty());
}

INSTANTIATE_TEST_SUITE_P(EachStep, PeopleTrashCrashTest,
                         ::testing::Values(Step::fileWritten, Step::cardDeleted, Step::imported,
                                           Step::notesBack));

} // namespace
} // namespace kinbook
