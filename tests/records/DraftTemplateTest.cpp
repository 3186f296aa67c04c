// The text-editor form of a draft: what the user did not touch reads back
// exactly, tags keep identities through moves and edits, and every mistake
// names its line.

#include "KinbookKit/records/DraftTemplate.h"

#include "KinbookKit/records/StockLabel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kinbook {
namespace {

ContactDraft sampleDraft() {
    ContactDraft draft = ContactDraft::empty(std::string("card-1"));
    draft.givenName = "Ann";
    draft.familyName = "Smith ";        // a stray space the store keeps
    draft.nickname = "back\\slash [1]"; // looks like a tag, but is no list field
    draft.phones = {{"p1", std::string(labelConstant(StockLabel::mobile)), "+1 555 0100", false},
                    {"p2", "_$!<OtherFAX>!$_", "555 0101", false}, // a token with no stock name
                    {"p3", "", "555 0102 [7]", false}};
    draft.emails = {{"e1", "ex-work", "ann@acme.example", false}, {"e2", "Club: \"chess\"", "a@b.c", false}};
    draft.urls = {{"u1", std::string(labelConstant(StockLabel::homepage)), "https://ann.example", false}};
    draft.addresses = {{"a1", std::string(labelConstant(StockLabel::home)), "12 Main St\nApt 4",
                        "Springfield", "IL", "62701", "USA | Canada", false}};
    draft.birthday = DateComponents{2, 29, std::nullopt};
    draft.dates = {{"d1", "_$!<Anniversary>!$_", DateComponents{6, 2, 2001}, false}};
    draft.links = {{"l1", LinkService::instagram, "annsmith", false}};
    draft.phoneticGivenName = "Anne";
    draft.note = "Likes tea.\nAllergic to cashews.";
    draft.messageLinkIDs = {"l1"};
    draft.anchorURL = "kinbook://c/AAAA0001";
    return draft;
}

// Applies `edit` to the rendered text's lines: each pair replaces the line
// starting with `first` by `second` (an empty `second` drops it).
std::string edited(const ContactDraft& draft, const std::vector<std::pair<std::string, std::string>>& edits,
                   const std::string& appended = {}) {
    std::string text = DraftTemplate::render(draft, "Ann Smith");
    for (const auto& [from, to] : edits) {
        const auto at = text.find("\n" + from);
        EXPECT_NE(at, std::string::npos) << from;
        const auto end = text.find('\n', at + 1);
        text.replace(at + 1, end - at, to.empty() ? "" : to + "\n");
    }
    return text + appended;
}

TEST(DraftTemplate, AnUnchangedTextReadsBackAsTheSameDraft) {
    const ContactDraft draft = sampleDraft();
    const std::string text = DraftTemplate::render(draft, "Ann Smith");
    EXPECT_NE(text.find("\nphone mobile: +1 555 0100 [1]\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nemail \"Club: \\\"chess\\\"\": a@b.c [5]\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nbirthday: --02-29\nnote: Likes tea.\\nAllergic to cashews.\n"), std::string::npos)
        << text;
    const auto parsed = DraftTemplate::parse(text, draft);
    ASSERT_TRUE(parsed.ok()) << parsed.error().line << ": " << parsed.error().message;
    EXPECT_EQ(parsed.value(), draft);

    const ContactDraft empty = ContactDraft::empty(std::nullopt, std::string("home"));
    EXPECT_EQ(DraftTemplate::parse(DraftTemplate::render(empty), empty).value(), empty);
}

TEST(DraftTemplate, TagsKeepIdentitiesThroughMovesAndEdits) {
    const ContactDraft draft = sampleDraft();
    const std::string text =
        edited(draft,
               {
                   {"phone mobile:", "phone work: +1 555 0199 [1]"}, // relabelled, new digits
                   {"phone:", "phone: 555 0102 [7] [3]"},
                   {"email ex-work:", ""}, // removed
                   {"phone other fax:", ""},
                   {"address home:",
                    "address home: 12 Main St\\nApt 4 | Shelbyville | IL | 62701 | USA \\| Canada [7]"},
                   {"birthday:", "birthday: 1987-03-14"},
                   {"title:", "title: Engineer"},
                   {"date anniversary:", "date anniversary: --06-03 [8]"},
                   {"note:", ""},
                   {"link instagram:", "link x: @ann [9]"},
               },
               // Moved below the others, and two new entries.
               "phone \"other fax\": 555 0101 [2]\nemail: new@example.com\n"
               "address: 295 park avenue south Apt 8J, manhattan, NY\n");
    const auto parsed = DraftTemplate::parse(text, draft);
    ASSERT_TRUE(parsed.ok()) << parsed.error().line << ": " << parsed.error().message;
    const ContactDraft& result = parsed.value();

    ASSERT_EQ(result.phones.size(), 3u);
    EXPECT_EQ(result.phones[0], (ContactDraft::Field{"p1", std::string(labelConstant(StockLabel::work)),
                                                     "+1 555 0199", false}));
    EXPECT_EQ(result.phones[1], draft.phones[2]);
    EXPECT_EQ(result.phones[2], draft.phones[1]) << "a label read as written keeps its own token";
    ASSERT_EQ(result.emails.size(), 2u);
    EXPECT_EQ(result.emails[0], draft.emails[1]);
    EXPECT_TRUE(result.emails[1].isNew);
    EXPECT_EQ(result.emails[1].value, "new@example.com");
    EXPECT_NE(result.emails[1].id, "e1");
    ASSERT_EQ(result.addresses.size(), 2u);
    EXPECT_EQ(result.addresses[0].id, "a1");
    EXPECT_EQ(result.addresses[0].city, "Shelbyville");
    EXPECT_EQ(result.addresses[0].street, "12 Main St\nApt 4");
    EXPECT_EQ(result.addresses[0].country, "USA | Canada");
    EXPECT_TRUE(result.addresses[1].isNew);
    EXPECT_EQ(result.addresses[1].street, "295 Park Avenue South\nApt 8J");
    EXPECT_EQ(result.addresses[1].state, "NY");
    EXPECT_EQ(result.birthday, (DateComponents{3, 14, 1987}));
    EXPECT_EQ(result.jobTitle, "Engineer");
    EXPECT_EQ(result.note, "") << "a note taken out is cleared";
    ASSERT_EQ(result.dates.size(), 1u);
    EXPECT_EQ(result.dates[0],
              (ContactDraft::Date{"d1", "_$!<Anniversary>!$_", {6, 3, std::nullopt}, false}));
    EXPECT_EQ(result.familyName, "Smith ");
    ASSERT_EQ(result.links.size(), 1u);
    EXPECT_EQ(result.links[0], (LinkedAccount{"l1", LinkService::x, "ann", false}));
    EXPECT_EQ(result.anchorURL, draft.anchorURL);
    EXPECT_EQ(result.id, draft.id);
}

TEST(DraftTemplate, EveryMistakeNamesItsLine) {
    const ContactDraft draft = sampleDraft();
    const std::string text = DraftTemplate::render(draft);
    const std::size_t lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    struct Case {
        std::string appended;
        std::string message;
    };
    const Case cases[] = {
        {"phne: 1", "unknown field \"phne\""},
        {"birthday: 1987-02-29", "is no date"},
        {"birthday: 03/14/1987", "is no date"},
        {"phone \"work: 1", "closing quote"},
        {"email ex-: a@b.c", "is no label"},
        {"given Ann", "a colon belongs after"},
        {"given: Bob", "written twice"},
        {"nickname home: Annie", "takes no label"},
        {"email: a@b.c [1]", "[1] is the tag of a phone"},
        {"phone: 555 [1]", "[1] is on two lines"},
        {"phone: 555 [42]", "there is no entry [42]"},
        {"link myspace: ann", "is no service a link knows"},
        {"link: ann", "say which service"},
        {"address: a | b | c | d | e | f", "five parts at most"},
    };
    for (const auto& c : cases) {
        const auto parsed = DraftTemplate::parse(text + "\n" + c.appended + "\n", draft);
        ASSERT_FALSE(parsed.ok()) << c.appended;
        EXPECT_EQ(parsed.error().line, lines + 2) << c.appended;
        EXPECT_NE(parsed.error().message.find(c.message), std::string::npos) << parsed.error().message;
    }
}

TEST(DraftTemplate, SetReplacesTextsAndAddsEntries) {
    ContactDraft draft = sampleDraft();
    ASSERT_TRUE(DraftTemplate::set(draft, "organization", "Acme").ok());
    ASSERT_TRUE(DraftTemplate::set(draft, "nickname", "").ok());
    ASSERT_TRUE(DraftTemplate::set(draft, "phone work", "555 0200").ok());
    ASSERT_TRUE(
        DraftTemplate::set(draft, "address", "10 Downing Street, London SW1A 2AA, United Kingdom").ok());
    ASSERT_TRUE(DraftTemplate::set(draft, "birthday", "").ok());
    EXPECT_EQ(draft.organization, "Acme");
    EXPECT_EQ(draft.nickname, "");
    ASSERT_EQ(draft.phones.size(), 4u);
    EXPECT_EQ(draft.phones[3].label, labelConstant(StockLabel::work));
    EXPECT_TRUE(draft.phones[3].isNew);
    ASSERT_EQ(draft.addresses.size(), 2u);
    EXPECT_EQ(draft.addresses[1].city, "London");
    EXPECT_EQ(draft.addresses[1].postalCode, "SW1A 2AA");
    EXPECT_FALSE(draft.birthday);

    const ContactDraft before = draft;
    EXPECT_FALSE(DraftTemplate::set(draft, "birthday", "yesterday").ok());
    EXPECT_FALSE(DraftTemplate::set(draft, "shoe-size", "9").ok());
    EXPECT_EQ(draft, before);
}

} // namespace
} // namespace kinbook
