#include "KinbookKit/vcard/VCard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

VCard parsed(std::string_view bytes) {
    auto card = VCard::parse(bytes);
    EXPECT_TRUE(card.ok()) << bytes;
    return std::move(card).value();
}

std::vector<std::string> names(const std::vector<const VCardProperty*>& properties) {
    std::vector<std::string> out;
    for (const VCardProperty* property : properties) {
        out.push_back(property->group().empty() ? property->name()
                                                : property->group() + "." + property->name());
    }
    return out;
}

// ---------------------------------------------------------------- reading

TEST(VCard, LineEndingsOfEveryKindReadTheSameAndNewLinesFollowTheFile) {
    for (const char* ending : {"\r\n", "\n", "\r", "\r\r\n"}) {
        const std::string e = ending;
        const std::string bytes = "BEGIN:VCARD" + e + "VERSION:3.0" + e + "FN:Jane" + e + "NOTE:long" + e +
                                  " er" + e + "END:VCARD" + e;
        VCard card = parsed(bytes);
        EXPECT_EQ(card.first("NOTE")->text(), "longer");
        EXPECT_EQ(card.serialize(), bytes);
        EXPECT_EQ(card.lineEnding(), e);
        card.first("FN")->setText("Jane Doe");
        EXPECT_EQ(card.serialize(), "BEGIN:VCARD" + e + "VERSION:3.0" + e + "FN:Jane Doe" + e + "NOTE:long" +
                                        e + " er" + e + "END:VCARD" + e);
    }
}

TEST(VCard, AByteOrderMarkAndTextBeforeTheCardAreKept) {
    const std::string bytes = "\xEF\xBB\xBF"
                              "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    EXPECT_TRUE(card.warnings().empty());
    card.first("FN")->setText("B");
    EXPECT_EQ(card.serialize(), "\xEF\xBB\xBF"
                                "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:B\r\nEND:VCARD\r\n");

    const VCard junk = parsed("From: someone\r\n\r\nBEGIN:VCARD\r\nFN:A\r\nEND:VCARD\r\n");
    ASSERT_EQ(junk.warnings().size(), 1u);
    EXPECT_EQ(junk.warnings()[0].line, 1u);
}

TEST(VCard, FoldsAreRemovedOnBytesWithExactlyOneMarker) {
    // A fold in the middle of "é" (C3 A9), and a continuation whose second
    // space is data.
    const VCard card =
        parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ren\xC3\r\n \xA9\r\nNOTE:a\r\n  b\r\n\tc\r\nEND:VCARD\r\n");
    EXPECT_EQ(card.first("FN")->text(), "Ren\xC3\xA9");
    EXPECT_EQ(card.first("NOTE")->text(), "a bc");
}

TEST(VCard, LegacyEncodingsAreDecodedBeforeUnescaping) {
    const VCard card = parsed("BEGIN:VCARD\r\nVERSION:2.1\r\n"
                              "NOTE;ENCODING=QUOTED-PRINTABLE;CHARSET=UTF-8:en =E2=80=\r\n"
                              "=93 dash=\r\n"
                              " starts with a space\r\n"
                              "TITLE;QUOTED-PRINTABLE:Stra=DFe\r\n"
                              "ORG;CHARSET=ISO-8859-1:Caf\xE9\r\n"
                              "N;CHARSET=SHIFT_JIS:\x83\x5C\x83\x74\x83\x67;\x91\xBE\x98\x59\r\n"
                              "END:VCARD\r\n");
    // Quoted-printable soft breaks join before the bytes are decoded.
    EXPECT_EQ(card.first("NOTE")->text(), "en \xE2\x80\x93 dash starts with a space");
    // Nameless QUOTED-PRINTABLE, no CHARSET: 8-bit 2.1 text is read as Windows-1252.
    EXPECT_EQ(card.first("TITLE")->text(), "Stra\xC3\x9F"
                                           "e");
    EXPECT_EQ(card.first("ORG")->text(), "Caf\xC3\xA9");
    // "ソ" is 83 5C in Shift_JIS: its second byte must not start an escape.
    const auto fields = card.first("N")->components();
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_EQ(fields[0][0], "ソフト");
    EXPECT_EQ(fields[1][0], "太郎");
    EXPECT_TRUE(card.warnings().empty());
}

