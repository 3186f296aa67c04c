#include "KinbookKit/vcard/CardReader.h"

#include "KinbookKit/records/KinID.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace kinbook {
namespace {

const std::filesystem::path kSamples = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real";

using testing::readFile;

VCard sample(const std::string& name) {
    return VCard::parse(readFile(kSamples / name)).value();
}

VCard card(const std::string& lines, const char* version = "3.0") {
    return VCard::parse(std::string("BEGIN:VCARD\r\nVERSION:") + version + "\r\n" + lines + "END:VCARD\r\n")
        .value();
}

ContactCard read(const VCard& vcard) {
    EntryRegistry registry;
    return readContactCard(vcard, "card", registry, "en_US");
}

std::vector<std::pair<std::string, std::string>> labelled(const std::vector<ContactCard::Item>& items) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const auto& item : items) {
        pairs.emplace_back(item.label, item.value);
    }
    return pairs;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(CardReader, ReadsAnAppleCardWithItsLabelsDatesRelationsAndLinks) {
    const auto contact =
        read(card("N:Lindqvist;Maja;;;\r\nFN:Maja Lindqvist\r\nORG:Nordlys AB;\r\n"
                  "TEL;type=CELL;type=VOICE;type=pref:+46 70 123 45 67\r\n"
                  "TEL;type=IPHONE;type=CELL;type=VOICE:+46 70 765 43 21\r\n"
                  "item1.TEL:+46 8 555 010 00\r\nitem1.X-ABLabel:ex-work\r\n"
                  "item2.EMAIL;type=INTERNET:maja@school.example\r\nitem2.X-ABLabel:_$!<School>!$_\r\n"
                  "item3.URL;type=pref:https://maja.example\r\nitem3.X-ABLabel:_$!<HomePage>!$_\r\n"
                  "item4.ADR;type=HOME;type=pref:;;Storgatan 1;Uppsala;;753 20;Sweden\r\n"
                  "item4.X-ABADR:se\r\n"
                  "BDAY;X-APPLE-OMIT-YEAR=1604:1604-03-15\r\n"
                  "item5.X-ABDATE:2015-06-20\r\nitem5.X-ABLabel:_$!<Anniversary>!$_\r\n"
                  "item6.X-ABRELATEDNAMES:Erik Lindqvist\r\nitem6.X-ABLabel:_$!<Spouse>!$_\r\n"
                  "item7.IMPP;X-SERVICE-TYPE=Signal:x-apple:+46701234567\r\nitem7.X-ABLabel:Signal\r\n"
                  "X-SOCIALPROFILE;type=instagram;x-user=majal:x-apple:majal\r\n"
                  "X-PHONETIC-LAST-NAME:Lindkvist\r\n"));
    EXPECT_EQ(contact.givenName, "Maja");
    EXPECT_EQ(contact.organization, "Nordlys AB");
    EXPECT_EQ(contact.department, "");
    EXPECT_EQ(contact.phoneticName, "Lindkvist");
    EXPECT_EQ(labelled(contact.phones), (Pairs{{"mobile", "+46 70 123 45 67"},
                                               {"iPhone", "+46 70 765 43 21"},
                                               {"ex-work", "+46 8 555 010 00"}}));
    EXPECT_EQ(labelled(contact.emails), (Pairs{{"school", "maja@school.example"}}));
    EXPECT_EQ(labelled(contact.urls), (Pairs{{"homepage", "https://maja.example"}}));
    EXPECT_EQ(labelled(contact.addresses), (Pairs{{"home", "Storgatan 1\n753 20 Uppsala\nSweden"}}));
    EXPECT_EQ(contact.birthday, "March 15");
    EXPECT_EQ(labelled(contact.dates), (Pairs{{"anniversary", "June 20, 2015"}}));
    EXPECT_EQ(labelled(contact.relations), (Pairs{{"spouse", "Erik Lindqvist"}}));
    EXPECT_EQ(labelled(contact.messaging), (Pairs{{"Signal", "+46701234567"}}));
    EXPECT_EQ(labelled(contact.social), (Pairs{{"instagram", "majal"}}));
    ASSERT_EQ(contact.links.size(), 2u);
    EXPECT_EQ(contact.links[0].service, LinkService::signal);
    EXPECT_EQ(contact.links[0].handle, "+46701234567");
    EXPECT_EQ(contact.links[0].id, contact.messaging[0].id);
    EXPECT_EQ(contact.links[1].service, LinkService::instagram);
    EXPECT_EQ(contact.links[1].handle, "majal");
    EXPECT_FALSE(contact.links[1].isNew);
}

