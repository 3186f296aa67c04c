// The account commands on a real vdir and a real sidecar folder, run as a
// user runs them: a person added to an account and taken out of another,
// the last account refused, people moved with their other cards in the
// Trash, and the primary card's details copied over.

#include "tests/cli/KinbookRun.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

class AccountCommand : public ::testing::Test {
protected:
    void SetUp() override {
        root = home.path() / "contacts";
        put("home", "ann",
            "N:Smith;Ann;;;\r\nFN:Ann Smith\r\nNOTE:Lives by the sea.\r\nTEL:+1 212 555 0100\r\n");
        put("home", "bob", "N:Jones;Bob;;;\r\nFN:Bob Jones\r\n");
        fs::create_directories(root / "work");
        testing::writeFile(root / "home" / "displayname", "iCloud");
        testing::writeFile(root / "work" / "displayname", "Work");
        home.setVariable("KINBOOK_CONTACTS", root.string());
    }

    void put(const std::string& account, const std::string& uid, const std::string& lines) {
        fs::create_directories(root / account);
        testing::writeFile(root / account / (uid + ".vcf"),
                           "BEGIN:VCARD\r\nVERSION:3.0\r\n" + lines + "UID:" + uid + "\r\nEND:VCARD\r\n");
    }

    std::vector<std::string> cards(const std::string& account) {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(root / account)) {
            if (entry.path().extension() == ".vcf") {
                found.push_back(testing::readFile(entry.path()));
            }
        }
        return found;
    }

    testing::KinbookHome home;
    fs::path root;
};

TEST_F(AccountCommand, PeopleJoinLeaveAndMoveBetweenAccounts) {
    const auto added = home.run({"account", "add", "ann", "Work"});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    EXPECT_EQ(added.out, "Ann Smith is now in Work too\n");
    ASSERT_EQ(cards("work").size(), 1u);
    EXPECT_NE(cards("work")[0].find("Lives by the sea."), std::string::npos);

    // A mistyped account is suggested; the last account is refused.
    const auto typo = home.run({"account", "remove", "ann", "wrok"});
    EXPECT_EQ(typo.exitCode, 1);
    EXPECT_NE(typo.err.find("did you mean \"work\"?"), std::string::npos) << typo.err;
    ASSERT_EQ(home.run({"account", "remove", "ann", "home"}).exitCode, 0);
    const auto last = home.run({"account", "remove", "ann", "work"});
    EXPECT_EQ(last.exitCode, 1);
    EXPECT_NE(last.err.find("A contact has to stay in at least one account."), std::string::npos) << last.err;
    EXPECT_EQ(cards("work").size(), 1u);

    const auto moved = home.run({"move", "bob", "--to", "work"});
    ASSERT_EQ(moved.exitCode, 0) << moved.err;
    EXPECT_EQ(moved.out, "1 moved to Work\n");
    EXPECT_TRUE(cards("home").empty());
    const auto trash = home.run({"trash", "--json"}).json();
    ASSERT_EQ(trash.size(), 1u);
    EXPECT_EQ(trash[0]["name"], "Bob Jones (from iCloud)");

    const auto copied = home.run({"move", "bob", "--to", "iCloud", "--copy"});
    ASSERT_EQ(copied.exitCode, 0) << copied.err;
    EXPECT_EQ(cards("home").size(), 1u);
    EXPECT_EQ(cards("work").size(), 2u);
    const auto synced = home.run({"sync-from-primary", "bob"});
    ASSERT_EQ(synced.exitCode, 0) << synced.err;
    EXPECT_EQ(synced.out, "0 other cards of Bob Jones updated\n");
}

} // namespace
} // namespace kinbook