TEST(VCard, ParametersReadCaseInsensitivelyWithQuotesAndCarets) {
    const VCard v4 =
        parsed("BEGIN:VCARD\r\nVERSION:4.0\r\n"
               "ADR;label=\"1 Main St^nSpringfield\";Type=home,Work:;;1 Main St;Springfield;;;\r\n"
               "X-A;X-P=a^'b:v\r\nEND:VCARD\r\n");
    const VCardProperty* adr = v4.first("adr");
    EXPECT_EQ(adr->parameter("LABEL"), "1 Main St\nSpringfield");
    EXPECT_EQ(adr->parameterValues("TYPE"), (std::vector<std::string>{"home", "Work"}));
    EXPECT_TRUE(adr->hasType("WORK"));
    EXPECT_EQ(v4.first("X-A")->parameter("x-p"), "a\"b");

    // 3.0 decodes carets only inside quotes; 2.1 never.
    const VCard v3 = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nX-A;X-P=a^nb;X-Q=\"a^nb\":v\r\nEND:VCARD\r\n");
    EXPECT_EQ(v3.first("X-A")->parameter("X-P"), "a^nb");
    EXPECT_EQ(v3.first("X-A")->parameter("X-Q"), "a\nb");
    const VCard v21 = parsed("BEGIN:VCARD\r\nVERSION:2.1\r\nX-A;X-Q=\"a^nb\":v\r\nEND:VCARD\r\n");
    EXPECT_EQ(v21.first("X-A")->parameter("X-Q"), "a^nb");
}

TEST(VCard, NamelessParametersStandForTypeEncodingAndValue) {
    const VCard card = parsed("BEGIN:VCARD\r\nVERSION:2.1\r\nTEL;WORK;VOICE;PREF:1\r\n"
                              "PHOTO;VALUE=URL;GIF:http://x/y.gif\r\nNOTE;QUOTED-PRINTABLE:a=3Db\r\n"
                              "LOGO;URL:http://x/z\r\nEND:VCARD\r\n");
    EXPECT_EQ(card.first("TEL")->parameterValues("TYPE"),
              (std::vector<std::string>{"WORK", "VOICE", "PREF"}));
    EXPECT_EQ(card.first("PHOTO")->parameter("VALUE"), "URL");
    EXPECT_EQ(card.first("PHOTO")->parameterValues("TYPE"), (std::vector<std::string>{"GIF"}));
    EXPECT_EQ(card.first("NOTE")->text(), "a=b");
    EXPECT_EQ(card.first("LOGO")->parameter("VALUE"), "URL");
}

TEST(VCard, GroupsAndCompanionsAreFoundCaseInsensitively) {
    const VCard card = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nitem1.TEL:1\r\nTEL;type=CELL:2\r\n"
                              "ITEM1.X-ABLABEL:ex-work\r\nitem2.URL:http://a\r\nEND:VCARD\r\n");
    const auto tels = card.find("tel");
    ASSERT_EQ(tels.size(), 2u);
    ASSERT_NE(card.companion(*tels[0], "X-ABLabel"), nullptr);
    EXPECT_EQ(card.companion(*tels[0], "X-ABLabel")->text(), "ex-work");
    EXPECT_EQ(card.companion(*tels[1], "X-ABLabel"), nullptr);
    EXPECT_EQ(card.companion(*card.first("URL"), "X-ABLabel"), nullptr);
    EXPECT_EQ(card.groupMembers("Item1").size(), 2u);
    EXPECT_EQ(card.newGroupName(), "item3");
    EXPECT_EQ(parsed("BEGIN:VCARD\r\nITEM9.TEL:1\r\nEND:VCARD\r\n").newGroupName(), "ITEM10");
    EXPECT_EQ(parsed("BEGIN:VCARD\r\nTEL:1\r\nEND:VCARD\r\n").newGroupName(), "item1");
}