TEST(CardReader, ReadsTheRealSamplesOfEachDialect) {
    const auto ios = read(sample("apple-ios14--IM-iOS.vcf"));
    EXPECT_EQ(ios.familyName, "IosIMKontakt");
    EXPECT_EQ(ios.messaging.size(), 18u);
    EXPECT_EQ(ios.messaging[6], (ContactCard::Item{"WhatsApp", "0283839", ios.messaging[6].id}));
    EXPECT_EQ(ios.messaging[7].label, "Mike’s very special, custom IM:");
    EXPECT_EQ(ios.messaging[11],
              (ContactCard::Item{"GoogleTalk", "gtalk@example.com", ios.messaging[11].id}));

    const auto gmail = read(sample("google-gmail-export--gmail-single2.vcf"));
    EXPECT_EQ(gmail.phones[8], (ContactCard::Item{"GRAND_CENTRAL", "5555551119", gmail.phones[8].id}));
    EXPECT_EQ(gmail.phones[0].label, "other");
    EXPECT_EQ(gmail.nickname, "TheNickname");
    EXPECT_EQ(gmail.phoneticName, "ThePhoneticFirstName ThePhoneticLastName");
    EXPECT_EQ(gmail.birthday, "June 23, 1912");
    EXPECT_EQ(labelled(gmail.dates), (Pairs{{"anniversary", "March 20, 1930"},
                                            {"", "July 4, 1776"},
                                            {"CustomDateCategory", "September 12, 2000"}}));
    EXPECT_EQ(gmail.relations[1], (ContactCard::Item{"spouse", "Name2", gmail.relations[1].id}));
    EXPECT_EQ(gmail.relations[9].label, "RELATIVE");
    EXPECT_EQ(gmail.urls[0].value, "http://www.example1.com");

    const auto outlook = read(sample("outlook--John_Doe_MS_OUTLOOK.vcf"));
    EXPECT_EQ(outlook.givenName, "John");
    EXPECT_EQ(outlook.namePrefix, "Mr.");
    EXPECT_EQ(outlook.department, "Accounting");
    EXPECT_EQ(outlook.birthday, "March 22, 1980");
    EXPECT_EQ(labelled(outlook.phones), (Pairs{{"work", "(905) 555-1234"}, {"home", "(905) 666-1234"}}));
    EXPECT_EQ(outlook.addresses[1].value,
              "Silicon Alley 5,\nNew York, New York 12345\nUnited States of America");
    EXPECT_EQ(labelled(outlook.dates), (Pairs{{"anniversary", "January 13, 2011"}}));
    EXPECT_TRUE(outlook.image && !outlook.image->empty());

    const auto evolution = read(sample("evolution--John_Doe_EVOLUTION.vcf"));
    EXPECT_EQ(evolution.middleName, "Richter, James");
    EXPECT_EQ(labelled(evolution.messaging), (Pairs{{"AIM", "johnny5@aol.com"}}));

    const auto nextcloud = read(sample("nextcloud-sabre--IM-Nextcloud.vcf"));
    EXPECT_EQ(nextcloud.givenName, "Test Kontakt"); // FN alone names it
    EXPECT_EQ(nextcloud.messaging[0],
              (ContactCard::Item{"SKYPE", "skype@example.com", nextcloud.messaging[0].id}));
    ASSERT_EQ(nextcloud.links.size(), 1u);
    EXPECT_EQ(nextcloud.links[0].service, LinkService::telegram);

    const auto nextcloud4 = read(sample("nextcloud-download-v4--issue114.vcf"));
    EXPECT_EQ(labelled(nextcloud4.phones), (Pairs{{"mobile", "+49 1234 56789"}, {"work", "+49 9876 54321"}}));
    EXPECT_EQ(nextcloud4.organization, "Dummy GmbH");

    const auto fullcontact = read(sample("fullcontact-v4--fullcontact.vcf"));
    EXPECT_FALSE(fullcontact.givenName.empty() && fullcontact.familyName.empty());

    // Android's 2.1 quoted-printable, in the third card of its export.
    const auto android = VCard::parseAll(readFile(kSamples / "android-v21--John_Doe_ANDROID.vcf")).value();
    ASSERT_GE(android.size(), 3u);
    EXPECT_EQ(read(android[2]).familyName, "Ñ Ñ Ñ Ñ ");
    EXPECT_EQ(labelled(read(android[2]).phones), (Pairs{{"mobile", "123456789"}}));
}

