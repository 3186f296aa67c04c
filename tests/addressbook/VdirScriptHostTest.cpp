#include "KinbookKit/addressbook/VdirScriptHost.h"

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "KinbookKit/vcard/CardReader.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;
using Card = ContactsAppScript::Card;
using Fields = ContactsAppScript::Fields;

const std::string kJane = "BEGIN:VCARD\r\n"
                          "VERSION:3.0\r\n"
                          "PRODID:-//Apple Inc.//macOS 14.0//EN\r\n"
                          "N:Appleseed;Jane;;Dr.;\r\n"
                          "FN:Dr. Jane Appleseed\r\n"
                          "ORG:Acme;Research\r\n"
                          "TITLE:Engineer\r\n"
                          "TEL;type=CELL;type=VOICE;type=pref:+1 212 555 0100\r\n"
                          "TEL;type=HOME;type=VOICE:+1 212 555 0101\r\n"
                          "item2.EMAIL;type=INTERNET:jane@acme.test\r\n"
                          "item2.X-ABLabel:Gym\r\n"
                          "item3.URL:kinbook://c/AB12CD34?r=3\r\n"
                          "item3.X-ABLabel:Vellumary Contacts\r\n"
                          "URL;type=WORK:https://acme.test/jane\r\n"
                          "item4.ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA\r\n"
                          "item4.X-ABADR:us\r\n"
                          "X-SOCIALPROFILE;type=twitter;x-user=jane:https://x.com/jane\r\n"
                          "X-SOCIALPROFILE;type=github;x-user=jane-a:https://github.com/jane-a\r\n"
                          "BDAY:1987-03-14\r\n"
                          "NOTE:Met at the fair.\r\n"
                          "X-CUSTOM;x-param=1:kept as it is\r\n"
                          "UID:JANE-1\r\n"
                          "END:VCARD\r\n";

const std::string kPlain = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Plain;Pat;;;\r\nFN:Pat Plain\r\n"
                           "UID:PLAIN-1\r\nEND:VCARD\r\n";

std::chrono::system_clock::time_point localNoon(int year, int month, int day) {
    std::tm local{};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = 12;
    local.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&local));
}

class VdirScriptHostTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_vdir.write("family", "JANE-1.vcf", kJane);
        m_vdir.write("family", "PLAIN-1.vcf", kPlain);
    }

    fs::path root() const { return m_vdir.root(); }
    fs::path janePath() const { return root() / "family" / "JANE-1.vcf"; }

    VdirAddressBook::Options options() {
        VdirAddressBook::Options options = m_vdir.options();
        options.notesLocked = true;
        return options;
    }

    Card cardOnDisk(const std::string& id) {
        auto card = m_book.scriptedRead(id);
        EXPECT_TRUE(card.ok());
        return card.ok() ? Card::read(card.value(), id) : Card{};
    }

    Result<std::vector<std::string>, ScriptError> run(const std::string& script) {
        return m_host.run(script);
    }

    testing::TempVdir m_vdir;
    VdirAddressBook m_book{options()};
    // "Current date" is the 31st, when setting a month can overflow.
    testing::FakeClock m_clock{localNoon(2024, 1, 31)};
    VdirScriptHost m_host{m_book, m_clock};
};

