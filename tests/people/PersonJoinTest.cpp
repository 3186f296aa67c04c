#include "KinbookKit/people/PersonJoin.h"

#include <gtest/gtest.h>

#include <set>

namespace kinbook {
namespace {

PersonPtr card(std::string id, std::string given, std::string family, std::optional<std::string> kinID = {},
               std::string account = "icloud") {
    Person person;
    person.id = std::move(id);
    person.givenName = std::move(given);
    person.familyName = std::move(family);
    person.kinID = std::move(kinID);
    person.accountIDs = {std::move(account)};
    person.memberIDs = {person.id};
    person.detailed = true;
    person.derive();
    return std::make_shared<const Person>(std::move(person));
}

PersonPtr changed(const PersonPtr& person, const std::function<void(Person&)>& change) {
    Person copy = *person;
    change(copy);
    copy.derive();
    return std::make_shared<const Person>(std::move(copy));
}

std::vector<std::string> idsOf(const std::vector<PersonPtr>& people) {
    std::vector<std::string> ids;
    for (const auto& person : people) {
        ids.push_back(person->id);
    }
    return ids;
}

TEST(PersonJoinTest, ThePrimaryCardLeadsAndTheAccountsAreUnited) {
    auto first = card("A", "Jane", "Appleseed", "K1", "icloud");
    first = changed(first, [](Person& p) { p.phoneNumbers = {"+1 212 555 0100"}; });
    auto second = card("B", "Janie", "Seed", "K1", "google");
    second = changed(second, [](Person& p) {
        p.isPrimaryCard = true;
        p.phoneNumbers = {"+44 20 7946 0000"};
        p.accountIDs = {"google", "icloud"};
    });
    const auto joined = joinPeople({first, second});

    ASSERT_EQ(joined.people.size(), 1u);
    const auto& person = *joined.people.front();
    EXPECT_EQ(person.id, "B");
    EXPECT_EQ(person.givenName, "Janie");
    EXPECT_EQ(person.phoneNumbers, std::vector<std::string>{"+44 20 7946 0000"});
    EXPECT_EQ(person.memberIDs, (std::vector<std::string>{"B", "A"}));
    EXPECT_EQ(person.accountIDs, (std::vector<std::string>{"google", "icloud"}));
    // The derived keys are the leader's, worked out again.
    EXPECT_EQ(person.displayName(), "Janie Seed");
    EXPECT_EQ(person.sectionLetter(), "S");

    EXPECT_EQ(joined.find("A").get(), &person);
    EXPECT_EQ(joined.find("B").get(), &person);
    EXPECT_EQ(joined.find("C"), nullptr);
    EXPECT_EQ(joined.personIDOf("A"), "B");
    EXPECT_EQ(joined.accountCounts, (std::map<std::string, int>{{"google", 1}, {"icloud", 1}}));
}

TEST(PersonJoinTest, WithoutAPrimaryTheLowestSortKeyThenTheLowestIdLeads) {
    const auto zed = card("1", "Ann", "Zed", "K1");
    const auto able = card("3", "Ann", "Able", "K1");
    const auto ableAgain = card("2", "Ann", "Able", "K1");
    const auto person = joinGroup({zed, able, ableAgain});
    EXPECT_EQ(person.id, "2");
    EXPECT_EQ(person.memberIDs, (std::vector<std::string>{"2", "3", "1"}));
}

TEST(PersonJoinTest, HiddenOnlyWhenEveryCardIsAndInTheClosestCircle) {
    auto first = changed(card("A", "Jo", "Ng", "K1"), [](Person& p) {
        p.hidden = true;
        p.circle = ContactCircle::friends;
    });
    auto second =
        changed(card("B", "Jo", "Ng", "K1"), [](Person& p) { p.circle = ContactCircle::goodFriends; });
    auto third = card("C", "Jo", "Ng", "K1");
    auto joined = joinPeople({first, second, third});
    ASSERT_EQ(joined.people.size(), 1u);
    EXPECT_FALSE(joined.people.front()->hidden);
    EXPECT_EQ(joined.people.front()->circle, ContactCircle::goodFriends);
    EXPECT_EQ(joined.hiddenCount, 0);
    EXPECT_EQ(joined.circleCounts, (CircleCounts{{ContactCircle::goodFriends, 1}}));

    auto alsoHidden = changed(second, [](Person& p) { p.hidden = true; });
    auto thirdHidden = changed(third, [](Person& p) { p.hidden = true; });
    joined = joinPeople({first, alsoHidden, thirdHidden});
    EXPECT_TRUE(joined.people.front()->hidden);
    EXPECT_EQ(joined.hiddenCount, 1);

    // No card in a circle: no circle.
    joined = joinPeople({card("D", "Al", "Bo", "K2"), card("E", "Al", "Bo", "K2")});
    EXPECT_EQ(joined.people.front()->circle, std::nullopt);
}

TEST(PersonJoinTest, LoneCardsStayAsTheyAreAndPeopleAreSortedStably) {
    const auto noKin = card("1", "Zoe", "Young");
    const auto lonely = card("2", "Ann", "Young", "K9");
    const auto twinA = card("3", "Sam", "Doe");
    const auto twinB = card("4", "Sam", "Doe");
    const auto joined = joinPeople({noKin, twinB, lonely, twinA});

    // Equal keys keep the order read; lone cards are shared, not copied.
    EXPECT_EQ(idsOf(joined.people), (std::vector<std::string>{"4", "3", "2", "1"}));
    EXPECT_EQ(joined.people[2], lonely);
    EXPECT_EQ(joined.people[3], noKin);
    EXPECT_EQ(joined.raw.size(), 4u);
    EXPECT_EQ(joined.personIDOf("2"), "2");
    EXPECT_EQ(joined.personIDOf("5"), std::nullopt);
    EXPECT_EQ(joined.accountCounts.at("icloud"), 4);
}

TEST(PersonJoinTest, ALargeReadIsJoinedAndOrderedAsOneThreadWouldAndTheSectionsSeeThatOrder) {
    // Family names that share their first sixteen bytes or more, keys that
    // differ only in length or past byte sixteen, and exact twins; enough
    // cards to be joined on two threads.
    const std::vector<std::string> families = {"Vanderbilt-Ashworth",
                                               "Vanderbilt-Ashworthy",
                                               "Vanderbilt-Ash",
                                               "Vanderbilt-Ashwort",
                                               "Øyelund",
                                               "O",
                                               "Van",
                                               ""};
    const std::vector<std::string> givens = {"Ann", "Anna", "Zed", "", "Émile"};
    std::vector<PersonPtr> raw;
    std::uint32_t state = 12345;
    const auto next = [&] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    for (int i = 0; i < 6000; ++i) {
        const auto id = "card-" + std::to_string(i);
        // Every fifth card shares a KinID with the card before it.
        const std::optional<std::string> kinID =
            i % 5 >= 3 ? std::optional<std::string>("K" + std::to_string(i / 5)) : std::nullopt;
        raw.push_back(card(id, givens[next() % givens.size()], families[next() % families.size()], kinID,
                           next() % 2 == 0 ? "icloud" : "google"));
    }

    std::vector<PersonPtr> sections;
    const auto joined = joinPeople(
        raw, [&](std::span<const PersonPtr> people) { sections.assign(people.begin(), people.end()); });
    EXPECT_EQ(joined.raw.size(), raw.size());
    EXPECT_EQ(joined.people.size(), 6000u - 6000u / 5);
    EXPECT_EQ(sections, joined.people);

    // The order one stable sort by the whole key makes of the people, each
    // where its first card was read.
    std::vector<PersonPtr> expected;
    std::set<std::string> seen;
    for (const auto& person : raw) {
        const auto holder = joined.find(person->id);
        ASSERT_NE(holder, nullptr) << person->id;
        if (seen.insert(holder->id).second) {
            expected.push_back(holder);
        }
    }
    std::stable_sort(expected.begin(), expected.end(), [](const PersonPtr& left, const PersonPtr& right) {
        return left->sortKey() < right->sortKey();
    });
    EXPECT_EQ(idsOf(joined.people), idsOf(expected));
    for (const auto& person : joined.people) {
        EXPECT_EQ(joined.find(person->id), person);
    }
}

} // namespace
} // namespace kinbook
