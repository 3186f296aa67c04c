// The address book with notes locked: changes to cards with a note go
// through the Contacts application, and a note lifted off a card for a
// change the store makes itself is held on disk until it is back.

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/NoteGuard.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/addressbook/VdirScriptHost.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/ScriptedBook.h"
#include "tests/support/TempVdir.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;
using Card = ContactsAppScript::Card;
using Fields = ContactsAppScript::Fields;
using Held = std::map<std::string, std::string>;

const std::string kNoraNoteLine = "NOTE:Met at the fair\\, \"twice\".\\nCall after 6.\r\n";
const std::string kNora = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora;;;\r\nFN:Nora Noted\r\n"
                          "TEL;type=CELL:+1 212 555 0100\r\n" +
                          kNoraNoteLine + "UID:NORA-1\r\nEND:VCARD\r\n";
const std::string kNoraNote = "Met at the fair, \"twice\".\nCall after 6.";
const std::string kPlain = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Plain;Pat;;;\r\nFN:Pat Plain\r\n"
                           "UID:PLAIN-1\r\nEND:VCARD\r\n";
const std::vector<std::uint8_t> kPhoto{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F', 0xFF, 0xD9};

TEST(NoteGuard, AMissingEmptyOrDamagedFileHoldsNothing) {
    testing::TempFolder folder;
    NoteGuard guard(folder / "data" / "notes-in-flight.json", nullptr, {}, "/book");
    EXPECT_TRUE(guard.held().empty());
    fs::create_directories(folder / "data");
    for (const char* text : {"", "not json", "[\"NORA-1\", \"note\"]", "{\"NORA-1\": ", "null"}) {
        writeFile(guard.file(), text);
        EXPECT_TRUE(guard.held().empty()) << text;
    }
    // What can be read of a half-understood file is kept.
    writeFile(guard.file(), R"({"/book": {"A": 1, "B": "kept", "C": null}, "/other": {"D": "not ours"}})");
    EXPECT_EQ(guard.held(), (Held{{"B", "kept"}}));
}

TEST(NoteGuard, HoldingReplacesAndReleasingRemovesOnlyThoseCards) {
    testing::TempFolder folder;
    NoteGuard guard(folder / "data" / "notes-in-flight.json", nullptr);
    ASSERT_TRUE(guard.hold({{"A", "first"}, {"B", "b \"quoted\" \\ ✓\n"}}));
    ASSERT_TRUE(guard.hold({{"A", "second"}}));
    EXPECT_EQ(guard.held(), (Held{{"A", "second"}, {"B", "b \"quoted\" \\ ✓\n"}}));
    // Another guard on the same file (a later run) sees the same.
    EXPECT_EQ(NoteGuard(guard.file(), nullptr).held(), guard.held());

    const std::vector<std::string> released{"A", "NOT-HELD"};
    ASSERT_TRUE(guard.release(released));
    EXPECT_EQ(guard.held(), (Held{{"B", "b \"quoted\" \\ ✓\n"}}));

    // A file that can't be written leaves what was held as it was.
    fs::remove(guard.file());
    fs::create_directories(guard.file());
    EXPECT_FALSE(guard.hold({{"C", "c"}}));
}

class VdirAddressBookNotesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("family", "NORA-1.vcf", kNora);
        m_vdir.write("family", "PLAIN-1.vcf", kPlain);
    }

    fs::path root() const { return m_vdir.root(); }
    fs::path noraPath() const { return root() / "family" / "NORA-1.vcf"; }
    fs::path heldFile() const { return m_vdir.heldNotesFile(); }
    std::string bookKey() const { return NoteGuard::bookKey(root()); }

    VdirAddressBook::Options options() {
        VdirAddressBook::Options options = m_vdir.options();
        options.notesLocked = true;
        options.restoredAfterCrash = [this](std::size_t count) { m_restoredAfterCrash += count; };
        return options;
    }

    Card cardOnDisk(VdirAddressBook& book, const std::string& id) {
        auto card = book.scriptedRead(id);
        EXPECT_TRUE(card.ok());
        return card.ok() ? Card::read(card.value(), id) : Card{};
    }

    std::string noteOf(VdirAddressBook& book, const std::string& id) {
        ContactsAppScript script(std::make_shared<VdirScriptHost>(book));
        const std::vector<std::string> ids{id};
        return script.readNotes(ids).value().front();
    }

    std::string log() { return m_vdir.log(); }

    testing::TempVdir m_vdir;
    std::size_t m_restoredAfterCrash = 0;
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
    EXPECT_NE(bytes.find(kNoraNoteLine), std::string::npos);
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
    EXPECT_EQ(nora->note, kNoraNote);
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
    EXPECT_NE(bytes.find(kNoraNoteLine), std::string::npos);
    EXPECT_NE(bytes.find("TEL;type=CELL:+1 212 555 0100\r\n"), std::string::npos);

    // A card without a note takes the change from the store itself.
    ASSERT_TRUE(book.changeAnchor("PLAIN-1", [](KinID::Anchor& anchor) { anchor.hidden = true; }).ok());
    EXPECT_NE(readFile(root() / "family" / "PLAIN-1.vcf").find("?h=1"), std::string::npos);
}

