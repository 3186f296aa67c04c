// Writing edits into cards: each edit must change exactly the lines it is
// about, keep every other line's bytes, and keep the identities of entries.

#include "KinbookKit/vcard/CardWriter.h"

#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/CardReader.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace kinbook {
namespace {

using namespace std::chrono_literals;

const auto kNow = std::chrono::system_clock::time_point(std::chrono::seconds(1'782'000'000)); // 2026-06-21
const std::string kNowRev = "REV:" + formatIso8601(kNow);
constexpr std::string_view kCardID = "card-1";

std::string crlf(std::initializer_list<std::string_view> lines) {
    std::string bytes;
    for (const auto line : lines) {
        bytes += line;
        bytes += "\r\n";
    }
    return bytes;
}

// An iPhone-shaped card with one entry of every kind the editor shows.
const std::string kMaja = crlf({
    "BEGIN:VCARD",
    "VERSION:3.0",
    "PRODID:-//Apple Inc.//iOS 17.4//EN",
    "N:Lindqvist;Maja;;;",
    "FN:Maja Lindqvist",
    "ORG:Nordlys AB;",
    "TITLE:Engineer",
    "TEL;type=CELL;type=VOICE;type=pref:+46 70 123 45 67",
    "item1.TEL:+46 8 555 010 00",
    "item1.X-ABLabel:ex-work",
    "EMAIL;type=INTERNET;type=WORK:maja@nordlys.example",
    "item2.EMAIL;type=INTERNET:maja@school.example",
    "item2.X-ABLabel:_$!<School>!$_",
    "item3.URL:kinbook://c/AB12CD34?r=2",
    "item3.X-ABLabel:Vellumary Contacts",
    "item4.URL;type=pref:https://maja.example",
    "item4.X-ABLabel:_$!<HomePage>!$_",
    "item5.ADR;type=HOME;type=pref:;;Storgatan 1;Uppsala;;753 20;Sweden",
    "item5.X-ABADR:se",
    "BDAY;X-APPLE-OMIT-YEAR=1604:1604-03-15",
    "item6.IMPP;X-SERVICE-TYPE=Signal:x-apple:+46701234567",
    "item6.X-ABLabel:Signal",
    "X-SOCIALPROFILE;type=instagram;x-user=majal:x-apple:majal",
    "NOTE:Met at the spring fair.",
    "REV:2020-01-01T00:00:00Z",
    "UID:6C8E3B8A-2F4D-4C1E-9F7A-0D5B2E6A9C11",
    "END:VCARD",
});

VCard parse(std::string_view bytes) {
    auto card = VCard::parse(bytes);
    EXPECT_TRUE(card.ok());
    return std::move(card).value();
}

std::vector<std::string> lines(std::string_view bytes) {
    std::vector<std::string> result;
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        std::size_t end = bytes.find('\n', pos);
        end = end == std::string_view::npos ? bytes.size() : end + 1;
        std::string line(bytes.substr(pos, end - pos));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        if (!result.empty() && !line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            result.back() += line.substr(1); // a folded line
        } else {
            result.push_back(line);
        }
        pos = end;
    }
    return result;
}

// What an edit did, as sets of whole (unfolded) lines: lines only in the new bytes and
// lines only in the old. Every line in neither kept its bytes.
struct Change {
    std::multiset<std::string> added;
    std::multiset<std::string> removed;
};

Change changeBetween(std::string_view before, std::string_view after) {
    const auto old = lines(before);
    const auto now = lines(after);
    std::multiset<std::string> oldSet(old.begin(), old.end());
    std::multiset<std::string> newSet(now.begin(), now.end());
    Change change;
    std::set_difference(newSet.begin(), newSet.end(), oldSet.begin(), oldSet.end(),
                        std::inserter(change.added, change.added.end()));
    std::set_difference(oldSet.begin(), oldSet.end(), newSet.begin(), newSet.end(),
                        std::inserter(change.removed, change.removed.end()));
    return change;
}

std::multiset<std::string> set(std::initializer_list<std::string> items) {
    return {items};
}

std::string valueAfterColon(const VCardProperty& property) {
    return std::string(property.rawValue());
}

// The draft the editor would make of a card, read plainly from its lines.
ContactDraft draftOf(const VCard& card, EntryRegistry& registry) {
    ContactDraft draft = ContactDraft::empty(std::string(kCardID));
    auto field = [](const std::vector<std::vector<std::string>>& fields, std::size_t i) {
        std::string text;
        if (i < fields.size()) {
            for (const auto& component : fields[i]) {
                text += (text.empty() ? "" : " ") + component;
            }
        }
        return text;
    };
    if (const auto* n = card.first("N")) {
        const auto f = n->components();
        draft.familyName = field(f, 0);
        draft.givenName = field(f, 1);
        draft.middleName = field(f, 2);
        draft.namePrefix = field(f, 3);
        draft.nameSuffix = field(f, 4);
    }
    if (const auto* org = card.first("ORG")) {
        draft.organization = field(org->components(), 0);
        draft.department = field(org->components(), 1);
    }
    if (const auto* title = card.first("TITLE")) {
        draft.jobTitle = title->text();
    }
    if (const auto* nickname = card.first("NICKNAME")) {
        draft.nickname = nickname->text();
    }
    draft.birthday = cardBirthday(card);
    if (const auto* phonetic = card.first("X-PHONETIC-FIRST-NAME")) {
        draft.phoneticGivenName = phonetic->text();
    }
    if (const auto* phonetic = card.first("X-PHONETIC-LAST-NAME")) {
        draft.phoneticFamilyName = phonetic->text();
    }
    for (const auto& entry : cardEntries(card, kCardID, registry)) {
        const auto& property = *entry.property;
        const std::string label = readLabel(card, property);
        std::string text = property.text();
        switch (entry.kind) {
        case EntryKind::phone:
            if (text.rfind("tel:", 0) == 0) {
                text.erase(0, 4);
            }
            draft.phones.push_back({entry.id, label, text});
            break;
        case EntryKind::email:
            draft.emails.push_back({entry.id, label, text});
            break;
        case EntryKind::url:
            if (KinID::isAnchorURL(text)) {
                if (!draft.anchorURL) {
                    draft.anchorURL = text;
                }
            } else {
                draft.urls.push_back({entry.id, label, text});
            }
            break;
        case EntryKind::address: {
            ContactDraft::Address address = addressPartsOf(property);
            address.id = entry.id;
            address.label = label;
            draft.addresses.push_back(address);
            break;
        }
        case EntryKind::social:
            if (auto link = linkFromSocialProfile(entry.id, property.parameter("TYPE").value_or(""),
                                                  property.parameter("X-USER").value_or(""), text)) {
                draft.links.push_back(*link);
            }
            break;
        case EntryKind::date:
            if (const auto date = readCardDate(property)) {
                draft.dates.push_back({entry.id, label, *date});
            }
            break;
        case EntryKind::messaging: {
            const auto colon = text.find(':');
            const std::string user = colon == std::string::npos ? text : text.substr(colon + 1);
            if (auto link = linkFromMessagingAddress(
                    entry.id, property.parameter("X-SERVICE-TYPE").value_or(""), user)) {
                draft.links.push_back(*link);
                draft.messageLinkIDs.insert(entry.id);
            }
            break;
        }
        default:
            break;
        }
    }
    return draft;
}

// A card as read, its draft, and the identities of its entries.
struct Fixture {
    explicit Fixture(std::string_view bytes) : original(bytes), card(parse(bytes)) {
        draft = draftOf(card, registry);
    }

    // Applies the draft, records the identities and returns the bytes written.
    std::string apply() {
        const ApplyResult result = applyDraft(card, draft, kCardID, registry, kNow);
        const std::string written = card.serialize();
        recordWrittenEntries(card, result, parse(written), kCardID, registry);
        return written;
    }

    Change change() const { return changeBetween(original, card.serialize()); }

    // The entries of the written card, read back from its bytes.
    std::vector<ConstCardEntry> reread(VCard& holder) {
        holder = parse(card.serialize());
        const VCard& constant = holder;
        return cardEntries(constant, kCardID, registry);
    }

    std::string original;
    EntryRegistry registry;
    VCard card;
    ContactDraft draft;
};

std::string idOf(const std::vector<ConstCardEntry>& entries, std::string_view value) {
    for (const auto& entry : entries) {
        if (entry.property->text() == value) {
            return entry.id;
        }
    }
    return "(none)";
}

TEST(CardWriter, JobTitleAndSecondPhoneTouchOnlyTheirLines) {
    Fixture f(kMaja);
    const std::string mobileID = f.draft.phones[0].id;
    const std::string addressID = f.draft.addresses[0].id;
    f.draft.jobTitle = "Lead Engineer";
    f.draft.phones.insert(
        f.draft.phones.begin() + 1,
        {"new-phone", std::string(labelConstant(StockLabel::home)), " +46 18 471 00 00 ", true});
    const std::string written = f.apply();

    const Change change = f.change();
    EXPECT_EQ(change.added,
              set({"TITLE:Lead Engineer", "TEL;type=HOME;type=VOICE:+46 18 471 00 00", kNowRev}));
    EXPECT_EQ(change.removed, set({"TITLE:Engineer", "REV:2020-01-01T00:00:00Z"}));
    // The new phone follows the one before it in the draft.
    const auto all = lines(written);
    const auto mobile =
        std::find(all.begin(), all.end(), "TEL;type=CELL;type=VOICE;type=pref:+46 70 123 45 67");
    ASSERT_NE(mobile, all.end());
    EXPECT_EQ(*std::next(mobile), "TEL;type=HOME;type=VOICE:+46 18 471 00 00");

    VCard holder = VCard::create();
    const auto entries = f.reread(holder);
    EXPECT_EQ(idOf(entries, "+46 70 123 45 67"), mobileID);
    EXPECT_EQ(idOf(entries, "+46 18 471 00 00"), "new-phone");
    const auto readBack = draftOf(holder, f.registry);
    EXPECT_EQ(readBack.addresses[0].id, addressID);
    EXPECT_EQ(readBack.addresses[0].city, "Uppsala");
    std::vector<std::string> urls;
    for (const auto* url : holder.find("URL")) {
        urls.push_back(url->text());
    }
    EXPECT_EQ(KinID::readID(urls), "AB12CD34");
}

// One edit of the draft, and the lines it must leave behind.
struct EntryEdit {
    const char* name;
    void (*edit)(ContactDraft&);
    std::multiset<std::string> added;   // REV aside
    std::multiset<std::string> removed; // REV aside
    bool keepsEveryEntry = true;        // no entry dropped, none left blank
};

// The draft's link to `service`.
LinkedAccount& linkTo(ContactDraft& draft, LinkService service) {
    const auto link = std::ranges::find(draft.links, service, &LinkedAccount::service);
    if (link == draft.links.end()) {
        throw std::logic_error("the draft has no such link");
    }
    return *link;
}

TEST(CardWriter, EditsOfEntriesChangeOnlyTheirLinesAndKeepTheirIdentity) {
    const std::string instagram = "X-SOCIALPROFILE;type=instagram;x-user=maja.l:" +
                                  socialProfileURL({"", LinkService::instagram, "maja.l"});
    const std::string github =
        "X-SOCIALPROFILE;type=github;x-user=majal:" + socialProfileURL({"", LinkService::github, "majal"});
    const std::vector<EntryEdit> cases = {
        {"number changed, same entry", [](ContactDraft& d) { d.phones[0].value = "+46 70 000 00 00"; },
         set({"TEL;type=CELL;type=VOICE;type=pref:+46 70 000 00 00"}),
         set({"TEL;type=CELL;type=VOICE;type=pref:+46 70 123 45 67"})},
        {"relabelled to iPhone",
         [](ContactDraft& d) { d.phones[0].label = std::string(labelConstant(StockLabel::iPhone)); },
         set({"TEL;type=IPHONE;type=CELL;type=VOICE;type=pref:+46 70 123 45 67"}),
         set({"TEL;type=CELL;type=VOICE;type=pref:+46 70 123 45 67"})},
        {"former phone back to work",
         [](ContactDraft& d) { d.phones[1].label = ExLabel::current(d.phones[1].label); },
         set({"TEL;type=WORK;type=VOICE:+46 8 555 010 00"}),
         set({"item1.TEL:+46 8 555 010 00", "item1.X-ABLabel:ex-work"})},
        {"work e-mail marked former",
         [](ContactDraft& d) { d.emails[0].label = ExLabel::former(d.emails[0].label); },
         set({"item7.EMAIL;type=INTERNET:maja@nordlys.example", "item7.X-ABLabel:ex-work"}),
         set({"EMAIL;type=INTERNET;type=WORK:maja@nordlys.example"})},
        {"address city changed, street kept", [](ContactDraft& d) { d.addresses[0].city = "Stockholm"; },
         set({"item5.ADR;type=HOME;type=pref:;;Storgatan 1;Stockholm;;753 20;Sweden"}),
         set({"item5.ADR;type=HOME;type=pref:;;Storgatan 1;Uppsala;;753 20;Sweden"})},
        {"homepage given a custom label", [](ContactDraft& d) { d.urls[0].label = "blog, old"; },
         set({"item4.X-ABLabel:blog\\, old"}), set({"item4.X-ABLabel:_$!<HomePage>!$_"})},
        {"a social link changed and one added: only their own lines",
         [](ContactDraft& d) {
             linkTo(d, LinkService::instagram).handle = "maja.l";
             d.links.push_back({"new-link", LinkService::github, "majal", true});
         },
         set({instagram, github}), set({"X-SOCIALPROFILE;type=instagram;x-user=majal:x-apple:majal"})},
        {"a messaging link changed in its IMPP entry",
         [](ContactDraft& d) { linkTo(d, LinkService::signal).handle = "+46700000000"; },
         set({"item6.IMPP;X-SERVICE-TYPE=Signal:x-apple:+46700000000"}),
         set({"item6.IMPP;X-SERVICE-TYPE=Signal:x-apple:+46701234567"})},
        {"a messaging link removed with its label",
         [](ContactDraft& d) {
             std::erase_if(d.links, [](const LinkedAccount& l) { return l.service == LinkService::signal; });
         },
         set({}), set({"item6.IMPP;X-SERVICE-TYPE=Signal:x-apple:+46701234567", "item6.X-ABLabel:Signal"}),
         false},
        {"entries the draft drops go with their group",
         [](ContactDraft& d) {
             d.addresses.clear();
             d.urls.clear();
         },
         set({}),
         set({"item4.URL;type=pref:https://maja.example", "item4.X-ABLabel:_$!<HomePage>!$_",
              "item5.ADR;type=HOME;type=pref:;;Storgatan 1;Uppsala;;753 20;Sweden", "item5.X-ABADR:se"}),
         false},
        // A cleared value deletes its entry; a new one of spaces only is never saved.
        {"cleared or blank values delete or add nothing",
         [](ContactDraft& d) {
             d.phones[1].value = " \t";
             d.emails.push_back({"new-mail", "", "   ", true});
             d.addresses.push_back({"new-adr", "", " ", "", "", "", "", true});
         },
         set({}), set({"item1.TEL:+46 8 555 010 00", "item1.X-ABLabel:ex-work"}), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fixture f(kMaja);
        const ContactDraft before = f.draft;
        c.edit(f.draft);
        f.apply();
        Change change = f.change();
        EXPECT_EQ(change.added.erase(kNowRev), 1u);
        EXPECT_EQ(change.removed.erase("REV:2020-01-01T00:00:00Z"), 1u);
        EXPECT_EQ(change.added, c.added);
        EXPECT_EQ(change.removed, c.removed);
        if (!c.keepsEveryEntry) {
            continue;
        }

        // Read back, every entry still has the identity it had, and the
        // draft's entries and links read as the draft had them.
        VCard holder = VCard::create();
        f.reread(holder);
        const ContactDraft after = draftOf(holder, f.registry);
        auto ids = [](const ContactDraft& d) {
            std::vector<std::string> all;
            for (const auto& x : d.phones)
                all.push_back(x.id);
            for (const auto& x : d.emails)
                all.push_back(x.id);
            for (const auto& x : d.urls)
                all.push_back(x.id);
            for (const auto& x : d.addresses)
                all.push_back(x.id);
            return all;
        };
        EXPECT_EQ(ids(after), ids(before));
        EXPECT_EQ(after.phones, f.draft.phones);
        EXPECT_EQ(after.emails, f.draft.emails);
        EXPECT_EQ(after.addresses, f.draft.addresses);
        auto links = f.draft.links;
        for (auto& link : links) {
            link.isNew = false;
        }
        EXPECT_EQ(after.links, links);
    }
}

TEST(CardWriter, FormerMarkingThereAndBackRestoresTheLine) {
    Fixture f(kMaja);
    f.draft.emails[0].label = ExLabel::former(f.draft.emails[0].label);
    f.apply();
    f.draft.emails[0].label = ExLabel::current(f.draft.emails[0].label);
    f.apply();
    std::string expected = kMaja;
    expected.replace(expected.find("REV:2020-01-01T00:00:00Z"), 24, kNowRev);
    EXPECT_EQ(f.card.serialize(), expected);
}

TEST(CardWriter, CardWithTwoAnchorsSavesOneAnchorFirst) {
    const std::string bytes = crlf({
        "BEGIN:VCARD",
        "VERSION:3.0",
        "N:Doe;Jane;;;",
        "FN:Jane Doe",
        "URL:https://jane.example",
        "URL:kinbook://c/AAAA1111?h=1",
        "item1.URL:kinbook://c/BBBB2222",
        "item1.X-ABLabel:Vellumary Contacts",
        "END:VCARD",
    });
    Fixture f(bytes);
    ASSERT_EQ(f.draft.anchorURL, "kinbook://c/AAAA1111?h=1");
    f.apply();
    const auto all = lines(f.card.serialize());
    const std::vector<std::string> expected = {
        "BEGIN:VCARD",
        "VERSION:3.0",
        "N:Doe;Jane;;;",
        "FN:Jane Doe",
        "item1.URL:kinbook://c/AAAA1111?h=1",
        "item1.X-ABLabel:Vellumary Contacts",
        "URL:https://jane.example",
        "END:VCARD",
    };
    EXPECT_EQ(all, expected);
}

// ---------------------------------------------------------------------------
// Labels on single lines

struct LabelCase {
    const char* name;
    std::vector<std::string_view> lines; // between VERSION and END; the first is the entry
    EntryKind kind;
    std::string label;
    std::vector<std::string> expected;
    VCardVersion version = VCardVersion::v3_0;
    std::optional<std::string> readsAs; // when not `label`
};

TEST(CardWriter, LabelsAreWrittenAsAppleWritesThem) {
    const std::string school(labelConstant(StockLabel::school));
    const std::string mobile(labelConstant(StockLabel::mobile));
    const std::string work(labelConstant(StockLabel::work));
    const std::vector<LabelCase> cases = {
        {"stock label becomes TYPE values, repeated by default",
         {"TEL;TYPE=HOME:1"},
         EntryKind::phone,
         work,
         {"TEL;TYPE=WORK;TYPE=VOICE:1"}},
        {"a card that lists TYPE values gets a list",
         {"TEL;TYPE=HOME:1", "EMAIL;TYPE=INTERNET,HOME:a@b.example"},
         EntryKind::phone,
         work,
         {"TEL;TYPE=WORK,VOICE:1", "EMAIL;TYPE=INTERNET,HOME:a@b.example"}},
        {"no label keeps INTERNET and pref",
         {"EMAIL;TYPE=INTERNET;TYPE=HOME;TYPE=pref:a@b.example"},
         EntryKind::email,
         "",
         {"EMAIL;TYPE=INTERNET;TYPE=pref:a@b.example"},
         VCardVersion::v3_0,
         // An e-mail address that names nothing is what other address
         // books write for "other".
         std::string(labelConstant(StockLabel::other))},
        {"token label gets a group",
         {"TEL;TYPE=HOME;TYPE=VOICE:1", "item3.EMAIL:x@y.example"},
         EntryKind::phone,
         school,
         {"item4.TEL;TYPE=VOICE:1", "item4.X-ABLabel:_$!<School>!$_", "item3.EMAIL:x@y.example"}},
        {"stock label leaves an emptied group",
         {"item1.URL:http://x.example", "item1.X-ABLabel:_$!<HomePage>!$_"},
         EntryKind::url,
         work,
         {"URL;TYPE=WORK:http://x.example"}},
        {"custom label keeps X-ABADR",
         {"item2.ADR;TYPE=HOME:;;a;b;;;", "item2.X-ABADR:se"},
         EntryKind::address,
         "cabin",
         {"item2.ADR:;;a;b;;;", "item2.X-ABADR:se", "item2.X-ABLabel:cabin"}},
        {"iCloud has no TYPE value",
         {"EMAIL;TYPE=INTERNET:a@b.example"},
         EntryKind::email,
         "iCloud",
         {"item1.EMAIL;TYPE=INTERNET:a@b.example", "item1.X-ABLabel:iCloud"}},
        {"4.0 writes lower-case values",
         {"TEL;TYPE=home:1"},
         EntryKind::phone,
         mobile,
         {"TEL;TYPE=cell,voice:1"},
         VCardVersion::v4_0},
        {"a group of two entries is left to the other",
         {"home.TEL:1", "home.EMAIL:a@b.example", "home.X-ABLabel:cabin"},
         EntryKind::phone,
         mobile,
         {"TEL;TYPE=CELL;TYPE=VOICE:1", "home.EMAIL:a@b.example", "home.X-ABLabel:cabin"}},
        {"same label already there: nothing written",
         {"TEL;TYPE=CELL:1"},
         EntryKind::phone,
         mobile,
         {"TEL;TYPE=CELL:1"}},
        // An unknown TYPE value reads as a custom label; another label takes
        // it away, so the entry then reads as the new one.
        {"an unknown type gives way",
         {"TEL;TYPE=CAR:1"},
         EntryKind::phone,
         mobile,
         {"TEL;TYPE=CELL;TYPE=VOICE:1"}},
        {"Google's word Other is the other label",
         {"item1.TEL:1", "item1.X-ABLabel:Other"},
         EntryKind::phone,
         std::string(labelConstant(StockLabel::other)),
         {"item1.TEL:1", "item1.X-ABLabel:Other"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string bytes =
            std::string("BEGIN:VCARD\r\nVERSION:") + std::string(versionText(c.version)) + "\r\n";
        for (const auto line : c.lines) {
            bytes += std::string(line) + "\r\n";
        }
        bytes += "END:VCARD\r\n";
        VCard card = parse(bytes);
        writeLabel(card, *card.properties()[1], c.kind, c.label);
        auto written = lines(card.serialize());
        written.erase(written.begin(), written.begin() + 2);
        written.pop_back();
        EXPECT_EQ(written, c.expected);
        EXPECT_EQ(readLabel(card, *card.properties()[1]), c.readsAs.value_or(c.label));
    }
    // A phone without a label already reads as "other" where cards are
    // written that way: giving it that label changes nothing.
    VCard plain = parse(crlf({"BEGIN:VCARD", "VERSION:3.0", "TEL:1", "END:VCARD"}));
    writeLabel(plain, *plain.first("TEL"), EntryKind::phone, labelConstant(StockLabel::other));
    EXPECT_FALSE(plain.isModified());
}

// The editor shows the PO box and extended address within the street: only
// an edited street takes their place, other parts keep them.
TEST(CardWriter, AnAddressRewritesOnlyThePartsTheUserChanged) {
    const std::string card = crlf({"BEGIN:VCARD", "VERSION:3.0", "FN:A",
                                   "ADR;TYPE=HOME:Box 9;Flat 2;1 Main St;Albany;NY;12345;USA", "END:VCARD"});
    {
        Fixture f(card);
        ASSERT_EQ(f.draft.addresses.size(), 1u);
        EXPECT_EQ(f.draft.addresses[0].street, "1 Main St\nFlat 2\nBox 9");
        f.draft.addresses[0].city = "Troy";
        const std::string written = f.apply();
        EXPECT_NE(written.find("ADR;TYPE=HOME:Box 9;Flat 2;1 Main St;Troy;NY;12345;USA\r\n"),
                  std::string::npos)
            << written;
    }
    {
        Fixture f(card);
        f.draft.addresses[0].street = "2 Main St\nFlat 2";
        const std::string written = f.apply();
        EXPECT_NE(written.find("ADR;TYPE=HOME:;;2 Main St\\nFlat 2;Albany;NY;12345;USA\r\n"),
                  std::string::npos)
            << written;
    }
}

// ---------------------------------------------------------------------------
// Anchors

struct AnchorCase {
    const char* name;
    std::vector<std::string_view> urls; // URL lines of the card, in order
    void (*change)(KinID::Anchor&);
    std::string expectedQuery; // after the ID
};

TEST(CardWriter, AnchorChangeLeavesOneAnchorFirstAndKeepsTheRest) {
    const std::vector<AnchorCase> cases = {
        {"new anchor made", {"URL:https://a.example"}, [](KinID::Anchor&) {}, ""},
        {"hidden set", {"URL:kinbook://c/AB12CD34"}, [](KinID::Anchor& a) { a.hidden = true; }, "?h=1"},
        {"unknown items kept",
         {"URL:https://a.example", "URL:kinbook://c/AB12CD34?x=5"},
         [](KinID::Anchor& a) { a.circle = ContactCircle::closest; },
         "?r=1&x=5"},
        {"second anchor dropped",
         {"URL:kinbook://c/AB12CD34?p=1", "URL:KINBOOK://C/ZZZZ9999"},
         [](KinID::Anchor& a) { a.primary = false; },
         ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string bytes = "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\n";
        for (const auto url : c.urls) {
            bytes += std::string(url) + "\r\n";
        }
        bytes += "NOTE:kept\r\nEND:VCARD\r\n";
        VCard card = parse(bytes);
        EntryRegistry registry;
        std::string firstAnchorID;
        for (const auto& entry : cardEntries(card, kCardID, registry)) {
            if (firstAnchorID.empty() && KinID::isAnchorURL(entry.property->text())) {
                firstAnchorID = entry.id;
            }
        }
        const AnchorChange result = changeAnchor(card, kCardID, registry, c.change, kNow);
        recordCardEntries(card, kCardID, registry, result.entries.entryIDs);

        const auto urls = card.find("URL");
        ASSERT_FALSE(urls.empty());
        const std::string anchorURL = urls.front()->text();
        EXPECT_EQ(anchorURL, "kinbook://c/" + result.anchor.id + c.expectedQuery);
        EXPECT_EQ(result.anchor.id.size(), 8u);
        EXPECT_EQ(readLabel(card, *urls.front()), KinID::anchorLabel);
        const auto anchors = std::count_if(
            urls.begin(), urls.end(), [](const VCardProperty* u) { return KinID::isAnchorURL(u->text()); });
        EXPECT_EQ(anchors, 1);
        const std::string written = card.serialize();
        const bool hadWebAddress =
            std::find(c.urls.begin(), c.urls.end(), "URL:https://a.example") != c.urls.end();
        EXPECT_EQ(written.find("URL:https://a.example\r\n") != std::string::npos, hadWebAddress) << written;
        EXPECT_NE(written.find("NOTE:kept\r\n"), std::string::npos);
        if (!firstAnchorID.empty()) {
            VCard reread = parse(written);
            const VCard& constant = reread;
            const auto entries = cardEntries(constant, kCardID, registry);
            EXPECT_EQ(idOf(entries, anchorURL), firstAnchorID);
        }
    }
}

TEST(CardWriter, AnchorChangeThatChangesNothingWritesNothing) {
    VCard card = parse(kMaja);
    const auto anchor = changeAnchor(
        card, [](KinID::Anchor&) {}, kNow);
    EXPECT_EQ(anchor.circle, ContactCircle::goodFriends);
    EXPECT_FALSE(card.isModified());
}

// ---------------------------------------------------------------------------
// Birthday, versions, links, photo

struct BirthdayCase {
    VCardVersion version;
    std::string_view existing; // a BDAY line, or empty
    std::optional<DateComponents> birthday;
    std::string_view expected; // the BDAY line written, or empty for none
};

TEST(CardWriter, BirthdayIsWrittenInTheCardsVersionForm) {
    const DateComponents withYear{3, 14, 1987};
    const DateComponents noYear{2, 29, std::nullopt};
    const std::vector<BirthdayCase> cases = {
        {VCardVersion::v3_0, "", withYear, "BDAY:1987-03-14"},
        {VCardVersion::v3_0, "", noYear, "BDAY;X-APPLE-OMIT-YEAR=1604:1604-02-29"},
        {VCardVersion::v4_0, "", withYear, "BDAY:19870314"},
        {VCardVersion::v4_0, "", noYear, "BDAY:--0229"},
        {VCardVersion::v3_0, "BDAY;X-APPLE-OMIT-YEAR=1604:1604-02-29", withYear, "BDAY:1987-03-14"},
        {VCardVersion::v4_0, "BDAY;VALUE=text:around 1980", noYear, "BDAY:--0229"},
        {VCardVersion::v3_0, "BDAY:1987-03-14", std::nullopt, ""},
        {VCardVersion::v2_1, "BDAY:19870314", noYear, "BDAY;X-APPLE-OMIT-YEAR=1604:1604-02-29"},
        // A birthday that is no date never reached the editor: kept.
        {VCardVersion::v3_0, "BDAY;VALUE=text:spring", std::nullopt, "BDAY;VALUE=text:spring"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.existing) + " -> " + std::string(c.expected));
        std::string bytes = "BEGIN:VCARD\r\nVERSION:" + std::string(versionText(c.version)) + "\r\nFN:A\r\n";
        if (!c.existing.empty()) {
            bytes += std::string(c.existing) + "\r\n";
        }
        bytes += "END:VCARD\r\n";
        Fixture f(bytes);
        f.draft.birthday = c.birthday;
        const auto written = lines(f.apply());
        std::vector<std::string> bday;
        std::copy_if(written.begin(), written.end(), std::back_inserter(bday),
                     [](const std::string& l) { return l.rfind("BDAY", 0) == 0; });
        EXPECT_EQ(bday, c.expected.empty() ? std::vector<std::string>{}
                                           : std::vector<std::string>{std::string(c.expected)});
        if (c.birthday) {
            EXPECT_EQ(cardBirthday(parse(f.card.serialize())), c.birthday);
        }
    }
}

TEST(CardWriter, EditedVersion21CardIsWrittenAs30) {
    const std::string bytes = crlf({
        "BEGIN:VCARD",
        "VERSION:2.1",
        "N:Doe;John",
        "FN:John Doe",
        "TITLE:Clerk",
        "TEL;WORK;VOICE:(111) 555-1111",
        "END:VCARD",
    });
    Fixture f(bytes);
    f.draft.jobTitle = "Manager";
    const auto written = lines(f.apply());
    EXPECT_NE(std::find(written.begin(), written.end(), "VERSION:3.0"), written.end());
    EXPECT_NE(std::find(written.begin(), written.end(), "TITLE:Manager"), written.end());
    EXPECT_NE(std::find(written.begin(), written.end(), "N:Doe;John"), written.end()); // field count kept
    const auto back = draftOf(parse(f.card.serialize()), f.registry).phones;
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].id, f.draft.phones[0].id);
    EXPECT_EQ(back[0].label, f.draft.phones[0].label);
    EXPECT_EQ(back[0].value, f.draft.phones[0].value);
}

TEST(CardWriter, NameChangeCarriesDerivedFullNameOnly) {
    struct Case {
        std::string_view fn;
        std::string_view expected;
    };
    for (const Case& c : {Case{"Maja Lindqvist", "Maia Lindqvist"}, Case{"Lindqvist Maja", "Lindqvist Maia"},
                          Case{"Queen Maja", "Queen Maja"}}) {
        std::string bytes = kMaja;
        bytes.replace(bytes.find("FN:Maja Lindqvist"), 17, "FN:" + std::string(c.fn));
        Fixture f(bytes);
        f.draft.givenName = "Maia";
        f.apply();
        EXPECT_EQ(f.card.first("FN")->text(), c.expected);
        EXPECT_EQ(valueAfterColon(*f.card.first("N")), "Lindqvist;Maia;;;");
    }
}

TEST(CardWriter, PhotoReplacementDropsWhatDescribedTheOldImage) {
    const std::string bytes = crlf({
        "BEGIN:VCARD",
        "VERSION:3.0",
        "FN:A",
        "PHOTO;X-ABCROP-RECTANGLE=ABClipRect_1&0&0&512&512&abc=;ENCODING=b;TYPE=JPEG:AAAA",
        "X-IMAGETYPE:PHOTO",
        "X-IMAGEHASH:abc=",
        "UID:1",
        "END:VCARD",
    });
    const std::vector<std::uint8_t> jpeg{0xFF, 0xD8, 0xFF, 0xE0};
    VCard card = parse(bytes);
    setPhoto(card, jpeg, kNow);
    EXPECT_EQ(lines(card.serialize()),
              (std::vector<std::string>{"BEGIN:VCARD", "VERSION:3.0", "FN:A",
                                        "PHOTO;ENCODING=b;TYPE=JPEG:/9j/4A==", "UID:1", "END:VCARD"}));

    VCard modern = VCard::create(VCardVersion::v4_0);
    setPhoto(modern, jpeg, kNow);
    EXPECT_EQ(modern.first("PHOTO")->rawValue(), "data:image/jpeg;base64,/9j/4A==");
    removePhoto(card, kNow);
    EXPECT_EQ(card.first("PHOTO"), nullptr);
}

// Regression: clearing the title of a card with two TITLE lines left the
// second one showing.
TEST(CardWriter, ClearingATextRemovesEveryLineThatWouldShowIt) {
    Fixture f(crlf({"BEGIN:VCARD", "VERSION:4.0", "N:Doe;Jo;;;", "FN:Jo Doe", "ORG:One;Dept One",
                    "ORG:Two;Dept Two", "TITLE:First", "TITLE:Second", "END:VCARD"}));
    f.draft.organization.clear();
    f.draft.department.clear();
    f.draft.jobTitle.clear();
    EXPECT_EQ(f.apply(), crlf({"BEGIN:VCARD", "VERSION:4.0", "N:Doe;Jo;;;", "FN:Jo Doe", "END:VCARD"}));
}

TEST(CardWriter, PhoneticNamesDatesAndTheNoteChangeOnlyTheirLines) {
    std::string bytes = kMaja;
    bytes.insert(bytes.find("NOTE:"),
                 crlf({"X-PHONETIC-FIRST-NAME:Maja", "item7.X-ABDATE;type=pref:2015-06-20",
                       "item7.X-ABLabel:_$!<Anniversary>!$_", "X-ABDATE;VALUE=text:some spring"}));
    Fixture f(bytes);
    ASSERT_EQ(f.draft.dates.size(), 1u); // the free-text date is no date to edit
    EXPECT_EQ(f.draft.dates[0].label, "_$!<Anniversary>!$_");
    const std::string anniversaryID = f.draft.dates[0].id;
    f.draft.phoneticFamilyName = " Lindkvist ";
    f.draft.dates[0].date.year.reset();
    f.draft.dates.push_back({"d-new", "Graduation", {6, 1, 2010}, true});
    f.draft.note = "Met at the spring fair.\nLikes tea.";
    f.apply();
    EXPECT_EQ(f.change().removed, set({"item7.X-ABDATE;type=pref:2015-06-20", "NOTE:Met at the spring fair.",
                                       "REV:2020-01-01T00:00:00Z"}));
    EXPECT_EQ(f.change().added,
              set({"X-PHONETIC-LAST-NAME:Lindkvist",
                   "item7.X-ABDATE;type=pref;X-APPLE-OMIT-YEAR=1604:1604-06-20", "item8.X-ABDATE:2010-06-01",
                   "item8.X-ABLabel:Graduation", "NOTE:Met at the spring fair.\\nLikes tea.", kNowRev}));
    VCard holder = VCard::create();
    const auto entries = f.reread(holder);
    EXPECT_EQ(idOf(entries, "1604-06-20"), anniversaryID);
    EXPECT_EQ(idOf(entries, "2010-06-01"), "d-new");
    EXPECT_EQ(cardNote(holder), "Met at the spring fair.\nLikes tea.");

    // No draft note leaves the note; a blank one removes it. Dates the draft
    // drops go with their label; the free-text one stays.
    Fixture again(f.card.serialize());
    again.draft.dates.clear();
    again.apply();
    EXPECT_TRUE(hasNote(again.card));
    again.draft.note = " \n";
    const auto written = lines(again.apply());
    EXPECT_FALSE(hasNote(again.card));
    EXPECT_EQ(
        std::count_if(written.begin(), written.end(),
                      [](const std::string& line) { return line.find("X-ABDATE") != std::string::npos; }),
        1);
    EXPECT_NE(std::find(written.begin(), written.end(), "X-ABDATE;VALUE=text:some spring"), written.end());
    EXPECT_EQ(std::count(written.begin(), written.end(), "item7.X-ABLabel:_$!<Anniversary>!$_"), 0);
    // Only a note with text counts as one.
    EXPECT_FALSE(hasNote(parse(crlf({"BEGIN:VCARD", "VERSION:3.0", "NOTE:", "NOTE: \\n ", "END:VCARD"}))));
    EXPECT_FALSE(hasNote(VCard::create()));
}

TEST(CardWriter, NewCardCarriesTheDraft) {
    ContactDraft draft = ContactDraft::empty(std::nullopt, "acc");
    draft.givenName = "Ada";
    draft.familyName = "Lovelace";
    draft.organization = "Analytical Engines";
    draft.phones.push_back({"p1", std::string(labelConstant(StockLabel::mobile)), "+44 20 7946 0000", true});
    draft.emails.push_back({"e1", "ex-Acme", "ada@example.org", true});
    draft.birthday = DateComponents{12, 10, 1815};
    VCard card = newCardFor(draft, "UID-1");
    EntryRegistry registry;
    const ApplyResult result = applyDraft(card, draft, kCardID, registry, kNow);
    EXPECT_EQ(result.entryIDs.size(), 2u);
    VCard reread = parse(card.serialize());
    EXPECT_EQ(reread.uid(), "UID-1");
    EXPECT_EQ(reread.first("FN")->text(), "Ada Lovelace");
    ContactDraft back = draftOf(reread, registry);
    EXPECT_EQ(back.organization, "Analytical Engines");
    EXPECT_EQ(back.phones.size(), 1u);
    EXPECT_EQ(back.phones[0].label, draft.phones[0].label);
    EXPECT_EQ(back.emails[0].label, "ex-Acme");
    EXPECT_EQ(back.emails[0].value, "ada@example.org");
    EXPECT_EQ(back.birthday, draft.birthday);
}

// ---------------------------------------------------------------------------
// Real cards

using testing::readFile;

TEST(CardWriter, UnchangedDraftOfEveryRealCardWritesNothing) {
    std::vector<std::pair<std::string, std::string>> cards = {{"Maja", kMaja}};
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real")) {
        if (file.path().extension() == ".vcf") {
            cards.emplace_back(file.path().filename().string(), readFile(file.path()));
        }
    }
    EXPECT_EQ(cards.size(), 26u);
    for (const auto& [name, bytes] : cards) {
        SCOPED_TRACE(name);
        Fixture f(bytes);
        f.draft.note = cardNote(f.card); // the note as the editor shows it, unchanged
        const std::string written = f.apply();
        EXPECT_FALSE(f.card.isModified());
        EXPECT_EQ(written, f.original);
    }
}

} // namespace
} // namespace kinbook