TEST_F(VdirScriptHostTest, EveryGroupReadsBackAsWrittenAndOtherLinesKeepTheirBytes) {
    Card wanted = cardOnDisk("JANE-1");
    // The card's own script changes no byte.
    ASSERT_TRUE(run(ContactsAppScript::updateScript(ContactsAppScript::lines(wanted, {Fields::all}))).ok());
    EXPECT_EQ(readFile(janePath()), kJane);

    wanted.title.clear();
    wanted.middleName = "Q.";
    wanted.department.clear();
    wanted.jobTitle = "Director";
    wanted.phones[1].value = "+1 212 555 0199";                   // an edited number
    wanted.phones.push_back({"_$!<Work>!$_", "+1 646 555 0102"}); // a new one
    wanted.emails[0].label = "_$!<Home>!$_";                      // relabelled
    wanted.urls.pop_back();                                       // the work page goes
    wanted.urls.push_back({"", "https://jane.example"});
    wanted.addresses[0].city = "Shelbyville";
    wanted.socialProfiles[1].userName = "jane-b";
    wanted.socialProfiles[1].url = "https://github.com/jane-b";
    wanted.socialProfiles.push_back({"instagram", "jane.a", "https://www.instagram.com/jane.a"});
    wanted.birthday = DateComponents{2, 14, 1990};

    const auto result = run(ContactsAppScript::updateScript(ContactsAppScript::lines(wanted, {Fields::all})));
    ASSERT_TRUE(result.ok()) << result.error().message;
    const Card after = cardOnDisk("JANE-1");
    EXPECT_EQ(ContactsAppScript::lines(after, {Fields::all}),
              ContactsAppScript::lines(wanted, {Fields::all}));
    EXPECT_EQ(after.birthday, (DateComponents{2, 14, 1990}));

    const std::string bytes = readFile(janePath());
    for (const char* kept :
         {"TEL;type=CELL;type=VOICE;type=pref:+1 212 555 0100\r\n",
          "item3.URL:kinbook://c/AB12CD34?r=3\r\nitem3.X-ABLabel:Vellumary Contacts\r\n",
          "item4.X-ABADR:us\r\n", "X-SOCIALPROFILE;type=twitter;x-user=jane:https://x.com/jane\r\n",
          "NOTE:Met at the fair.\r\n", "X-CUSTOM;x-param=1:kept as it is\r\n"}) {
        EXPECT_NE(bytes.find(kept), std::string::npos) << kept;
    }
    EXPECT_EQ(bytes.find("acme.test/jane"), std::string::npos);
}

TEST_F(VdirScriptHostTest, QuotesBackslashesLineBreaksAndNonAsciiSurviveExactly) {
    Card wanted = cardOnDisk("PLAIN-1");
    wanted.firstName = R"(Zoë "Z" \ Ångström)";
    wanted.lastName = "O'Brien-東京";
    wanted.nickname = R"(\"already escaped\")";
    wanted.jobTitle = "Line one\nLine two";
    wanted.emails = {{R"(my "best" \ label)", R"("odd\name"@example.com)"}};
    wanted.addresses = {{"", "1 Main St\nApt \"B\"", R"(Zürich \ Nord)", "ZH", "8001", "Schweiz"}};
    const std::string note = "He said \"hi\" \\ bye\nsecond line ✓";
    const std::string body = ContactsAppScript::lines(wanted, {Fields::all}) + "\n" +
                             ContactsAppScript::noteLines("PLAIN-1", note);
    const auto result = run(ContactsAppScript::updateScript(body));
    ASSERT_TRUE(result.ok()) << result.error().message;

    const Card after = cardOnDisk("PLAIN-1");
    EXPECT_EQ(after.firstName, wanted.firstName);
    EXPECT_EQ(after.lastName, wanted.lastName);
    EXPECT_EQ(after.nickname, wanted.nickname);
    EXPECT_EQ(after.jobTitle, wanted.jobTitle);
    ASSERT_EQ(after.emails.size(), 1u);
    EXPECT_EQ(after.emails[0], wanted.emails[0]);
    ASSERT_EQ(after.addresses.size(), 1u);
    EXPECT_EQ(after.addresses[0].street, wanted.addresses[0].street);
    EXPECT_EQ(after.addresses[0].city, wanted.addresses[0].city);
    const std::vector<std::string> ids{"PLAIN-1"};
    EXPECT_EQ(run(ContactsAppScript::readNotesScript(ids)).value(), std::vector<std::string>{note});
}