TEST_F(VdirAddressBookNotesTest, APhotoOnANotedCardLiftsTheNoteAndPutsItBack) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    const std::vector<std::string> ids{"NORA-1", "PLAIN-1"};
    ASSERT_TRUE(book.setPhoto(ids, kPhoto).ok());
    EXPECT_EQ(book.image("NORA-1").value(), kPhoto);
    EXPECT_EQ(book.image("PLAIN-1").value(), kPhoto);
    EXPECT_EQ(noteOf(book, "NORA-1"), kNoraNote);
    EXPECT_NE(readFile(noraPath()).find(kNoraNoteLine), std::string::npos);
    EXPECT_TRUE(NoteGuard(heldFile(), nullptr, {}, bookKey()).held().empty());
    EXPECT_NE(log().find("contact photo set (1 notes lifted and restored)"), std::string::npos);
}

TEST_F(VdirAddressBookNotesTest, ACrashAtAnyStepLeavesTheNoteRecoverable) {
    using Step = NoteGuard::Step;
    for (const Step crash :
         {Step::read, Step::held, Step::lifted, Step::changed, Step::restored, Step::released}) {
        SCOPED_TRACE(static_cast<int>(crash));
        writeFile(noraPath(), kNora);
        fs::remove(heldFile());
        m_restoredAfterCrash = 0;
        {
            auto crashing = options();
            crashing.noteStep = [crash](Step step) { return step != crash; };
            testing::ScriptedBook scripted(crashing);
            VdirAddressBook& book = scripted.book;
            const std::vector<std::string> ids{"NORA-1"};
            EXPECT_FALSE(book.setPhoto(ids, kPhoto).ok());
        }
        // Held from just before the note is cleared until just after it is back.
        const bool held = crash != Step::read && crash != Step::released;
        EXPECT_EQ(NoteGuard(heldFile(), nullptr, {}, bookKey()).held(),
                  (held ? Held{{"NORA-1", kNoraNote}} : Held{}));
        if (crash == Step::lifted || crash == Step::changed) {
            EXPECT_EQ(readFile(noraPath()).find("NOTE"), std::string::npos); // the crash left it off the card
        }

        // The next start puts it back at the first read.
        testing::ScriptedBook scriptedRestart(options());
        VdirAddressBook& restarted = scriptedRestart.book;
        ASSERT_TRUE(restarted.readAll({}).ok());
        EXPECT_EQ(noteOf(restarted, "NORA-1"), kNoraNote);
        EXPECT_TRUE(NoteGuard(heldFile(), nullptr, {}, bookKey()).held().empty());
        EXPECT_EQ(m_restoredAfterCrash, held ? 1u : 0u);
        const bool photoSaved = crash >= Step::changed;
        EXPECT_EQ(restarted.image("NORA-1").value().has_value(), photoSaved);
    }
    EXPECT_NE(log().find("restored 1 held notes"), std::string::npos);
}