TEST(VCard, AnAgentCardNestedInside21DoesNotEndTheOuterCard) {
    const std::string bytes =
        "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Outer;A\r\nAGENT:\r\nBEGIN:VCARD\r\nVERSION:2.1\r\n"
        "N:Inner;B\r\nTEL:1\r\nEND:VCARD\r\nTEL:2\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    EXPECT_TRUE(card.warnings().empty());
    EXPECT_EQ(names(std::as_const(card).properties()),
              (std::vector<std::string>{"VERSION", "N", "AGENT", "TEL"}));
    EXPECT_EQ(card.first("TEL")->text(), "2");
    EXPECT_EQ(card.first("AGENT")->text(), "BEGIN:VCARD\nVERSION:2.1\nN:Inner;B\nTEL:1\nEND:VCARD");
    EXPECT_EQ(card.serialize(), bytes);

    // On the first edit the card becomes 3.0, where AGENT holds the card as TEXT.
    card.first("TEL")->setText("3");
    auto reread = VCard::parse(card.serialize());
    ASSERT_TRUE(reread.ok());
    EXPECT_EQ(reread->first("AGENT")->text(), card.first("AGENT")->text());
    EXPECT_EQ(reread->find("TEL").size(), 1u);

    const VCard sameLine = parsed("BEGIN:VCARD\r\nAGENT:BEGIN:VCARD\r\nFN:Inner\r\nEND:VCARD\r\nFN:Outer\r\n"
                                  "END:VCARD\r\n");
    EXPECT_EQ(sameLine.first("FN")->text(), "Outer");
}

TEST(VCard, AnExportSplitsIntoCardsWithoutLosingNestedOnes) {
    std::string bytes = "junk before\r\n";
    for (int i = 0; i < 300; ++i) {
        bytes += "BEGIN:VCARD\r\nVERSION:2.1\r\nFN:Card " + std::to_string(i) + "\r\n";
        if (i % 100 == 0) {
            bytes += "AGENT:BEGIN:VCARD\r\nFN:Agent\r\nEND:VCARD\r\n";
        }
        bytes += "END:VCARD\r\n\r\n";
    }
    bytes += "BEGIN:VCARD\r\nFN:Last, cut off";
    auto cards = VCard::parseAll(bytes);
    ASSERT_TRUE(cards.ok());
    ASSERT_EQ(cards->size(), 301u);
    EXPECT_EQ((*cards)[100].find("FN").size(), 1u);
    EXPECT_EQ((*cards)[100].first("FN")->text(), "Card 100");
    EXPECT_EQ((*cards)[300].first("FN")->text(), "Last, cut off");
    EXPECT_EQ((*cards)[299].serialize(), "BEGIN:VCARD\r\nVERSION:2.1\r\nFN:Card 299\r\nEND:VCARD\r\n");
    EXPECT_EQ(VCard::parse(bytes)->additionalCardCount(), 300u);
}

// ---------------------------------------------------------------- editing

TEST(VCard, SetTextEscapesForTheCardAndLeavesOtherLinesAlone) {
    const std::string bytes =
        "BEGIN:VCARD\nVERSION:4.0\nFN:A\nNOTE;LANGUAGE=en:old\nTEL;TYPE=cell:1\nEND:VCARD\n";
    VCard card = parsed(bytes);
    card.first("NOTE")->setText("one, two; three\\four\nfive");
    EXPECT_EQ(card.serialize(),
              "BEGIN:VCARD\nVERSION:4.0\nFN:A\nNOTE;LANGUAGE=en:one\\, two\\; three\\\\four\\nfive\n"
              "TEL;TYPE=cell:1\nEND:VCARD\n");
    EXPECT_EQ(card.first("NOTE")->text(), "one, two; three\\four\nfive");
    EXPECT_TRUE(card.first("NOTE")->isModified());
    EXPECT_FALSE(card.first("TEL")->isModified());

    card.first("NOTE")->setText("bad \xFF byte");
    EXPECT_EQ(card.first("NOTE")->rawValue(), "bad \xEF\xBF\xBD byte");
}

