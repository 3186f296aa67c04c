// The address book with notes locked: how changes to cards with a note go
// through the Contacts application.

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/ScriptedBook.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;
using Card = ContactsAppScript::Card;
using Fields = ContactsAppScript::Fields;

const std::string kNora =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora;;;\r\nFN:Nora Noted\r\n"
    "TEL;type=CELL:+1 212 555 0100\r\nNOTE:Met at the fair.\r\nUID:NORA-1\r\nEND:VCARD\r\n";
const std::string kPlain = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Plain;Pat;;;\r\nFN:Pat Plain\r\n"
                           "UID:PLAIN-1\r\nEND:VCARD\r\n";

class VdirAddressBookNotesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("family", "NORA-1.vcf", kNora);
        m_vdir.write("family", "PLAIN-1.vcf", kPlain);
    }

    fs::path root() const { return m_vdir.root(); }
    fs::path noraPath() const { return root() / "family" / "NORA-1.vcf"; }

    VdirAddressBook::Options options() {
        VdirAddressBook::Options options = m_vdir.options();
        options.notesLocked = true;
        return options;
    }

    Card cardOnDisk(VdirAddressBook& book, const std::string& id) {
        auto card = book.scriptedRead(id);
        EXPECT_TRUE(card.ok());
        return card.ok() ? Card::read(card.value(), id) : Card{};
    }

    std::string log() { return m_vdir.log(); }

    testing::TempVdir m_vdir;
};