TEST(CardReader, ReadsBirthdaysInEveryForm) {
    struct Form {
        const char* line;
        std::optional<DateComponents> date;
    };
    const Form forms[] = {
        {"BDAY:1985-12-10", DateComponents{12, 10, 1985}},
        {"BDAY:19851210", DateComponents{12, 10, 1985}},
        {"BDAY:1985-12-10T00:00:00Z", DateComponents{12, 10, 1985}},
        {"BDAY;value=date:1980-05-21", DateComponents{5, 21, 1980}},
        {"BDAY:--1210", DateComponents{12, 10, std::nullopt}},
        {"BDAY:--12-10", DateComponents{12, 10, std::nullopt}},
        {"BDAY;X-APPLE-OMIT-YEAR=1604:1604-12-10", DateComponents{12, 10, std::nullopt}},
        {"BDAY:1604-12-10", DateComponents{12, 10, std::nullopt}},
        {"BDAY:16041210", DateComponents{12, 10, std::nullopt}},
        {"BDAY;X-APPLE-OMIT-YEAR=1900:1900-02-28", DateComponents{2, 28, std::nullopt}},
        {"BDAY:--0229", DateComponents{2, 29, std::nullopt}},
        {"BDAY:2001-02-29", std::nullopt},
        {"BDAY:1985-12", std::nullopt},
        {"BDAY:---10", std::nullopt},
        {"BDAY;VALUE=text:circa 1800", std::nullopt},
        {"BDAY:", std::nullopt},
    };
    for (const auto& form : forms) {
        EXPECT_EQ(readBirthday(card(std::string(form.line) + "\r\n")), form.date) << form.line;
    }
    EXPECT_EQ(read(card("BDAY:--0229\r\n")).birthday, "February 29");
    EXPECT_EQ(read(card("BDAY:1985-12\r\n")).birthday, std::nullopt);
}

TEST(CardReader, KeepsAnchorsOutOfTheWebAddresses) {
    const VCard anchored =
        card("N:A;B;;;\r\nURL:https://example.com\r\n"
             "item1.URL:KINBOOK://C/ab12cd34?h=1&r=2&p=1\r\nitem1.X-ABLabel:Vellumary Contacts\r\n"
             "URL:https://www.instagram.com/bee\r\n");
    const auto contact = read(anchored);
    EXPECT_EQ(labelled(contact.urls), (Pairs{{"", "https://example.com"}}));
    EXPECT_EQ(contact.kinID, "AB12CD34");
    ASSERT_EQ(contact.links.size(), 1u);
    EXPECT_EQ(contact.links[0].handle, "bee");

    const Person person = readPerson(anchored, "card", "acct", false);
    EXPECT_EQ(person.kinID, "AB12CD34");
    EXPECT_TRUE(person.hidden);
    EXPECT_EQ(person.circle, circleFromRawValue(2));
    EXPECT_TRUE(person.isPrimaryCard);
    EXPECT_FALSE(person.detailed);

    EntryRegistry registry;
    const auto draft = readDraft(anchored, "card", registry);
    EXPECT_EQ(draft.anchorURL, "KINBOOK://C/ab12cd34?h=1&r=2&p=1");
    ASSERT_EQ(draft.urls.size(), 1u);
    EXPECT_EQ(draft.urls[0].value, "https://example.com");
    EXPECT_EQ(read(card("N:A;B;;;\r\n")).kinID, std::nullopt);
}

