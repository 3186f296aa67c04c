// kinbook new and edit on a real vdir, with $EDITOR a small shell script that
// edits the template the way a person would (sed), and --set for scripts.

#include "tests/cli/KinbookRun.h"
#include "tests/support/Files.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

class EditCommand : public ::testing::Test {
protected:
    void SetUp() override {
        root = home.path() / "contacts";
        fs::create_directories(root / "home");
        card = root / "home" / "ann.vcf";
        testing::writeFile(card,
                           "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Smith;Ann;;;\r\nFN:Ann Smith\r\nORG:Acme\r\n"
                           "TEL;TYPE=CELL:+1 555 0100\r\nTEL;TYPE=WORK:+1 555 0111\r\n"
                           "EMAIL;TYPE=WORK:ann@acme.example\r\n"
                           "ADR;TYPE=HOME:;;12 Main St;Springfield;IL;62701;USA\r\n"
                           "URL:kinbook://c/AAAA0001\r\nUID:ann\r\nEND:VCARD\r\n");
        home.setVariable("KINBOOK_CONTACTS", root.string());
    }

    // An editor: a shell script run on the template file ("$1").
    void useEditor(const std::string& script) {
        const fs::path file = home.path() / ("editor" + std::to_string(++editors) + ".sh");
        testing::writeFile(file, "#!/bin/sh\nset -e\n" + script + "\n");
        ::chmod(file.c_str(), 0755);
        home.setVariable("EDITOR", file.string());
    }

    nlohmann::json shownCard() {
        const auto shown = home.run({"show", "ann", "--json", "--no-cache"});
        EXPECT_EQ(shown.exitCode, 0) << shown.err;
        return shown.json()["cards"][0];
    }

    static std::string idOf(const nlohmann::json& entries, const std::string& value) {
        for (const auto& entry : entries) {
            if (entry["value"] == value) {
                return entry["id"];
            }
        }
        return "(none with " + value + ")";
    }

    testing::KinbookHome home;
    fs::path root;
    fs::path card;
    int editors = 0;
};

