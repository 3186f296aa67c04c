// The tool against a troubled address book, run as a user runs it: the
// health check, a pipe or a device given as a card, and two kinbook
// processes changing one card at the same moment.

#include "tests/cli/KinbookRun.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <thread>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

std::string card(const std::string& lines) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\n" + lines + "END:VCARD\r\n";
}

TEST(CheckCommand, ListsWhatItFoundExitsOneAndLeavesTheBookAlone) {
    testing::KinbookHome home;
    const fs::path root = home.path() / "contacts";
    fs::create_directories(root / "home");
    testing::writeFile(root / "home" / "ann.vcf", card("FN:Ann\r\nUID:ann\r\n"));
    home.setVariable("KINBOOK_CONTACTS", root.string());

    const auto healthy = home.run({"check"});
    EXPECT_EQ(healthy.exitCode, 0) << healthy.err;
    EXPECT_NE(healthy.out.find("no problems found"), std::string::npos) << healthy.out;

    testing::writeFile(root / "home" / "ann-copy.vcf", card("FN:Ann\r\nUID:ann\r\n"));
    ASSERT_EQ(::mkfifo((root / "home" / "pipe.vcf").c_str(), 0644), 0);
    const auto text = home.run({"check"});
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_NE(text.out.find("UID ann:"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("What to do:"), std::string::npos) << text.out;

    const auto json = home.run({"check", "--json"});
    EXPECT_EQ(json.exitCode, 1);
    const auto report = json.json();
    ASSERT_TRUE(report.is_object()) << json.out;
    EXPECT_EQ(report["problems"], 2);
    std::set<std::string> kinds;
    for (const auto& finding : report["findings"]) {
        kinds.insert(finding["kind"].get<std::string>());
    }
    EXPECT_EQ(kinds, (std::set<std::string>{"duplicate-uid", "not-a-regular-file"}));
    EXPECT_EQ(testing::readFile(root / "home" / "ann.vcf"), card("FN:Ann\r\nUID:ann\r\n"));
}

TEST(InspectCardCommand, APipeOrADeviceIsRefusedUnread) {
    testing::KinbookHome home;
    const fs::path pipe = home.path() / "pipe.vcf";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    for (const std::string& file : {pipe.string(), std::string("/dev/zero")}) {
        const auto run = home.run({"inspect", "card", file});
        EXPECT_EQ(run.exitCode, 1) << file;
        EXPECT_NE(run.err.find("not a card file"), std::string::npos) << run.err;
    }
}

// Each process changes its own entry of Ann's one card. Kinbook's lock and
// the file's stamp keep both changes; a process that cannot keep its change
// must say so and exit non-zero, never report success over a lost change.
TEST(TwoProcesses, ChangingOneCardAtOnceKeepBothChangesOrOneSaysItFailed) {
    testing::KinbookHome home;
    const fs::path root = home.path() / "contacts";
    fs::create_directories(root / "home");
    home.setVariable("KINBOOK_CONTACTS", root.string());
    const fs::path ann = root / "home" / "ann.vcf";
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        testing::writeFile(ann, card("N:Smith;Ann;;;\r\nFN:Ann Smith\r\nTEL;TYPE=CELL:+1 212 555 0100\r\n"
                                     "EMAIL;TYPE=HOME:ann@home.test\r\nUID:ann\r\n"));
        testing::KinbookRun phone;
        testing::KinbookRun email;
        std::thread first([&] { phone = home.run({"former", "ann", "+1 212 555 0100", "--no-cache"}); });
        std::thread second([&] { email = home.run({"former", "ann", "ann@home.test", "--no-cache"}); });
        first.join();
        second.join();
        const std::string written = testing::readFile(ann);
        const std::vector<std::pair<const testing::KinbookRun*, std::string>> runs{{&phone, "ex-mobile"},
                                                                                   {&email, "ex-home"}};
        for (const auto& [run, label] : runs) {
            if (run->exitCode == 0) {
                EXPECT_NE(written.find(label), std::string::npos) << label << " lost:\n" << written;
            } else {
                EXPECT_EQ(run->exitCode, 1) << run->err;
                EXPECT_FALSE(run->err.empty());
            }
        }
        EXPECT_TRUE(phone.exitCode == 0 || email.exitCode == 0) << phone.err << email.err;
    }
}

} // namespace
} // namespace kinbook