TEST(CardReader, DraftsKeepLabelConstantsAndAddressParts) {
    EntryRegistry registry;
    const VCard source =
        card("N:Doe;Jane;;;\r\nTEL;TYPE=CELL:1\r\nitem1.EMAIL:a@b.c\r\nitem1.X-ABLabel:ex-work\r\n"
             "ADR;TYPE=WORK:PO Box 7;Suite 4;1 Main St\\n2nd floor;Springfield;IL;62701;USA\r\n"
             "BDAY:--0704\r\nitem2.IMPP;X-SERVICE-TYPE=Telegram:x-apple:janed\r\n");
    const auto draft = readDraft(source, "card", registry);
    EXPECT_EQ(draft.id, "card");
    EXPECT_EQ(draft.phones[0].label, "_$!<Mobile>!$_");
    EXPECT_EQ(draft.emails[0].label, "ex-work");
    ASSERT_EQ(draft.addresses.size(), 1u);
    const auto& address = draft.addresses[0];
    EXPECT_EQ(address.label, "_$!<Work>!$_");
    EXPECT_EQ(address.street, "1 Main St\n2nd floor\nSuite 4\nPO Box 7");
    EXPECT_EQ(address.city, "Springfield");
    EXPECT_EQ(address.state, "IL");
    EXPECT_EQ(address.postalCode, "62701");
    EXPECT_EQ(address.country, "USA");
    EXPECT_EQ(draft.birthday, (DateComponents{7, 4, std::nullopt}));
    ASSERT_EQ(draft.links.size(), 1u);
    EXPECT_EQ(draft.messageLinkIDs, std::set<std::string>{draft.links[0].id});
    EXPECT_EQ(read(source).addresses[0].value,
              "1 Main St\n2nd floor\nSuite 4\nPO Box 7\nSpringfield, IL 62701\nUSA");
}

TEST(CardReader, FormatsAddressesForTheirCountry) {
    ContactDraft::Address address{.street = "10 Downing St", .city = "London", .postalCode = "SW1A 2AA"};
    address.country = "United Kingdom";
    EXPECT_EQ(formatPostalAddress(address), "10 Downing St\nLondon\nSW1A 2AA\nUnited Kingdom");
    address.country = "Deutschland";
    EXPECT_EQ(formatPostalAddress(address), "10 Downing St\nSW1A 2AA London\nDeutschland");
    address.country = "";
    EXPECT_EQ(formatPostalAddress(address, "fr"), "10 Downing St\nSW1A 2AA London");
    EXPECT_EQ(formatPostalAddress(address), "10 Downing St\nLondon SW1A 2AA");
    EXPECT_EQ(formatPostalAddress(ContactDraft::Address{.state = "NY", .postalCode = "10011"}), "NY 10011");
    EXPECT_EQ(formatPostalAddress(ContactDraft::Address{}), "");
}

TEST(CardReader, GivesIdenticalEntriesDistinctStableIdentities) {
    const VCard twins = card("N:A;B;;;\r\nTEL:555\r\nTEL:555\r\nEMAIL:a@b.c\r\n");
    EntryRegistry first;
    EntryRegistry second;
    const auto once = readContactCard(twins, "card", first);
    const auto again = readContactCard(VCard::parse(twins.serialize()).value(), "card", second);
    ASSERT_EQ(once.phones.size(), 2u);
    EXPECT_NE(once.phones[0].id, once.phones[1].id);
    EXPECT_NE(once.phones[0].id, once.emails[0].id);
    EXPECT_EQ(once, again);
}