TEST_F(VdirAddressBookNotesTest, AFailedChangePutsTheNotesBackAndReleasesThem) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    ContactsAppScript script(std::make_shared<VdirScriptHost>(book));
    NoteGuard guard(heldFile(), m_vdir.kinLog(), {}, bookKey());
    const std::vector<std::string> ids{"NORA-1", "PLAIN-1"};
    bool noteWasOff = false;
    const auto result = guard.liftWhile(ids, script, [&]() -> Result<void, std::string> {
        noteWasOff = readFile(noraPath()).find("NOTE") == std::string::npos;
        EXPECT_EQ(guard.held(), (Held{{"NORA-1", kNoraNote}})); // only a card with a note is lifted
        return failure(std::string("disk full"));
    });
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), "disk full");
    EXPECT_TRUE(noteWasOff);
    EXPECT_EQ(noteOf(book, "NORA-1"), kNoraNote);
    EXPECT_TRUE(guard.held().empty());
}

TEST_F(VdirAddressBookNotesTest, ANoteThatCantBeRestoredStaysHeld) {
    // As a crash leaves it: one note off its card, one for a card that is gone.
    std::string lifted = kNora;
    lifted.erase(lifted.find("NOTE:"), lifted.find("UID:") - lifted.find("NOTE:"));
    writeFile(noraPath(), lifted);
    NoteGuard guard(heldFile(), nullptr, {}, bookKey());
    ASSERT_TRUE(guard.hold({{"NORA-1", kNoraNote}, {"GONE-1", "lost?"}}));

    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    EXPECT_EQ(book.restoreHeldNotes(), 1u);
    EXPECT_EQ(m_restoredAfterCrash, 1u);
    EXPECT_EQ(noteOf(book, "NORA-1"), kNoraNote);
    EXPECT_EQ(guard.held(), (Held{{"GONE-1", "lost?"}}));
    EXPECT_NE(
        log().find(
            "ERROR couldn't restore a held note: Contacts couldn't make the change: Can't get person id "
            "\"GONE-1\"."),
        std::string::npos);
    // Kept for a later attempt, which fails the same way and keeps it still.
    EXPECT_EQ(book.restoreHeldNotes(), 0u);
    EXPECT_EQ(guard.held().size(), 1u);
}

TEST_F(VdirAddressBookNotesTest, AHeldNoteGoesBackOnlyToItsOwnBookAndNeverOverANewerNote) {
    // Nora's note was lifted and a crash kept it; since then she has a new
    // note. A crafted entry tries to get a script to delete PLAIN-1, and
    // another book's entry names Nora too.
    writeFile(noraPath(), kNora);
    const std::string crafted = "X\"\n  delete person id \"PLAIN-1";
    nlohmann::json file;
    file[bookKey()] = {{"NORA-1", "old note"}, {crafted, "boom"}};
    file["/elsewhere/contacts"] = {{"NORA-1", "another book's note"}};
    fs::create_directories(heldFile().parent_path());
    writeFile(heldFile(), file.dump());

    std::vector<std::string> keptBoth;
    auto opts = options();
    opts.bothNotesKept = [&](const std::vector<std::string>& ids) { keptBoth = ids; };
    testing::ScriptedBook scripted(opts);
    VdirAddressBook& book = scripted.book;
    EXPECT_EQ(book.restoreHeldNotes(), 1u);
    EXPECT_EQ(noteOf(book, "NORA-1"), kNoraNote + "\n\nold note");
    EXPECT_EQ(keptBoth, std::vector<std::string>{"NORA-1"});
    EXPECT_NE(log().find(std::string(NoteGuard::bothKeptMessage)), std::string::npos);
    EXPECT_EQ(readFile(root() / "family" / "PLAIN-1.vcf"), kPlain);
    // The crafted entry found no card and stays; the other book's is untouched.
    EXPECT_EQ(NoteGuard(heldFile(), nullptr, {}, bookKey()).held(), (Held{{crafted, "boom"}}));
    EXPECT_EQ(NoteGuard(heldFile(), nullptr, {}, "/elsewhere/contacts").held(),
              (Held{{"NORA-1", "another book's note"}}));
}

} // namespace
} // namespace kinbook
