#include "KinbookKit/addressbook/HealthCheck.h"

#include "tests/support/Files.h"
#include "tests/support/TempFolder.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <map>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using Kind = HealthFinding::Kind;

std::string card(const std::string& body) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\n" + body + "END:VCARD\r\n";
}

// Every entry under `folder`: its kind, size, modification time and (for
// a small file) its bytes.
std::map<std::string, std::string> stateOf(const fs::path& folder) {
    std::map<std::string, std::string> state;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat info {};
        ::lstat(entry.path().c_str(), &info);
        std::string text = std::to_string(info.st_mode) + " " + std::to_string(info.st_size) + " " +
                           std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
        if (S_ISREG(info.st_mode) && info.st_size < 4096) {
            text += " " + testing::readFile(entry.path());
        }
        state[entry.path().string()] = text;
    }
    return state;
}

TEST(HealthCheck, FindsEveryKindOfTroubleAndChangesNothing) {
    testing::TempFolder folder;
    const fs::path root = folder / "contacts";
    const fs::path a = root / "a";
    fs::create_directories(a);
    fs::create_directories(root / "b");
    testing::writeFile(a / "fine.vcf", card("FN:Fine\r\nUID:FINE-1\r\n"));
    testing::writeFile(a / "copy1.vcf", card("FN:Copy\r\nUID:SHARED\r\n"));
    testing::writeFile(root / "b" / "copy2.vcf", card("FN:Copy\r\nUID:SHARED\r\n"));
    testing::writeFile(a / "two.vcf", card("FN:One\r\nUID:TWO-1\r\n") + card("FN:Two\r\nUID:TWO-2\r\n"));
    testing::writeFile(a / "nouid.vcf", card("FN:Caf\xe9\r\n"));
    testing::writeFile(a / "junk.vcf", "not a card");
    testing::writeFile(a / "LOUD.VCF", card("FN:Loud\r\nUID:LOUD-1\r\n"));
    testing::writeFile(a / ".fine.vcf.0A1B2C3D.tmp", "half");
    testing::writeFile(a / "group.vcf", card("FN:Friends\r\nX-ADDRESSBOOKSERVER-KIND:group\r\nUID:G-1\r\n"));
    ASSERT_EQ(::mkfifo((a / "pipe.vcf").c_str(), 0644), 0);
    fs::create_symlink("/dev/null", a / "device.vcf");
    testing::writeFile(a / "huge.vcf", "");
    fs::resize_file(a / "huge.vcf", (64 << 20) + 1);

    const auto before = stateOf(root);
    const HealthReport report = checkAddressBook(root);
    EXPECT_EQ(stateOf(root), before);

    std::multimap<Kind, std::vector<fs::path>> found;
    for (const auto& finding : report.findings) {
        found.emplace(finding.kind, finding.files);
    }
    const std::multimap<Kind, std::vector<fs::path>> expected{
        {Kind::notRegular, {a / "device.vcf"}},
        {Kind::notRegular, {a / "pipe.vcf"}},
        {Kind::tooLarge, {a / "huge.vcf"}},
        {Kind::notCard, {a / "junk.vcf"}},
        {Kind::severalCards, {a / "two.vcf"}},
        {Kind::duplicateUID, {a / "copy1.vcf", root / "b" / "copy2.vcf"}},
        {Kind::noUID, {a / "nouid.vcf"}},
        {Kind::notUTF8, {a / "nouid.vcf"}},
        {Kind::upperCaseExtension, {a / "LOUD.VCF"}},
        {Kind::leftoverTemporary, {a / ".fine.vcf.0A1B2C3D.tmp"}},
        {Kind::groupCard, {a / "group.vcf"}},
    };
    EXPECT_EQ(found, expected);
    EXPECT_EQ(report.problemCount(), 8u);

    const std::string text = describe(report);
    EXPECT_NE(text.find("UID SHARED:\n    " + (a / "copy1.vcf").string()), std::string::npos) << text;
    EXPECT_NE(text.find("8 problems found"), std::string::npos) << text;

    const HealthReport missing = checkAddressBook(folder / "nowhere");
    EXPECT_FALSE(missing.readable);
    EXPECT_EQ(missing.problemCount(), 1u);
}

} // namespace
} // namespace kinbook