TEST(VCard, StructuredAndListValuesAreWrittenFieldByField) {
    VCard card = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nN:Doe;John;;;\r\nCATEGORIES:a\r\nEND:VCARD\r\n");
    card.first("N")->setComponents(std::vector<std::string>{"O'Neil; Jr", "Mary, Ann", "", "Dr.", ""});
    card.first("CATEGORIES")->setListValues({"Friends", "Book club, Tuesday"});
    EXPECT_EQ(card.first("N")->rawValue(), "O'Neil\\; Jr;Mary\\, Ann;;Dr.;");
    EXPECT_EQ(card.first("CATEGORIES")->listValues(),
              (std::vector<std::string>{"Friends", "Book club, Tuesday"}));
    card.first("N")->setComponents(
        std::vector<std::vector<std::string>>{{"Doe"}, {"Jane"}, {"Ann", "Marie"}});
    EXPECT_EQ(card.first("N")->components()[2], (std::vector<std::string>{"Ann", "Marie"}));
}

TEST(VCard, ParameterEditsKeepTheLinesSpellingAndTheCardsHabits) {
    struct Case {
        const char* line;
        std::vector<std::string> types;
        const char* expected;
    };
    const Case cases[] = {
        // Apple repeats a lower-case "type=".
        {"TEL;type=CELL;type=VOICE;type=pref:1", {"WORK", "VOICE"}, "TEL;type=WORK;type=VOICE:1"},
        // A comma list stays a list; other parameters keep their exact spelling and place.
        {"TEL;X-COUCHDB-UUID=\"c2fa\";TYPE=WORK,VOICE:1",
         {"HOME"},
         "TEL;X-COUCHDB-UUID=\"c2fa\";TYPE=HOME:1"},
        {"TEL;TYPE=\"HOME,VOICE\";X-A=b:1", {"CELL", "VOICE"}, "TEL;TYPE=CELL,VOICE;X-A=b:1"},
        // No TYPE yet: added at the end.
        {"TEL;X-A=b:1", {"CELL"}, "TEL;X-A=b;TYPE=CELL:1"},
        // An empty list removes TYPE.
        {"item1.TEL;type=HOME:1", {}, "item1.TEL:1"},
    };
    for (const Case& c : cases) {
        VCard card = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\n" + std::string(c.line) + "\r\nEND:VCARD\r\n");
        card.first("TEL")->setParameter("TYPE", c.types);
        EXPECT_EQ(card.first("TEL")->logicalLine(), c.expected) << c.line;
    }

    // A new TYPE in an Apple card follows the card's own way of writing it.
    VCard apple =
        parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nTEL;type=CELL;type=VOICE:1\r\nEMAIL:a@b\r\nEND:VCARD\r\n");
    apple.first("EMAIL")->setParameter("TYPE", {"INTERNET", "HOME"});
    EXPECT_EQ(apple.first("EMAIL")->logicalLine(), "EMAIL;type=INTERNET;type=HOME:a@b");
    VCard v4 = parsed("BEGIN:VCARD\r\nVERSION:4.0\r\nEMAIL:a@b\r\nEND:VCARD\r\n");
    v4.first("EMAIL")->setParameter("TYPE", {"home", "pref"});
    v4.first("EMAIL")->setParameter("X-SERVICE-TYPE", {"Mike's IM, custom:"});
    EXPECT_EQ(v4.first("EMAIL")->logicalLine(),
              "EMAIL;TYPE=home,pref;X-SERVICE-TYPE=\"Mike's IM, custom:\":a@b");
    EXPECT_EQ(v4.first("EMAIL")->parameter("X-SERVICE-TYPE"), "Mike's IM, custom:");
}

