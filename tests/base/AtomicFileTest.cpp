#include "KinbookKit/AtomicFile.h"

#include "tests/support/TempFolder.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace kinbook {
namespace {

using testing::readFile;
using testing::TempFolder;

std::size_t entriesIn(const std::filesystem::path& folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

TEST(AtomicFile, ReplacesTheFileAndKeepsItsMode) {
    TempFolder folder;
    const auto file = folder / "card.vcf";
    ASSERT_TRUE(writeFileAtomically(file, "first", 0600));
    EXPECT_EQ(readFile(file), "first");
    ::chmod(file.c_str(), 0640);
    ASSERT_TRUE(writeFileAtomically(file, "second"));
    EXPECT_EQ(readFile(file), "second");
    struct stat info {};
    ::stat(file.c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    EXPECT_EQ(entriesIn(folder.path()), 1u); // no temporary left behind
}

TEST(AtomicFile, ACrashBeforeTheRenameLeavesTheOldFile) {
    TempFolder folder;
    const auto file = folder / "card.vcf";
    ASSERT_TRUE(writeFileAtomically(file, "old"));
    PendingFile pending;
    ASSERT_TRUE(writeTemporaryBeside(file, "new", pending));
    // The process dies here: the temporary is written, the rename never happens.
    EXPECT_EQ(readFile(file), "old");
    EXPECT_EQ(pending.temporary.parent_path(), file.parent_path());
    EXPECT_EQ(pending.temporary.filename().string().front(), '.'); // hidden from folder scans
    discardPendingFile(pending);
    EXPECT_EQ(entriesIn(folder.path()), 1u);
}

TEST(AtomicFile, BatchIsCommittedOnlyAfterEveryFileIsWritten) {
    TempFolder folder;
    PendingFile a;
    PendingFile b;
    ASSERT_TRUE(writeTemporaryBeside(folder / "a.vcf", "A", a));
    ASSERT_TRUE(writeTemporaryBeside(folder / "b.vcf", "B", b));
    EXPECT_FALSE(std::filesystem::exists(folder / "a.vcf"));
    ASSERT_TRUE(commitPendingFile(a));
    ASSERT_TRUE(commitPendingFile(b));
    EXPECT_EQ(readFile(folder / "a.vcf"), "A");
    EXPECT_EQ(readFile(folder / "b.vcf"), "B");
}

TEST(AtomicFile, FailsCleanlyWhereNothingCanBeWritten) {
    TempFolder folder;
    EXPECT_FALSE(writeFileAtomically(folder / "missing-folder" / "card.vcf", "x"));
    testing::writeFile(folder / "plain", "x");
    EXPECT_FALSE(writeFileAtomically(folder / "plain" / "card.vcf", "x"));
    EXPECT_EQ(readFile(folder / "plain"), "x");
}

} // namespace
} // namespace kinbook
