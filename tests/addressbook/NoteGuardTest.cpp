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
using Held = std::map<std::string, std::string>;

const std::string kNora = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora;;;\r\nFN:Nora Noted\r\n"
                          "NOTE:Met at the fair\\, \"twice\".\\nCall after 6.\r\nUID:NORA-1\r\nEND:VCARD\r\n";
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

class NoteGuardOnAVdir : public ::testing::Test {
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

    std::string noteOf(VdirAddressBook& book, const std::string& id) {
        ContactsAppScript script(std::make_shared<VdirScriptHost>(book));
        const std::vector<std::string> ids{id};
        return script.readNotes(ids).value().front();
    }

    std::string log() { return m_vdir.log(); }

    testing::TempVdir m_vdir;
    std::size_t m_restoredAfterCrash = 0;
};

TEST_F(NoteGuardOnAVdir, APhotoOnANotedCardLiftsTheNoteAndPutsItBack) {
    testing::ScriptedBook scripted(options());
    VdirAddressBook& book = scripted.book;
    const std::vector<std::string> ids{"NORA-1", "PLAIN-1"};
    ASSERT_TRUE(book.setPhoto(ids, kPhoto).ok());
    EXPECT_EQ(book.image("NORA-1").value(), kPhoto);
    EXPECT_EQ(book.image("PLAIN-1").value(), kPhoto);
    EXPECT_EQ(noteOf(book, "NORA-1"), kNoraNote);
    EXPECT_NE(readFile(noraPath()).find("NOTE:Met at the fair\\, \"twice\".\\nCall after 6.\r\n"),
              std::string::npos);
    EXPECT_TRUE(NoteGuard(heldFile(), nullptr, {}, bookKey()).held().empty());
    EXPECT_NE(log().find("contact photo set (1 notes lifted and restored)"), std::string::npos);
}

TEST_F(NoteGuardOnAVdir, ACrashAtAnyStepLeavesTheNoteRecoverable) {
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

TEST_F(NoteGuardOnAVdir, AFailedChangePutsTheNotesBackAndReleasesThem) {
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

TEST_F(NoteGuardOnAVdir, ANoteThatCantBeRestoredStaysHeld) {
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

TEST_F(NoteGuardOnAVdir, AHeldNoteGoesBackOnlyToItsOwnBookAndNeverOverANewerNote) {
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