TEST(CardReader, TellsGroupAndCompanyCards) {
    EXPECT_TRUE(isGroupCard(card("FN:Friends\r\nX-ADDRESSBOOKSERVER-KIND:group\r\n")));
    EXPECT_TRUE(isGroupCard(card("FN:Team\r\nKIND:Group\r\n", "4.0")));
    EXPECT_FALSE(isGroupCard(card("FN:Jo\r\nKIND:individual\r\n", "4.0")));

    const VCard company = card("N:Doe;John;;;\r\nFN:Acme\r\nX-ABShowAs:COMPANY\r\n");
    EXPECT_TRUE(isCompanyCard(company));
    const Person person = readPerson(company, "c", "acct", true);
    EXPECT_EQ(person.organization, "Acme"); // FN stands in for the missing ORG
    EXPECT_EQ(person.givenName, "");
    EXPECT_EQ(read(company).givenName, "John");
}

TEST(CardReader, ReadsTheRawPerson) {
    const VCard source =
        card("N:Doe;Jane;Q;;\r\nNICKNAME:JD,Janie\r\nORG:Acme\\, Inc.;Sales\r\nTITLE:Boss\r\n"
             "TEL: 555 \r\nTEL:\r\nEMAIL:jane@example.com\r\n"
             "ADR:;;1 Main St;Springfield;IL;62701;USA\r\nADR:;;;;;;\r\n"
             "URL:kinbook://c/AB12\r\nURL:https://example.com\r\nBDAY:--0101\r\n"
             "PHOTO;ENCODING=b;TYPE=JPEG:/9j/4AAQ\r\nUID: uid-1 \r\n");
    const Person person = readPerson(source, "uid-1", "acct", true);
    EXPECT_EQ(person.id, "uid-1");
    EXPECT_EQ(person.middleName, "Q");
    EXPECT_EQ(person.nickname, "JD, Janie");
    EXPECT_EQ(person.organization, "Acme, Inc.");
    EXPECT_EQ(person.department, "Sales");
    EXPECT_EQ(person.phoneNumbers, std::vector<std::string>{"555"});
    EXPECT_EQ(person.postalCodes, std::vector<std::string>{"62701"});
    EXPECT_EQ(person.places, std::vector<std::string>{"Springfield, IL, USA"});
    EXPECT_TRUE(person.hasImage);
    // 7 name and work texts, a phone, an e-mail, an address, a web address,
    // the birthday and the photo; blank entries and the anchor don't count.
    EXPECT_EQ(person.filledCount, 13);
    EXPECT_EQ(person.accountIDs, std::vector<std::string>{"acct"});
    EXPECT_EQ(person.memberIDs, std::vector<std::string>{"uid-1"});
    EXPECT_EQ(person.kinID, "AB12");
    EXPECT_TRUE(person.detailed);

    const Person names = readPerson(source, "uid-1", "acct", false);
    EXPECT_EQ(names.familyName, "Doe");
    EXPECT_TRUE(names.phoneNumbers.empty());
    EXPECT_EQ(names.filledCount, 0);
    EXPECT_EQ(names.kinID, "AB12");
    EXPECT_EQ(cardIDOf(source, "file.vcf"), "uid-1");
}

