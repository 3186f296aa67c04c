#include "KinbookKit/people/Duplicates.h"

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "tests/people/ForwardingBook.h"
#include "tests/support/Files.h"
#include "tests/support/ScriptedBook.h"
#include "tests/support/TempVdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

namespace kinbook {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::readFile;
using testing::ScriptedBook;
using testing::TempVdir;
using ::testing::UnorderedElementsAre;
using testing::writeFile;

struct Card {
    std::string uid;
    std::string given;
    std::string family;
    std::vector<std::string> phones;
    std::vector<std::string> emails;
    std::string note;
    std::string extra; // lines Kinbook does not know, which must survive every write
};

std::string vcard(const Card& card) {
    std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:" + card.uid + "\r\nFN:" + card.given +
                       (card.given.empty() || card.family.empty() ? "" : " ") + card.family +
                       "\r\nN:" + card.family + ";" + card.given + ";;;\r\n";
    for (const auto& phone : card.phones) {
        text += "TEL;TYPE=CELL:" + phone + "\r\n";
    }
    for (const auto& email : card.emails) {
        text += "EMAIL;TYPE=INTERNET:" + email + "\r\n";
    }
    if (!card.note.empty()) {
        text += "NOTE:" + card.note + "\r\n";
    }
    return text + card.extra + "END:VCARD\r\n";
}

class DuplicatesTest : public ::testing::Test {
protected:
    void add(const std::string& account, const Card& card) {
        m_vdir.write(account, card.uid + ".vcf", vcard(card));
    }

    // The people as the store reads them from the files, in list order.
    std::vector<Person> people() {
        VdirAddressBook book(m_vdir.options());
        auto read = book.readAll({});
        EXPECT_TRUE(read.ok());
        auto people = read->snapshot.people;
        std::sort(people.begin(), people.end(), [](const Person& a, const Person& b) { return a.id < b.id; });
        return people;
    }

    static std::vector<std::string> ids(const DuplicateGroup& group) {
        std::vector<std::string> ids;
        for (const auto& person : group.people) {
            ids.push_back(person.id);
        }
        return ids;
    }

