// The plain records the address book fills and every other part reads:
// cards, accounts, access, errors, card dates and past jobs.

#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/AddressBookError.h"
#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/DateComponents.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/records/PastJob.h"

#include <gtest/gtest.h>

#include <functional>

namespace kinbook {
namespace {

ContactCard sampleCard() {
    ContactCard card;
    card.id = "C1";
    card.givenName = "Jane";
    card.familyName = "Appleseed";
    card.phoneticName = joinPhoneticName("", "Appuru");
    card.phones = {{"mobile", "+1 212 555 0100", "p1"}, {"ex-work", "+1 212 555 0199", "p2"}};
    card.emails = {{"home", "jane@example.com", "e1"}};
    card.links = {{"s1", LinkService::github, "jane", false}};
    card.birthday = "February 29";
    card.thumbnail = std::vector<std::uint8_t>{1, 2, 3};
    card.kinID = "AB12CD34";
    return card;
}

TEST(ContactCard, EqualityAndHashCoverEveryField) {
    const ContactCard card = sampleCard();
    EXPECT_EQ(card.phoneticName, "Appuru");
    EXPECT_EQ(joinPhoneticName("Jein", "Appuru"), "Jein Appuru");
    EXPECT_EQ(joinPhoneticName("", ""), "");
    const std::hash<ContactCard> hash;
    EXPECT_EQ(card, sampleCard());
    EXPECT_EQ(hash(card), hash(sampleCard()));

    const std::vector<std::function<void(ContactCard&)>> changes = {
        [](ContactCard& c) { c.phones[0].id = "p9"; },
        [](ContactCard& c) { c.phones[1].label = "work"; },
        [](ContactCard& c) { std::swap(c.phones[0], c.phones[1]); },
        [](ContactCard& c) { c.nickname = "J"; },
        [](ContactCard& c) { c.birthday.reset(); },
        [](ContactCard& c) { c.links[0].handle = "jane2"; },
        [](ContactCard& c) { c.thumbnail->push_back(4); },
        [](ContactCard& c) { c.image = std::vector<std::uint8_t>{}; },
        [](ContactCard& c) { c.kinID.reset(); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        ContactCard changed = sampleCard();
        changes[i](changed);
        EXPECT_NE(changed, card) << "change " << i;
        EXPECT_NE(hash(changed), hash(card)) << "change " << i;
    }
}

TEST(Account, DisplayNameFallsBackOnTheKindOfAccount) {
    using Kind = AccountContainer::Kind;
    const struct {
        AccountContainer container;
        const char* name;
    } cases[] = {
        {{"a", "  Family  ", Kind::cardDAV, false}, "Family"},
        {{"a", "Contacts", Kind::cardDAV, true}, "iCloud"},
        {{"a", "Card", Kind::cardDAV, false}, "CardDAV"},
        {{"a", " ", Kind::exchange, false}, "Exchange"},
        {{"a", "", Kind::local, false}, "On My Computer"},
        {{"a", "", Kind::unassigned, false}, "Contacts"},
        {{"a", "Card", Kind::unassigned, false}, "Card"},
        {{"a", " Contacts\t", Kind::unassigned, false}, "Contacts"},
        {{"a", "contacts", Kind::cardDAV, true}, "contacts"}, // the generic names match exactly
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Account::displayName(c.container), c.name) << "'" << c.container.name << "'";
    }
    EXPECT_EQ(Account::from({"id1", "Work", Kind::local, false}), (Account{"id1", "Work"}));
}

TEST(AddressBookAccess, StoreAuthorizationMapsToAccess) {
    EXPECT_EQ(accessFromStoreAuthorization(0), AddressBookAccess::notDetermined);
    EXPECT_EQ(accessFromStoreAuthorization(1), AddressBookAccess::denied);
    EXPECT_EQ(accessFromStoreAuthorization(2), AddressBookAccess::denied);
    EXPECT_EQ(accessFromStoreAuthorization(3), AddressBookAccess::granted);
    EXPECT_EQ(accessFromStoreAuthorization(4), AddressBookAccess::limited);
    EXPECT_EQ(accessFromStoreAuthorization(5), AddressBookAccess::denied);
    EXPECT_EQ(accessFromStoreAuthorization(-1), AddressBookAccess::denied);
}

TEST(AddressBookError, DescriptionsAreTheUsersMessages) {
    EXPECT_EQ(AddressBookError::readOnly().description(), "This address book can't be edited.");
    EXPECT_EQ(AddressBookError::notFound().description(), "That contact no longer exists.");
    EXPECT_TRUE(
        AddressBookError::hasNote().description().starts_with("This contact has a note, and macOS won't"));
    EXPECT_EQ(AddressBookError::store("disk full").description(), "disk full");
}

TEST(DateComponents, MonthAndDayAreRequiredAndMustExist) {
    EXPECT_EQ(DateComponents::make(std::nullopt, 2, 29), (DateComponents{2, 29, std::nullopt}));
    EXPECT_EQ(DateComponents::make(2024, 2, 29), (DateComponents{2, 29, 2024}));
    EXPECT_EQ(DateComponents::make(2023, 2, 29), std::nullopt);
    EXPECT_EQ(DateComponents::make(1990, 5, std::nullopt), std::nullopt);
    EXPECT_EQ(DateComponents::make(1990, std::nullopt, 5), std::nullopt);
    EXPECT_EQ(DateComponents::make(1990, 13, 1), std::nullopt);
    EXPECT_EQ(DateComponents::make(1990, 4, 31), std::nullopt);
    EXPECT_EQ(DateComponents::make(1990, 0, 0), std::nullopt);
}

TEST(DateComponents, TextWritesTheMonthInWordsInTheLocalesOrder) {
    EXPECT_EQ((DateComponents{2, 29, std::nullopt}.text("en_US")), "February 29");
    EXPECT_EQ((DateComponents{3, 14, 1987}.text("en_US")), "March 14, 1987");
    EXPECT_EQ((DateComponents{3, 14, 1987}.text("en_GB")), "14 March 1987");
    EXPECT_EQ((DateComponents{2, 29, std::nullopt}.text("de_DE")), "29. Februar");
    EXPECT_EQ((DateComponents{12, 31, 1200}.text("en_US")), "December 31, 1200");
    EXPECT_EQ((DateComponents{2, 30, std::nullopt}.text("en_US")), std::nullopt);
}

// Only a company or a title makes a job; the summary joins what is present.
TEST(PastJob, SummaryJoinsWhatIsPresentAndOnlyCompanyOrTitleMakeAJob) {
    const struct {
        PastJob job;
        const char* summary;
        bool empty;
    } cases[] = {
        {{"1", "Acme", "Engineer", "1999-2004"}, "Engineer, Acme \u00B7 1999-2004", false},
        {{"1", "Acme", "", ""}, "Acme", false},
        {{"1", "", "Engineer", "2001"}, "Engineer \u00B7 2001", false},
        {{"1", "", "", "2001"}, " \u00B7 2001", true},
        {{"1", "  ", " ", "1999-2004"}, nullptr, true},
    };
    for (const auto& c : cases) {
        if (c.summary != nullptr) {
            EXPECT_EQ(c.job.summary(), c.summary);
        }
        EXPECT_EQ(c.job.isEmpty(), c.empty) << c.job.company << "|" << c.job.title;
    }
}

TEST(PastJob, SearchTextSkipsEmptyJobsAndJoinsByLine) {
    const std::vector<PastJob> jobs = {PastJob::make("Acme", "Engineer"), PastJob::make("", "", "1990"),
                                       PastJob::make("Globex", "")};
    EXPECT_EQ(pastJobsSearchText(jobs), "Engineer, Acme\nGlobex");
    EXPECT_EQ(pastJobsSearchText({}), "");
}

TEST(PastJob, JobsFileRoundTripsAndRejectsOtherShapes) {
    const std::vector<PastJob> jobs = {PastJob::make("Acme", "Engineer", "1999-2004"),
                                       PastJob::make("Initech", "")};
    EXPECT_NE(jobs[0].id, jobs[1].id);
    EXPECT_EQ(jobs[0].id.size(), 36u);
    EXPECT_EQ(PastJob::decodeList(PastJob::encodeList(jobs)), jobs);
    EXPECT_EQ(PastJob::decodeList("[]"), std::vector<PastJob>{});
    for (const char* bad : {"", "{}", "[{\"id\": \"x\"}]", "[1]",
                            "[{\"id\":1,\"company\":\"\",\"title\":\"\",\"years\":\"\"}]"}) {
        EXPECT_EQ(PastJob::decodeList(bad), std::nullopt) << bad;
    }
}

} // namespace
} // namespace kinbook
