// Changes to people's cards on disk through the people list as the window
// makes one: edits and their undo, moves between accounts, the Trash and
// back. No card and no note is ever lost, every undo puts a card's file back
// byte for byte, and never over a change made elsewhere since.

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/people/ForwardingBook.h"
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

// Jane has a card in iCloud (with a note and a former work phone) and one in
// Gmail, linked by her KinID. Bob is only in iCloud; his birthday has no
// year and he has a social link.
const std::string kJaneHome = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
                              "TEL;type=ex-work:+1 212 555 0100\r\nNOTE:Allergic to cats.\r\n"
                              "URL:kinbook://c/K1\r\nUID:JANE-1\r\nEND:VCARD\r\n";
const std::string kJaneWork =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
    "TITLE:Engineer\r\nEMAIL;type=work:jane@work.example\r\n"
    "X-ANNIVERSARY:2015-06-20\r\nURL:kinbook://c/K1?p=1\r\nUID:JANE-2\r\nEND:VCARD\r\n";
// Jane's cards, found by her name: a KinID made for someone else during a
// test is random and may hold any short text, "K1" included.
constexpr std::string_view kJaneLine = "FN:Jane Appleseed";
const std::string kBob = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Brown;Bob;;;\r\nFN:Bob Brown\r\nBDAY:--0415\r\n"
                         "X-SOCIALPROFILE;type=mastodon:https://mastodon.social/@bob\r\n"
                         "TEL;type=cell:+1 415 555 0199\r\nUID:BOB-1\r\nEND:VCARD\r\n";
const std::string kCarol =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Cole;Carol;;;\r\nFN:Carol Cole\r\nUID:CAROL-1\r\nEND:VCARD\r\n";

// A server that takes no birthday without a year: the store's save fails
// the way an upload refused by the server does.
class YearlessBirthdayRefused final : public testing::ForwardingBook {
public:
    using ForwardingBook::ForwardingBook;
    Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) override {
        if (draft.birthday && !draft.birthday->year) {
            return failure(AddressBookError::store("the server refused BDAY: a date needs a year"));
        }
        return ForwardingBook::save(draft);
    }
};

class PeopleOnDiskTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("home", "JANE-1.vcf", kJaneHome);
        m_vdir.write("work", "JANE-2.vcf", kJaneWork);
        m_vdir.write("home", "BOB-1.vcf", kBob);
        testing::writeFile(m_vdir.root() / "home" / "displayname", "iCloud");
        testing::writeFile(m_vdir.root() / "work" / "displayname", "Gmail");
    }

    // A list as the window makes one, on a fresh store over the same folders:
    // notes locked (unless m_notesLocked says otherwise) and read through the
    // Contacts application, the Trash in a sidecar folder.
    std::unique_ptr<PeopleList> makeList(ScriptRunner runScript = {}, bool refuseYearless = false) {
        auto options = m_vdir.options();
        options.notesLocked = m_notesLocked;
        auto scripted = std::make_shared<testing::ScriptedBook>(options);
        m_book = std::shared_ptr<AddressBook>(scripted, &scripted->book);
        if (refuseYearless) {
            m_book = std::make_shared<YearlessBirthdayRefused>(m_book);
        }
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

    template <typename R, typename Start>
    R await(Start start) {
        std::optional<R> result;
        start([&](R r) { result.emplace(std::move(r)); });
        run();
        EXPECT_TRUE(result);
        return std::move(result).value();
    }
    Result<RestoreOutcome, ActionError> restore(PeopleList& list, const std::string& id) {
        return await<Result<RestoreOutcome, ActionError>>([&](auto done) { list.restore(id, done); });
    }

    // The cards of one account's folder, as text; those holding `text`.
    std::vector<std::string> cardsIn(const std::string& account) {
        std::vector<std::string> cards;
        for (const auto& entry : fs::directory_iterator(m_vdir.root() / account)) {
            if (entry.path().extension() == ".vcf") {
                cards.push_back(readFile(entry.path()));
            }
        }
        return cards;
    }
    std::vector<std::string> cardsWith(const std::string& account, std::string_view text) {
        auto cards = cardsIn(account);
        std::erase_if(cards, [&](const std::string& c) { return c.find(text) == std::string::npos; });
        return cards;
    }
    std::size_t janeCardsIn(const std::string& account) { return cardsWith(account, kJaneLine).size(); }
    std::size_t cardFiles() {
        std::size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(m_vdir.root())) {
            count += entry.path().extension() == ".vcf" ? 1 : 0;
        }
        return count;
    }

    std::string log() {
        m_appLog.flush();
        return readFile(m_folder / "app.log");
    }

    bool m_notesLocked = true;
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

