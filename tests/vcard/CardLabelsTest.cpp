#include "KinbookKit/vcard/CardLabels.h"

#include <gtest/gtest.h>

#include <string>

namespace kinbook {
namespace {

// The label of the card's first property named `property`, from lines
// written into a small card.
std::string labelOf(const std::string& lines, const std::string& property, const char* version = "3.0") {
    const std::string bytes =
        std::string("BEGIN:VCARD\r\nVERSION:") + version + "\r\nFN:X\r\n" + lines + "END:VCARD\r\n";
    auto card = VCard::parse(bytes);
    EXPECT_TRUE(card.ok());
    const VCardProperty* found = card.value().first(property);
    EXPECT_NE(found, nullptr) << lines;
    return found ? readLabel(card.value(), *found) : std::string("<none>");
}

struct LabelCase {
    const char* lines;
    const char* property;
    const char* label;
};

TEST(CardLabels, DerivesPhoneLabelsFromTypes) {
    const LabelCase cases[] = {
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
    };
    for (const auto& c : cases) {
        EXPECT_EQ(labelOf(c.lines, c.property), c.label) << c.lines;
    }
}

TEST(CardLabels, ReadsNamelessTypesOf21Cards) {
    EXPECT_EQ(labelOf("TEL;CELL;VOICE:1\r\n", "TEL", "2.1"), "_$!<Mobile>!$_");
    EXPECT_EQ(labelOf("TEL;WORK;FAX:1\r\n", "TEL", "2.1"), "_$!<WorkFAX>!$_");
    EXPECT_EQ(labelOf("EMAIL;PREF;INTERNET:a@b.c\r\n", "EMAIL", "2.1"), "_$!<Other>!$_");
    // Android writes a custom label as a nameless X- word.
    EXPECT_EQ(labelOf("TEL;X-Gym:1\r\n", "TEL", "2.1"), "Gym");
}

TEST(CardLabels, LetTheGroupLabelWinOverTypes) {
    const LabelCase cases[] = {
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
    };
    for (const auto& c : cases) {
        EXPECT_EQ(labelOf(c.lines, c.property), c.label) << c.lines;
    }
}

TEST(CardLabels, ReadsEachKindsOwnTypes) {
    const LabelCase cases[] = {
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
        EXPECT_EQ(labelOf(c.lines, c.property), c.label) << c.lines;
    }
}

TEST(CardLabels, ShowsTokensAsWords) {
    EXPECT_EQ(labelDisplayText("_$!<Mobile>!$_"), "mobile");
    EXPECT_EQ(labelDisplayText("_$!<HomeFAX>!$_"), "home fax");
    EXPECT_EQ(labelDisplayText("_$!<AssistantPhone>!$_"), "assistant phone");
    EXPECT_EQ(labelDisplayText("_$!<Anniversary>!$_"), "anniversary");
    EXPECT_EQ(labelDisplayText("iPhone"), "iPhone");
    EXPECT_EQ(labelDisplayText("ex-work"), "ex-work");
    EXPECT_EQ(labelDisplayText("_$!<>!$_"), "_$!<>!$_");
    EXPECT_EQ(labelDisplayText(""), "");
}

} // namespace
} // namespace kinbook