TEST(VCard, NewPropertiesGoNextToTheirKind) {
    VCard card = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\nitem1.EMAIL:a@x\r\nitem1.X-ABLabel:x\r\n"
                        "TEL:1\r\nNOTE:n\r\nEND:VCARD\r\n");
    card.add("EMAIL").setRawValue("b@x");                   // after item1's lines, not inside them
    card.add("URL").setRawValue("http://x");                // no URL yet: before END
    card.add("TEL", {}, card.first("FN")).setRawValue("0"); // explicitly placed
    EXPECT_EQ(names(std::as_const(card).properties()),
              (std::vector<std::string>{"VERSION", "FN", "TEL", "item1.EMAIL", "item1.X-ABLabel", "EMAIL",
                                        "TEL", "NOTE", "URL"}));
    EXPECT_TRUE(card.isModified());
}

TEST(VCard, RemovingCanTakeTheWholeGroup) {
    const std::string bytes =
        "BEGIN:VCARD\r\nVERSION:3.0\r\nitem1.TEL:1\r\nitem1.X-ABLabel:x\r\nitem2.TEL:2\r\n"
        "item2.X-ABLabel:y\r\nitem2.X-ABADR:us\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    card.remove(*card.find("TEL")[0]);
    card.remove(*card.find("TEL")[0], VCardRemoval::wholeGroup);
    EXPECT_EQ(card.serialize(), "BEGIN:VCARD\r\nVERSION:3.0\r\nitem1.X-ABLabel:x\r\nEND:VCARD\r\n");

    VCard other = parsed(bytes);
    const VCard stranger = parsed(bytes);
    other.remove(*stranger.first("TEL")); // not one of its own: ignored
    EXPECT_FALSE(other.isModified());
    EXPECT_EQ(other.serialize(), bytes);
}

TEST(VCard, BinaryPhotosAreWrittenInTheFormOfTheVersion) {
    const std::vector<std::uint8_t> jpeg{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10};
    VCard v3 = parsed("BEGIN:VCARD\r\nVERSION:3.0\r\nPHOTO;VALUE=uri;TYPE=JPEG:https://x/p\r\nEND:VCARD\r\n");
    v3.first("PHOTO")->setBinary(jpeg, "image/jpeg");
    EXPECT_EQ(v3.first("PHOTO")->logicalLine(), "PHOTO;TYPE=JPEG;ENCODING=b:/9j/4AAQ");
    EXPECT_EQ(v3.first("PHOTO")->binary(), (VCardBinary{jpeg, "image/jpeg"}));

    VCard v4 = parsed("BEGIN:VCARD\r\nVERSION:4.0\r\nEND:VCARD\r\n");
    v4.add("PHOTO").setBinary(jpeg, "image/JPEG");
    EXPECT_EQ(v4.first("PHOTO")->logicalLine(), "PHOTO:data:image/jpeg;base64,/9j/4AAQ");
    EXPECT_EQ(v4.first("PHOTO")->binary(), (VCardBinary{jpeg, "image/jpeg"}));

    // Large photos fold into many short lines that read back whole.
    std::vector<std::uint8_t> big(30000);
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<std::uint8_t>(i * 7);
    }
    v3.first("PHOTO")->setBinary(big, "image/png");
    auto reread = VCard::parse(v3.serialize());
    ASSERT_TRUE(reread.ok());
    EXPECT_EQ(reread->first("PHOTO")->binary(), (VCardBinary{big, "image/png"}));
}

