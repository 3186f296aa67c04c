#include "KinbookKit/people/CardCache.h"

#include "KinbookKit/people/ThumbnailCache.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

ContactCard cardNamed(std::string id, std::string given) {
    ContactCard card;
    card.id = std::move(id);
    card.givenName = std::move(given);
    return card;
}

TEST(CardCacheTest, TheFirstCardInLeavesFirstAndReadingDoesNotKeepItLonger) {
    CardCache cache(3);
    cache.insert("a", cardNamed("a", "Ann"));
    cache.insert("b", cardNamed("b", "Bo"));
    cache.insert("c", cardNamed("c", "Cy"));
    ASSERT_NE(cache.find("a"), nullptr); // a read, not a refresh
    cache.insert("d", cardNamed("d", "Di"));
    EXPECT_EQ(cache.find("a"), nullptr);
    EXPECT_EQ(cache.order(), (std::deque<std::string>{"b", "c", "d"}));

    // A card read again replaces its copy and keeps its place in line.
    cache.insert("b", cardNamed("b", "Bob"));
    EXPECT_EQ(cache.find("b")->givenName, "Bob");
    cache.insert("e", cardNamed("e", "Ed"));
    EXPECT_FALSE(cache.contains("b"));
    EXPECT_EQ(cache.size(), 3u);

    cache.erase("d");
    EXPECT_EQ(cache.order(), (std::deque<std::string>{"c", "e"}));
    cache.erase("nothing");
    EXPECT_EQ(cache.size(), 2u);
}

ThumbnailBytes bytesOf(std::size_t size) {
    return std::make_shared<const std::vector<std::uint8_t>>(size, std::uint8_t{0xFF});
}

TEST(ThumbnailCacheTest, StaysWithinItsCostDroppingTheLeastRecentlyUsed) {
    ThumbnailCache cache(100);
    cache.insert("a", bytesOf(40));
    cache.insert("b", bytesOf(40));
    cache.insert("none", nullptr); // known to have no thumbnail, at no cost
    EXPECT_EQ(cache.cost(), 80u);
    EXPECT_TRUE(cache.find("a").known); // a is now used more lately than b
    cache.insert("c", bytesOf(40));
    EXPECT_EQ(cache.cost(), 80u);
    EXPECT_FALSE(cache.find("b").known);
    EXPECT_TRUE(cache.find("a").known);
    const auto none = cache.find("none");
    EXPECT_TRUE(none.known);
    EXPECT_EQ(none.bytes, nullptr);

    // Replacing an entry counts its new size only; one too large for the
    // whole cache is not kept, and pushes nothing out.
    cache.insert("a", bytesOf(10));
    EXPECT_EQ(cache.cost(), 50u);
    cache.insert("huge", bytesOf(101));
    EXPECT_FALSE(cache.find("huge").known);
    EXPECT_TRUE(cache.find("a").known);
    EXPECT_EQ(cache.cost(), 50u);
}

} // namespace
} // namespace kinbook
