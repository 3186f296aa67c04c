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

// Joins `count` cards of family names that share their first sixteen bytes
// or more, keys that differ only in length or past byte sixteen, and exact
// twins, and checks the order against one plain stable sort.
void expectJoinedInStableKeyOrder(int count) {
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
    for (int i = 0; i < count; ++i) {
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
    EXPECT_EQ(joined.people.size(), static_cast<std::size_t>(count - count / 5));
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

TEST(PersonJoinTest, ReadsLargeAndSmallAreJoinedAndOrderedAsOneStableSortWouldAndTheSectionsSeeThatOrder) {
    // Enough cards to be joined on two threads, with long runs of people
    // whose keys agree in their first sixteen bytes; and few enough for one
    // thread, with short runs.
    expectJoinedInStableKeyOrder(6000);
    expectJoinedInStableKeyOrder(400);
}

TEST(PersonJoinTest, ManyPeopleAreFoundByEveryIdTheyHoldAndUnknownIdsByNone) {
    // Thousands of ids, so the tables hold long runs of probed slots; every
    // third card shares a KinID with the one before it, and a few more
    // cards (as a damaged cache might hold them) name many cards as
    // theirs, more than the look-ups made room for.
    std::vector<PersonPtr> raw;
    for (int i = 0; i < 9000; ++i) {
        const std::optional<std::string> kinID =
            i % 3 != 0 ? std::optional<std::string>("K" + std::to_string(i / 3)) : std::nullopt;
        raw.push_back(card("card-" + std::to_string(i), "Ann", "Lee " + std::to_string(i % 97), kinID));
    }
    for (int i = 0; i < 3; ++i) {
        raw.push_back(changed(card("many-" + std::to_string(i), "Bo", "Ma"), [i](Person& p) {
            auto members = p.memberIDs.strings();
            for (int k = 0; k < 2000; ++k) {
                members.push_back("many-" + std::to_string(i) + "-" + std::to_string(k));
            }
            p.memberIDs = members;
        }));
    }
    const auto joined = joinPeople(raw);
    ASSERT_EQ(joined.people.size(), 3000u + 3000u + 3u);

    std::map<std::string, PersonPtr> holderOf;
    for (const auto& person : joined.people) {
        for (const auto& member : person->memberIDs) {
            holderOf.emplace(member, person);
        }
    }
    ASSERT_EQ(holderOf.size(), 9000u + 3u * 2001u);
    for (const auto& [id, holder] : holderOf) {
        EXPECT_EQ(joined.find(id), holder) << id;
        EXPECT_EQ(joined.personIDOf(id), holder->id) << id;
        EXPECT_EQ(joined.isPersonID(id), id == holder->id) << id;
        EXPECT_EQ(joined.personWithID(id), id == holder->id ? holder : nullptr) << id;
    }

    std::multiset<std::string> visited;
    joined.forEachPersonID([&](std::string_view id) { visited.emplace(id); });
    std::multiset<std::string> expected;
    for (const auto& person : joined.people) {
        expected.insert(person->id);
    }
    EXPECT_EQ(visited, expected);

    // Ids near the known ones, and ones of no shape at all.
    const std::vector<std::string> unknowns = {"card-9000",   "card-", "Card-12", "many-3",
                                               "many-0-2000", "K1",    "",        std::string(300, 'x')};
    for (const auto& unknown : unknowns) {
        EXPECT_EQ(joined.find(unknown), nullptr) << unknown;
        EXPECT_EQ(joined.personIDOf(unknown), std::nullopt) << unknown;
        EXPECT_FALSE(joined.isPersonID(unknown)) << unknown;
        EXPECT_EQ(joined.personWithID(unknown), nullptr) << unknown;
    }
}

TEST(PersonJoinTest, AnIdGivenTwiceByADamagedStoreKeepsThePersonReadFirst) {
    // Two lone cards with one id: the first read is found, though the
    // other sorts first, and the id is visited once.
    const auto first = card("X", "Zoe", "Zed");
    const auto second = card("X", "Al", "Able");
    // One card id in two groups: the group read first holds it.
    const auto groupOneLead = card("B", "Ann", "Bee", "K1");
    const auto shared = card("A", "Cy", "Cee", "K1");
    const auto sharedAgain = card("A", "Di", "Dee", "K2");
    const auto groupTwoLead = card("C", "Ann", "Bee", "K2");
    // A group led by a card whose id a lone card read earlier already has:
    // the id, and so its other card, lead to the lone card.
    const auto lone = card("L", "Ed", "Zed");
    const auto leader = card("L", "Ed", "Able", "K3");
    const auto follower = card("M", "Ed", "Zed", "K3");
    const auto joined =
        joinPeople({first, second, groupOneLead, shared, sharedAgain, groupTwoLead, lone, leader, follower});

    EXPECT_EQ(joined.find("X"), first);
    EXPECT_EQ(joined.personWithID("X"), first);
    EXPECT_EQ(joined.personIDOf("X"), "X");

    ASSERT_NE(joined.find("A"), nullptr);
    EXPECT_EQ(joined.find("A")->id, "B");
    EXPECT_EQ(joined.personIDOf("A"), "B");
    EXPECT_FALSE(joined.isPersonID("A"));
    ASSERT_NE(joined.find("C"), nullptr);
    EXPECT_EQ(joined.find("C")->memberIDs, (std::vector<std::string>{"C", "A"}));

    EXPECT_EQ(joined.find("L"), lone);
    EXPECT_EQ(joined.find("M"), lone);
    EXPECT_EQ(joined.personIDOf("M"), "L");

    std::multiset<std::string> visited;
    joined.forEachPersonID([&](std::string_view id) { visited.emplace(id); });
    EXPECT_EQ(visited, (std::multiset<std::string>{"B", "C", "L", "X"}));
}

TEST(PersonJoinTest, NoCardsAndNothingYetReadFindNoOne) {
    for (const auto& joined : {JoinedPeople{}, joinPeople({})}) {
        EXPECT_TRUE(joined.people.empty());
        EXPECT_EQ(joined.find("A"), nullptr);
        EXPECT_EQ(joined.personIDOf("A"), std::nullopt);
        EXPECT_FALSE(joined.isPersonID("A"));
        EXPECT_EQ(joined.personWithID("A"), nullptr);
        int visited = 0;
        joined.forEachPersonID([&](std::string_view) { ++visited; });
        EXPECT_EQ(visited, 0);
    }
}

} // namespace
} // namespace kinbook
