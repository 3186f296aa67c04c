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
using testing::readFile;

// Jane has a card in iCloud (with a note) and one in Gmail, linked by her
// KinID. Bob and Carol are only in iCloud; Bob's birthday has no year and
// he has a social link.
const std::string kJaneHome = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
                              "TEL;type=ex-work:+1 212 555 0100\r\nNOTE:Allergic to cats.\r\n"
                              "URL:kinbook://c/K1\r\nUID:JANE-1\r\nEND:VCARD\r\n";
const std::string kJaneWork =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Appleseed;Jane;;;\r\nFN:Jane Appleseed\r\n"
    "TITLE:Engineer\r\nEMAIL;type=work:jane@work.example\r\n"
    "X-ANNIVERSARY:2015-06-20\r\nURL:kinbook://c/K1?p=1\r\nUID:JANE-2\r\nEND:VCARD\r\n";
const std::string kBob = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Brown;Bob;;;\r\nFN:Bob Brown\r\nBDAY:--0415\r\n"
                         "X-SOCIALPROFILE;type=mastodon:https://mastodon.social/@bob\r\n"
                         "TEL;type=cell:+1 415 555 0199\r\nUID:BOB-1\r\nEND:VCARD\r\n";
const std::string kCarol =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Cole;Carol;;;\r\nFN:Carol Cole\r\nUID:CAROL-1\r\nEND:VCARD\r\n";

// A server that takes no birthday without a year: the store's save fails
// the way an upload refused by the server does. Everything else is the real
// address book.
class YearlessBirthdayRefused final : public AddressBook {
public:
    explicit YearlessBirthdayRefused(std::shared_ptr<AddressBook> book) : m_book(std::move(book)) {}
    Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) override {
        if (draft.birthday && !draft.birthday->year) {
            return failure(AddressBookError::store("the server refused BDAY: a date needs a year"));
        }
        return m_book->save(draft);
    }
    AddressBookAccess access() override { return m_book->access(); }
    AddressBookAccess requestAccess() override { return m_book->requestAccess(); }
    Result<std::vector<Account>, AddressBookError> accounts() override { return m_book->accounts(); }
    std::optional<std::string> defaultAccountID() override { return m_book->defaultAccountID(); }
    Result<FullRead, AddressBookError> readAll(const ReadOptions& o) override { return m_book->readAll(o); }
    Result<AddressBookChanges, AddressBookError> changesSince(std::span<const std::uint8_t> t) override {
        return m_book->changesSince(t);
    }
    Result<std::vector<Person>, AddressBookError> readPeople(std::span<const std::string> ids) override {
        return m_book->readPeople(ids);
    }
    Result<std::vector<std::string>, AddressBookError> allCardIDs() override { return m_book->allCardIDs(); }
    Result<ContactCard, AddressBookError> card(std::string_view id) override { return m_book->card(id); }
    Result<ContactDraft, AddressBookError> draft(std::string_view id) override { return m_book->draft(id); }
    Result<std::vector<CardRef>, AddressBookError> cardsOf(std::string_view id) override {
        return m_book->cardsOf(id);
    }
    Result<void, AddressBookError> writeThroughContactsApp(const SaveOutcome& o) override {
        return m_book->writeThroughContactsApp(o);
    }
    Result<void, AddressBookError> remove(std::span<const std::string> ids) override {
        return m_book->remove(ids);
    }
    Result<std::string, AddressBookError> exportVCards(std::span<const std::string> ids) override {
        return m_book->exportVCards(ids);
    }
    Result<std::vector<std::string>, AddressBookError> importVCards(std::string_view v,
                                                                    std::optional<std::string> a) override {
        return m_book->importVCards(v, std::move(a));
    }
    Result<KinID::Anchor, AddressBookError>
    changeAnchor(std::string_view id, const std::function<void(KinID::Anchor&)>& change) override {
        return m_book->changeAnchor(id, change);
    }
    Result<void, AddressBookError> setPhoto(std::span<const std::string> ids,
                                            std::span<const std::uint8_t> jpeg) override {
        return m_book->setPhoto(ids, jpeg);
    }
    Result<bool, AddressBookError> copyPhoto(std::string_view from, std::string_view to) override {
        return m_book->copyPhoto(from, to);
    }
    std::map<std::string, std::vector<std::uint8_t>> thumbnails(std::span<const std::string> ids) override {
        return m_book->thumbnails(ids);
    }
    Result<std::optional<std::vector<std::uint8_t>>, AddressBookError> image(std::string_view id) override {
        return m_book->image(id);
    }
    std::size_t restoreHeldNotes() override { return m_book->restoreHeldNotes(); }
    Result<ChangeObserverID, std::string> observeChanges(Executor& e, std::function<void()> f) override {
        return m_book->observeChanges(e, std::move(f));
    }
    void stopObserving(ChangeObserverID id) override { m_book->stopObserving(id); }