// --- Accounts ------------------------------------------------------------------

// Carol is only in iCloud; a third account, Team, starts empty.
class PeopleAccountsTest : public PeopleOnDiskTest {
protected:
    void SetUp() override {
        PeopleOnDiskTest::SetUp();
        m_vdir.write("home", "CAROL-1.vcf", kCarol);
        fs::create_directories(m_vdir.root() / "team");
        testing::writeFile(m_vdir.root() / "team" / "displayname", "Team");
    }

    Result<void, AccountError> remove(PeopleList& list, const std::string& id, const std::string& account) {
        return await<Result<void, AccountError>>(
            [&](auto done) { list.removeFromAccount(id, account, done); });
    }
    Result<AddedCopy, AccountError> add(PeopleList& list, const std::string& id, const std::string& account) {
        return await<Result<AddedCopy, AccountError>>(
            [&](auto done) { list.addToAccount(id, account, done); });
    }
    MoveOutcome move(PeopleList& list, std::vector<std::string> ids, const std::string& account, bool copy) {
        return await<MoveOutcome>([&](auto done) { list.moveToAccount(ids, account, copy, done); });
    }
};

TEST_F(PeopleAccountsTest, UncheckingAndRecheckingAnAccountKeepsOnePersonAndTheirNote) {
    auto list = makeList();
    ASSERT_EQ(list->person("JANE-1")->memberIDs.size(), 2u);

    ASSERT_TRUE(remove(*list, "JANE-1", "work").ok());
    EXPECT_TRUE(cardsWith("work", kJaneLine).empty());
    ASSERT_EQ(cardsWith("home", kJaneLine).size(), 1u);
    const auto jane = list->person("JANE-1");
    ASSERT_TRUE(jane);
    EXPECT_LT(jane->memberIDs.size(), 2u);

    // Her last account is refused, and she is still there.
    const auto last = remove(*list, "JANE-1", "home");
    ASSERT_FALSE(last.ok());
    EXPECT_EQ(last.error().description(),
              "A contact has to stay in at least one account. To remove it everywhere, delete it.");
    EXPECT_EQ(cardsWith("home", kJaneLine).size(), 1u);

    // Checked again: one person in both, the new card with her details and note.
    const auto added = add(*list, "JANE-1", "work");
    ASSERT_TRUE(added.ok()) << added.error().description();
    EXPECT_TRUE(added->leftOut.empty());
    const auto copies = cardsWith("work", kJaneLine);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_NE(copies[0].find("Allergic to cats."), std::string::npos);
    EXPECT_NE(copies[0].find("555 0100"), std::string::npos);
    EXPECT_NE(copies[0].find("ex-work"), std::string::npos);
    EXPECT_EQ(list->person(added->cardID)->id, list->person("JANE-1")->id);
    EXPECT_EQ(list->person("JANE-1")->memberIDs.size(), 2u);
    for (const auto* line : {"addAccount: card saved", "addAccount: mapped", "addAccount: primary marked",
                             "addAccount: image copied", "addAccount: done"}) {
        EXPECT_NE(log().find(line), std::string::npos) << line;
    }

    // Taking out the card with the note leaves the other with it.
    ASSERT_TRUE(remove(*list, "JANE-1", "home").ok());
    EXPECT_TRUE(cardsWith("home", kJaneLine).empty());
    EXPECT_NE(cardsWith("work", kJaneLine).at(0).find("Allergic to cats."), std::string::npos);
    ASSERT_TRUE(list->person("JANE-1"));
    EXPECT_EQ(list->person("JANE-1")->accountIDs.strings(), std::vector<std::string>{"work"});
}