    TempVdir m_vdir;
};

TEST_F(DuplicatesTest, KeysFoldNamesTakeTheLastTenDigitsAndIgnoreCaseInAddresses) {
    add("a", {"N1", "Ann", "Lee"});
    add("a", {"N2", "ann", "lée"});
    add("a", {"S1", "Al", "B"});
    add("a", {"S2", "al", "b"});
    add("a", {"G1", "Madonna", ""});
    add("a", {"G2", "Madonna", ""});
    add("a", {"P1", "Pat", "One", {"+1 (415) 555-0100"}});
    add("a", {"P2", "Quinn", "Two", {"415.555.0100"}});
    add("a", {"D1", "Rae", "Three", {"555-010"}});
    add("a", {"D2", "Sam", "Four", {"555 010"}});
    add("a", {"E1", "Tess", "Five", {}, {"  Tess@Example.ORG "}});
    add("a", {"E2", "Uma", "Six", {}, {"tess@example.org"}});
    add("a", {"X1", "Vic", "Seven", {}, {"no-at-sign"}});
    add("a", {"X2", "Wes", "Eight", {}, {"no-at-sign"}});

    const auto groups = Duplicates::findGroups(people());
    std::map<std::string, std::vector<std::string>> byID;
    for (const auto& group : groups) {
        byID[group.id()] = group.reasons;
    }
    EXPECT_EQ(byID, (std::map<std::string, std::vector<std::string>>{
                        {"E1+E2", {"same email"}},
                        {"N1+N2", {"same name"}},
                        {"P1+P2", {"same phone"}},
                        {"S1+S2", {"same name"}},
                    }));
}

TEST_F(DuplicatesTest, AKeySharedBySevenLinksNobodyAndReasonsAndGroupsComeInTheirOrder) {
    // Seven share an office line: no group through it. Six share another.
    for (int i = 0; i < 7; ++i) {
        add("a",
            {"O" + std::to_string(i), "Office", "Person" + std::string(1, char('a' + i)), {"212 555 7000"}});
    }
    for (int i = 0; i < 6; ++i) {
        add("a",
            {"F" + std::to_string(i), "Fam", "Member" + std::string(1, char('a' + i)), {"212 555 8000"}});
    }
    // Five who share only a name, and two linked by name and e-mail.
    for (int i = 0; i < 5; ++i) {
        add("a", {"J" + std::to_string(i), "Jo", "Smith"});
    }
    add("a", {"K1", "Kim", "Zed", {}, {"kim@zed.io"}});
    add("a", {"K2", "Kim", "Zed", {}, {"KIM@zed.io"}});
    add("a", {"B1", "Bo", "Adams", {}, {"bo@adams.io"}});
    add("a", {"B2", "Bea", "Adams", {}, {"bo@adams.io"}});

    const auto groups = Duplicates::findGroups(people());
    ASSERT_EQ(groups.size(), 4U);
    EXPECT_EQ(ids(groups[0]), (std::vector<std::string>{"F0", "F1", "F2", "F3", "F4", "F5"}));
    EXPECT_THAT(groups[0].reasons, ElementsAre("same phone"));
    // Two strong groups of two: the smaller first person's sort key first (Adams before Zed).
    EXPECT_EQ(ids(groups[1]), (std::vector<std::string>{"B1", "B2"}));
    EXPECT_EQ(ids(groups[2]), (std::vector<std::string>{"K1", "K2"}));
    EXPECT_THAT(groups[2].reasons, ElementsAre("same email", "same name"));
    EXPECT_TRUE(groups[2].isStrong());
    // The name-only group of five comes after every strong one.
    EXPECT_EQ(groups[3].people.size(), 5U);
    EXPECT_FALSE(groups[3].isStrong());
    EXPECT_EQ(groups[3].keys, (std::vector<std::string>{"n:jo smith"}));
}

TEST(MergeRulesTest, AnAccountKeepsOneCardAndNotesCombineOnce) {
    using Duplicates::MergeCard;
    const std::vector<MergeCard> cards{
        {"A", {"icloud"}}, {"B", {"icloud"}}, {"C", {"gmail"}}, {"D", {}}, {"E", {"gmail", "icloud"}}};
    const auto plan = Duplicates::mergePlan(cards);
    EXPECT_EQ(plan.kept, (std::vector<MergeCard>{cards[0], cards[2], cards[3], cards[4]}));
    EXPECT_EQ(plan.removed, (std::vector<MergeCard>{cards[1]}));

    const std::vector<std::string> notes{"Riley's mom", "  \n", "Scout troop\n", "  Riley's mom "};
    EXPECT_EQ(Duplicates::combineNotes(notes), "Riley's mom\n\nScout troop");
    // A merge run again finds the primary holding the combined note already.
    const std::vector<std::string> again{"Riley's mom\n\nScout troop", "Scout troop"};
    EXPECT_EQ(Duplicates::combineNotes(again), "Riley's mom\n\nScout troop");
}

// A merge on the files: A (icloud, primary), B (icloud) and C (gmail), where
// A and B carry notes and the store refuses to change a card with a note.
class MergeTest : public DuplicatesTest {
protected:
    void SetUp() override {
        add("icloud", {"A",
                       "Ann",
                       "Lee",
                       {"+1 415 555 0100"},
                       {"ann@home.org"},
                       "Riley's mom",
                       "X-CUSTOM;TYPE=keep:untouched \\, byte for byte\r\n"});
        add("icloud", {"B", "Ann", "Lee", {"415.555.0100", "212 555 0199"}, {}, "Scout troop"});
        add("gmail", {"C", "Annie", "Lee", {}, {"ANN@home.org", "ann@work.com"}});
    }

    VdirAddressBook::Options lockedOptions() const {
        auto options = m_vdir.options();
        options.notesLocked = true;
        return options;
    }

    // What the sheet opens with and the tool merges: the prefill, the notes combined.
    static MergeChoices choicesFor(AddressBook& book, ScriptedBook& scripted,
                                   const std::vector<Duplicates::MergeCard>& cards) {
        std::vector<ContactDraft> drafts;
        std::vector<std::string> cardIDs;
        for (const auto& card : cards) {
            drafts.push_back(book.draft(card.id).value());
            cardIDs.push_back(card.id);
        }
        ContactsAppScript script(scripted.host);
        const auto notes = script.readNotes(cardIDs).value();
        MergeChoices choices;
        choices.result = Duplicates::mergePrefill(drafts);
        choices.note = Duplicates::combineNotes(notes);
        for (std::size_t i = 0; i < cardIDs.size(); ++i) {
            choices.cardNotes[cardIDs[i]] = notes[i];
        }
        return choices;
    }