TEST(CardReader, MakesSafeStableIDsFromFileNames) {
    EXPECT_EQ(cardIDFromFileName("6C8E3B8A-2F4D.vcf"), "6C8E3B8A-2F4D");
    EXPECT_EQ(cardIDFromFileName("jane@example.com.VCF"), "jane@example.com");
    const std::string spaced = cardIDFromFileName("Jane Doe.vcf");
    const std::string underscored = cardIDFromFileName("Jane_Doe.vcf");
    EXPECT_EQ(spaced, cardIDFromFileName("Jane Doe.vcf"));
    EXPECT_NE(spaced, cardIDFromFileName("Jane:Doe.vcf"));
    EXPECT_NE(spaced, underscored);
    EXPECT_EQ(spaced.rfind("Jane-Doe-", 0), 0u);
    for (const std::string name : {"Jane Doe.vcf", "../x.vcf", ".vcf", "Zoë.vcf"}) {
        const std::string id = cardIDFromFileName(name);
        EXPECT_FALSE(id.empty()) << name;
        EXPECT_EQ(id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.@"),
                  std::string::npos)
            << name;
    }
    EXPECT_EQ(cardIDOf(card("UID:   \r\nN:A;B\r\n"), "x y.vcf"), cardIDFromFileName("x y.vcf"));
}

// The label of the first property named `property` among `lines`.
std::string labelOf(const std::string& lines, const char* property, const char* version) {
    const VCard source = card("FN:X\r\n" + lines, version);
    const VCardProperty* found = source.first(property);
    EXPECT_NE(found, nullptr) << lines;
    return found ? readLabel(source, *found) : std::string("<none>");
}

struct LabelCase {
    const char* lines;
    const char* property;
    const char* label;
    const char* version = "3.0";
};