TEST_F(VdirScriptHostTest, OnlyScriptsInKinbooksOwnFormRunAndOthersChangeNothing) {
    Card wanted = cardOnDisk("JANE-1");
    wanted.firstName = "Janet";
    const std::string script = ContactsAppScript::updateScript(
        ContactsAppScript::lines(wanted, {Fields::all}) + "\n" + ContactsAppScript::noteLines("JANE-1", {}));
    ASSERT_NE(script.find("  save\n"), std::string::npos);
    auto in = [](std::string text, std::string_view from, std::string_view to) {
        const auto at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? std::string() : text.replace(at, from.size(), to);
    };
    auto replaced = [&](std::string_view from, std::string_view to) { return in(script, from, to); };
    // Statements the builders write, laid out as no builder lays them out.
    const std::string remove = ContactsAppScript::deleteScript("PLAIN-1");
    const std::string deletePlain = "  delete person id \"PLAIN-1\"\n";
    const std::vector<std::string> ids{"JANE-1"};
    const std::vector<std::string> broken{
        "",
        script + "\n",                                  // anything after the end
        script.substr(0, script.find("Janet") + 3),     // a string left open
        replaced("\"Janet\"", "\"Jan\\et\""),           // an escape the builders never write
        replaced("  save\n", " save\n"),                // indentation is part of the form
        replaced("  set first name", "set first name"), //
        replaced("tell application \"Contacts\"", "tell application \"Finder\""),
        replaced("  save\n", "  do shell script \"rm -rf ~\"\n  save\n"),
        replaced("  else\n", ""),                           // an if without its else
        replaced("person id \"JANE-1\"", "person id \"\""), // no id
        replaced("set month of bd to 3", "set month of bd to March"),
        replaced("end timeout", "end"),
        replaced("  save\n", deletePlain + "  save\n"),
        in(remove, deletePlain, "  delete person id \"JANE-1\"\n" + deletePlain),
        in(remove, "30", "10"),
        in(ContactsAppScript::readNotesScript(ids), "end tell", "  save\nend tell"),
    };
    for (const auto& text : broken) {
        const auto result = run(text);
        ASSERT_FALSE(result.ok()) << text;
        EXPECT_EQ(result.error(), (ScriptError{ScriptError::Kind::compile, "the script didn't compile"}))
            << text;
    }
    EXPECT_EQ(readFile(janePath()), kJane);
    EXPECT_EQ(readFile(root() / "family" / "PLAIN-1.vcf"), kPlain);
    ASSERT_TRUE(run(script).ok()); // the original compiles
    EXPECT_EQ(cardOnDisk("JANE-1").firstName, "Janet");
}

TEST_F(VdirScriptHostTest, AFailingStatementStopsTheScriptWithItsMessage) {
    Card wanted = cardOnDisk("JANE-1");
    wanted.firstName = "Janet";
    Card gone = wanted;
    gone.id = "GONE-1";
    auto result = run(ContactsAppScript::updateScript(ContactsAppScript::lines(wanted, {Fields::name}) +
                                                      "\n" + ContactsAppScript::lines(gone, {Fields::name})));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), (ScriptError{ScriptError::Kind::runtime, "Can't get person id \"GONE-1\"."}));
    EXPECT_EQ(readFile(janePath()), kJane); // nothing is written before "save"

    // Profile 3 of a card with two.
    result =
        run("with timeout of 30 seconds\ntell application \"Contacts\"\n  set p to person id \"JANE-1\"\n"
            "  set n to count social profiles of p\n  if n > 0 then\n"
            "set url of social profile 3 of p to \"\"\n  else\n"
            "make new social profile at end of social profiles of p with properties {service name:\"\", "
            "user name:\"\", url:\"\"}\n  end if\n  save\nend tell\nend timeout");
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().message, "Can't get social profile 3 of person id \"JANE-1\".");

    result = run(ContactsAppScript::deleteScript("GONE-1"));
    EXPECT_EQ(result.error().message, "Can't get person id \"GONE-1\".");
    EXPECT_EQ(readFile(janePath()), kJane);
}

