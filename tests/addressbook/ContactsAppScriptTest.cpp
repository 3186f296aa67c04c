#include "KinbookKit/addressbook/ContactsAppScript.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kinbook {
namespace {

using Fields = ContactsAppScript::Fields;

ContactsAppScript::Card janeCard() {
    ContactsAppScript::Card card;
    card.id = "ABC-1";
    card.title = "Dr.";
    card.firstName = "Jane";
    card.lastName = "Appleseed";
    // A backslash and quotes: doubled first, then escaped.
    card.nickname = R"(Jay "the \ one")";
    card.organization = "Acme";
    card.jobTitle = "Engineer";
    card.phones = {{"_$!<Mobile>!$_", "+1 212 555 0100"}, {"", "555 0101"}};
    card.emails = {{"_$!<Work>!$_", "jane@acme.test"}};
    card.urls = {{"Vellumary Contacts", "kinbook://c/AB12CD34"}, {"", "https://jane.example"}};
    card.addresses = {{"_$!<Home>!$_", "1 Main St\nApt 2", "Springfield", "IL", "62701", "USA"}};
    card.socialProfiles = {{"twitter", "jane", "https://x.com/jane"}};
    card.birthday = DateComponents{1, 31, 1987};
    return card;
}

TEST(ContactsAppScript, UpdateScriptWritesEveryGroupInOrder) {
    const std::string expected = R"script(with timeout of 30 seconds
tell application "Contacts"
  set p to person id "ABC-1"
  set title of p to "Dr."
  set first name of p to "Jane"
  set middle name of p to missing value
  set last name of p to "Appleseed"
  set suffix of p to missing value
  set nickname of p to "Jay \"the \\ one\""
  set organization of p to "Acme"
  set department of p to missing value
  set job title of p to "Engineer"
  delete every phone of p
  make new phone at end of phones of p with properties {label:"mobile", value:"+1 212 555 0100"}
  make new phone at end of phones of p with properties {label:"other", value:"555 0101"}
  delete every email of p
  make new email at end of emails of p with properties {label:"work", value:"jane@acme.test"}
  delete every url of p
  make new url at end of urls of p with properties {label:"Vellumary Contacts", value:"kinbook://c/AB12CD34"}
  make new url at end of urls of p with properties {label:"other", value:"https://jane.example"}
  delete every address of p
  make new address at end of addresses of p with properties {label:"home", street:"1 Main St
Apt 2", city:"Springfield", state:"IL", zip:"62701", country:"USA"}
  set n to count social profiles of p
  if n > 0 then
set service name of social profile 1 of p to "twitter"
set user name of social profile 1 of p to "jane"
set url of social profile 1 of p to "https://x.com/jane"
  else
make new social profile at end of social profiles of p with properties {service name:"twitter", user name:"jane", url:"https://x.com/jane"}
  end if
repeat with i from 2 to n
set user name of social profile i of p to ""
set url of social profile i of p to ""
  end repeat
set bd to current date
set day of bd to 1
set year of bd to 1987
set month of bd to 1
set day of bd to 31
set time of bd to 43200
set birth date of p to bd
  save
end tell
end timeout)script";
    EXPECT_EQ(ContactsAppScript::updateScript(ContactsAppScript::lines(janeCard(), {Fields::all})), expected);
}

TEST(ContactsAppScript, ChosenGroupsOnly) {
    const auto card = janeCard();
    EXPECT_EQ(ContactsAppScript::lines(card, {0}), "  set p to person id \"ABC-1\"");
    const std::string phonesAndBirthday = ContactsAppScript::lines(card, {Fields::phones | Fields::birthday});
    EXPECT_EQ(phonesAndBirthday, "  set p to person id \"ABC-1\"\n"
                                 "  delete every phone of p\n"
                                 "  make new phone at end of phones of p with properties {label:\"mobile\", "
                                 "value:\"+1 212 555 0100\"}\n"
                                 "  make new phone at end of phones of p with properties {label:\"other\", "
                                 "value:\"555 0101\"}\n"
                                 "set bd to current date\n"
                                 "set day of bd to 1\n"
                                 "set year of bd to 1987\n"
                                 "set month of bd to 1\n"
                                 "set day of bd to 31\n"
                                 "set time of bd to 43200\n"
                                 "set birth date of p to bd");

    // No year: Apple's stand-in year. No birthday: cleared.
    auto yearless = card;
    yearless.birthday = DateComponents{2, 29, std::nullopt};
    EXPECT_NE(ContactsAppScript::lines(yearless, {Fields::birthday}).find("set year of bd to 1604\n"),
              std::string::npos);
    yearless.birthday.reset();
    EXPECT_EQ(ContactsAppScript::lines(yearless, {Fields::birthday}),
              "  set p to person id \"ABC-1\"\nset birth date of p to missing value");
}

TEST(ContactsAppScript, SocialProfilesAreOverwrittenInPlaceAndTheRestEmptied) {
    auto card = janeCard();
    card.socialProfiles = {{"twitter", "jane", "https://x.com/jane"},
                           {"github", "jane-a", "https://github.com/jane-a"},
                           {"Mastodon", "jane@social.test", ""}};
    const std::string lines = ContactsAppScript::lines(card, {Fields::socialProfiles});
    const std::string third =
        "  if n > 2 then\n"
        "set service name of social profile 3 of p to \"Mastodon\"\n"
        "set user name of social profile 3 of p to \"jane@social.test\"\n"
        "set url of social profile 3 of p to \"\"\n"
        "  else\n"
        "make new social profile at end of social profiles of p with properties {service "
        "name:\"Mastodon\", user name:\"jane@social.test\", url:\"\"}\n"
        "  end if\n"
        "repeat with i from 4 to n\n"
        "set user name of social profile i of p to \"\"\n"
        "set url of social profile i of p to \"\"\n"
        "  end repeat";
    ASSERT_GE(lines.size(), third.size());
    EXPECT_EQ(lines.substr(lines.size() - third.size()), third);
    EXPECT_NE(lines.find("  if n > 1 then\nset service name of social profile 2 of p to \"github\"\n"),
              std::string::npos);

    card.socialProfiles.clear();
    EXPECT_EQ(ContactsAppScript::lines(card, {Fields::socialProfiles}),
              "  set p to person id \"ABC-1\"\n"
              "  set n to count social profiles of p\n"
              "repeat with i from 1 to n\n"
              "set user name of social profile i of p to \"\"\n"
              "set url of social profile i of p to \"\"\n"
              "  end repeat");
}

TEST(ContactsAppScript, NoteDeleteAndNoteReadingScripts) {
    EXPECT_EQ(ContactsAppScript::noteLines("ABC-1", std::string("Call \"back\"\nC:\\notes")),
              "  set p to person id \"ABC-1\"\n  set note of p to \"Call \\\"back\\\"\nC:\\\\notes\"");
    EXPECT_EQ(ContactsAppScript::noteLines("ABC-1", std::nullopt),
              "  set p to person id \"ABC-1\"\n  set note of p to missing value");

    EXPECT_EQ(ContactsAppScript::deleteScript("ABC-1"), "with timeout of 30 seconds\n"
                                                        "tell application \"Contacts\"\n"
                                                        "  delete person id \"ABC-1\"\n"
                                                        "  save\n"
                                                        "end tell\n"
                                                        "end timeout");

    const std::vector<std::string> ids{"A", "B"};
    std::string expected = "with timeout of 10 seconds\ntell application \"Contacts\"\n  set out to {}\n";
    for (const char* id : {"A", "B"}) {
        expected += std::string("  try\n    set n to note of person id \"") + id +
                    "\"\n"
                    "    if n is missing value then set n to \"\"\n"
                    "  on error\n"
                    "    set n to \"\"\n"
                    "  end try\n"
                    "  set end of out to n\n";
    }
    expected += "end tell\nend timeout";
    EXPECT_EQ(ContactsAppScript::readNotesScript(ids), expected);
}

TEST(ContactsAppScript, QuotingAndLabels) {
    EXPECT_EQ(ContactsAppScript::quote(""), "\"\"");
    EXPECT_EQ(ContactsAppScript::quote(R"(\")"), R"("\\\"")");
    EXPECT_EQ(ContactsAppScript::quote("Zoë 東京"), "\"Zoë 東京\"");
    EXPECT_EQ(ContactsAppScript::labelText(""), "other");
    EXPECT_EQ(ContactsAppScript::labelText("_$!<HomeFAX>!$_"), "home fax");
    EXPECT_EQ(ContactsAppScript::labelText("ex-work"), "ex-work");
}

// A host that answers as it is told and counts how many scripts run at once.
class FakeHost : public ScriptHost {
public:
    AutomationPermission permission = AutomationPermission::granted;
    Result<std::vector<std::string>, ScriptError> answer = std::vector<std::string>{};
    std::vector<std::string> scripts;
    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};

