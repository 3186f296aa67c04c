#include "KinbookKit/addressbook/CardIndex.h"

#include <gtest/gtest.h>

#include <utility>

namespace kinbook {
namespace {

TEST(CardIndex, FindsEachCardsFileUntilRemoved) {
    CardIndex index(4);
    EXPECT_TRUE(index.insert("A-1", 0, "A-1.vcf"));
    EXPECT_TRUE(index.insert("B-2", 1, "b copy.vcf"));
    EXPECT_FALSE(index.insert("A-1", 1, "other.vcf")) << "the first file of a card id keeps it";
    ASSERT_NE(index.find("A-1"), nullptr);
    EXPECT_EQ(index.find("A-1")->account, 0u);
    EXPECT_EQ(index.find("A-1")->fileName, "") << "the usual name is not kept";
    EXPECT_EQ(index.find("B-2")->fileName, "b copy.vcf");
    EXPECT_EQ(index.find("C-3"), nullptr);

    index.set("A-1", 2, "moved.vcf");
    EXPECT_EQ(index.find("A-1")->account, 2u);
    EXPECT_EQ(index.find("A-1")->fileName, "moved.vcf");
    index.erase("B-2");
    EXPECT_EQ(index.find("B-2"), nullptr);
    EXPECT_EQ(index.size(), 1u);

    CardIndex moved = std::move(index);
    EXPECT_NE(moved.find("A-1"), nullptr);
    EXPECT_EQ(index.find("A-1"), nullptr); // NOLINT(bugprone-use-after-move): a moved-from index is empty
    EXPECT_TRUE(index.insert("D-4", 0, "D-4.vcf"));
}

} // namespace
} // namespace kinbook