TEST(VCard, A21CardIsWrittenAs30OnceChangedAndNoNewCardIs21) {
    const std::string bytes = "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Doe;John\r\nTEL;HOME;VOICE:1\r\n"
                              "ADR;WORK:;;5 Main St, Suite 2;Town;;;\r\nNOTE:kept, as is\r\n"
                              "ORG;CHARSET=ISO-8859-1:Caf\xE9\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    EXPECT_EQ(card.serialize(), bytes); // unchanged stays 2.1, byte for byte
    card.first("N")->setComponents(std::vector<std::string>{"Doe", "Jane"});
    EXPECT_EQ(card.serialize(), "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Doe;Jane\r\nTEL;TYPE=HOME;TYPE=VOICE:1\r\n"
                                "ADR;TYPE=WORK:;;5 Main St\\, Suite 2;Town;;;\r\nNOTE:kept, as is\r\n"
                                "ORG:Caf\xC3\xA9\r\nEND:VCARD\r\n");
    EXPECT_EQ(card.version(), VCardVersion::v2_1); // as read

    // Editing a 2.1 line with 2.1-only syntax brings it to 3.0 at once.
    VCard other = parsed(bytes);
    other.first("TEL")->setParameter("TYPE", {"CELL"});
    EXPECT_EQ(other.first("TEL")->logicalLine(), "TEL;TYPE=CELL:1");

    // A new card is never made as 2.1.
    EXPECT_EQ(VCard::create(VCardVersion::v2_1).serialize(), "BEGIN:VCARD\r\nVERSION:3.0\r\nEND:VCARD\r\n");
    EXPECT_EQ(VCard::create().serialize(), "BEGIN:VCARD\r\nVERSION:3.0\r\nEND:VCARD\r\n");
    VCard modern = VCard::create(VCardVersion::v4_0);
    modern.add("FN").setText("Jane");
    EXPECT_EQ(modern.serialize(), "BEGIN:VCARD\r\nVERSION:4.0\r\nFN:Jane\r\nEND:VCARD\r\n");
}

TEST(VCard, ACardMissingEndOrVersionIsCompletedOnlyWhenWritten) {
    const std::string truncated = "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\nNOTE:cut off mid";
    VCard card = parsed(truncated);
    ASSERT_EQ(card.warnings().size(), 1u);
    EXPECT_EQ(card.first("NOTE")->text(), "cut off mid");
    EXPECT_EQ(card.serialize(), truncated);
    card.first("FN")->setText("B");
    EXPECT_EQ(card.serialize(), "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:B\r\nNOTE:cut off mid\r\nEND:VCARD\r\n");

    VCard noVersion = parsed("BEGIN:VCARD\nFN:A\nEND:VCARD\n");
    EXPECT_EQ(noVersion.version(), VCardVersion::v3_0);
    noVersion.first("FN")->setText("B");
    EXPECT_EQ(noVersion.serialize(), "BEGIN:VCARD\nVERSION:3.0\nFN:B\nEND:VCARD\n");
}

// ---------------------------------------------------------------- UID

TEST(VCard, EnsureUidLeavesExactlyOnePlainUidLine) {
    struct Case {
        const char* lines;
        UidRepair repair;
        const char* result; // the card's UID lines afterwards
    };
    const Case cases[] = {
        {"UID:abc\r\n", UidRepair::unchanged, "UID:abc\r\n"},
        {"", UidRepair::added, "UID:NEW-1\r\n"},
        {"uid:abc\r\n", UidRepair::normalised, "UID:abc\r\n"},
        {"item1.UID:abc\r\n", UidRepair::normalised, "UID:abc\r\n"},
        {"uid:abc\r\nUID:abc\r\n", UidRepair::normalised, "UID:abc\r\n"},
        {"UID:abc\r\nUID:xyz\r\n", UidRepair::conflicting, "UID:abc\r\nUID:xyz\r\n"},
    };
    for (const Case& c : cases) {
        const std::string bytes =
            "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\n" + std::string(c.lines) + "END:VCARD\r\n";
        VCard card = parsed(bytes);
        EXPECT_EQ(card.ensureUid("NEW-1"), c.repair) << c.lines;
        EXPECT_EQ(card.serialize(),
                  "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\n" + std::string(c.result) + "END:VCARD\r\n")
            << c.lines;
        if (c.repair != UidRepair::conflicting) {
            EXPECT_EQ(VCard::parse(card.serialize())->ensureUid("NEW-2"), UidRepair::unchanged) << c.lines;
        }
    }
}

TEST(VCard, TheSyncUidIsTheFirstPlainUpperCaseLine) {
    EXPECT_EQ(parsed("BEGIN:VCARD\r\nuid:a\r\nitem1.UID:b\r\nUID:c\r\nEND:VCARD\r\n").uid(), "c");
    EXPECT_EQ(parsed("BEGIN:VCARD\r\nuid:a\r\nEND:VCARD\r\n").uid(), std::nullopt);

    VCard card = parsed("BEGIN:VCARD\r\nVERSION:4.0\r\nUID:a\r\nuid:b\r\nEND:VCARD\r\n");
    card.setUid("urn:uuid:1,2");
    EXPECT_EQ(card.serialize(), "BEGIN:VCARD\r\nVERSION:4.0\r\nUID:urn:uuid:1,2\r\nEND:VCARD\r\n");
}

