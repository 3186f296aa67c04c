// The packed lists and keys every person is made of.

#include "KinbookKit/records/Texts.h"

#include "KinbookKit/records/PackedKeys.h"
#include "KinbookKit/records/Person.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kinbook {
namespace {

TEST(Texts, ReadsBackWhatItWasMadeOf) {
    // No, one and several texts, empty and non-ASCII ones among them, so
    // that a text starting or ending at a boundary of the block shows.
    const std::vector<std::vector<std::string>> lists = {
        {}, {""}, {"+44 20 7946 0958"}, {"", "ada@example.com", ""}, {"Zoë", "Ørsted", "", "東京都"}};
    for (const auto& strings : lists) {
        const Texts texts(strings);
        ASSERT_EQ(texts.size(), strings.size());
        EXPECT_EQ(texts.empty(), strings.empty());
        EXPECT_EQ(texts.strings(), strings);
        EXPECT_TRUE(texts == strings);
        for (std::size_t i = 0; i < strings.size(); ++i) {
            EXPECT_EQ(texts[i], strings[i]);
            EXPECT_TRUE(texts.contains(strings[i]));
        }
        EXPECT_FALSE(texts.contains("absent"));
        EXPECT_EQ(std::hash<Texts>{}(texts), std::hash<Texts>{}(Texts(strings)));
    }
    EXPECT_EQ(Texts().address(), nullptr) << "an empty list takes no memory";
    EXPECT_EQ(Texts(std::vector<std::string>{}).address(), nullptr);
}

TEST(Texts, EqualityLooksAtTheTextsNotJustTheirBytes) {
    // The same bytes cut in other places are other texts.
    EXPECT_NE(Texts({"ab", "c"}), Texts({"a", "bc"}));
    EXPECT_NE(Texts({"a", ""}), Texts({"a"}));
    EXPECT_NE(Texts({""}), Texts());
    EXPECT_EQ(Texts({"a", "bc"}), Texts({"a", "bc"}));
    EXPECT_FALSE(Texts({"a", "bc"}) == std::vector<std::string>({"a", "b"}));

    // The owner's mark is part of what a list is: the same texts split
    // between two packed lists in another place are not the same.
    const auto each = [](const auto& visit) {
        visit("212");
        visit("2125550100");
    };
    EXPECT_EQ(Texts::made(each, 1), Texts::made(each, 1));
    EXPECT_NE(Texts::made(each, 1), Texts::made(each, 0));
    EXPECT_EQ(Texts::made(each, 1).mark(), 1U);
}

TEST(Texts, StretchesReadPartOfTheBlock) {
    const Texts texts({"", "415", "", "212", "718"});
    EXPECT_TRUE(texts.stretch(0, 0).empty());
    EXPECT_TRUE(texts.stretch(5, 0).empty());
    EXPECT_EQ(texts.stretch(0, 2).strings(), std::vector<std::string>({"", "415"}));
    EXPECT_EQ(texts.stretch(2, 3).strings(), std::vector<std::string>({"", "212", "718"}));
    EXPECT_EQ(texts.stretch(4, 1).front(), "718");
}

TEST(Texts, CopiesOnOtherThreadsShareOneBlockThatGoesWithTheLastOne) {
    // People are copied and dropped on several threads at once; the block
    // must go exactly when the last copy does, which the address sanitizer
    // checks. A person's lists and packed keys are such blocks too.
    auto original = std::make_unique<Texts>(Texts({"ada@example.com", "+44 20 7946 0958"}));
    const void* block = original->address();
    auto ada = std::make_unique<Person>();
    ada->givenName = "Ada";
    ada->familyName = "Lovelace";
    ada->phoneNumbers = {"+44 20 7946 0958"};
    ada->derive();
    const std::string search(ada->searchText());
    std::vector<std::thread> threads;
    std::vector<Texts> kept(4);
    std::vector<Person> keptPeople(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            Texts last;
            Person lastPerson;
            for (int i = 0; i < 10'000; ++i) {
                Texts copy(*original);
                last = copy;
                Texts moved(std::move(copy));
                EXPECT_EQ(moved.size(), 2U);
                Person person = *ada;
                lastPerson = Person(std::move(person));
            }
            kept[static_cast<std::size_t>(t)] = std::move(last);
            keptPeople[static_cast<std::size_t>(t)] = std::move(lastPerson);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    original.reset();
    ada.reset();
    for (const auto& texts : kept) {
        EXPECT_EQ(texts.address(), block);
        EXPECT_EQ(texts.back(), "+44 20 7946 0958");
    }
    for (const auto& person : keptPeople) {
        EXPECT_EQ(person.searchText(), search);
        EXPECT_EQ(person.areaCodes().front(), "+44");
    }
    Texts assigned({"other"});
    assigned = kept.front();
    assigned = assigned; // NOLINT: assigning a list to itself keeps it
    EXPECT_EQ(assigned.front(), "ada@example.com");
}

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

} // namespace
} // namespace kinbook