private:
    std::shared_ptr<AddressBook> m_book;
};

class PeopleAccountsTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("home", "JANE-1.vcf", kJaneHome);
        m_vdir.write("work", "JANE-2.vcf", kJaneWork);
        m_vdir.write("home", "BOB-1.vcf", kBob);
        m_vdir.write("home", "CAROL-1.vcf", kCarol);
        fs::create_directories(m_vdir.root() / "team");
        testing::writeFile(m_vdir.root() / "home" / "displayname", "iCloud");
        testing::writeFile(m_vdir.root() / "work" / "displayname", "Gmail");
        testing::writeFile(m_vdir.root() / "team" / "displayname", "Team");
    }

    // A list as the window makes one: notes locked and read through the
    // Contacts application, the Trash in a sidecar folder.
    std::unique_ptr<PeopleList> makeList(bool refuseYearless = false) {
        auto options = m_vdir.options();
        options.notesLocked = true;
        auto scripted = std::make_shared<testing::ScriptedBook>(options);
        m_book = std::shared_ptr<AddressBook>(scripted, &scripted->book);
        if (refuseYearless) {
            m_book = std::make_shared<YearlessBirthdayRefused>(m_book);
        }
        auto script = std::make_shared<ContactsAppScript>(scripted->host);
        PeopleListOptions listOptions;
        listOptions.log = m_log;
        listOptions.clock = &m_clock;
        listOptions.readNotes = [scripted, script](const std::vector<std::string>& ids) {
            auto notes = script->readNotes(ids);
            return notes.ok() ? notes.value() : std::vector<std::string>(ids.size());
        };
        auto list = std::make_unique<PeopleList>(m_main, m_background, m_book, std::move(listOptions));
        list->trash().setTrash(m_trash);
        list->load();
        run();
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

TEST_F(PeopleAccountsTest, UncheckingAndRecheckingAnAccountKeepsOnePersonAndTheirNote) {
    auto list = makeList();
    ASSERT_EQ(list->person("JANE-1")->memberIDs.size(), 2u);

    ASSERT_TRUE(remove(*list, "JANE-1", "work").ok());
    EXPECT_TRUE(cardsWith("work", "K1").empty());
    ASSERT_EQ(cardsWith("home", "K1").size(), 1u);
    const auto jane = list->person("JANE-1");
    ASSERT_TRUE(jane);
    EXPECT_LT(jane->memberIDs.size(), 2u);

    // Her last account is refused, and she is still there.
    const auto last = remove(*list, "JANE-1", "home");
    ASSERT_FALSE(last.ok());
    EXPECT_EQ(last.error().description(),
              "A contact has to stay in at least one account. To remove it everywhere, delete it.");
    EXPECT_EQ(cardsWith("home", "K1").size(), 1u);

    // Checked again: one person in both, the new card with her details and note.
    const auto added = add(*list, "JANE-1", "work");
    ASSERT_TRUE(added.ok()) << added.error().description();
    EXPECT_TRUE(added->leftOut.empty());
    const auto copies = cardsWith("work", "K1");
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
    EXPECT_TRUE(cardsWith("home", "K1").empty());
    EXPECT_NE(cardsWith("work", "K1").at(0).find("Allergic to cats."), std::string::npos);
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
    EXPECT_NE(cardsWith("work", "K1").at(0).find("Allergic to cats."), std::string::npos);
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
    std::optional<Result<RestoreOutcome, ActionError>> restored;
    list->restore(jane->id, [&](auto r) { restored.emplace(std::move(r)); });
    run();
    ASSERT_TRUE(restored && restored->ok());
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
    auto list = makeList(true);
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

} // namespace
} // namespace kinbook