    AutomationPermission automationPermission() override { return permission; }
    Result<std::vector<std::string>, ScriptError> run(std::string_view source) override {
        const int now = ++running;
        mostAtOnce = std::max(mostAtOnce.load(), now);
        for (int i = 0; i < 100; ++i) {
            std::this_thread::yield(); // give another caller the chance to overlap
        }
        scripts.emplace_back(source);
        --running;
        return answer;
    }
};

TEST(ContactsAppScript, RunningMapsTheHostsAnswersToFailures) {
    auto host = std::make_shared<FakeHost>();
    ContactsAppScript script(host);

    host->permission = AutomationPermission::notPermitted;
    auto refused = script.deleteCard("A");
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().message, ContactsAppScript::notPermittedMessage);
    EXPECT_EQ(
        refused.error().description(),
        "Contacts couldn't make the change: Vellumary Contacts isn't allowed to control Contacts. Turn it on "
        "in System Settings ▸ Privacy & Security ▸ Automation.");
    EXPECT_TRUE(host->scripts.empty()); // nothing is sent without permission

    host->permission = AutomationPermission::granted;
    host->answer = failure(ScriptError{ScriptError::Kind::compile, "syntax error at line 3"});
    EXPECT_EQ(script.update("  set p to person id \"A\"").error().message, "the script didn't compile");
    EXPECT_EQ(host->scripts.back(),
              "with timeout of 30 seconds\ntell application \"Contacts\"\n  set p to person id "
              "\"A\"\n  save\nend tell\nend timeout");

    host->answer = failure(ScriptError{ScriptError::Kind::runtime, "Can't get person id \"A\"."});
    EXPECT_EQ(script.deleteCard("A").error().message, "Can't get person id \"A\".");

    // One text per card, whatever the host answered.
    host->answer = std::vector<std::string>{"first"};
    const std::vector<std::string> ids{"A", "B"};
    EXPECT_EQ(script.readNotes(ids).value(), (std::vector<std::string>{"first", ""}));
}

TEST(ContactsAppScript, ScriptsRunOneAtATime) {
    auto host = std::make_shared<FakeHost>();
    {
        ContactsAppScript script(host);
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i) {
            callers.emplace_back([&script, i] {
                for (int j = 0; j < 5; ++j) {
                    EXPECT_TRUE(script.deleteCard(std::to_string(i)).ok());
                }
            });
        }
        for (auto& caller : callers) {
            caller.join();
        }
    }
    EXPECT_EQ(host->scripts.size(), 20u);
    EXPECT_EQ(host->mostAtOnce.load(), 1);
}

} // namespace
} // namespace kinbook
