// Runs the real `kinbook` binary, as a user would, and reads its JSON.

#include "tests/cli/KinbookRun.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook::testing {
namespace {

using nlohmann::json;

class KinbookInspect : public ::testing::Test {
protected:
    KinbookRun inspect(const std::vector<std::string>& arguments) const {
        std::vector<std::string> full = {"inspect"};
        full.insert(full.end(), arguments.begin(), arguments.end());
        return home.run(full);
    }

    json inspectJson(const std::vector<std::string>& arguments) const {
        const KinbookRun run = inspect(arguments);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run.json();
    }

    KinbookHome home;
};

// Each helper's answer, as a JSON value at a place in the document ("" is
// the whole document). What the helpers work out is tested with them; here
// each is asked once, and its answer printed as JSON, nothing as null.
TEST_F(KinbookInspect, HelpersShowWhatIsReadAndHowItIsWrittenBack) {
    const struct {
        std::vector<std::string> arguments;
        const char* at;
        json expected;
    } cases[] = {
        {{"anchor", "KINBOOK://C/ab12cd34?x=5&h=1&r=+3"},
         "",
         json::parse(R"({"id":"AB12CD34","hidden":true,"circle":3,"primary":false,
                         "other":[{"name":"x","value":"5"}],"url":"kinbook://c/AB12CD34?h=1&r=3&x=5"})")},
        {{"anchor", "kinbook://c/AB12CD34?r=7&flag"}, "/other/0/value", nullptr},
        {{"anchor", "https://example.com"}, "", nullptr},
        {{"anchor", "kinbook://c/"}, "", nullptr},
        {{"link", "https://m.facebook.com/jane.doe"}, "", {{"service", "facebook"}, {"handle", "jane.doe"}}},
        {{"link", "https://mastodon.social/@user"}, "", nullptr},
        {{"link", "@jane doe", "--service", "instagram"}, "/handle", "janedoe"},
        {{"link", "@jane doe", "--service", "instagram"}, "/webURL", "https://www.instagram.com/janedoe"},
        {{"link", "@jane doe", "--service", "instagram"}, "/appURL", "instagram://user?username=janedoe"},
        {{"link", "@user@server.example", "--service", "Mastodon"},
         "/webURL",
         "https://server.example/@user"},
        {{"fold", "Émile Straße Søren"}, "/folded", "emile strasse soren"},
        {{"label", "Ex-Work"}, "", {{"isFormer", true}, {"former", "Ex-Work"}, {"current", "_$!<Work>!$_"}}},
        {{"phone", "+1 (310) 555-0104"}, "/looksLikePhone", true},
        {{"phone", "+1 (310) 555-0104"}, "/phoneForLink", "+13105550104"},
        {{"areacode", "(212) 555-0100"},
         "",
         {{"code", "212"}, {"label", "212 \u00B7 New York \u00B7 Northeast"}}},
        {{"areacode", "555-0100"}, "", {{"code", nullptr}, {"label", nullptr}}},
        {{"address", "295 park avenue south Apt 8J , manhattan, NY"},
         "",
         {{"street", "295 Park Avenue South\nApt 8J"},
          {"city", "Manhattan"},
          {"state", "NY"},
          {"postalCode", ""},
          {"country", ""}}},
        {{"address", "12 Main Street"}, "", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments.front() + " " + c.arguments[1] + " " + c.at);
        const json answer = inspectJson(c.arguments);
        ASSERT_FALSE(answer.is_discarded());
        const json::json_pointer at(c.at);
        EXPECT_EQ(answer.contains(at) ? answer.at(at) : json("(missing)"), c.expected) << answer;
    }
}

TEST_F(KinbookInspect, UnusableArgumentsExitNonZeroWithAMessage) {
    const struct {
        std::vector<std::string> arguments;
        const char* message;
    } cases[] = {
        {{"inspect"}, "subcommand"},
        {{"inspect", "anchor"}, "URL"},
        {{"inspect", "link", "jane", "--service", "myspace"}, "unknown service \"myspace\""},
        {{"inspect", "nonsense"}, "subcommand"},
    };
    for (const auto& c : cases) {
        const KinbookRun run = home.run(c.arguments);
        EXPECT_EQ(run.exitCode, 2) << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    }
    const KinbookRun version = home.run({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out.rfind("kinbook ", 0), 0u) << version.out;
}

TEST_F(KinbookInspect, CardShowsThePageCardThePersonAndTheWarnings) {
    const std::string samples = std::string(KINBOOK_TESTDATA_DIR) + "/vcard-real/";
    const auto apple = inspectJson({"card", samples + "apple-labels-via-sabredav--AllAttr.vcf"});
    EXPECT_EQ(apple["card"]["id"], "sabre-vobject-005e805f-0bc1-4333-8be2-97889fb45b7a");
    EXPECT_EQ(apple["card"]["givenName"], "Albert");
    EXPECT_EQ(apple["card"]["phones"][1]["label"], "iPhone");
    EXPECT_EQ(apple["card"]["phones"][1]["value"], "234");
    EXPECT_TRUE(apple["card"]["phones"][1]["id"].is_string());
    EXPECT_TRUE(apple["card"]["kinID"].is_null());
    EXPECT_TRUE(apple["card"]["image"].is_null());
    EXPECT_EQ(apple["person"]["familyName"], "Wesker");
    EXPECT_EQ(apple["person"]["accountIDs"], nlohmann::json::parse(R"(["vcard-real"])"));
    EXPECT_EQ(apple["isGroup"], false);
    EXPECT_TRUE(apple["warnings"].is_array());

    const auto outlook = inspectJson({"card", samples + "outlook--John_Doe_MS_OUTLOOK.vcf"});
    EXPECT_GT(outlook["card"]["image"].get<int>(), 0);
    EXPECT_TRUE(outlook["card"]["birthday"].is_string());
    EXPECT_EQ(outlook["person"]["hasImage"], true);

    for (const std::string& bad : {samples + "README.md", samples + "no-such-card.vcf"}) {
        const KinbookRun run = inspect({"card", bad});
        EXPECT_EQ(run.exitCode, 1) << run.err;
        EXPECT_NE(run.err.find(bad), std::string::npos) << run.err;
    }
}

TEST_F(KinbookInspect, ScriptShowsWhatTheContactsAppWouldBeAsked) {
    const auto card = home.path() / "nora.vcf";
    writeFile(card, "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora \"N\";;;\r\n"
                    "FN:Nora Noted\r\nTEL;type=CELL:+1 212 555 0100\r\n"
                    "NOTE:private\r\nUID:NORA-1\r\nEND:VCARD\r\n");
    const KinbookRun all = inspect({"script", card.string()});
    ASSERT_EQ(all.exitCode, 0) << all.err;
    EXPECT_EQ(all.out.rfind("with timeout of 30 seconds\ntell application \"Contacts\"\n"
                            "  set p to person id \"NORA-1\"\n  set title of p to missing value\n"
                            "  set first name of p to \"Nora \\\"N\\\"\"\n",
                            0),
              0u)
        << all.out;
    EXPECT_NE(all.out.find("  make new phone at end of phones of p with properties {label:\"mobile\", "
                           "value:\"+1 212 555 0100\"}\n"),
              std::string::npos);
    EXPECT_NE(all.out.find("set birth date of p to missing value\n  save\nend tell\nend timeout\n"),
              std::string::npos);
    EXPECT_EQ(all.out.find("private"), std::string::npos); // the note is never part of an update

    const KinbookRun phones = inspect({"script", card.string(), "--fields", "2"});
    ASSERT_EQ(phones.exitCode, 0) << phones.out;
    EXPECT_EQ(phones.out.find("first name"), std::string::npos);
    EXPECT_NE(phones.out.find("  delete every phone of p\n"), std::string::npos);

    EXPECT_EQ(inspect({"script", "--delete", "NORA-1"}).out,
              "with timeout of 30 seconds\ntell application \"Contacts\"\n  delete person id \"NORA-1\"\n"
              "  save\nend tell\nend timeout\n");
    const KinbookRun notes = inspect({"script", "--read-notes", "A-1", "B-2"});
    ASSERT_EQ(notes.exitCode, 0) << notes.out;
    EXPECT_NE(notes.out.find("    set n to note of person id \"A-1\"\n"), std::string::npos);
    EXPECT_NE(notes.out.find("    set n to note of person id \"B-2\"\n"), std::string::npos);

    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"inspect", "script"},
             {"inspect", "script", card.string(), "--fields", "128"},
             {"inspect", "script", card.string(), "--delete", "NORA-1"},
             {"inspect", "script", "--delete", "NORA-1", "--fields", "1"},
         }) {
        EXPECT_EQ(home.run(arguments).exitCode, 2) << arguments.back();
    }
}

} // namespace
} // namespace kinbook::testing
