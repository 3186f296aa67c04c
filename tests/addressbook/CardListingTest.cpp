#include "KinbookKit/addressbook/CardListing.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::TempFolder;
using testing::writeFile;

using Listed = std::map<std::string, std::set<std::string>>;

Listed filesOf(const CardListing& listing) {
    Listed files;
    for (const auto& account : listing.accounts()) {
        files[account.name];
    }
    for (const auto& file : listing.files()) {
        files[listing.accountName(file)].insert(std::string(listing.name(file)));
    }
    return files;
}

// Accounts are the folders that hold cards in any layout vdirsyncer keeps:
// the root itself, its folders, and collections one level deeper.
TEST(CardListing, ListsTheCardFilesOfEveryAccountFolderAndNothingElse) {
    TempFolder folder;
    const fs::path root = folder / "vdir";
    fs::create_directories(root / "work");
    fs::create_directories(root / "home");
    writeFile(root / "work" / "b.vcf", "card");
    writeFile(root / "work" / "with space.vcf", "card");
    writeFile(root / "work" / ".hidden.vcf", "card");
    writeFile(root / "work" / "b.vcf.tmp", "card");
    writeFile(root / "work" / "displayname", "Work");
    fs::create_directories(root / "work" / "folder.vcf");
    writeFile(root / "home" / "a.vcf", "card");
    fs::create_symlink(root / "home" / "a.vcf", root / "home" / "link.vcf");
    fs::create_directories(root / "empty");
    fs::create_directories(root / ".git");
    writeFile(root / ".git" / "c.vcf", "card");
    writeFile(root / "loose.vcf", "card");
    fs::create_directories(root / "pair" / "coll");
    fs::create_directories(root / "pair" / "blank");
    writeFile(root / "pair" / "coll" / "d.vcf", "card");
    fs::create_directory_symlink(root / "work", root / "linked");

    for (unsigned threads : {1u, 2u}) {
        SCOPED_TRACE(threads);
        auto listing = CardListing::list(root, threads);
        ASSERT_TRUE(listing.has_value());
        EXPECT_EQ(filesOf(*listing), (Listed{{".", {"loose.vcf"}},
                                             {"empty", {}},
                                             {"home", {"a.vcf", "link.vcf"}},
                                             {"linked", {"b.vcf", "with space.vcf"}},
                                             {"pair/coll", {"d.vcf"}},
                                             {"work", {"b.vcf", "with space.vcf"}}}));
        std::vector<std::string> order;
        for (const auto& account : listing->accounts()) {
            order.push_back(account.name);
            EXPECT_GE(account.fd, 0);
            EXPECT_FALSE(account.unreadable);
        }
        EXPECT_EQ(order, (std::vector<std::string>{".", "empty", "home", "linked", "pair/coll", "work"}));
        for (const auto& file : listing->files()) {
            // A link is a card only once a stat says what it points to.
            EXPECT_EQ(file.knownRegular, listing->name(file) != "link.vcf");
            EXPECT_TRUE(fs::exists(listing->path(file)));
            EXPECT_EQ(std::string(listing->cName(file)), std::string(listing->name(file)));
        }
    }
    EXPECT_FALSE(CardListing::list(root / "missing").has_value());
}

} // namespace
} // namespace kinbook