// ---------------------------------------------------------------- hostile input

TEST(VCard, BytesWithoutACardAreAnError) {
    EXPECT_EQ(VCard::parse("").error(), VCardError::empty);
    EXPECT_EQ(VCard::parse(" \r\n\t\n").error(), VCardError::empty);
    EXPECT_EQ(VCard::parse("hello world").error(), VCardError::notAVCard);
    EXPECT_EQ(VCard::parse("BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n").error(), VCardError::notAVCard);
    EXPECT_EQ(VCard::parseAll("nothing").error(), VCardError::notAVCard);
    EXPECT_EQ(std::string(describe(VCardError::notAVCard)), "the file holds no vCard");
}

TEST(VCard, MalformedLinesAreKeptAndReported) {
    const std::string bytes = "BEGIN:VCARD\r\nVERSION:3.0\r\nno colon here\r\n:no name\r\nFN:A\r\n"
                              "X-Q;P=\"unbalanced:value\r\nBEGIN:VCARD\r\nFN:stray\r\nEND:VCARD\r\n"
                              "bad name:x\r\n\r\nTEL:1\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    std::vector<std::size_t> lines;
    for (const VCardWarning& warning : card.warnings()) {
        lines.push_back(warning.line);
    }
    EXPECT_EQ(lines, (std::vector<std::size_t>{3, 4, 6, 7, 10}));
    EXPECT_EQ(card.first("X-Q")->parameter("P"), "unbalanced");
    EXPECT_EQ(card.first("X-Q")->text(), "value");
    EXPECT_EQ(names(std::as_const(card).properties()),
              (std::vector<std::string>{"VERSION", "", "", "FN", "X-Q", "", "", "", "TEL"}));
    EXPECT_EQ(card.first("TEL")->text(), "1");
    VCardProperty* malformed = card.properties()[1];
    ASSERT_TRUE(malformed->isMalformed());
    malformed->setText("ignored");
    malformed->setParameter("TYPE", {"HOME"});
    EXPECT_FALSE(malformed->isModified());
    card.first("TEL")->setText("2");
    const std::string written = card.serialize();
    EXPECT_NE(written.find("no colon here\r\n:no name\r\n"), std::string::npos);
    EXPECT_NE(written.find("BEGIN:VCARD\r\nFN:stray\r\nEND:VCARD\r\nbad name:x\r\n\r\nTEL:2\r\n"),
              std::string::npos);
}

TEST(VCard, NulBytesAndBinaryJunkNeverCrashAndNeverLeak) {
    const std::string bytes =
        std::string("BEGIN:VCARD\r\nFN:a\0b\r\nNOTE:\xFF\xFE\x00\x01\r\nEND:VCARD\r\n", 40);
    const VCard card = parsed(bytes);
    EXPECT_EQ(card.first("FN")->text(), "a\xEF\xBF\xBD"
                                        "b");
    EXPECT_EQ(parsed("BEGIN:VCARD\r\nTEL;TYPE=\xFF:1\r\nEND:VCARD\r\n").first("TEL")->parameter("TYPE"),
              "\xEF\xBF\xBD");
    EXPECT_TRUE(isValidUtf8(card.first("NOTE")->text()));
    EXPECT_EQ(card.serialize(), bytes);

    // Every prefix of a real-looking card reads, and writes back as itself.
    const std::string full =
        "BEGIN:VCARD\r\nVERSION:2.1\r\nN;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:=C3=91=\r\n"
        "=C3=91;;\r\nAGENT:\r\nBEGIN:VCARD\r\nFN:x\r\nEND:VCARD\r\nPHOTO;BASE64:\r\n"
        " /9j/\r\n\r\nX;P=\"a:b\";Q=^n:v\r\n \xD0\r\n \x96\r\nEND:VCARD\r\n";
    for (std::size_t length = 0; length <= full.size(); ++length) {
        const std::string prefix = full.substr(0, length);
        auto prefixCard = VCard::parse(prefix);
        if (prefixCard.ok()) {
            EXPECT_EQ(prefixCard->serialize(), prefix) << length;
        }
    }

    // Deterministic pseudo-random byte noise around a card.
    std::uint32_t state = 12345;
    for (int round = 0; round < 200; ++round) {
        std::string noisy = full;
        for (int k = 0; k < 8; ++k) {
            state = state * 1664525u + 1013904223u;
            noisy[state % noisy.size()] = static_cast<char>(state >> 24);
        }
        auto noisyCard = VCard::parse(noisy);
        if (noisyCard.ok()) {
            EXPECT_EQ(noisyCard->serialize(), noisy);
            for (VCardProperty* property : noisyCard->properties()) {
                EXPECT_TRUE(isValidUtf8(property->text()));
                property->setText(property->text());
            }
            EXPECT_TRUE(VCard::parse(noisyCard->serialize()).ok());
        }
    }
}