TEST_F(VdirScriptHostTest, NotesAreReadSetClearedAndCardsDeleted) {
    const std::vector<std::string> ids{"JANE-1", "PLAIN-1", "GONE-1"};
    EXPECT_EQ(run(ContactsAppScript::readNotesScript(ids)).value(),
              (std::vector<std::string>{"Met at the fair.", "", ""}));

    ASSERT_TRUE(run(ContactsAppScript::updateScript(ContactsAppScript::noteLines("JANE-1", {}) + "\n" +
                                                    ContactsAppScript::noteLines("PLAIN-1", "New note")))
                    .ok());
    EXPECT_EQ(run(ContactsAppScript::readNotesScript(ids)).value(),
              (std::vector<std::string>{"", "New note", ""}));
    std::string withoutNote = kJane;
    withoutNote.erase(withoutNote.find("NOTE:"), std::string("NOTE:Met at the fair.\r\n").size());
    EXPECT_EQ(readFile(janePath()), withoutNote); // only the note line went

    ASSERT_TRUE(run(ContactsAppScript::deleteScript("JANE-1")).ok());
    EXPECT_FALSE(fs::exists(janePath()));
    EXPECT_EQ(m_book.card("JANE-1").error(), AddressBookError::notFound());
}

TEST_F(VdirScriptHostTest, BirthdaysFollowAppleScriptDates) {
    auto birthdayAfter = [&](const std::string& lines) {
        const auto result =
            run(ContactsAppScript::updateScript("  set p to person id \"PLAIN-1\"\n" + lines));
        EXPECT_TRUE(result.ok()) << (result.ok() ? "" : result.error().message);
        return cardOnDisk("PLAIN-1").birthday;
    };
    // The builder's lines for a birthday, without the line that finds the card.
    auto builderLines = [card = cardOnDisk("PLAIN-1")](const DateComponents& birthday) mutable {
        card.birthday = birthday;
        const std::string lines = ContactsAppScript::lines(card, {Fields::birthday});
        return lines.substr(lines.find('\n') + 1);
    };
    // On the 31st, the builder's lines still give 14 February...
    EXPECT_EQ(birthdayAfter(builderLines({2, 14, 1990})), (DateComponents{2, 14, 1990}));
    // ...which they would not without setting the day to 1 first: 31 February runs on into March.
    EXPECT_EQ(birthdayAfter("set bd to current date\nset year of bd to 1990\nset month of bd to 2\n"
                            "set day of bd to 14\nset time of bd to 43200\nset birth date of p to bd"),
              (DateComponents{3, 14, 1990}));
    for (const DateComponents& birthday :
         {DateComponents{1, 31, 1987}, DateComponents{2, 29, std::nullopt}}) {
        EXPECT_EQ(birthdayAfter(builderLines(birthday)), birthday);
    }
    EXPECT_EQ(birthdayAfter("set birth date of p to missing value"), std::nullopt);
}

TEST_F(VdirScriptHostTest, SurplusSocialProfilesAreEmptiedNotDeleted) {
    std::string five = kPlain;
    std::string profiles;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        profiles +=
            std::string("X-SOCIALPROFILE;type=twitter;x-user=") + name + ":https://x.com/" + name + "\r\n";
    }
    five.insert(five.find("UID:"), profiles);
    writeFile(root() / "family" / "PLAIN-1.vcf", five);

    Card wanted = cardOnDisk("PLAIN-1");
    ASSERT_EQ(wanted.socialProfiles.size(), 5u);
    wanted.socialProfiles.resize(3);
    wanted.socialProfiles[1] = {"github", "bee", "https://github.com/bee"};
    ASSERT_TRUE(
        run(ContactsAppScript::updateScript(ContactsAppScript::lines(wanted, {Fields::socialProfiles})))
            .ok());

    const Card after = cardOnDisk("PLAIN-1");
    EXPECT_EQ(after.socialProfiles, (std::vector<ContactsAppScript::SocialProfile>{
                                        {"twitter", "a", "https://x.com/a"},
                                        {"github", "bee", "https://github.com/bee"},
                                        {"twitter", "c", "https://x.com/c"},
                                        {"twitter", "", ""},
                                        {"twitter", "", ""},
                                    }));
    const std::string bytes = readFile(root() / "family" / "PLAIN-1.vcf");
    EXPECT_NE(bytes.find("X-SOCIALPROFILE;type=twitter;x-user=c:https://x.com/c\r\n"), std::string::npos);
}