TEST_F(VdirAddressBookNotesTest, SavingANotedCardReturnsItsScriptAndTheContactsAppWritesIt) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    auto draft = book.draft("NORA-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "Nor";
    draft->phones.push_back({"new-phone", "_$!<Work>!$_", "+1 646 555 0102", true});
    const auto outcome = book.save(*draft);
    ASSERT_TRUE(outcome.ok());
    EXPECT_EQ(outcome->kind, SaveOutcome::Kind::viaContactsApp);
    EXPECT_EQ(outcome->id, "NORA-1");
    EXPECT_EQ(readFile(noraPath()), kNora); // the store wrote nothing

    // The lines are those for the card as the draft would make it, all groups.
    Card expected = cardOnDisk(book, "NORA-1");
    expected.nickname = "Nor";
    expected.phones.push_back({"_$!<Work>!$_", "+1 646 555 0102"});
    EXPECT_EQ(outcome->body, ContactsAppScript::lines(expected, {Fields::all}));

    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    const Card after = cardOnDisk(book, "NORA-1");
    EXPECT_EQ(ContactsAppScript::lines(after, {Fields::all}), outcome->body);
    const std::string bytes = readFile(noraPath());
    EXPECT_NE(bytes.find("NOTE:Met at the fair.\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("TEL;type=CELL:+1 212 555 0100\r\n"), std::string::npos);
    EXPECT_NE(log().find("wrote 1 cards through Contacts.app (contact has a note)"), std::string::npos);

    // A saved outcome has nothing to run.
    EXPECT_TRUE(book.writeThroughContactsApp({SaveOutcome::Kind::saved, "PLAIN-1", {}}).ok());
}

TEST_F(VdirAddressBookNotesTest, ANewCardNamedLikeANotedCardIsNamedThroughTheContactsApp) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    ContactDraft draft = ContactDraft::empty(std::nullopt, "family");
    draft.givenName = "nora";
    draft.familyName = "Noted ";
    draft.jobTitle = "Baker";
    draft.phones.push_back({"p1", "_$!<Mobile>!$_", "+1 212 555 0177", true});
    const auto outcome = book.save(draft);
    ASSERT_TRUE(outcome.ok());
    ASSERT_EQ(outcome->kind, SaveOutcome::Kind::nameViaContactsApp);

    // Made under a placeholder name, with everything but the name.
    const Card pending = cardOnDisk(book, outcome->id);
    ASSERT_EQ(pending.firstName.size(), 16u);
    EXPECT_EQ(pending.firstName.substr(0, 8), "Pending ");
    EXPECT_EQ(pending.lastName, "");
    EXPECT_EQ(pending.jobTitle, "");
    ASSERT_EQ(pending.phones.size(), 1u);
    EXPECT_EQ(pending.phones[0].value, "+1 212 555 0177");
    EXPECT_EQ(outcome->body, "  set p to person id \"" + outcome->id +
                                 "\"\n"
                                 "  set title of p to missing value\n"
                                 "  set first name of p to \"nora\"\n"
                                 "  set middle name of p to missing value\n"
                                 "  set last name of p to \"Noted\"\n"
                                 "  set suffix of p to missing value\n"
                                 "  set nickname of p to missing value\n"
                                 "  set organization of p to missing value\n"
                                 "  set department of p to missing value\n"
                                 "  set job title of p to \"Baker\"");

    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    const auto card = book.card(outcome->id);
    ASSERT_TRUE(card.ok());
    EXPECT_EQ(card->givenName, "nora");
    EXPECT_EQ(card->familyName, "Noted");
    EXPECT_EQ(card->jobTitle, "Baker");
    EXPECT_NE(readFile(root() / "family" / (outcome->id + ".vcf")).find("FN:nora Noted\r\n"),
              std::string::npos);
    EXPECT_NE(log().find("new card named through Contacts.app (its name links to a contact with a note)"),
              std::string::npos);

    // Another name links to nothing; without the lock nothing is refused.
    draft.givenName = "Nina";
    EXPECT_EQ(book.save(draft)->kind, SaveOutcome::Kind::saved);
    auto unlocked = options();
    unlocked.notesLocked = false;
    draft.givenName = "Nora";
    EXPECT_EQ(VdirAddressBook(unlocked).save(draft)->kind, SaveOutcome::Kind::saved);
}

// Where notes are locked a note is never written by the store itself:
// adding, changing or clearing one goes through the Contacts application,
// for a card being edited and for a new one.
TEST_F(VdirAddressBookNotesTest, ANoteIsWrittenOnlyThroughTheContactsApp) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    auto plain = book.draft("PLAIN-1");
    ASSERT_TRUE(plain.ok());
    EXPECT_EQ(plain->note, "");
    plain->note = "Owes me a book.";
    auto outcome = book.save(*plain);
    ASSERT_TRUE(outcome.ok());
    EXPECT_EQ(outcome->kind, SaveOutcome::Kind::viaContactsApp);
    EXPECT_EQ(readFile(root() / "family" / "PLAIN-1.vcf"), kPlain);
    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    EXPECT_EQ(book.draft("PLAIN-1")->note, "Owes me a book.");

    auto nora = book.draft("NORA-1");
    ASSERT_TRUE(nora.ok());
    EXPECT_EQ(nora->note, "Met at the fair.");
    // What the script can't say is refused, not dropped.
    auto phonetic = *nora;
    phonetic.phoneticGivenName = "Noora";
    const auto refused = book.save(phonetic);
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().description().find("phonetic name and dates"), std::string::npos);
    EXPECT_EQ(readFile(noraPath()), kNora);
    nora->note = "";
    outcome = book.save(*nora);
    ASSERT_TRUE(outcome.ok());
    EXPECT_NE(outcome->body.find("  set note of p to missing value"), std::string::npos);
    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    EXPECT_EQ(readFile(noraPath()).find("NOTE"), std::string::npos);

    ContactDraft fresh = ContactDraft::empty(std::nullopt, "family");
    fresh.givenName = "Quinn";
    fresh.note = "New neighbour.";
    outcome = book.save(fresh);
    ASSERT_TRUE(outcome.ok());
    EXPECT_EQ(outcome->kind, SaveOutcome::Kind::viaContactsApp);
    EXPECT_EQ(readFile(root() / "family" / (outcome->id + ".vcf")).find("NOTE"), std::string::npos);
    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    EXPECT_EQ(book.draft(outcome->id)->note, "New neighbour.");
}

