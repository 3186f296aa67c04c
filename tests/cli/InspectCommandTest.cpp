// Runs the real `kinbook` binary, as a user would, and reads its JSON.

#include "tests/support/TempFolder.h"

#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct ProcessRun {
    int exitCode = -1;
    std::string output;
};

std::string shellQuote(const std::string& argument) {
    std::string quoted = "'";
    for (char c : argument) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

ProcessRun kinbook(const std::vector<std::string>& arguments) {
    std::string command = KINBOOK_CLI_PATH;
    for (const auto& argument : arguments) {
        command += " " + shellQuote(argument);
    }
    command += " 2>&1";
    ProcessRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    std::array<char, 4096> buffer{};
    while (const std::size_t got = fread(buffer.data(), 1, buffer.size(), pipe)) {
        run.output.append(buffer.data(), got);
    }
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

nlohmann::json inspectJson(const std::vector<std::string>& arguments) {
    std::vector<std::string> full = {"inspect"};
    full.insert(full.end(), arguments.begin(), arguments.end());
    const ProcessRun run = kinbook(full);
    EXPECT_EQ(run.exitCode, 0) << run.output;
    return nlohmann::json::parse(run.output, nullptr, false);
}

TEST(KinbookInspect, AnchorShowsWhatIsReadAndHowItIsWrittenBack) {
    const auto anchor = inspectJson({"anchor", "KINBOOK://C/ab12cd34?x=5&h=1&r=+3"});
    EXPECT_EQ(anchor["id"], "AB12CD34");
    EXPECT_EQ(anchor["hidden"], true);
    EXPECT_EQ(anchor["circle"], 3);
    EXPECT_EQ(anchor["primary"], false);
    EXPECT_EQ(anchor["other"], nlohmann::json::parse(R"([{"name":"x","value":"5"}])"));
    EXPECT_EQ(anchor["url"], "kinbook://c/AB12CD34?h=1&r=3&x=5");

    const auto noCircle = inspectJson({"anchor", "kinbook://c/AB12CD34?r=7&flag"});
    EXPECT_TRUE(noCircle["circle"].is_null());
    EXPECT_TRUE(noCircle["other"][0]["value"].is_null());
    EXPECT_TRUE(inspectJson({"anchor", "https://example.com"}).is_null());
    EXPECT_TRUE(inspectJson({"anchor", "kinbook://c/"}).is_null());
}

TEST(KinbookInspect, LinkRecognisesAddressesAndCleansHandles) {
    EXPECT_EQ(inspectJson({"link", "https://m.facebook.com/jane.doe"}),
              nlohmann::json::parse(R"({"service":"facebook","handle":"jane.doe"})"));
    EXPECT_TRUE(inspectJson({"link", "https://mastodon.social/@user"}).is_null());
    const auto handle = inspectJson({"link", "@jane doe", "--service", "instagram"});
    EXPECT_EQ(handle["handle"], "janedoe");
    EXPECT_EQ(handle["webURL"], "https://www.instagram.com/janedoe");
    EXPECT_EQ(handle["appURL"], "instagram://user?username=janedoe");
    const auto mastodon = inspectJson({"link", "@user@server.example", "--service", "Mastodon"});
    EXPECT_EQ(mastodon["webURL"], "https://server.example/@user");
    EXPECT_TRUE(mastodon["appURL"].is_null());
    EXPECT_EQ(inspectJson({"link", "jack", "--service", "twitter"})["service"], "x");
}

TEST(KinbookInspect, FoldLabelAndPhone) {
    EXPECT_EQ(inspectJson({"fold", "Émile Straße Søren"})["folded"], "emile strasse soren");
    const auto label = inspectJson({"label", "Ex-Work"});
    EXPECT_EQ(label["isFormer"], true);
    EXPECT_EQ(label["former"], "Ex-Work");
    EXPECT_EQ(label["current"], "_$!<Work>!$_");
    EXPECT_EQ(inspectJson({"label", ""})["former"], "ex-other");
    const auto phone = inspectJson({"phone", "+1 (310) 555-0104"});
    EXPECT_EQ(phone["looksLikePhone"], true);
    EXPECT_EQ(phone["phoneForLink"], "+13105550104");
    EXPECT_TRUE(inspectJson({"phone", "12345"})["phoneForLink"].is_null());
}

TEST(KinbookInspect, AreaCodeAndAddress) {
    EXPECT_EQ(inspectJson({"areacode", "(212) 555-0100"}),
              nlohmann::json::parse(R"({"code":"212","label":"212 \u00b7 New York \u00b7 Northeast"})"));
    EXPECT_EQ(inspectJson({"areacode", "0044 20 7946 0000"})["label"], "+44 \u00B7 United Kingdom");
    EXPECT_EQ(inspectJson({"areacode", "555-0100"}), nlohmann::json::parse(R"({"code":null,"label":null})"));
    const auto address = inspectJson({"address", "295 park avenue south Apt 8J , manhattan, NY"});
    EXPECT_EQ(address["street"], "295 Park Avenue South\nApt 8J");
    EXPECT_EQ(address["city"], "Manhattan");
    EXPECT_EQ(address["state"], "NY");
    EXPECT_TRUE(inspectJson({"address", "12 Main Street"}).is_null());
}

TEST(KinbookInspect, UnusableArgumentsExitNonZeroWithAMessage) {
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
        const ProcessRun run = kinbook(c.arguments);
        EXPECT_EQ(run.exitCode, 2) << run.output;
        EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
    }
    const ProcessRun version = kinbook({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output.rfind("kinbook ", 0), 0u) << version.output;
}

TEST(KinbookInspect, CardShowsThePageCardThePersonAndTheWarnings) {
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
        const ProcessRun run = kinbook({"inspect", "card", bad});
        EXPECT_EQ(run.exitCode, 1) << run.output;
        EXPECT_NE(run.output.find(bad), std::string::npos) << run.output;
    }
}

TEST(KinbookInspect, ScriptShowsWhatTheContactsAppWouldBeAsked) {
    kinbook::testing::TempFolder folder;
    const auto card = folder / "nora.vcf";
    kinbook::testing::writeFile(card, "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora \"N\";;;\r\n"
                                      "FN:Nora Noted\r\nTEL;type=CELL:+1 212 555 0100\r\n"
                                      "NOTE:private\r\nUID:NORA-1\r\nEND:VCARD\r\n");
    const ProcessRun all = kinbook({"inspect", "script", card.string()});
    ASSERT_EQ(all.exitCode, 0) << all.output;
    EXPECT_EQ(all.output.rfind("with timeout of 30 seconds\ntell application \"Contacts\"\n"
                               "  set p to person id \"NORA-1\"\n  set title of p to missing value\n"
                               "  set first name of p to \"Nora \\\"N\\\"\"\n",
                               0),
              0u)
        << all.output;
    EXPECT_NE(all.output.find("  make new phone at end of phones of p with properties {label:\"mobile\", "
                              "value:\"+1 212 555 0100\"}\n"),
              std::string::npos);
    EXPECT_NE(all.output.find("set birth date of p to missing value\n  save\nend tell\nend timeout\n"),
              std::string::npos);
    EXPECT_EQ(all.output.find("private"), std::string::npos); // the note is never part of an update

    const ProcessRun phones = kinbook({"inspect", "script", card.string(), "--fields", "2"});
    ASSERT_EQ(phones.exitCode, 0) << phones.output;
    EXPECT_EQ(phones.output.find("first name"), std::string::npos);
    EXPECT_NE(phones.output.find("  delete every phone of p\n"), std::string::npos);

    EXPECT_EQ(kinbook({"inspect", "script", "--delete", "NORA-1"}).output,
              "with timeout of 30 seconds\ntell application \"Contacts\"\n  delete person id \"NORA-1\"\n"
              "  save\nend tell\nend timeout\n");
    const ProcessRun notes = kinbook({"inspect", "script", "--read-notes", "A-1", "B-2"});
    ASSERT_EQ(notes.exitCode, 0) << notes.output;
    EXPECT_NE(notes.output.find("    set n to note of person id \"A-1\"\n"), std::string::npos);
    EXPECT_NE(notes.output.find("    set n to note of person id \"B-2\"\n"), std::string::npos);

    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"inspect", "script"},
             {"inspect", "script", card.string(), "--fields", "128"},
             {"inspect", "script", card.string(), "--delete", "NORA-1"},
             {"inspect", "script", "--delete", "NORA-1", "--fields", "1"},
         }) {
        EXPECT_EQ(kinbook(arguments).exitCode, 2) << arguments.back();
    }
}

} // namespace
