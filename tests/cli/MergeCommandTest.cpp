// The duplicates, merge and not-duplicates commands on a real vdir, run as a
// user runs them.

#include "tests/cli/KinbookRun.h"
#include "tests/support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::readFile;
using testing::writeFile;

std::string card(const std::string& uid, const std::string& given, const std::string& lines) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:" + uid + "\r\nFN:" + given + " Lee\r\nN:Lee;" + given +
           ";;;\r\n" + lines + "END:VCARD\r\n";
}

class MergeCommand : public ::testing::Test {
protected:
    void SetUp() override {
        m_home.setVariable("KINBOOK_CONTACTS", contacts().string());
        fs::create_directories(contacts() / "icloud");
        fs::create_directories(contacts() / "gmail");
        writeFile(
            contacts() / "icloud" / "A.vcf",
            card("A", "Ann", "TEL;TYPE=CELL:+1 415 555 0100\r\nNOTE:Riley's mom\r\nX-KEEP:as it was\r\n"));
        writeFile(contacts() / "icloud" / "B.vcf",
                  card("B", "Ann", "TEL:415.555.0100\r\nEMAIL:ANN@home.org \r\nNOTE:Scout troop\r\n"));
        writeFile(contacts() / "gmail" / "C.vcf",
                  card("C", "Annie", "EMAIL:ann@home.org\r\nTEL:212 555 0199\r\n"));
        writeFile(contacts() / "gmail" / "D.vcf", card("D", "Bo", "TEL:555 0100\r\n"));
    }
    fs::path contacts() const { return m_home.path() / "contacts"; }

    testing::KinbookHome m_home;
};

TEST_F(MergeCommand, FindsTheGroupPlansAndMergesKeepingOneCardPerAccount) {
    const auto found = m_home.run({"duplicates", "--json", "--no-cache"});
    ASSERT_EQ(found.exitCode, 0) << found.err;
    ASSERT_EQ(found.json().size(), 1U) << found.out;
    EXPECT_EQ(found.json()[0]["id"], "A+B+C");
    EXPECT_EQ(found.json()[0]["reasons"], (nlohmann::json{"same email", "same phone", "same name"}));
    EXPECT_EQ(found.json()[0]["people"][2]["givenName"], "Annie");

    const auto planned =
        m_home.run({"merge", "C", "A", "B", "--primary", "A", "--dry-run", "--json", "--no-cache"});
    ASSERT_EQ(planned.exitCode, 0) << planned.err;
    const auto plan = planned.json();
    EXPECT_EQ(plan["kept"][0]["id"], "A");
    EXPECT_EQ(plan["kept"][1]["id"], "C");
    EXPECT_EQ(plan["removed"][0]["id"], "B");
    EXPECT_EQ(plan["result"]["givenName"], "Ann");
    EXPECT_EQ(plan["result"]["phones"].size(), 2U);
    EXPECT_EQ(plan["result"]["emails"].size(), 1U);
    EXPECT_EQ(plan["result"]["note"], "Riley's mom\n\nScout troop");
    // A plan changes nothing.
    EXPECT_TRUE(fs::exists(contacts() / "icloud" / "B.vcf"));

    const auto merged = m_home.run({"merge", "C", "A", "B", "--primary", "A", "--no-cache"});
    ASSERT_EQ(merged.exitCode, 0) << merged.err;
    EXPECT_FALSE(fs::exists(contacts() / "icloud" / "B.vcf"));
    const auto a = readFile(contacts() / "icloud" / "A.vcf");
    const auto c = readFile(contacts() / "gmail" / "C.vcf");
    EXPECT_THAT(a, HasSubstr("X-KEEP:as it was\r\n"));
    EXPECT_THAT(a, HasSubstr("212 555 0199"));
    EXPECT_THAT(c, HasSubstr("N:Lee;Ann;;;"));
    EXPECT_THAT(c, HasSubstr("+1 415 555 0100"));
    EXPECT_THAT(c, HasSubstr("EMAIL:ann@home.org\r\n")); // its own line, untouched
    for (const auto& text : {a, c}) {
        EXPECT_THAT(text, HasSubstr("NOTE:Riley's mom\\n\\nScout troop"));
    }
    const auto shown = m_home.run({"show", "A", "--json", "--no-cache"});
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(shown.json()["cards"].size(), 2U);
    EXPECT_EQ(m_home.run({"duplicates", "--no-cache"}).out, "");
}

TEST_F(MergeCommand, NotDuplicatesHidesTheGroupUntilTheyShareSomethingNew) {
    writeFile(contacts() / "gmail" / "C.vcf", card("C", "Annie", "TEL:212 555 0199\r\n"));
    writeFile(contacts() / "icloud" / "B.vcf", card("B", "Ann", "EMAIL:bee@home.org\r\n"));
    // A and B share a name only; C shares nothing.
    ASSERT_EQ(m_home.run({"duplicates", "--no-cache"}).out, "same name: Ann Lee (A), Ann Lee (B)\n");
    EXPECT_EQ(m_home.run({"duplicates", "--strong", "--no-cache"}).out, "");
    const auto answered = m_home.run({"not-duplicates", "A", "B", "--no-cache"});
    ASSERT_EQ(answered.exitCode, 0) << answered.err;
    EXPECT_EQ(m_home.run({"duplicates", "--no-cache"}).out, "");

    // B gains A's phone: a new shared key, so the group is back.
    writeFile(contacts() / "icloud" / "B.vcf",
              card("B", "Ann", "EMAIL:bee@home.org\r\nTEL:(415) 555-0100\r\n"));
    EXPECT_EQ(m_home.run({"duplicates", "--no-cache"}).out,
              "same phone, same name: Ann Lee (A), Ann Lee (B)\n");
}

} // namespace
} // namespace kinbook
