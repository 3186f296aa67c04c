#include "KinbookKit/people/SearchIndex.h"

#include "KinbookKit/text/Fold.h"

#include <gtest/gtest.h>

#include <random>

namespace kinbook {
namespace {

PersonPtr personNamed(std::string given, std::string family, std::string organization = {},
                      std::vector<std::string> emails = {}, std::vector<std::string> phones = {}) {
    Person person;
    person.id = given + "." + family;
    person.givenName = std::move(given);
    person.familyName = std::move(family);
    person.organization = std::move(organization);
    person.emailAddresses = std::move(emails);
    person.phoneNumbers = std::move(phones);
    person.derive();
    return std::make_shared<const Person>(std::move(person));
}

TEST(SearchIndexTest, FindsBytesExactlyWhereAPlainSearchDoes) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> letter('a', 'd');
    for (int round = 0; round < 2000; ++round) {
        std::string haystack(static_cast<std::size_t>(round % 70), ' ');
        for (auto& c : haystack) {
            c = static_cast<char>(letter(random));
        }
        std::string needle(static_cast<std::size_t>(1 + round % 5), ' ');
        for (auto& c : needle) {
            c = static_cast<char>(letter(random));
        }
        ASSERT_EQ(findBytes(haystack, needle), std::string_view(haystack).find(needle))
            << haystack << " / " << needle;
    }
    EXPECT_EQ(findBytes("abc", ""), 0u);
    EXPECT_EQ(findBytes("", "a"), std::string_view::npos);
}

TEST(SearchIndexTest, KnowsItsPeopleAndMatchesWhatTheQueryItselfSaysOfEach) {
    const std::vector<PersonPtr> people = {
        personNamed("Ann", "Smith", "", {"ann@example.com"}, {"+1 (555) 010-0199"}),
        personNamed("Bob", "Smithers", "Annex Corp"),
        personNamed("José", "Álvarez", "", {}, {"0612 34 56 78", "555-1234"}),
        personNamed("", "", "", {}, {}),
        personNamed("Zoë", "Ångström", "Grønt AS", {"zoe@gront.no"}),
        personNamed("Li", "Wei", "", {}, {"(555) 12-34"}),
    };
    const SearchIndex index(people);
    ASSERT_EQ(index.size(), people.size());
    for (std::uint32_t position = 0; position < people.size(); ++position) {
        EXPECT_EQ(index.positionOf(people[position].get()), position);
        EXPECT_EQ(index.searchText(position), people[position]->searchText());
    }
    // Sections name their people by position only when the index knows them all.
    const auto stranger = personNamed("Cy", "Cole");
    EXPECT_EQ(index.positionOf(stranger.get()), std::nullopt);
    EXPECT_EQ(index.positionsOf(std::vector<Section>{{"B", {people[1].get()}}, {"S", {people[0].get()}}}),
              (std::vector<std::uint32_t>{1, 0}));
    EXPECT_EQ(index.positionsOf(std::vector<Section>{{"A", {people[0].get()}}, {"C", {stranger.get()}}}),
              std::nullopt);

    // Bob's past job; everyone else has none.
    const std::string pastJob = fold("Analyst, Initech");
    std::vector<const std::string*> pastJobs(people.size(), nullptr);
    pastJobs[1] = &pastJob;

    const std::vector<std::string> queries = {
        "a", "s", "ann smith", "smith ann", "jose", "ALVAREZ", "555", "5-5-5", "(555)", "a5", "12-34",
        "initech", "bob initech", "no name", "ø", "angstrom", "zqx", "corp annex", "ann\nsmith",
        "example.com", "0612 78",
        // One byte: answered by which letters a text holds, for the bytes
        // that have a bit, and looked for in the text for those that don't.
        "z", "9", "@", ".", "-", "q", "é", "!", "1 (", "x!",
        // Letter pairs: two letters are answered by the pair alone, more by
        // the texts that hold every pair.
        "sm", "nn", "ob", "xa", "ith", "mis", "ann sm"};
    for (const auto& text : queries) {
        const auto query = SearchQuery::parse(text);
        for (const bool withPastJobs : {false, true}) {
            const std::span<const std::string* const> past =
                withPastJobs ? std::span<const std::string* const>(pastJobs)
                             : std::span<const std::string* const>();
            std::vector<std::uint8_t> everyone(people.size(), 0);
            index.match(query, {}, true, past, everyone);
            // Only some candidates: the others are left alone.
            const std::vector<std::uint32_t> someone = {4, 0, 2};
            std::vector<std::uint8_t> some(people.size(), 0);
            index.match(query, someone, false, past, some);
            for (std::uint32_t position = 0; position < people.size(); ++position) {
                const bool expected =
                    query.matches(*people[position], withPastJobs ? pastJobs[position] : nullptr);
                EXPECT_EQ(everyone[position] != 0, expected) << text << " / person " << position;
                const bool candidate = std::find(someone.begin(), someone.end(), position) != someone.end();
                EXPECT_EQ(some[position] != 0, candidate && expected) << text << " / person " << position;
            }
        }
    }
}

} // namespace
} // namespace kinbook
