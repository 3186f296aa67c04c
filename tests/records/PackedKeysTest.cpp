#include "KinbookKit/records/PackedKeys.h"

#include "KinbookKit/records/Person.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace kinbook {
namespace {

PersonKeys keysWith(std::vector<std::string> areaCodes, std::vector<std::string> phoneDigits) {
    PersonKeys keys;
    keys.displayName = "Zoë Ørsted";
    keys.sortKey = "orsted zoe";
    keys.sectionLetter = "O";
    keys.firstNameSortKey = "zoe orsted";
    keys.firstNameSectionLetter = "Z";
    keys.areaCodes = std::move(areaCodes);
    keys.searchText = "zoe\n\norsted\n\n\n\n\nzoe orsted\nzoe@example.com";
    keys.phoneDigits = std::move(phoneDigits);
    return keys;
}

TEST(PackedKeys, EveryTextAndListReadsBackAsPacked) {
    // Lists of no, one and several texts, empty texts among them, so that
    // every boundary between the single texts and the two lists is crossed.
    const std::vector<std::vector<std::string>> lists = {
        {}, {"415"}, {"", "+44", ""}, {"212", "718", "646", ""}};
    for (const auto& codes : lists) {
        for (const auto& digits : lists) {
            const auto keys = keysWith(codes, digits);
            const PackedKeys packed(keys);
            EXPECT_EQ(packed.unpacked(), keys);
            EXPECT_EQ(packed.text(PackedKeys::Text::displayName), "Zoë Ørsted");
            EXPECT_EQ(packed.text(PackedKeys::Text::searchText), keys.searchText);
            EXPECT_EQ(packed.areaCodes().size(), codes.size());
            EXPECT_TRUE(std::equal(packed.phoneDigits().begin(), packed.phoneDigits().end(), digits.begin(),
                                   digits.end()));
        }
    }
    const PackedKeys none;
    EXPECT_EQ(none.text(PackedKeys::Text::sortKey), "");
    EXPECT_TRUE(none.areaCodes().empty());
    EXPECT_EQ(none, PackedKeys(PersonKeys{})) << "keys never worked out read as empty ones";
    EXPECT_NE(none, PackedKeys(keysWith({}, {})));
    EXPECT_NE(PackedKeys(keysWith({"415"}, {})), PackedKeys(keysWith({}, {"415"})))
        << "the same bytes in the other list";
}

TEST(PackedKeys, CopiesOnOtherThreadsOutliveTheOriginal) {
    // The people of a read are copied and dropped on several threads at
    // once; the block must go exactly when the last copy does, which the
    // address sanitizer checks.
    auto original = std::make_unique<Person>();
    original->givenName = "Ada";
    original->familyName = "Lovelace";
    original->phoneNumbers = {"+44 20 7946 0958"};
    original->derive();
    const std::string search(original->searchText());
    std::vector<Person> copies(64, *original);
    original.reset();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&copies, t] {
            for (int round = 0; round < 1000; ++round) {
                Person copy = copies[static_cast<std::size_t>((t * 16 + round) % 64)];
                Person moved = std::move(copy);
                moved = Person(moved);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(copies.back().searchText(), search);
    EXPECT_EQ(copies.front().areaCodes().front(), "+44");
}

} // namespace
} // namespace kinbook
