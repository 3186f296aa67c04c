#include "KinbookKit/people/SearchQuery.h"

#include <gtest/gtest.h>

#include <random>

namespace kinbook {
namespace {

Person person(std::string given, std::string family, std::string organization = {},
              std::vector<std::string> phones = {}) {
    Person result;
    result.givenName = std::move(given);
    result.familyName = std::move(family);
    result.organization = std::move(organization);
    result.phoneNumbers = std::move(phones);
    result.derive();
    return result;
}

bool finds(std::string_view query, const Person& who, const std::string* pastJobs = nullptr) {
    return SearchQuery::parse(query).matches(who, pastJobs);
}

TEST(SearchQuery, ParseTrimsFoldsAndSplitsAtAnyWhiteSpace) {
    const auto query = SearchQuery::parse("\u00a0 José\t(555)\u3000 12-34  ");
    EXPECT_EQ(query.whole, "jose\t(555)\u3000 12-34");
    ASSERT_EQ(query.words.size(), 3u);
    EXPECT_EQ(query.words[0], (SearchQuery::Word{"jose", ""}));
    EXPECT_EQ(query.words[1], (SearchQuery::Word{"(555)", "555"}));
    EXPECT_EQ(query.words[2], (SearchQuery::Word{"12-34", "1234"}));
    EXPECT_EQ(query.wholeBytes(), query.whole);
}

TEST(SearchQuery, OnlyNumbersWithPhonePunctuationArePhoneLike) {
    struct Case {
        std::string_view word;
        std::string_view digits;
    };
    const Case cases[] = {
        {"+44", "44"},  {"5-5-5", "555"}, {"(0)20.7946", "0207946"},
        {"٥٥٥", "٥٥٥"}, // Arabic-Indic digits
        {"a5", ""},     {"5a", ""},       {"-()", ""},
        {"5/5", ""},    {"５#", ""},
    };
    for (const auto& c : cases) {
        const auto query = SearchQuery::parse(c.word);
        ASSERT_EQ(query.words.size(), 1u) << c.word;
        EXPECT_EQ(query.words[0].digitBytes, c.digits) << c.word;
    }
}

TEST(SearchQuery, BlankQueriesAreEmptyAndMatchEveryone) {
    for (const auto* text : {"", "   ", "\t\n\u2003"}) {
        const auto query = SearchQuery::parse(text);
        EXPECT_TRUE(query.isEmpty()) << text;
        EXPECT_TRUE(query.matches(person("Ann", "Smith"), nullptr)) << text;
    }
}

TEST(SearchQuery, WordsMatchInAnyOrderAndAcrossFields) {
    const auto annSmith = person("Ann", "Smith");
    const auto smithAtAnnCo = person("", "Smith", "Joanna Holdings");
    const auto annJones = person("Ann", "Jones");
    EXPECT_TRUE(finds("ann smith", annSmith));
    EXPECT_TRUE(finds("SMITH  Ann", annSmith));
    EXPECT_TRUE(finds("ann smith", smithAtAnnCo));
    EXPECT_FALSE(finds("ann smith", annJones));
    EXPECT_TRUE(finds("  ann  ", annJones)) << "blanks around a query are not part of it";
}

TEST(SearchQuery, FoldedKeysFindAccentsAndCaseEitherWay) {
    const auto jose = person("José", "Núñez");
    EXPECT_TRUE(finds("jose", jose));
    EXPECT_TRUE(finds("JOSÉ NUNEZ", jose));
    EXPECT_TRUE(finds("é", jose));
    EXPECT_FALSE(finds("josé x", jose));
}

TEST(SearchQuery, PhoneLikeWordsSearchEachNumbersDigits) {
    const auto withPhone = person("Ann", "Smith", "", {"+1 (555) 010-0199 ext. 7", "+44 20 7946 0958"});
    EXPECT_TRUE(finds("555", withPhone));
    EXPECT_TRUE(finds("5-5-5", withPhone));
    EXPECT_TRUE(finds("(555) 0100", withPhone)) << "each word may match a different stretch";
    EXPECT_TRUE(finds("ann 7946", withPhone));
    EXPECT_FALSE(finds("a5", withPhone)) << "not phone-like, so only the texts are searched";
    // Digits are matched within one number, never across two.
    EXPECT_FALSE(finds("7+44", withPhone));
    // The formatted text of a number is not searched: phones are not part of
    // the search text, only their digits are.
    EXPECT_FALSE(finds("ext.", withPhone));
    EXPECT_FALSE(finds("555 ext", withPhone));
}

TEST(SearchQuery, PastJobTextIsSearchedForTheWholeQueryAndForWords) {
    const auto ann = person("Ann", "Smith", "Globex");
    const std::string pastJobs = "initech\nsenior engineer";
    EXPECT_TRUE(finds("initech", ann, &pastJobs));
    EXPECT_TRUE(finds("ech\nsen", ann, &pastJobs)) << "the whole query, line break and all";
    EXPECT_TRUE(finds("ann initech", ann, &pastJobs));
    EXPECT_FALSE(finds("initech", ann));
    EXPECT_FALSE(finds("ann hooli", ann, &pastJobs));
}

TEST(SearchQuery, ByteSearchAgreesWithAPlainFindAtEveryLengthAndPosition) {
    // Texts from a small alphabet, so that near misses abound, at lengths
    // around the sixteen-byte blocks the search works in.
    std::mt19937 random(7);
    const std::string alphabet[] = {"a", "b", "c", "λ"}; // all as folding leaves them
    const auto text = [&](std::size_t pieces) {
        std::string result;
        for (std::size_t i = 0; i < pieces; ++i) {
            result += alphabet[random() % 4];
        }
        return result;
    };
    for (int round = 0; round < 4000; ++round) {
        Person person;
        person.derive();
        PersonKeys keys = person.keys();
        keys.searchText = text(random() % 70);
        person.adoptKeys(keys);
        const auto needle = text(random() % 20 + 1);
        ASSERT_EQ(SearchQuery::parse(needle).matches(person, nullptr),
                  keys.searchText.find(needle) != std::string::npos)
            << "'" << needle << "' in '" << keys.searchText << "'";
    }
}

} // namespace
} // namespace kinbook
