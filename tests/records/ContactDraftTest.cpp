#include "KinbookKit/records/ContactDraft.h"

#include "KinbookKit/records/StockLabel.h"

#include <gtest/gtest.h>

#include <set>

namespace kinbook {
namespace {

ContactCard cardWithEverything() {
    ContactCard card;
    card.id = "card-1";
    card.givenName = "Jane";
    card.familyName = "Appleseed";
    card.organization = "Acme";
    card.jobTitle = "Engineer";
    card.phones = {
        {"mobile", "+1 212 555 0100", "p1"}, {"", "555 0101", "p2"}, {"ex-work", "555 0199", "p3"}};
    card.emails = {{"work", "jane@acme.test", "e1"}};
    card.urls = {{"Vellumary Contacts", "kinbook://c/AB12CD34?r=2", "u0"},
                 {"homepage", "https://jane.example", "u1"},
                 {"", "KINBOOK://C/OTHER", "u2"}};
    card.addresses = {{"home", "1 Main St\nSpringfield IL 62701", "a1"}};
    card.messaging = {{"Signal", "+12125550100", "m1"}, {"Skype", "jane.a", "m2"}};
    card.links = {{"m1", LinkService::signal, "+12125550100", false},
                  {"s1", LinkService::github, "jane", false}};
    card.kinID = "AB12CD34";
    return card;
}

TEST(ContactDraft, FromCardKeepsIdentitiesAndHoldsTheAnchorAside) {
    const auto draft = ContactDraft::fromCard(cardWithEverything(), DateComponents{2, 29, std::nullopt});
    EXPECT_EQ(draft.id, "card-1");
    EXPECT_EQ(draft.accountID, std::nullopt);
    ASSERT_EQ(draft.phones.size(), 3u);
    EXPECT_EQ(draft.phones[0], (ContactDraft::Field{"p1", std::string(labelConstant(StockLabel::mobile)),
                                                    "+1 212 555 0100", false}));
    EXPECT_EQ(draft.phones[1].label, "");
    EXPECT_EQ(draft.phones[2].label, "ex-work");
    EXPECT_EQ(draft.emails[0].label, labelConstant(StockLabel::work));
    // Only the first anchor is held; no anchor is ever an editable URL row.
    EXPECT_EQ(draft.anchorURL, "kinbook://c/AB12CD34?r=2");
    ASSERT_EQ(draft.urls.size(), 1u);
    EXPECT_EQ(draft.urls[0].value, "https://jane.example");
    EXPECT_EQ(draft.urls[0].label, labelConstant(StockLabel::homepage));
    EXPECT_EQ(draft.addresses[0].id, "a1");
    EXPECT_FALSE(draft.addresses[0].isNew);
    EXPECT_EQ(draft.birthday, (DateComponents{2, 29, std::nullopt}));
    EXPECT_EQ(draft.links.size(), 2u);
    EXPECT_EQ(draft.messageLinkIDs, std::set<std::string>{"m1"});
}

// The editor and the merge sheet edit an address part by part, and a value
// with nothing in it is no entry to edit.
TEST(ContactDraft, FromCardKeepsAddressPartsApartAndDropsBlankValues) {
    ContactCard card = cardWithEverything();
    card.addressParts = {{"1 Main St", "Springfield", "IL", "62701", "USA"}};
    card.phones.push_back({"work", "  ", "p-blank"});
    card.addresses.push_back({"work", "", "a-blank"});
    card.addressParts.push_back({});
    const auto draft = ContactDraft::fromCard(card);
    ASSERT_EQ(draft.addresses.size(), 1u);
    EXPECT_EQ(draft.addresses[0], (ContactDraft::Address{"a1", "_$!<Home>!$_", "1 Main St", "Springfield",
                                                         "IL", "62701", "USA", false}));
    for (const auto& phone : draft.phones) {
        EXPECT_NE(phone.id, "p-blank");
    }
}

TEST(ContactDraft, CopyForAnotherAccountMakesEveryEntryNew) {
    auto draft = ContactDraft::fromCard(cardWithEverything());
    draft.phoneticGivenName = "Jein";
    draft.dates = {{"d1", "_$!<Anniversary>!$_", {6, 20, 2015}, false}};
    draft.note = "Met at the fair.";
    const auto copy = draft.copyForAccount("work-account");
    EXPECT_EQ(copy.id, std::nullopt);
    EXPECT_EQ(copy.accountID, "work-account");
    EXPECT_EQ(copy.givenName, "Jane");
    EXPECT_EQ(copy.anchorURL, draft.anchorURL); // the person's KinID goes with them
    // Every entry is new under a fresh id of its own, its content kept.
    std::set<std::string> ids;
    const auto renewed = [&](const auto& copied, const auto& original) {
        ASSERT_EQ(copied.size(), original.size());
        for (std::size_t i = 0; i < copied.size(); ++i) {
            EXPECT_TRUE(copied[i].isNew);
            EXPECT_TRUE(ids.insert(copied[i].id).second) << copied[i].id;
            EXPECT_NE(copied[i].id, original[i].id);
            auto same = copied[i];
            same.id = original[i].id;
            same.isNew = original[i].isNew;
            EXPECT_EQ(same, original[i]);
        }
    };
    renewed(copy.phones, draft.phones);
    renewed(copy.emails, draft.emails);
    renewed(copy.addresses, draft.addresses);
    renewed(copy.links, draft.links);
    renewed(copy.dates, draft.dates);
    EXPECT_EQ(ids.size(), 3u + 1u + 1u + 2u + 1u);
    EXPECT_EQ(copy.phoneticGivenName, "Jein");
    EXPECT_EQ(copy.note, draft.note);
    EXPECT_TRUE(copy.messageLinkIDs.empty());
    // The copy is a new value; the original is untouched.
    EXPECT_FALSE(draft.phones[0].isNew);
}

TEST(ContactDraft, EmptinessLooksAtContentNotStructure) {
    auto draft = ContactDraft::empty(std::nullopt, "acc");
    EXPECT_TRUE(draft.isEmpty());
    EXPECT_EQ(draft.accountID, "acc");
    draft.givenName = "   ";
    draft.phones.push_back({"n1", "", "  ", true});
    draft.addresses.push_back({"a1", "", " \t", "", "\t", "", "", true});
    EXPECT_TRUE(draft.isEmpty());
    draft.addresses[0].city = "Oslo";
    EXPECT_FALSE(draft.isEmpty());
    draft.addresses[0].city.clear();
    draft.emails.push_back({"n2", "", "x@y.z", true});
    EXPECT_FALSE(draft.isEmpty());
    draft.emails.clear();
    draft.note = " \n";
    EXPECT_TRUE(draft.isEmpty()); // a blank note is no note
    draft.note = "Call back";
    EXPECT_FALSE(draft.isEmpty());
    for (auto fill : std::initializer_list<void (*)(ContactDraft&)>{
             [](ContactDraft& d) { d.jobTitle = "CEO"; },
             [](ContactDraft& d) { d.phoneticFamilyName = "Yamada"; },
             [](ContactDraft& d) {
                 d.birthday = DateComponents{1, 2, std::nullopt};
             },
             [](ContactDraft& d) {
                 d.dates.push_back({"d1", "", {1, 2, 2000}, true});
             }}) {
        auto named = ContactDraft::empty();
        fill(named);
        EXPECT_FALSE(named.isEmpty());
    }
}

TEST(ContactDraft, LabelDisplay) {
    EXPECT_EQ(ContactDraft::labelDisplay(""), "no label");
    EXPECT_EQ(ContactDraft::labelDisplay(labelConstant(StockLabel::workFax)), "work fax");
    EXPECT_EQ(ContactDraft::labelDisplay("ex-work"), "ex-work");
    EXPECT_EQ(ContactDraft::labelDisplay("Gym"), "Gym");
}

} // namespace
} // namespace kinbook