TEST(VCard, AHugeLineAndATwentyMegabytePhotoAreHandledInOnePass) {
    const std::string huge(8 << 20, 'x');
    EXPECT_EQ(VCard::parse(huge).error(), VCardError::notAVCard);
    const VCard longNote = parsed("BEGIN:VCARD\r\nNOTE:" + huge + "\r\nEND:VCARD\r\n");
    EXPECT_EQ(longNote.first("NOTE")->rawValue().size(), huge.size());

    // 15 MB of image bytes, about 20 MB of folded base64.
    std::vector<std::uint8_t> image(15 << 20);
    std::uint32_t state = 7;
    for (auto& byte : image) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    VCard source = VCard::create();
    source.add("FN").setText("Big Photo");
    source.add("PHOTO").setBinary(image, "image/jpeg");
    source.add("TEL").setRawValue("1");
    const std::string bytes = source.serialize();
    ASSERT_GT(bytes.size(), 20u << 20);

    VCard card = parsed(bytes);
    EXPECT_EQ(card.serialize(), bytes);
    const auto photo = card.first("PHOTO")->binary();
    ASSERT_TRUE(photo.has_value());
    EXPECT_TRUE(photo->bytes == image);
    card.first("TEL")->setRawValue("2");
    const std::string edited = card.serialize();
    EXPECT_EQ(edited.size(), bytes.size());
    EXPECT_EQ(edited.find(card.first("PHOTO")->originalBytes()),
              bytes.find(card.first("PHOTO")->originalBytes()));
}

} // namespace
TEST(VCard, A21CardKeepsTheMeaningOfItsStructuredValuesWhenWrittenAs30) {
    // Plain UTF-8 lines with nothing 2.1-only about them but their commas,
    // escaped semicolons and backslashes, which 3.0 reads differently.
    const std::string bytes = "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Lennon;John;Paul,George;Sir\\; Dr;\r\n"
                              "ADR:;Flat 2, 3rd floor;5 Main St, Suite 2;Town\\;Gown;;12,34;UK\r\n"
                              "ORG:Smith, Sons\\; Co;Sales, East;C:\\Temp\r\nGENDER:M;he, him\r\n"
                              "TEL:1\r\nEND:VCARD\r\n";
    VCard card = parsed(bytes);
    std::vector<std::vector<std::vector<std::string>>> before;
    for (const char* name : {"N", "ADR", "ORG", "GENDER"}) {
        before.push_back(card.first(name)->components());
    }
    ASSERT_EQ(before[0][2], std::vector<std::string>{"Paul,George"});
    card.first("TEL")->setText("2");

    const VCard written = parsed(card.serialize());
    ASSERT_EQ(written.version(), VCardVersion::v3_0);
    std::size_t i = 0;
    for (const char* name : {"N", "ADR", "ORG", "GENDER"}) {
        EXPECT_EQ(written.first(name)->components(), before[i++]) << name;
    }
}

} // namespace kinbook