// Every real card we have: its own script changes nothing, and another
// card's values written over it read back as written.
TEST_F(VdirScriptHostTest, RealCardsTakeTheirOwnAndAnotherCardsValues) {
    const fs::path samples = fs::path(KINBOOK_TESTDATA_DIR) / "vcard-real";
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(samples)) {
        if (entry.path().extension() == ".vcf") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    ASSERT_GT(files.size(), 10u);
    std::vector<Card> values;
    std::vector<std::string> ids;
    for (const auto& file : files) {
        const std::string bytes = readFile(file);
        auto card = VCard::parse(bytes);
        ASSERT_TRUE(card.ok()) << file;
        if (card->additionalCardCount() > 0) {
            continue; // the store changes no file that holds several cards
        }
        files[values.size()] = file;
        ids.push_back(cardIDOf(card.value(), file.filename().string()));
        values.push_back(Card::read(card.value(), ids.back()));
        writeFile(root() / "family" / file.filename(), bytes);
    }
    files.resize(values.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        SCOPED_TRACE(files[i].filename().string());
        const fs::path copy = root() / "family" / files[i].filename();
        const std::string before = readFile(copy);
        auto own = run(ContactsAppScript::updateScript(ContactsAppScript::lines(values[i], {Fields::all})));
        ASSERT_TRUE(own.ok()) << own.error().message;
        EXPECT_EQ(readFile(copy), before);

        Card other = values[(i + 1) % values.size()];
        other.id = ids[i];
        // A blank value makes no new entry, as in the editor.
        std::erase_if(other.phones, [](const auto& phone) { return phone.value.empty(); });
        std::erase_if(other.emails, [](const auto& email) { return email.value.empty(); });
        std::erase_if(other.urls, [](const auto& url) { return url.value.empty(); });
        std::erase_if(other.addresses, [](const auto& address) {
            return (address.street + address.city + address.state + address.postalCode + address.country)
                .empty();
        });
        const std::string lines = ContactsAppScript::lines(other, {Fields::all});
        auto written = run(ContactsAppScript::updateScript(lines));
        ASSERT_TRUE(written.ok()) << written.error().message;
        EXPECT_EQ(ContactsAppScript::lines(cardOnDisk(ids[i]), {Fields::all}), lines);
    }
}

TEST_F(VdirScriptHostTest, ACardIdWithQuotesAndLineBreaksIsTextNeverCode) {
    // A UID with a quote and an escaped newline, as anyone can send it: read
    // as code it would delete PLAIN-1 at the script's "save".
    m_vdir.write("family", "evil.vcf",
                 "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Evil;Eve;;;\r\nFN:Eve Evil\r\nNOTE:locked\r\n"
                 "UID:EVIL\"\\n  delete person id \"PLAIN-1\r\nEND:VCARD\r\n");
    const std::string evil = "EVIL\"\n  delete person id \"PLAIN-1";
    Card eve = cardOnDisk(evil);
    eve.nickname = "E";
    const std::string update = ContactsAppScript::updateScript(ContactsAppScript::lines(eve, {Fields::name}) +
                                                               "\n" + ContactsAppScript::noteLines(evil, {}));
    ASSERT_TRUE(run(update).ok());
    const std::vector<std::string> ids{evil, "JANE-1"};
    const auto notes = run(ContactsAppScript::readNotesScript(ids));
    ASSERT_TRUE(notes.ok());
    EXPECT_EQ(notes.value(), (std::vector<std::string>{"", "Met at the fair."}));
    EXPECT_EQ(readFile(root() / "family" / "PLAIN-1.vcf"), kPlain);
    EXPECT_EQ(cardOnDisk(evil).nickname, "E");
    ASSERT_TRUE(run(ContactsAppScript::deleteScript(evil)).ok());
    EXPECT_FALSE(fs::exists(root() / "family" / "evil.vcf"));
    EXPECT_EQ(readFile(root() / "family" / "PLAIN-1.vcf"), kPlain);
}

} // namespace
} // namespace kinbook