TEST_F(VdirAddressBookNotesTest, DeletingANotedCardGoesThroughTheContactsApp) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    const std::vector<std::string> nora{"NORA-1"};
    ASSERT_TRUE(book.remove(nora).ok());
    EXPECT_FALSE(fs::exists(noraPath()));
    EXPECT_NE(log().find("deleted one card through Contacts.app (it has a note)"), std::string::npos);
    EXPECT_EQ(book.remove(nora).error(), AddressBookError::notFound());

    writeFile(noraPath(), kNora);
    const std::vector<std::string> both{"NORA-1", "PLAIN-1"};
    ASSERT_TRUE(book.remove(both).ok());
    EXPECT_FALSE(fs::exists(noraPath()));
    EXPECT_FALSE(fs::exists(root() / "family" / "PLAIN-1.vcf"));
    EXPECT_NE(log().find("deleted contact (2 cards)"), std::string::npos);
}

TEST_F(VdirAddressBookNotesTest, APhotoIsNotCopiedOntoANotedCard) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    const std::vector<std::uint8_t> photo{0xFF, 0xD8, 0xFF, 0xD9};
    ASSERT_TRUE(book.setPhoto(std::vector<std::string>{"PLAIN-1"}, photo).ok());
    EXPECT_EQ(book.copyPhoto("PLAIN-1", "NORA-1").value(), false);
    EXPECT_EQ(readFile(noraPath()), kNora);
    EXPECT_NE(log().find("photo not copied: card has a note"), std::string::npos);
}

// A host that may not automate the application.
class RefusingHost : public ScriptHost {
public:
    AutomationPermission automationPermission() override { return AutomationPermission::notPermitted; }
    Result<std::vector<std::string>, ScriptError> run(std::string_view) override {
        ADD_FAILURE() << "a script ran without permission";
        return std::vector<std::string>{};
    }
};

TEST_F(VdirAddressBookNotesTest, AScriptFailureIsTheStoresErrorWithItsMessage) {
    auto refusing = options();
    refusing.scriptHost = std::make_shared<RefusingHost>();
    VdirAddressBook book(refusing);
    auto draft = book.draft("NORA-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "Nor";
    const auto outcome = book.save(*draft);
    ASSERT_TRUE(outcome.ok());
    const auto written = book.writeThroughContactsApp(*outcome);
    ASSERT_FALSE(written.ok());
    EXPECT_EQ(written.error(), AddressBookError::store(std::string("Contacts couldn't make the change: ") +
                                                       std::string(ContactsAppScript::notPermittedMessage)));
    EXPECT_EQ(book.remove(std::vector<std::string>{"NORA-1"}).error(), written.error());
    EXPECT_EQ(readFile(noraPath()), kNora);
}

} // namespace
} // namespace kinbook

namespace kinbook {
namespace {

// The circle and the hidden flag live in the anchor URL like any other card
// setting: with notes locked the store refuses them on a card with a note
// too, and the change goes through the Contacts application, note intact.
TEST_F(VdirAddressBookNotesTest, AnAnchorChangeOnANotedCardRunsTheScriptingPath) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    const auto written = book.changeAnchor("NORA-1", [](KinID::Anchor& anchor) {
        anchor.circle = ContactCircle::goodFriends;
        anchor.hidden = true;
    });
    ASSERT_TRUE(written.ok()) << written.error().description();
    EXPECT_NE(log().find("save failed (AddressBookError hasNote anchor: "), std::string::npos);
    EXPECT_NE(log().find("wrote 1 cards through Contacts.app (contact has a note)"), std::string::npos);

    const auto card = book.card("NORA-1");
    ASSERT_TRUE(card.ok());
    EXPECT_EQ(card->kinID, written->id);
    const std::string bytes = readFile(noraPath());
    EXPECT_NE(bytes.find(written->url()), std::string::npos);
    EXPECT_NE(bytes.find("NOTE:Met at the fair.\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("TEL;type=CELL:+1 212 555 0100\r\n"), std::string::npos);

    // A card without a note takes the change from the store itself.
    ASSERT_TRUE(book.changeAnchor("PLAIN-1", [](KinID::Anchor& anchor) { anchor.hidden = true; }).ok());
    EXPECT_NE(readFile(root() / "family" / "PLAIN-1.vcf").find("?h=1"), std::string::npos);
}

} // namespace
} // namespace kinbook