TEST_F(PeopleAccountsTest, CopyLeavesBothCardsAndMoveSendsTheOthersToTheTrashByAccountName) {
    auto list = makeList();
    std::vector<std::string> labels;
    list->observe([&](PeopleChanges changes) {
        if (changes.contains(PeopleChange::accounts) && list->bulkProgress()) {
            labels.push_back(list->bulkProgress()->label);
        }
    });

    const auto copied = move(*list, {"CAROL-1"}, "work", true);
    EXPECT_EQ(copied.moved, 1u);
    EXPECT_EQ(cardsWith("home", "Carol").size(), 1u);
    EXPECT_EQ(cardsWith("work", "Carol").size(), 1u);
    EXPECT_TRUE(list->trash().items().empty());
    EXPECT_EQ(labels.front(), "Copying to Gmail");

    // Jane, in both, moved to Gmail: her iCloud card (the note) goes to the
    // Trash, and the Gmail card carries the note.
    labels.clear();
    const auto moved = move(*list, {"JANE-1", "CAROL-1"}, "work", false);
    EXPECT_EQ(moved.moved, 2u);
    EXPECT_TRUE(moved.failures.empty());
    EXPECT_FALSE(list->bulkProgress());
    EXPECT_EQ(labels.front(), "Moving to Gmail");
    EXPECT_TRUE(cardsWith("home", "Jane").empty());
    EXPECT_TRUE(cardsWith("home", "Carol").empty());
    EXPECT_NE(cardsWith("work", kJaneLine).at(0).find("Allergic to cats."), std::string::npos);
    ASSERT_EQ(list->trash().items().size(), 2u);
    std::vector<std::string> names;
    for (const auto& item : list->trash().items()) {
        names.push_back(item.name);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Carol Cole (from iCloud)", "Jane Appleseed (from iCloud)"}));
    EXPECT_NE(log().find("moved one person: kept "), std::string::npos);
    ASSERT_TRUE(list->person("JANE-1"));
    EXPECT_EQ(list->person("JANE-1")->accountIDs.strings(), std::vector<std::string>{"work"});

    // The Trash brings the iCloud card back as the same person.
    const auto jane = std::find_if(list->trash().items().begin(), list->trash().items().end(),
                                   [](const TrashItem& i) { return i.name.starts_with("Jane"); });
    ASSERT_TRUE(restore(*list, jane->id).ok());
    EXPECT_EQ(list->person("JANE-1")->memberIDs.size(), 2u);
}

TEST_F(PeopleAccountsTest, ABatchWhoseFirstPersonFailsGoesOnAndReportsIt) {
    auto list = makeList();
    int saves = 0;
    list->membership().setFaultHook([&](std::string_view step) -> std::optional<AddressBookError> {
        if (step == AccountStep::saveCopy && saves++ == 0) {
            return AddressBookError::store("disk full");
        }
        return std::nullopt;
    });
    const auto outcome = move(*list, {"BOB-1", "CAROL-1"}, "team", false);
    EXPECT_EQ(outcome.moved, 1u);
    ASSERT_EQ(outcome.failures.size(), 1u);
    EXPECT_EQ(outcome.failures[0], "Bob Brown: Couldn't save copy: disk full");
    EXPECT_NE(log().find("move to account failed for one person: Couldn't save copy"), std::string::npos);
    EXPECT_EQ(readFile(m_vdir.root() / "home" / "BOB-1.vcf"), kBob);
    EXPECT_EQ(cardsWith("team", "Carol").size(), 1u);
    EXPECT_TRUE(cardsWith("home", "Carol").empty());
    EXPECT_FALSE(list->bulkProgress());
}

TEST_F(PeopleAccountsTest, AFailingStepOfAddingIsNamedAndLosesNothing) {
    for (const auto step :
         {AccountStep::saveCopy, AccountStep::markPrimary, AccountStep::copyPhoto, AccountStep::copyNote}) {
        SCOPED_TRACE(step);
        auto list = makeList();
        list->membership().setFaultHook([step](std::string_view at) -> std::optional<AddressBookError> {
            return at == step ? std::optional(AddressBookError::store("no answer")) : std::nullopt;
        });
        const auto before = cardsIn("team").size();
        const auto added = add(*list, "JANE-1", "team");
        ASSERT_FALSE(added.ok());
        const auto* error = std::get_if<StepError>(&added.error().error);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->step, step);
        // Her own cards are as they were; a copy saved before the failure stays.
        EXPECT_EQ(readFile(m_vdir.root() / "home" / "JANE-1.vcf"), kJaneHome);
        EXPECT_EQ(readFile(m_vdir.root() / "work" / "JANE-2.vcf"), kJaneWork);
        EXPECT_EQ(cardsIn("team").size(), before + (step == AccountStep::saveCopy ? 0 : 1));
        for (const auto& entry : fs::directory_iterator(m_vdir.root() / "team")) {
            if (entry.path().extension() == ".vcf") {
                fs::remove(entry.path());
            }
        }
    }
}

