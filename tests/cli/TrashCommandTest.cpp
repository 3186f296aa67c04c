// The Trash commands on a real vdir and a real sidecar folder, run as a user
// runs them: people deleted, listed, brought back by a part of their entry's
// name, deleted for good, and nothing deleted without a sidecar.

#include "tests/cli/KinbookRun.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

// Ann has a card in two accounts, the home one with a note; Bob has one.
class TrashCommand : public ::testing::Test {
protected:
    void SetUp() override {
        root = home.path() / "contacts";
        put("home", "ann-home",
            "N:Smith;Ann;;;\r\nFN:Ann Smith\r\nNOTE:Lives by the sea.\r\nURL:kinbook://c/AAAA0001\r\n");
        put("work", "ann-work", "N:Smith;Ann;;;\r\nFN:Ann Smith\r\nURL:kinbook://c/AAAA0001?p=1\r\n");
        put("home", "bob", "N:Jones;Bob;;;\r\nFN:Bob Jones\r\n");
        home.setVariable("KINBOOK_CONTACTS", root.string());
    }

    void put(const std::string& account, const std::string& uid, const std::string& lines) {
        fs::create_directories(root / account);
        testing::writeFile(root / account / (uid + ".vcf"),
                           "BEGIN:VCARD\r\nVERSION:3.0\r\n" + lines + "UID:" + uid + "\r\nEND:VCARD\r\n");
    }

    std::vector<std::string> names() {
        std::vector<std::string> shown;
        const auto listed = home.run({"list", "--json", "--no-cache"}).json();
        for (const auto& section : listed["sections"]) {
            for (const auto& person : section["people"]) {
                shown.push_back(person["displayName"]);
            }
        }
        return shown;
    }

    std::size_t cardFiles(const std::string& account) {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(root / account)) {
            count += entry.path().extension() == ".vcf" ? 1 : 0;
        }
        return count;
    }

    testing::KinbookHome home;
    fs::path root;
};

TEST_F(TrashCommand, DeletedPeopleWaitInTheTrashAndWithoutOneNothingIsDeleted) {
    const auto deleted = home.run({"delete", "ann-work", "bob"});
    ASSERT_EQ(deleted.exitCode, 0) << deleted.err;
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(cardFiles("home") + cardFiles("work"), 0u);

    const auto trash = home.run({"trash", "--json"});
    ASSERT_EQ(trash.exitCode, 0) << trash.err;
    ASSERT_EQ(trash.json().size(), 2u);
    const auto ann = trash.json()[0]["name"] == "Ann Smith" ? trash.json()[0] : trash.json()[1];
    EXPECT_EQ(ann["accounts"].size(), 2u);
    const std::string id = ann["id"];
    EXPECT_TRUE(id.ends_with(" Ann Smith.kincontact")) << id;
    EXPECT_TRUE(fs::exists(home.data() / "kinbook/Sidecar/Documents/Trash" / id));

    // A part of the entry's name is enough when it names one entry.
    const auto restored = home.run({"restore", "Ann Smith"});
    ASSERT_EQ(restored.exitCode, 0) << restored.err;
    EXPECT_EQ(names(), std::vector<std::string>{"Ann Smith"});
    EXPECT_EQ(cardFiles("home"), 1u);
    EXPECT_EQ(cardFiles("work"), 1u);
    const auto shown = home.run({"show", "Ann", "--json"});
    EXPECT_NE(shown.out.find("Lives by the sea."), std::string::npos) << shown.out;
    EXPECT_EQ(home.run({"trash", "--json"}).json().size(), 1u);
    EXPECT_EQ(home.run({"restore", "no such entry"}).exitCode, 1);

    // Emptying asks; with no one to ask, only --yes empties.
    EXPECT_EQ(home.run({"trash", "--empty"}).exitCode, 1);
    EXPECT_EQ(home.run({"trash", "--json"}).json().size(), 1u);
    ASSERT_EQ(home.run({"trash", "--empty", "--yes"}).exitCode, 0);
    EXPECT_EQ(home.run({"trash"}).out, "Trash Is Empty\n");
    EXPECT_EQ(names(), std::vector<std::string>{"Ann Smith"});

    // Without a sidecar there is no Trash, so nothing is deleted.
    home.setVariable("KINBOOK_SIDECAR", "off");
    const auto refused = home.run({"delete", "ann-home"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("no sidecar folder"), std::string::npos) << refused.err;
    EXPECT_EQ(cardFiles("home"), 1u);
}

} // namespace
} // namespace kinbook