TEST(CardLabels, ReadsTheLabelOfEachKindFromGroupLabelOrTypes) {
    const LabelCase cases[] = {
        // Phones, from their TYPE values.
        {"TEL;type=CELL;type=VOICE;type=pref:1\r\n", "TEL", "_$!<Mobile>!$_"},
        {"TEL;type=IPHONE;type=CELL;type=VOICE:1\r\n", "TEL", "iPhone"},
        {"TEL;TYPE=HOME;TYPE=VOICE:1\r\n", "TEL", "_$!<Home>!$_"},
        {"TEL;TYPE=\"HOME,VOICE\":1\r\n", "TEL", "_$!<Home>!$_"},
        {"TEL;TYPE=WORK:1\r\n", "TEL", "_$!<Work>!$_"},
        {"TEL;TYPE=WORK;TYPE=CELL:1\r\n", "TEL", "_$!<Work>!$_"},
        {"TEL;TYPE=MAIN:1\r\n", "TEL", "_$!<Main>!$_"},
        {"TEL;TYPE=PAGER;TYPE=WORK:1\r\n", "TEL", "_$!<Pager>!$_"},
        {"TEL;TYPE=HOME;TYPE=FAX:1\r\n", "TEL", "_$!<HomeFAX>!$_"},
        {"TEL;TYPE=fax;TYPE=work:1\r\n", "TEL", "_$!<WorkFAX>!$_"},
        {"TEL;TYPE=OTHER;TYPE=VOICE:1\r\n", "TEL", "_$!<Other>!$_"},
        {"TEL;TYPE=VOICE;TYPE=PREF:1\r\n", "TEL", "_$!<Other>!$_"},
        {"TEL:1\r\n", "TEL", "_$!<Other>!$_"},
        {"TEL;TYPE=CAR:1\r\n", "TEL", "car"},
        {"TEL;PREF=1;TYPE=cell:1\r\n", "TEL", "_$!<Mobile>!$_"},
        // 2.1 cards name their types without "TYPE="; Android writes a custom
        // label as a nameless X- word.
        {"TEL;CELL;VOICE:1\r\n", "TEL", "_$!<Mobile>!$_", "2.1"},
        {"TEL;WORK;FAX:1\r\n", "TEL", "_$!<WorkFAX>!$_", "2.1"},
        {"EMAIL;PREF;INTERNET:a@b.c\r\n", "EMAIL", "_$!<Other>!$_", "2.1"},
        {"TEL;X-Gym:1\r\n", "TEL", "Gym", "2.1"},
        // The group's label wins over the types.
        {"item1.TEL;type=CELL:1\r\nitem1.X-ABLabel:ex-work\r\n", "TEL", "ex-work"},
        {"item1.TEL:1\r\nITEM1.X-ABLABEL:_$!<School>!$_\r\n", "TEL", "_$!<School>!$_"},
        {"item2.TEL:1\r\nitem2.X-ABLabel:_$!<AssistantPhone>!$_\r\n", "TEL", "_$!<AssistantPhone>!$_"},
        {"item1.IMPP:x-apple:a\r\nitem1.X-ABLabel:Other\r\n", "IMPP", "_$!<Other>!$_"},
        {"item1.EMAIL;type=INTERNET:a@b.c\r\nitem1.X-ABLabel:iCloud\r\n", "EMAIL", "iCloud"},
        {"item1.TEL:1\r\nitem1.X-ABLabel:GRAND_CENTRAL\r\n", "TEL", "GRAND_CENTRAL"},
        {"item1.TEL:1\r\nitem1.X-ABLabel:Mike\\, custom: IM\r\n", "TEL", "Mike, custom: IM"},
        // A group without a label falls back to the TYPE values.
        {"item1.EMAIL;type=WORK:a@b.c\r\n", "EMAIL", "_$!<Work>!$_"},
        {"item1.TEL;type=HOME:1\r\nitem1.X-ABLabel:\r\n", "TEL", "_$!<Home>!$_"},
        // The label of another group says nothing about this entry.
        {"TEL;type=HOME:1\r\nitem1.X-ABLabel:Gym\r\n", "TEL", "_$!<Home>!$_"},
        // Each kind reads its own types.
        {"EMAIL;TYPE=INTERNET;TYPE=HOME:a@b.c\r\n", "EMAIL", "_$!<Home>!$_"},
        {"EMAIL;TYPE=INTERNET:a@b.c\r\n", "EMAIL", "_$!<Other>!$_"},
        {"URL;TYPE=homepage:https://a\r\n", "URL", "_$!<HomePage>!$_"},
        {"URL:https://a\r\n", "URL", ""},
        {"URL;TYPE=WORK:https://a\r\n", "URL", "_$!<Work>!$_"},
        {"ADR;TYPE=HOME;TYPE=POSTAL:;;1 Main St;;;;\r\n", "ADR", "_$!<Home>!$_"},
        {"ADR;TYPE=PARCEL:;;1 Main St;;;;\r\n", "ADR", "_$!<Other>!$_"},
        {"X-ABDATE:2000-01-01\r\n", "X-ABDATE", ""},
        {"X-ANNIVERSARY:2000-01-01\r\n", "X-ANNIVERSARY", "_$!<Anniversary>!$_"},
        {"RELATED;TYPE=spouse;VALUE=text:Kim\r\n", "RELATED", "_$!<Spouse>!$_"},
        // A service in TYPE is no label.
        {"X-SOCIALPROFILE;type=twitter:https://x.com/a\r\n", "X-SOCIALPROFILE", ""},
        {"IMPP;TYPE=SKYPE;TYPE=HOME:skype:a\r\n", "IMPP", "_$!<Home>!$_"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(labelOf(c.lines, c.property, c.version), c.label) << c.lines;
    }
}

TEST(CardLabels, ShowsTokensAsWords) {
    const std::pair<const char*, const char*> cases[] = {
        {"_$!<Mobile>!$_", "mobile"},
        {"_$!<HomeFAX>!$_", "home fax"},
        {"_$!<AssistantPhone>!$_", "assistant phone"},
        {"iPhone", "iPhone"},
        {"ex-work", "ex-work"},
        {"_$!<>!$_", "_$!<>!$_"},
        {"", ""},
    };
    for (const auto& [label, text] : cases) {
        EXPECT_EQ(labelDisplayText(label), text) << label;
    }
}

} // namespace
} // namespace kinbook