TEST_F(PeopleAccountsTest, ACopyIsSavedWithoutTheFieldsTheServerRefusesAndSaysWhich) {
    auto list = makeList({}, true);
    const auto added = add(*list, "BOB-1", "team");
    ASSERT_TRUE(added.ok()) << added.error().description();
    EXPECT_EQ(added->leftOut, std::vector<std::string>{"birthday without a year"});
    const auto copy = cardsWith("team", "Bob");
    ASSERT_EQ(copy.size(), 1u);
    EXPECT_EQ(copy[0].find("BDAY"), std::string::npos);
    EXPECT_NE(copy[0].find("mastodon"), std::string::npos);
    EXPECT_NE(copy[0].find("555 0199"), std::string::npos);
    EXPECT_EQ(list->person(added->cardID)->id, list->person("BOB-1")->id);
}

TEST_F(PeopleAccountsTest, SyncFromPrimaryCopiesWhatThePrimaryHoldsAndLeavesItsBlanksAlone) {
    auto list = makeList();
    const auto synced =
        await<Result<std::size_t, AccountError>>([&](auto done) { list->syncFromPrimary("JANE-1", done); });
    ASSERT_TRUE(synced.ok());
    EXPECT_EQ(*synced, 1u);
    // The primary (Gmail) card's job title and e-mail reach iCloud; the
    // iCloud phone, which the primary lacks, stays.
    const auto home = readFile(m_vdir.root() / "home" / "JANE-1.vcf");
    EXPECT_NE(home.find("TITLE:Engineer"), std::string::npos);
    EXPECT_NE(home.find("jane@work.example"), std::string::npos);
    // The note there goes through the Contacts application, which sets no
    // dates: the anniversary stays behind, the rest arrives.
    EXPECT_EQ(home.find("2015-06-20"), std::string::npos);
    EXPECT_NE(home.find("555 0100"), std::string::npos);
    EXPECT_NE(home.find("Allergic to cats."), std::string::npos);
    EXPECT_EQ(readFile(m_vdir.root() / "work" / "JANE-2.vcf"), kJaneWork);
}

// --- The Trash -----------------------------------------------------------------

using PeopleTrashTest = PeopleOnDiskTest;

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
    EXPECT_EQ(janeCardsIn("work"), 1u);
    const auto home = cardsWith("home", kJaneLine);
    ASSERT_EQ(home.size(), 1u);
    EXPECT_NE(home[0].find("NOTE:Allergic to cats."), std::string::npos);
    EXPECT_NE(home[0].find("ex-work"), std::string::npos);
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
    const auto outcome = await<TrashOutcome>([&](auto done) { list->trash({"BOB-1", "JANE-1"}, done); });
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
    await<TrashOutcome>([&](auto done) { list->trash({"JANE-1"}, done); });
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
        await<TrashOutcome>([&](auto done) { list->trash({"JANE-1"}, done); });
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
    EXPECT_FALSE(cardsWith("home", "NOTE:Allergic to cats.").empty());
    EXPECT_TRUE(m_trash->list().empty());
}

