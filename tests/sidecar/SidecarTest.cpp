#include "KinbookKit/sidecar/Sidecar.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

std::string repeated(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

TEST(SidecarOpen, WithoutTheSettingOrTheFoldersParentThereIsNoSidecarAndNothingIsMade) {
    testing::TempFolder folder;
    EXPECT_EQ(Sidecar::openNow(std::nullopt), Sidecar::Status::noICloud());
    // An unmounted share: the mount point's folder is not there.
    const fs::path unmounted = folder / "mnt" / "share" / "Kinbook";
    EXPECT_EQ(Sidecar::openNow(unmounted), Sidecar::Status::noICloud());
    EXPECT_FALSE(fs::exists(folder / "mnt"));
}

TEST(SidecarOpen, TheReadmeIsWrittenOnceAndAUsersEditStays) {
    testing::TempFolder folder;
    const fs::path sidecar = folder / "Sidecar";
    const auto status = Sidecar::openNow(sidecar);
    ASSERT_EQ(status, Sidecar::Status::ready(sidecar / "Documents"));
    const fs::path readme = sidecar / "Documents" / "README.txt";
    EXPECT_EQ(testing::readFile(readme), Sidecar::readmeText);
    EXPECT_TRUE(testing::readFile(readme).ends_with("It lives in your iCloud and nowhere else."));

    testing::writeFile(readme, "my own notes");
    EXPECT_TRUE(Sidecar::openNow(sidecar).isReady());
    EXPECT_EQ(testing::readFile(readme), "my own notes");
}

// Display names come from cards, and cards from anywhere: whatever the name,
// the folder is one plain name inside "People", ending in the KinID.
TEST(SidecarFolders, NamesAreSafeAndEndInTheKinID) {
    struct Case {
        std::string displayName;
        std::string expected; // empty: only the safety rules are checked
    };
    const std::string id = "AB12CD34";
    const Case cases[] = {
        {"Ann Lee", "Ann Lee AB12CD34"},
        {"AC/DC: Live\\Tour", "AC-DC- Live-Tour AB12CD34"},
        {"   ", "AB12CD34"},
        {"", "AB12CD34"},
        {"/", "- AB12CD34"},
        {"../../etc/passwd", "-..-etc-passwd AB12CD34"},
        {"..", "AB12CD34"},
        {".hidden", "hidden AB12CD34"},
        {"tab\tand\nnewline", "tab-and-newline AB12CD34"},
        {std::string(300, 'x'), ""},
        {std::string(11, 'x') + repeated("\xC3\xA9", 120), ""}, // too long, cut between two é
    };
    const fs::path root = "/sidecar/Documents/People";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.displayName.substr(0, 40));
        const std::string name = Sidecar::personFolderName(c.displayName, id);
        if (!c.expected.empty()) {
            EXPECT_EQ(name, c.expected);
        }
        EXPECT_LE(name.size(), 255u);
        EXPECT_EQ(name.find('/'), std::string::npos);
        EXPECT_NE(name, "..");
        EXPECT_FALSE(name.starts_with('.'));
        EXPECT_EQ((root / name).lexically_normal().parent_path(), root);
        EXPECT_TRUE(Sidecar::folderBelongsTo(name, id));
        EXPECT_EQ(Sidecar::kinIDOfFolder(name), id);
        // Never half a character before the KinID.
        if (name.size() > id.size() + 1) {
            EXPECT_NE(static_cast<unsigned char>(name[name.size() - id.size() - 2]), 0xC3);
        }
    }
}

// Folders that do belong are checked with every name above.
TEST(SidecarFolders, AFolderBelongsByItsKinIDEndingOnly) {
    EXPECT_FALSE(Sidecar::folderBelongsTo("Ann LeeAB12CD34", "AB12CD34"));
    EXPECT_FALSE(Sidecar::folderBelongsTo("Ann Lee XAB12CD34", "AB12CD34"));
    EXPECT_FALSE(Sidecar::folderBelongsTo("AB12CD34 Ann Lee", "AB12CD34"));
    EXPECT_FALSE(Sidecar::isUsableKinID("../AB"));
    EXPECT_FALSE(Sidecar::isUsableKinID(""));
    EXPECT_EQ(Sidecar::kinIDOfFolder("Trash"), std::nullopt);
}

TEST(SidecarPlaceholders, BothCloudFormsNameTheirFile) {
    EXPECT_EQ(Sidecar::placeholderTarget(".poster.jpg.icloud"), "poster.jpg");
    EXPECT_EQ(Sidecar::placeholderTarget(".2024-05-01 101500.jpg.icloud"), "2024-05-01 101500.jpg");
    EXPECT_EQ(Sidecar::placeholderTarget("jobs.json.nextcloud"), "jobs.json");
    EXPECT_EQ(Sidecar::placeholderTarget("poster.jpg"), std::nullopt);
    EXPECT_EQ(Sidecar::placeholderTarget("poster.jpg.icloud"), std::nullopt); // no leading dot
    EXPECT_EQ(Sidecar::placeholderTarget(".icloud"), std::nullopt);
    EXPECT_EQ(Sidecar::placeholderTarget("...icloud"), std::nullopt);
    EXPECT_EQ(Sidecar::placeholderTarget(".nextcloud"), std::nullopt);
}

} // namespace
} // namespace kinbook