    // The cards still on disk, in merge order.
    std::vector<Duplicates::MergeCard> remaining() const {
        std::vector<Duplicates::MergeCard> cards;
        for (const auto& [id, account] : {std::pair{"A", "icloud"}, {"B", "icloud"}, {"C", "gmail"}}) {
            if (std::filesystem::exists(m_vdir.root() / account / (std::string(id) + ".vcf"))) {
                cards.push_back({id, {account}});
            }
        }
        return cards;
    }

    // What each kept card holds once the merge is done: the checks every
    // run, clean or interrupted and retried, must pass.
    void expectMerged(ScriptedBook& scripted) {
        EXPECT_FALSE(std::filesystem::exists(m_vdir.root() / "icloud" / "B.vcf"));
        std::set<std::string> kinIDs;
        for (const std::string id : {"A", "C"}) {
            SCOPED_TRACE(id);
            const auto draft = scripted.book.draft(id).value();
            EXPECT_EQ(draft.givenName, "Ann");
            std::vector<std::string> phones;
            for (const auto& phone : draft.phones) {
                phones.push_back(phone.value);
            }
            EXPECT_THAT(phones, ElementsAre(HasSubstr("555 0100"), "212 555 0199"));
            std::vector<std::string> emails;
            for (const auto& email : draft.emails) {
                emails.push_back(email.value);
            }
            EXPECT_THAT(emails, UnorderedElementsAre(::testing::AnyOf("ann@home.org", "ANN@home.org"),
                                                     "ann@work.com"));
            kinIDs.insert(KinID::Anchor::read(std::span<const std::string>(&*draft.anchorURL, 1))->id);
        }
        EXPECT_EQ(kinIDs.size(), 1U);
        ContactsAppScript script(scripted.host);
        const std::vector<std::string> kept{"A", "C"};
        EXPECT_THAT(script.readNotes(kept).value(),
                    ElementsAre("Riley's mom\n\nScout troop", "Riley's mom\n\nScout troop"));
        EXPECT_THAT(readFile(m_vdir.root() / "icloud" / "A.vcf"),
                    HasSubstr("X-CUSTOM;TYPE=keep:untouched \\, byte for byte\r\n"));
    }
};

TEST_F(MergeTest, CardsStayInTheirAccountsAndAnAccountWithTwoKeepsOne) {
    ScriptedBook scripted(lockedOptions());
    const auto cards = remaining();
    const auto merged =
        runMerge(scripted.book, cards, choicesFor(scripted.book, scripted, cards), *m_vdir.kinLog());
    ASSERT_TRUE(merged.ok()) << merged.error().description();
    EXPECT_EQ(merged->id, "A");
    EXPECT_EQ(merged->kept, (std::vector<std::string>{"A", "C"}));
    EXPECT_EQ(merged->removed, (std::vector<std::string>{"B"}));
    expectMerged(scripted);
    EXPECT_THAT(m_vdir.log(), HasSubstr("merged 3 cards, kept 2"));
}

TEST_F(MergeTest, TheChosenPictureLeadsOnEveryKeptCardAndEveryPictureIsKept) {
    ScriptedBook scripted(m_vdir.options());
    const auto bytesOf = [](const std::string& name) {
        const auto text = readFile(std::filesystem::path(KINBOOK_TESTDATA_DIR) / "photos" / name);
        return std::vector<std::uint8_t>(text.begin(), text.end());
    };
    const auto astronaut = bytesOf("astronaut.png");
    const auto coffee = bytesOf("coffee.png");
    ASSERT_TRUE(scripted.book.setPhoto(std::vector<std::string>{"A"}, astronaut).ok());
    ASSERT_TRUE(scripted.book.setPhoto(std::vector<std::string>{"B"}, coffee).ok());

    const auto cards = remaining();
    auto choices = choicesFor(scripted.book, scripted, cards);
    choices.photoCardID = "B"; // the removed card's picture may lead
    std::vector<std::vector<std::uint8_t>> kept;
    std::string keptFor;
    choices.keepPhotos =
        [&](const std::string& kinID, const std::string&, const std::vector<std::string>&,
            const std::vector<std::vector<std::uint8_t>>& pictures) -> Result<void, std::string> {
        // Asked before any card is deleted: B's picture is still there to keep.
        EXPECT_TRUE(std::filesystem::exists(m_vdir.root() / "icloud" / "B.vcf"));
        kept = pictures;
        keptFor = kinID;
        return {};
    };
    const auto merged = runMerge(scripted.book, cards, choices, *m_vdir.kinLog());
    ASSERT_TRUE(merged.ok()) << merged.error().description();
    EXPECT_EQ(scripted.book.image("A").value(), coffee);
    EXPECT_EQ(scripted.book.image("C").value(), coffee);
    EXPECT_EQ(kept, (std::vector<std::vector<std::uint8_t>>{astronaut, coffee}));
    EXPECT_EQ(keptFor, merged->kinID);
}

// Fails the n-th change the merge asks of the store, as a full disk or a
// sync run holding a file would.
class FailingBook final : public testing::ForwardingBook {
public:
    FailingBook(AddressBook& inner, int failAt) : ForwardingBook(inner), m_failAt(failAt) {}
    int changes = 0;

    Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) override {
        return fails() ? failure(disk()) : ForwardingBook::save(draft);
    }
    Result<void, AddressBookError> writeThroughContactsApp(const SaveOutcome& outcome) override {
        return fails() ? failure(disk()) : ForwardingBook::writeThroughContactsApp(outcome);
    }
    Result<void, AddressBookError> remove(std::span<const std::string> ids) override {
        return fails() ? failure(disk()) : ForwardingBook::remove(ids);
    }
    Result<KinID::Anchor, AddressBookError>
    changeAnchor(std::string_view id, const std::function<void(KinID::Anchor&)>& change) override {
        return fails() ? failure(disk()) : ForwardingBook::changeAnchor(id, change);
    }
    Result<void, AddressBookError> setPhoto(std::span<const std::string> ids,
                                            std::span<const std::uint8_t> jpeg) override {
        return fails() ? failure(disk()) : ForwardingBook::setPhoto(ids, jpeg);
    }

private:
    bool fails() { return ++changes == m_failAt; }
    static AddressBookError disk() { return AddressBookError::store("No space left on device"); }

