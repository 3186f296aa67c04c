#include "KinbookKit/records/Person.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

Person derived(Person person) {
    person.derive();
    return person;
}

Person named(std::string given, std::string family) {
    Person person;
    person.givenName = std::move(given);
    person.familyName = std::move(family);
    return derived(std::move(person));
}

TEST(Person, DisplayNameFallsBackFromNamesToCompanyToEmailToPhone) {
    Person person;
    person.middleName = "Quincy"; // never part of the display name
    person.phoneNumbers = {"+1 555 0100"};
    EXPECT_EQ(derived(person).displayName(), "+1 555 0100");
    person.emailAddresses = {"a@example.com", "b@example.com"};
    EXPECT_EQ(derived(person).displayName(), "a@example.com");
    person.organization = "Acme";
    EXPECT_EQ(derived(person).displayName(), "Acme");
    person.familyName = "Lovelace";
    EXPECT_EQ(derived(person).displayName(), "Lovelace");
    person.givenName = "Ada";
    EXPECT_EQ(derived(person).displayName(), "Ada Lovelace");

    const auto nobody = derived(Person{});
    EXPECT_EQ(nobody.displayName(), "No Name");
    EXPECT_EQ(nobody.sectionLetter(), "#");
}

TEST(Person, SortKeysAreFoldedWithTheBlankAlwaysInserted) {
    const auto ada = named("Ada", "Lovelace");
    EXPECT_EQ(ada.sortKey(), "lovelace ada");
    EXPECT_EQ(ada.firstNameSortKey(), "ada lovelace");
    EXPECT_EQ(ada.sectionLetter(), "L");
    EXPECT_EQ(ada.firstNameSectionLetter(), "A");

    // No family name: the display name stands in, and the empty given name
    // still leaves its blank.
    const auto cher = named("", "Cher");
    EXPECT_EQ(cher.sortKey(), "cher ");
    Person company;
    company.organization = "Ørsted A/S";
    const auto orsted = derived(company);
    EXPECT_EQ(orsted.sortKey(), "orsted a/s ");
    EXPECT_EQ(orsted.sectionLetter(), "O") << "Ø is typed, and filed, as O";
    Person greek;
    greek.organization = "Ωmega";
    EXPECT_EQ(derived(greek).sectionLetter(), "#") << "a letter folding leaves outside ASCII files under #";
}

TEST(Person, SectionLettersComeFromTheFoldedKey) {
    EXPECT_EQ(named("Zoë", "Élodie").sectionLetter(), "E");
    EXPECT_EQ(named("Zoë", "Élodie").sortKey().substr(0, 6), "elodie");
    EXPECT_EQ(named("", "3M").sectionLetter(), "#");
    EXPECT_EQ(named("", "(Work)").sectionLetter(), "#");
    EXPECT_EQ(named("ßen", "").firstNameSectionLetter(), "S");
}

TEST(Person, SearchTextAndPhoneKeys) {
    Person person;
    person.givenName = "José";
    person.familyName = "Núñez";
    person.organization = "ACME";
    person.phoneNumbers = {"+1 (415) 555-0100", "ext. only", "+44 20 7946 0958"};
    person.emailAddresses = {"Jose@Example.com"};
    person.places = {"San José"};
    person.postalCodes = {"95110"};
    const auto joined = derived(person);
    EXPECT_EQ(joined.searchText(),
              "jose\n\nnunez\n\nacme\n\n\njose nunez\njose@example.com\nsan jose\n95110");
    EXPECT_EQ(joined.phoneDigits().strings(), (std::vector<std::string>{"14155550100", "", "442079460958"}));
    ASSERT_EQ(joined.areaCodes().size(), 2u) << "the number without a code is skipped";
    EXPECT_EQ(joined.areaCodes()[0], "415");
    EXPECT_EQ(joined.searchText().find("555"), std::string::npos) << "phones are not in the search text";
}

TEST(Person, CopyWithChangesKeepsOrReplacesEachField) {
    auto person = named("Ada", "Lovelace");
    person.circle = ContactCircle::friends;
    person.kinID = "K1";
    const auto same = person.with({});
    EXPECT_EQ(same, person);

    const auto cleared = person.with({.circle = std::optional<ContactCircle>{}, .kinID = std::nullopt});
    EXPECT_FALSE(cleared.circle.has_value()) << "setting none differs from keeping";
    EXPECT_EQ(cleared.kinID, "K1") << "an absent change keeps the old value";
    EXPECT_EQ(cleared.sortKey(), person.sortKey());

    const auto moved = person.with({.accountIDs = std::vector<std::string>{"a", "b"}, .hidden = true});
    EXPECT_EQ(moved.accountIDs, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(moved.hidden);
    EXPECT_EQ(moved.displayName(), "Ada Lovelace");
}

} // namespace
} // namespace kinbook