TEST_F(EditCommand, AnUnchangedEmptiedOrAbandonedTemplateSavesNothing) {
    const std::string before = testing::readFile(card);
    useEditor("cp \"$1\" " + (home.path() / "seen.txt").string());
    auto run = home.run({"edit", "ann"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "No changes: nothing saved.\n");
    const std::string seen = testing::readFile(home.path() / "seen.txt");
    EXPECT_NE(seen.find("\nphone mobile: +1 555 0100 [1]\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("\naddress home: 12 Main St | Springfield | IL | 62701 | USA [4]\n"),
              std::string::npos);
    EXPECT_EQ(seen.find("kinbook://"), std::string::npos) << "the anchor is kept out of the user's way";

    // The editor command is split like shell words, and never run by a shell.
    home.setVariable("EDITOR", "sh -c ': > \"$1\"' editor");
    run = home.run({"edit", "ann"});
    EXPECT_EQ(run.out, "The file was emptied: nothing saved.\n") << run.err;

    useEditor("exit 3");
    run = home.run({"edit", "ann"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("did not end well (status 3)"), std::string::npos) << run.err;
    EXPECT_EQ(testing::readFile(card), before);
}

TEST_F(EditCommand, EveryFieldKindEditedOnceKeepsTheEntriesItDidNotReplace) {
    const auto before = shownCard();
    useEditor("sed -i -e 's/^title:.*/title: Engineer/' -e 's/^nickname:.*/nickname: Annie/'"
              " -e 's/^phone mobile: +1 555 0100/phone ex-mobile: +1 555 0199/'"
              " -e '/^phone work:/{h;d}' -e '/^email work:/d' -e 's/| Springfield |/| Shelbyville |/'"
              " -e 's/^birthday:.*/birthday: --02-29/' -e '$G' \"$1\"\n" // the work phone moves to the end
              "printf 'url homepage: https://ann.example\\nlink instagram: @annsmith\\n' >> \"$1\"");
    const auto run = home.run({"edit", "ann"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "Saved Ann Smith\n");

    const auto after = shownCard();
    EXPECT_EQ(after["jobTitle"], "Engineer");
    EXPECT_EQ(after["nickname"], "Annie");
    EXPECT_EQ(after["kinID"], "AAAA0001");
    EXPECT_EQ(idOf(after["phones"], "+1 555 0199"), idOf(before["phones"], "+1 555 0100"))
        << "a changed number is the same entry";
    EXPECT_EQ(idOf(after["phones"], "+1 555 0111"), idOf(before["phones"], "+1 555 0111"))
        << "a moved line keeps its entry";
    EXPECT_TRUE(after["emails"].empty());
    EXPECT_EQ(after["addresses"][0]["id"], before["addresses"][0]["id"]);
    EXPECT_EQ(after["addressParts"][0]["city"], "Shelbyville");
    EXPECT_EQ(after["addressParts"][0]["street"], "12 Main St");
    EXPECT_EQ(after["links"][0]["handle"], "annsmith");
    EXPECT_EQ(after["urls"].size(), 1u);

    const std::string saved = testing::readFile(card);
    EXPECT_NE(saved.find("X-ABLabel:ex-mobile"), std::string::npos) << saved;
    EXPECT_NE(saved.find("BDAY"), std::string::npos) << saved;
    // The moved phone is saved in its new place, after the former one.
    EXPECT_LT(saved.find("+1 555 0199"), saved.find("+1 555 0111")) << saved;
}

TEST_F(EditCommand, AMistakeReopensTheEditorWithTheErrorAbove) {
    const fs::path seen = home.path() / "second-round.txt";
    useEditor("if grep -q '^# kinbook: line' \"$1\"; then\n"
              "  cp \"$1\" " +
              seen.string() +
              "\n"
              "  sed -i -e 's/^phne/phone/' \"$1\"\n"
              "else\n"
              "  echo 'phne: 555 0222' >> \"$1\"\n"
              "fi");
    const auto run = home.run({"edit", "ann"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string second = testing::readFile(seen);
    ASSERT_EQ(second.rfind("# kinbook: line ", 0), 0u) << second;
    // The line named is the line of the mistake in the file as re-opened.
    const std::size_t named = std::stoul(second.substr(16));
    std::size_t line = 1;
    for (std::size_t at = 0; at < second.find("phne:"); ++at) {
        line += second[at] == '\n' ? 1 : 0;
    }
    EXPECT_EQ(named, line);
    EXPECT_NE(second.find("unknown field \"phne\""), std::string::npos);
    EXPECT_EQ(shownCard()["phones"].size(), 3u);
}

TEST_F(EditCommand, ACardChangedWhileTheEditorWasOpenIsNotOverwritten) {
    // The "sync" rewrites the card's work phone while the user edits the title.
    useEditor("sed -i -e 's/+1 555 0111/+1 555 0777/' " + card.string() +
              "\nsed -i -e 's/^title:.*/title: Engineer/' \"$1\"");
    const auto run = home.run({"edit", "ann"});
    EXPECT_EQ(run.exitCode, 1);
    const std::string synced = testing::readFile(card);
    EXPECT_NE(synced.find("+1 555 0777"), std::string::npos);
    EXPECT_EQ(synced.find("Engineer"), std::string::npos) << synced;
    // The user's text is kept where the message says.
    const auto at = run.err.find("your text is in ");
    ASSERT_NE(at, std::string::npos) << run.err;
    const fs::path kept = run.err.substr(at + 16, run.err.find('\n', at) - at - 16);
    EXPECT_NE(testing::readFile(kept).find("\ntitle: Engineer\n"), std::string::npos);
    fs::remove(kept);
}

TEST_F(EditCommand, SetAndNewForScripts) {
    auto run = home.run({"edit", "ann", "--set", "company=Initech", "--set", "phone work=555 0300", "--set",
                         "address=10 Downing Street, London SW1A 2AA, United Kingdom"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto shown = shownCard();
    EXPECT_EQ(shown["organization"], "Initech");
    EXPECT_EQ(shown["phones"].size(), 3u);
    EXPECT_EQ(shown["addressParts"][1]["city"], "London");

    run = home.run({"edit", "ann", "--set", "birthday=1987-02-30"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("is no date"), std::string::npos) << run.err;

    useEditor("sed -i -e 's/^given:.*/given: Bob/' -e 's/^family:.*/family: Jones/' \"$1\"\n"
              "echo 'email home: bob@example.com' >> \"$1\"");
    run = home.run({"new", "--account", "home"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.rfind("Added Bob Jones (", 0), 0u) << run.out;
    const auto bob = home.run({"show", "Bob", "--json", "--no-cache"}).json();
    EXPECT_EQ(bob["cards"][0]["emails"][0]["value"], "bob@example.com");

    useEditor("true");
    run = home.run({"new"});
    EXPECT_EQ(run.out, "No changes: nothing saved.\n") << run.err;
}

} // namespace
} // namespace kinbook