    int m_failAt;
};

TEST_F(MergeTest, AMergeStoppedAtAnyStepSaysWhichAndARetryFinishesIt) {
    const auto originals =
        std::map<std::string, std::string>{{"icloud/A.vcf", readFile(m_vdir.root() / "icloud" / "A.vcf")},
                                           {"icloud/B.vcf", readFile(m_vdir.root() / "icloud" / "B.vcf")},
                                           {"gmail/C.vcf", readFile(m_vdir.root() / "gmail" / "C.vcf")}};
    // A clean run counts the changes a merge makes; each is then failed in
    // turn, on the cards as they were.
    int changes = 0;
    {
        ScriptedBook scripted(lockedOptions());
        FailingBook counting(scripted.book, 0);
        const auto cards = remaining();
        ASSERT_TRUE(
            runMerge(counting, cards, choicesFor(scripted.book, scripted, cards), *m_vdir.kinLog()).ok());
        changes = counting.changes;
    }
    ASSERT_GE(changes, 5);

    std::set<std::string> steps;
    for (int failAt = 1; failAt <= changes; ++failAt) {
        SCOPED_TRACE(failAt);
        for (const auto& [file, bytes] : originals) {
            writeFile(m_vdir.root() / file, bytes);
        }
        ScriptedBook scripted(lockedOptions());
        FailingBook failing(scripted.book, failAt);
        auto cards = remaining();
        const auto stopped =
            runMerge(failing, cards, choicesFor(scripted.book, scripted, cards), *m_vdir.kinLog());
        ASSERT_FALSE(stopped.ok());
        const auto* step = std::get_if<StepError>(&stopped.error().error);
        ASSERT_NE(step, nullptr);
        EXPECT_THAT(stopped.error().description(), HasSubstr("No space left on device"));
        steps.insert(step->step);

        // Every card is still readable: nothing was left half written.
        for (const auto& card : remaining()) {
            EXPECT_TRUE(scripted.book.draft(card.id).ok());
        }
        cards = remaining();
        const auto retried =
            runMerge(scripted.book, cards, choicesFor(scripted.book, scripted, cards), *m_vdir.kinLog());
        ASSERT_TRUE(retried.ok()) << retried.error().description();
        expectMerged(scripted);
    }
    EXPECT_EQ(steps, (std::set<std::string>{std::string(MergeStep::write), std::string(MergeStep::note),
                                            std::string(MergeStep::link), std::string(MergeStep::remove)}));
}

} // namespace
} // namespace kinbook
