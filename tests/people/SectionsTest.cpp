#include "KinbookKit/people/Sections.h"

#include "KinbookKit/text/AreaCodes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <utility>

namespace kinbook {
namespace {

struct PersonFields {
    std::string id;
    std::string given;
    std::string family;
    std::vector<std::string> phones = {};
    std::vector<std::string> postalCodes = {};
    std::optional<ContactCircle> circle = std::nullopt;
    int filledCount = 0;
    bool hasImage = false;
};

PersonPtr make(PersonFields fields) {
    Person person;
    person.id = std::move(fields.id);
    person.givenName = std::move(fields.given);
    person.familyName = std::move(fields.family);
    person.phoneNumbers = std::move(fields.phones);
    person.postalCodes = std::move(fields.postalCodes);
    person.circle = fields.circle;
    person.filledCount = fields.filledCount;
    person.hasImage = fields.hasImage;
    person.derive();
    return std::make_shared<const Person>(std::move(person));
}

// Each section's title with the ids of its people, in order: the whole
// shape of a list in one comparable value.
using Shape = std::vector<std::pair<std::string, std::vector<std::string>>>;

Shape shapeOf(const std::vector<Section>& sections) {
    Shape shape;
    for (const auto& section : sections) {
        std::vector<std::string> ids;
        for (const auto& person : section.people) {
            ids.push_back(person->id);
        }
        shape.emplace_back(section.letter, std::move(ids));
    }
    return shape;
}

Shape build(SortOrder order, const std::vector<PersonPtr>& people, bool descending = false) {
    return shapeOf(inDirection(buildSections(order, people), descending));
}

// Each order with people that tell its rules apart, and the sections they
// make ascending and, where the direction is more than the reverse, descending.
TEST(Sections, EachOrderFilesAndRanksPeopleByItsOwnRule) {
    const auto circle = [](ContactCircle c) { return std::string(circleTitle(c)); };
    const auto ny = AreaCodes::label("212");
    ASSERT_NE(ny, "212") << "the label names the place";
    struct Case {
        const char* what;
        SortOrder order;
        std::vector<PersonPtr> people;
        Shape ascending;
        Shape descending = {};
    };
    const Case cases[] = {
        // Digits sort before letters and non-Latin letters after them, yet
        // both file under the one "#" section, created where the first of
        // them sorts. The two Ann Adamses have equal keys and keep the order
        // they came in. Ø is typed, and filed, as O.
        {"last name",
         SortOrder::lastName,
         {make({"zola", "Émile", "Zola"}), make({"3m", "", "3M"}), make({"elodie", "Zoë", "Élodie"}),
          make({"orsted", "", "Ørsted"}), make({"adams", "Ann", "adams"}), make({"Adams2", "Ann", "Adams"}),
          make({"zhou", "", "周"})},
         {{"#", {"3m", "zhou"}},
          {"A", {"adams", "Adams2"}},
          {"E", {"elodie"}},
          {"O", {"orsted"}},
          {"Z", {"zola"}}},
         {{"Z", {"zola"}},
          {"O", {"orsted"}},
          {"E", {"elodie"}},
          {"A", {"Adams2", "adams"}},
          {"#", {"zhou", "3m"}}}},
        // Ties broken by the sort key; with no names the phone stands in and files under "#".
        {"first name",
         SortOrder::firstName,
         {make({"ann-b", "Ann", "Brown"}), make({"bo", "Bo", "Andersson"}), make({"ann-a", "Ann", "Abbott"}),
          make({"acme", "", "", {"+1 212 555 0100"}})},
         {{"#", {"acme"}}, {"A", {"ann-a", "ann-b"}}, {"B", {"bo"}}}},
        {"circle, from the closest, no circle last",
         SortOrder::circle,
         {make({"none", "Ann", "Able"}), make({"friend-b", "Bea", "Brown", {}, {}, ContactCircle::friends}),
          make({"closest", "Cy", "Cole", {}, {}, ContactCircle::closest}),
          make({"friend-a", "Al", "Adams", {}, {}, ContactCircle::friends}),
          make({"acquaintance", "Di", "Ames", {}, {}, ContactCircle::acquaintance})},
         {{circle(ContactCircle::closest), {"closest"}},
          {circle(ContactCircle::friends), {"friend-a", "friend-b"}},
          {circle(ContactCircle::acquaintance), {"acquaintance"}},
          {"No Circle", {"none"}}}},
        // International after national, then other numbers, then no phone;
        // within 212 a second code sorts the people, and the one with a
        // single code comes after both.
        {"area code",
         SortOrder::areaCode,
         {make({"no-phone", "Al", "Adams"}), make({"uk", "Bea", "Brown", {"+44 20 7946 0958"}}),
          make({"short", "Cy", "Cole", {"12"}}), make({"ny-single", "Di", "Dunn", {"(212) 555-0100"}}),
          make({"ny-then-sf", "Ed", "Eve", {"212-555-0101", "+1 415 555 0102"}}),
          make({"ny-then-la", "Flo", "Fox", {"212 555 0103", "213 555 0104"}}),
          make({"sf", "Gus", "Gray", {"415.555.0105"}})},
         {{ny, {"ny-then-la", "ny-then-sf", "ny-single"}},
          {AreaCodes::label("415"), {"sf"}},
          {AreaCodes::label("+44"), {"uk"}},
          {"Other Numbers", {"short"}},
          {"No Phone", {"no-phone"}}}},
        // ZIP+4 codes file under their first part; people without one last.
        {"zip",
         SortOrder::zip,
         {make({"no-address", "Al", "Adams"}),
          make({"plus-four", "Bea", "Brown", {}, {"94103-1234", "10001"}}),
          make({"plain", "Ann", "Able", {}, {"94103"}}), make({"london", "Cy", "Cole", {}, {"sw1a 1aa"}}),
          make({"new-york", "Di", "Dunn", {}, {"10001"}})},
         {{"10001", {"new-york"}},
          {"94103", {"plain", "plus-four"}},
          {"SW1A 1AA", {"london"}},
          {"No Address", {"no-address"}}},
         {{"No Address", {"no-address"}},
          {"SW1A 1AA", {"london"}},
          {"94103", {"plus-four", "plain"}},
          {"10001", {"new-york"}}}},
        {"completeness, most fields first",
         SortOrder::completeness,
         {make({"empty", "", "Empty", {}, {}, {}, 0}), make({"one", "", "One", {}, {}, {}, 1}),
          make({"twelve-b", "B", "Twelve", {}, {}, {}, 12}), make({"two", "", "Two", {}, {}, {}, 2}),
          make({"twelve-a", "A", "Twelve", {}, {}, {}, 12})},
         {{"12 fields", {"twelve-a", "twelve-b"}},
          {"2 fields", {"two"}},
          {"1 field", {"one"}},
          {"0 fields", {"empty"}}},
         {{"0 fields", {"empty"}},
          {"1 field", {"one"}},
          {"2 fields", {"two"}},
          {"12 fields", {"twelve-b", "twelve-a"}}}},
        // Descending keeps pictures first and runs the names from Z to A.
        {"photo",
         SortOrder::photo,
         {make({"ann", "Ann", "Able", {}, {}, {}, 0, true}), make({"bo", "Bo", "Brown"}),
          make({"zed", "Zed", "Zulu", {}, {}, {}, 0, true}), make({"cy", "Cy", "Cole"})},
         {{"Picture", {"ann", "zed"}}, {"No Picture", {"bo", "cy"}}},
         {{"Picture", {"zed", "ann"}}, {"No Picture", {"cy", "bo"}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(build(c.order, c.people), c.ascending);
        if (!c.descending.empty()) {
            EXPECT_EQ(build(c.order, c.people, true), c.descending);
        }
    }
}

TEST(Sections, SectionsNameThePeopleTheyWereGiven) {
    const std::vector<PersonPtr> people{make({"b", "Bo", "Brown"}), make({"a", "Al", "Adams"})};
    for (const auto order : allSortOrders()) {
        const auto sections = buildSections(order, people);
        ASSERT_EQ(peopleCount(sections), 2) << rawValue(order);
        for (const auto& section : sections) {
            for (const auto& person : section.people) {
                EXPECT_TRUE(person == people[0].get() || person == people[1].get()) << rawValue(order);
            }
        }
    }
    EXPECT_TRUE(buildSections(SortOrder::lastName, {}).empty());
}

TEST(Sections, HeadingsCountsAndFilteringDropEmptySections) {
    const std::vector<PersonPtr> people{
        make({"ann", "Ann", "Able"}),
        make({"al", "Al", "Adams"}),
        make({"bo", "Bo", "Brown"}),
    };
    const auto sections = buildSections(SortOrder::lastName, people);
    EXPECT_EQ(headingsOf(sections), (std::vector<Heading>{{"A", 2}, {"B", 1}}));
    EXPECT_EQ(peopleCount(sections), 3);

    const auto onlyB =
        filterSections(sections, [](const Person& person) { return person.givenName == "Bo"; });
    EXPECT_EQ(shapeOf(onlyB), (Shape{{"B", {"bo"}}}));
    EXPECT_EQ(onlyB.front().people.front(), people[2].get());
    EXPECT_TRUE(filterSections(sections, [](const Person&) { return false; }).empty());

    // Sections a caller put together may be empty; they are dropped too.
    const std::vector<Section> withEmpty{{"X", {}}, sections[0], {"Y", {}}, sections[1], {"Z", {}}};
    EXPECT_EQ(shapeOf(filterSections(withEmpty, [](const Person&) { return true; })), shapeOf(sections));
}

TEST(Sections, EqualityComparesPeopleByValue) {
    const auto ann = make({"ann", "Ann", "Able"});
    const auto sameAnn = make({"ann", "Ann", "Able"});
    const auto otherAnn = make({"ann2", "Ann", "Able"});
    EXPECT_EQ((Section{"A", {ann.get()}}), (Section{"A", {sameAnn.get()}}));
    EXPECT_NE((Section{"A", {ann.get()}}), (Section{"A", {otherAnn.get()}}));
    EXPECT_NE((Section{"A", {ann.get()}}), (Section{"B", {ann.get()}}));
    EXPECT_NE((Section{"A", {ann.get()}}), (Section{"A", {ann.get(), ann.get()}}));
}

// The sections as the table of orders describes them, worked out the plain
// way: a stable sort on the whole key, comparing the people's own strings.
std::vector<Section> plainSections(SortOrder order, std::vector<PersonPtr> people) {
    const auto zipKey = [](const Person& person) {
        std::string key(person.postalCodes.front().substr(0, person.postalCodes.front().find('-')));
        std::transform(key.begin(), key.end(), key.begin(),
                       [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
        return key;
    };
    const auto key = [&](const Person& p) {
        switch (order) {
        case SortOrder::lastName:
            return std::tuple<long, std::string, std::string, std::string>(0, "", "", p.sortKey());
        case SortOrder::firstName:
            return std::tuple<long, std::string, std::string, std::string>(0, p.firstNameSortKey(), "",
                                                                           p.sortKey());
        case SortOrder::circle:
            return std::tuple<long, std::string, std::string, std::string>(
                p.circle ? rawValue(*p.circle) : 99, "", "", p.sortKey());
        case SortOrder::areaCode: {
            const auto& codes = p.areaCodes();
            const long group = codes.empty()               ? (p.phoneNumbers.empty() ? 3 : 2)
                               : codes[0].starts_with('+') ? 1
                                                           : 0;
            return std::tuple<long, std::string, std::string, std::string>(group,
                                                                           codes.empty() ? "" : codes[0],
                                                                           codes.size() > 1 ? codes[1]
                                                                           : codes.empty()  ? ""
                                                                                            : "~",
                                                                           p.sortKey());
        }
        case SortOrder::zip:
            return std::tuple<long, std::string, std::string, std::string>(
                p.postalCodes.empty() ? 1 : 0, p.postalCodes.empty() ? "" : zipKey(p), "", p.sortKey());
        case SortOrder::completeness:
            return std::tuple<long, std::string, std::string, std::string>(-long{p.filledCount}, "", "",
                                                                           p.sortKey());
        case SortOrder::photo:
            return std::tuple<long, std::string, std::string, std::string>(p.hasImage ? 0 : 1, "", "",
                                                                           p.sortKey());
        }
        return std::tuple<long, std::string, std::string, std::string>();
    };
    const auto title = [&](const Person& p) -> std::string {
        switch (order) {
        case SortOrder::lastName:
            return std::string(p.sectionLetter());
        case SortOrder::firstName:
            return std::string(p.firstNameSectionLetter());
        case SortOrder::circle:
            return p.circle ? std::string(circleTitle(*p.circle)) : "No Circle";
        case SortOrder::areaCode:
            return !p.areaCodes().empty()   ? AreaCodes::label(p.areaCodes()[0])
                   : p.phoneNumbers.empty() ? "No Phone"
                                            : "Other Numbers";
        case SortOrder::zip:
            return p.postalCodes.empty() ? "No Address" : zipKey(p);
        case SortOrder::completeness:
            return p.filledCount == 1 ? "1 field" : std::to_string(p.filledCount) + " fields";
        case SortOrder::photo:
            return p.hasImage ? "Picture" : "No Picture";
        }
        return {};
    };
    std::stable_sort(people.begin(), people.end(),
                     [&](const PersonPtr& a, const PersonPtr& b) { return key(*a) < key(*b); });
    std::vector<Section> sections;
    for (const auto& person : people) {
        const auto name = title(*person);
        auto found = std::find_if(sections.begin(), sections.end(),
                                  [&](const Section& s) { return s.letter == name; });
        if (found == sections.end()) {
            sections.push_back(Section{name, {}});
            found = sections.end() - 1;
        }
        found->people.push_back(person.get());
    }
    return sections;
}

// People whose keys share long beginnings, hold NULs, or are not what the
// names would give (as a cache written by another version might hold), in
// no particular order: every comparison path of the section builder.
std::vector<PersonPtr> awkwardPeople(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    const auto pick = [&](const std::vector<std::string>& choices) {
        return choices[random() % choices.size()];
    };
    using namespace std::string_literals;
    const std::vector<std::string> names = {"",
                                            "Ann",
                                            "Zoë",
                                            "Émile",
                                            "3M",
                                            "Øre",
                                            "Иван",
                                            "abcdefghijklmnopqrstuvwxyz",
                                            "abcdefghijklmnopqrstuvwxyzabcdefghij",
                                            "abcdefghijklmnopqrstuvwxyzabcdefghik",
                                            "abcdefgh",
                                            "abcdefghi"};
    const std::vector<std::string> keys = {"",
                                           "a",
                                           "a\0"s,
                                           "a\0b"s,
                                           "abcdefgh",
                                           "abcdefgh\0"s,
                                           "abcdefghijklmnopqrstuvwxyzabcdef",
                                           "abcdefghijklmnopqrstuvwxyzabcdefg",
                                           "abcdefghijklmnopqrstuvwxyzabcdefg\0"s,
                                           "zz",
                                           "\xc3\xb8re"};
    const std::vector<std::string> codes = {"212",          "213",   "+44", "+4", "+1234567890",
                                            "+12345678901", "21\0"s, "~",   ""};
    const std::vector<std::string> zips = {"94103-1234",
                                           "94103",
                                           "sw1a 1aa",
                                           "SW1A 1AA",
                                           "",
                                           "abcdefghijklmnopqrstuvwxyz0123456789",
                                           "abcdefghijklmnopqrstuvwxyz0123456789-1",
                                           "abcdefghijklmnopqrstuvwxyz01234567",
                                           "-12",
                                           "a\0b"s};
    const std::vector<std::string> letters = {"A", "B", "#", "", "AB", "\0"s};
    std::vector<PersonPtr> people;
    for (std::size_t i = 0; i < count; ++i) {
        Person person;
        person.id = std::to_string(i);
        person.givenName = pick(names);
        person.familyName = pick(names);
        std::vector<std::string> phones;
        for (auto left = random() % 3; left > 0; --left) {
            phones.push_back(pick({"+1 212 555 0100", "+44 20 7946 0958", "12", "(213) 555-0101"}));
        }
        person.phoneNumbers = phones;
        if (random() % 3 != 0) {
            person.postalCodes = {pick(zips)};
        }
        if (random() % 2 == 0) {
            person.circle = circleFromRawValue(static_cast<long long>(random() % 6 + 1));
        }
        person.filledCount = static_cast<int>(random() % 5) - 1;
        person.hasImage = random() % 4 == 0;
        person.derive();
        if (random() % 2 == 0) {
            PersonKeys crafted = person.keys();
            crafted.sortKey = pick(keys);
            crafted.firstNameSortKey = pick(keys);
            crafted.sectionLetter = pick(letters);
            crafted.firstNameSectionLetter = pick(letters);
            crafted.areaCodes.clear();
            for (auto n = random() % 3; n > 0; --n) {
                crafted.areaCodes.push_back(pick(codes));
            }
            person.adoptKeys(std::move(crafted));
        }
        people.push_back(std::make_shared<const Person>(std::move(person)));
    }
    return people;
}

TEST(Sections, EveryOrderMatchesThePlainSortOnAwkwardKeys) {
    for (const unsigned seed : {1u, 2u}) {
        auto people = awkwardPeople(800, seed);
        for (const bool listOrder : {false, true}) {
            if (listOrder) {
                // As the list keeps them: by sort key.
                std::stable_sort(people.begin(), people.end(), [](const PersonPtr& a, const PersonPtr& b) {
                    return a->sortKey() < b->sortKey();
                });
            }
            const auto index = buildIndex(people);
            ASSERT_EQ(index.size(), allSortOrders().size());
            for (const auto order : allSortOrders()) {
                SCOPED_TRACE(::testing::Message()
                             << rawValue(order) << " seed " << seed << " list order " << listOrder);
                const auto expected = shapeOf(plainSections(order, people));
                EXPECT_EQ(shapeOf(buildSections(order, people)), expected);
                EXPECT_EQ(shapeOf(index.at(order)), expected);
            }
        }
    }
}

TEST(Sections, TheIndexStopsBetweenOrdersWhenAsked) {
    const std::vector<PersonPtr> people{make({"a", "Al", "Adams"})};
    int asked = 0;
    const auto index = buildIndex(people, [&] { return ++asked > 2; });
    EXPECT_EQ(index.size(), 2u);
    EXPECT_TRUE(index.contains(SortOrder::lastName));
    EXPECT_TRUE(index.contains(SortOrder::firstName));
}

} // namespace
} // namespace kinbook