INSTANTIATE_TEST_SUITE_P(EachStep, PeopleTrashCrashTest,
                         ::testing::Values(Step::fileWritten, Step::cardDeleted, Step::imported,
                                           Step::notesBack));

// --- Editing and undo ----------------------------------------------------------

// An iPhone-shaped card: a group, a year-less birthday, a photo-less REV.
const std::string kIPhoneBob =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nPRODID:-//Apple Inc.//iOS 17.4//EN\r\n"
    "N:Brown;Bob;;;\r\nFN:Bob Brown\r\nTEL;type=CELL;type=VOICE:+1 212 555 0100\r\n"
    "item1.EMAIL;type=INTERNET:bob@work.example\r\nitem1.X-ABLabel:_$!<Work>!$_\r\n"
    "BDAY;X-APPLE-OMIT-YEAR=1604:1604-03-15\r\nREV:2020-01-01T00:00:00Z\r\n"
    "UID:BOB-1\r\nEND:VCARD\r\n";

class PeopleEditingTest : public PeopleOnDiskTest {
protected:
    // Bob alone, in a store whose notes are not locked.
    void SetUp() override {
        m_vdir.write("home", "BOB-1.vcf", kIPhoneBob);
        m_notesLocked = false;
        m_list = makeList();
        m_list->editing().setOnHistoryChange([this] { ++m_historyChanges; });
    }

    PeopleEditing& editing() { return m_list->editing(); }
    fs::path bobFile() const { return m_vdir.root() / "home" / "BOB-1.vcf"; }

    Result<SavedContact, ActionError> save(ContactDraft draft) {
        return await<Result<SavedContact, ActionError>>(
            [&](auto done) { editing().save(std::move(draft), done); });
    }
    ActionResult step(bool undo) {
        return await<ActionResult>([&](auto done) { undo ? editing().undo(done) : editing().redo(done); });
    }

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
    EXPECT_NE(edited, kIPhoneBob);
    EXPECT_EQ(editing().undoTitle(), "Undo Edit Contact");

    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), kIPhoneBob);
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
    EXPECT_EQ(readFile(bobFile()), kIPhoneBob);
}

TEST_F(PeopleEditingTest, UndoRefusesToOverwriteAChangeMadeElsewhere) {
    auto draft = m_book->draft("BOB-1");
    draft->nickname = "Bobby";
    ASSERT_TRUE(save(*draft).ok());
    // A sync run rewrote the card meanwhile.
    std::string other = readFile(bobFile());
    other.replace(other.find("Bobby"), 5, "Robbie");
    testing::writeFile(bobFile(), other);

    const auto undone = step(true);
    ASSERT_FALSE(undone.ok());
    EXPECT_NE(undone.error().description().find("changed elsewhere"), std::string::npos);
    EXPECT_EQ(readFile(bobFile()), other);
}

TEST_F(PeopleEditingTest, ACardWithoutAFinalLineBreakIsUndoneByteForByte) {
    // Some writers end the last line without its line break; undo compares
    // with the file's own bytes, so that is no change made elsewhere.
    const std::string bare = kIPhoneBob.substr(0, kIPhoneBob.size() - 2);
    testing::writeFile(bobFile(), bare);
    auto draft = m_book->draft("BOB-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "Bobby";
    ASSERT_TRUE(save(*draft).ok());
    ASSERT_NE(readFile(bobFile()), bare);

    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), bare);
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
    EXPECT_NE(readFile(bobFile()), kIPhoneBob);
    EXPECT_EQ(editing().undoTitle(), "Undo Mark as Former");
    ASSERT_TRUE(step(true).ok());
    EXPECT_EQ(readFile(bobFile()), kIPhoneBob);

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
