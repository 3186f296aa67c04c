// The codec against the real cards in tests/data/vcard-real: every one must
// read, come back byte for byte, and take an edit without disturbing any
// line it was not asked to change.

#include "KinbookKit/vcard/VCard.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace kinbook {
namespace {

const std::filesystem::path kSamples = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real";
const std::filesystem::path kGolden = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-golden";

using testing::readFile;

std::vector<std::string> sampleNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kSamples)) {
        if (entry.path().extension() == ".vcf") {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

VCard parseSample(const std::string& name) {
    auto card = VCard::parse(readFile(kSamples / name));
    EXPECT_TRUE(card.ok()) << name;
    return std::move(card).value();
}

// Physical lines with their endings, so that a changed line ending counts.
std::multiset<std::string> physicalLines(std::string_view bytes) {
    std::multiset<std::string> lines;
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        std::size_t end = bytes.find('\n', pos);
        end = end == std::string_view::npos ? bytes.size() : end + 1;
        lines.emplace(bytes.substr(pos, end - pos));
        pos = end;
    }
    return lines;
}

struct LineDiff {
    std::multiset<std::string> removed;
    std::multiset<std::string> added;
};

LineDiff diffLines(std::string_view before, std::string_view after) {
    const auto a = physicalLines(before);
    const auto b = physicalLines(after);
    LineDiff diff;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(),
                        std::inserter(diff.removed, diff.removed.end()));
    std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::inserter(diff.added, diff.added.end()));
    return diff;
}

bool isVersion21(const std::string& name) {
    return name.find("v21") != std::string::npos || name.rfind("outlook", 0) == 0 ||
           name.rfind("windows-mobile", 0) == 0;
}

TEST(VCardSamples, EverySampleReadsAndRoundTripsByteForByte) {
    const auto names = sampleNames();
    ASSERT_EQ(names.size(), 25u);
    for (const std::string& name : names) {
        const std::string bytes = readFile(kSamples / name);
        auto card = VCard::parse(bytes);
        ASSERT_TRUE(card.ok()) << name;
        EXPECT_FALSE(card->isModified()) << name;
        EXPECT_EQ(card->serialize(), bytes) << name;
        EXPECT_NE(card->first("VERSION"), nullptr) << name;
        // No sample has a line the reader has to give up on.
        for (const VCardWarning& warning : card->warnings()) {
            ADD_FAILURE() << name << ": line " << warning.line << ": " << warning.message;
        }
    }
}

TEST(VCardSamples, VersionsAreRecognisedWhereverTheVersionLineIs) {
    const std::map<std::string, VCardVersion> expected = {
        {"android-v21--John_Doe_ANDROID.vcf", VCardVersion::v2_1},
        {"apple-ios5--John_Doe_IPHONE.vcf", VCardVersion::v3_0},
        {"owncloud-contacts--kcontacts-vcard9.vcf", VCardVersion::v3_0}, // VERSION comes last
        {"fullcontact-v4--fullcontact.vcf", VCardVersion::v4_0},
        {"thunderbird-cardbook-v4--VCard4-DataUriPhoto.vcf", VCardVersion::v4_0},
        {"xing-v21--xing.vcf", VCardVersion::v2_1},
    };
    for (const auto& [name, version] : expected) {
        EXPECT_EQ(parseSample(name).version(), version) << name;
    }
}

// Each edit touches only its own lines: a changed telephone (or the name,
// where a card has none) its one line, in the file's line ending and folded
// when long; a new e-mail adds one line; a removed web address takes its
// group's lines and nothing else.
TEST(VCardSamples, EditsChangeOnlyTheLinesTheyAreAbout) {
    for (const std::string& name : sampleNames()) {
        if (isVersion21(name)) {
            continue; // a changed 2.1 card is written as 3.0; see the upgrade tests
        }
        SCOPED_TRACE(name);
        VCard card = parseSample(name);
        const std::string original = card.serialize();
        VCardProperty* target = card.first("TEL");
        if (target == nullptr) {
            target = card.first("FN");
        }
        ASSERT_NE(target, nullptr);
        const std::string before(target->originalBytes());
        target->setText("+1 555 0100 (edited, new)");
        const LineDiff changed = diffLines(original, card.serialize());
        EXPECT_EQ(changed.removed, physicalLines(before));
        for (const std::string& line : changed.added) {
            EXPECT_LE(line.size(), 75 + card.lineEnding().size());
            EXPECT_EQ(line.substr(line.size() - card.lineEnding().size()), card.lineEnding());
        }
        EXPECT_EQ(changed.added, physicalLines(target->serialize(card.lineEnding())));
        EXPECT_EQ(target->rawValue(), "+1 555 0100 (edited\\, new)");
        auto reread = VCard::parse(card.serialize());
        ASSERT_TRUE(reread.ok());
        EXPECT_EQ(reread->find(target->name()).size(), card.find(target->name()).size());

        VCard withEmail = parseSample(name);
        VCardProperty& email = withEmail.add("EMAIL");
        email.setParameter("TYPE", {"INTERNET", "HOME"});
        email.setRawValue("new.address@example.com");
        const LineDiff added = diffLines(original, withEmail.serialize());
        EXPECT_TRUE(added.removed.empty());
        ASSERT_EQ(added.added.size(), 1u);
        EXPECT_NE(added.added.begin()->find("new.address@example.com"), std::string::npos);

        VCard withoutUrl = parseSample(name);
        VCardProperty* url = withoutUrl.first("URL");
        if (url == nullptr) {
            continue;
        }
        std::multiset<std::string> expectedGone;
        for (const VCardProperty* member : url->group().empty() ? std::vector<VCardProperty*>{url}
                                                                : withoutUrl.groupMembers(url->group())) {
            const auto lines = physicalLines(member->originalBytes());
            expectedGone.insert(lines.begin(), lines.end());
        }
        withoutUrl.remove(*url, VCardRemoval::wholeGroup);
        const LineDiff removed = diffLines(original, withoutUrl.serialize());
        EXPECT_TRUE(removed.added.empty());
        EXPECT_EQ(removed.removed, expectedGone);
    }
}

struct DecodeCase {
    const char* sample;
    std::size_t card; // in files with several
    const char* property;
    std::size_t occurrence;
    const char* text;
};

TEST(VCardSamples, DecodesTheHardValuesOfRealWriters) {
    const DecodeCase cases[] = {
        // A fold that cuts a two-byte Cyrillic letter in half.
        {"owncloud-contacts--kcontacts-vcard9.vcf", 0, "NOTE", 0,
         "Длинный комментарий на русском языке, чтобы в результате получилась строка более 70 символов."},
        // Quoted-printable soft breaks inside an en dash (=E2=80= / =93).
        {"v21-quoted-printable--kcontacts-vcard10.vcf", 3, "NOTE", 0,
         "Sprechzeiten:\nMo   8\xE2\x80\x93"
         "12, 15\xE2\x80\x93"
         "18\nDi     8\xE2\x80\x93"
         "12\nMi    8\xE2\x80"
         "\x93"
         "12, 14\xE2\x80\x93"
         "15\nDo 14\xE2\x80\x93"
         "19\nFr     8\xE2\x80\x93"
         "12"},
        // CRLF written as =0D=0A, with soft breaks.
        {"outlook--John_Doe_MS_OUTLOOK.vcf", 0, "LABEL", 0, "Cresent moon drive\nAlbaney, New York  12345"},
        {"outlook-2007--outlook-2007.vcf", 0, "NOTE", 0,
         "This is the NOTE field\t\nI assume it encodes this text inside a NOTE vCard type.\nBut I'm not "
         "sure "
         "because there's text formatting going on here.\nIt does not preserve the formatting"},
        // Android's UTF-8 quoted-printable.
        {"android-v21--John_Doe_ANDROID.vcf", 2, "FN", 0, "\xC3\x91 \xC3\x91 \xC3\x91 \xC3\x91 \xC3\x91 "},
        // Escapes no standard allows, and a continuation starting with two spaces.
        {"google-gmail-export--John_Doe_GMAIL.vcf", 0, "URL", 0, "http://www.ibm.com"},
        {"apple-macos-addressbook--John_Doe_MAC_ADDRESS_BOOK.vcf", 0, "X-ABUID", 0,
         "6B29A774-D124-4822-B8D0-2780EC117F60:ABPerson"},
        {"apple-ios14--IM-iOS.vcf", 0, "X-ABLabel", 7, "Mike\xE2\x80\x99s very special, custom IM:"},
        {"evolution--John_Doe_EVOLUTION.vcf", 0, "X-EVOLUTION-FILE-AS", 0, "Doe, John"},
        {"windows-mobile-6.5--v21_winmo_65.vcf", 0, "AGENT", 0,
         "Invalid line which must be handled correctly."},
        // ISO-8859-1 declared but ASCII content.
        {"xing-v21--xing.vcf", 0, "FN", 0, "Hans-Peter Mustermann"},
    };
    for (const DecodeCase& c : cases) {
        auto cards = VCard::parseAll(readFile(kSamples / c.sample));
        ASSERT_TRUE(cards.ok() && cards->size() > c.card) << c.sample;
        const auto found = (*cards)[c.card].find(c.property);
        ASSERT_GT(found.size(), c.occurrence) << c.sample << " " << c.property;
        EXPECT_EQ(found[c.occurrence]->text(), c.text) << c.sample << " " << c.property;
    }
}

TEST(VCardSamples, StructuredValuesSplitByVersionRules) {
    const VCard gmail = parseSample("google-gmail-export--John_Doe_GMAIL.vcf");
    const auto adr = gmail.first("ADR")->components();
    ASSERT_EQ(adr.size(), 7u);
    EXPECT_EQ(
        adr[1],
        (std::vector<std::string>{
            "Crescent moon drive\n555-asd\nNice Area, Albaney, New York 12345\nUnited States of America"}));

    // iOS writes the additional names as a list; macOS escapes the comma.
    EXPECT_EQ(parseSample("apple-ios5--John_Doe_IPHONE.vcf").first("N")->components()[2],
              (std::vector<std::string>{"Richter", "James"}));
    EXPECT_EQ(
        parseSample("apple-macos-addressbook--John_Doe_MAC_ADDRESS_BOOK.vcf").first("N")->components()[2],
        (std::vector<std::string>{"Richter,James"}));
    // 2.1 has no component lists: the comma is text.
    EXPECT_EQ(parseSample("outlook--John_Doe_MS_OUTLOOK.vcf").find("ADR")[1]->components()[2],
              (std::vector<std::string>{"Silicon Alley 5,"}));
    // Soft breaks in the middle of a quoted-printable structured value.
    const auto broken = parseSample("v21-quoted-printable--kcontacts-vcard10.vcf").first("ADR")->components();
    ASSERT_EQ(broken.size(), 7u);
    EXPECT_EQ(broken[2][0], "DDDDDDDDDDDDDDD-Sta\xC3\x9F"
                            "e 2\n00000 DDDDDDDDDD");
    // Every N field survives, even a sixth one.
    EXPECT_EQ(parseSample("apple-labels-via-sabredav--AllAttr.vcf").first("N")->components().size(), 6u);
}

TEST(VCardSamples, ParametersReadAcrossDialects) {
    const VCard ios = parseSample("apple-ios5--John_Doe_IPHONE.vcf");
    EXPECT_EQ(ios.find("TEL")[0]->parameterValues("TYPE"),
              (std::vector<std::string>{"CELL", "VOICE", "pref"}));
    EXPECT_TRUE(ios.find("TEL")[0]->hasType("PREF"));

    const VCard nextcloud = parseSample("nextcloud-sabre--IM-Nextcloud.vcf");
    EXPECT_EQ(nextcloud.first("TEL")->parameterValues("TYPE"), (std::vector<std::string>{"HOME", "VOICE"}));

    const VCard outlook = parseSample("outlook--John_Doe_MS_OUTLOOK.vcf");
    EXPECT_EQ(outlook.first("TEL")->parameterValues("TYPE"), (std::vector<std::string>{"WORK", "VOICE"}));
    EXPECT_EQ(outlook.first("LABEL")->parameter("ENCODING"), "QUOTED-PRINTABLE");

    const VCard imessage = parseSample("apple-ios14--IM-iOS.vcf");
    EXPECT_EQ(imessage.find("IMPP")[2]->parameter("X-SERVICE-TYPE"),
              "Mike\xE2\x80\x99s very special, custom IM:");
    EXPECT_EQ(imessage.find("IMPP")[1]->parameter("x-bundleidentifiers"), "net.whatsapp.WhatsApp");

    const VCard crop = parseSample("apple-icloud-web--UriPhotoCrop.vcf");
    const VCardProperty* photo = crop.first("PHOTO");
    EXPECT_EQ(photo->parameter("X-ABCROP-RECTANGLE"), "ABClipRect_1&60&179&181&181&qZ54yqewvBZj2mycxrnqsA==");
    EXPECT_EQ(photo->parameter("VALUE"), "uri");
    EXPECT_EQ(photo->text(), "http://localhost/raven.jpg");
    EXPECT_FALSE(photo->binary().has_value());
}

TEST(VCardSamples, InlinePhotosDecodeInEveryForm) {
    struct PhotoCase {
        const char* sample;
        std::size_t card;
        const char* mediaType;
    };
    const PhotoCase cases[] = {
        {"apple-ios5--John_Doe_IPHONE.vcf", 0, "image/jpeg"},                  // ENCODING=b;TYPE=JPEG
        {"apple-macos-addressbook--John_Doe_MAC_ADDRESS_BOOK.vcf", 0, ""},     // PHOTO;BASE64: two spaces
        {"blackberry-v21--John_Doe_BLACK_BERRY.vcf", 0, ""},                   // one unfolded line
        {"outlook--John_Doe_MS_OUTLOOK.vcf", 0, "image/jpeg"},                 // data on the next lines
        {"thunderbird-cardbook-v4--VCard4-DataUriPhoto.vcf", 0, "image/jpeg"}, // escaped data: URI
        {"thunderbird-addon--thunderbird-MoreFunctionsForAddressBook-extension.vcf", 0, "image/jpeg"},
    };
    for (const PhotoCase& c : cases) {
        auto cards = VCard::parseAll(readFile(kSamples / c.sample));
        ASSERT_TRUE(cards.ok() && cards->size() > c.card) << c.sample;
        const auto photos = (*cards)[c.card].find("PHOTO");
        ASSERT_FALSE(photos.empty()) << c.sample;
        const auto binary = photos.back()->binary();
        ASSERT_TRUE(binary.has_value()) << c.sample;
        ASSERT_GT(binary->bytes.size(), 100u) << c.sample;
        EXPECT_EQ(binary->bytes[0], 0xFF) << c.sample; // a JPEG's start-of-image marker
        EXPECT_EQ(binary->bytes[1], 0xD8) << c.sample;
        EXPECT_EQ(binary->mediaType, c.mediaType) << c.sample;
    }
}

TEST(VCardSamples, ATruncatedPhotoReadsAsNoImageButKeepsItsLine) {
    // The collector of this sample cut bytes out of the photo, so its base64
    // no longer adds up; the nameless 2.1 parameters still read.
    auto cards = VCard::parseAll(readFile(kSamples / "android-v21--John_Doe_ANDROID.vcf"));
    ASSERT_TRUE(cards.ok());
    const VCardProperty* photo = (*cards)[4].first("PHOTO");
    ASSERT_NE(photo, nullptr);
    EXPECT_EQ(photo->parameter("ENCODING"), "BASE64");
    EXPECT_EQ(photo->parameterValues("TYPE"), (std::vector<std::string>{"JPEG"}));
    EXPECT_FALSE(photo->binary().has_value());
    // The blank line that ends the base64 block belongs to the photo.
    EXPECT_EQ(photo->originalBytes().substr(photo->originalBytes().size() - 4), "\r\n\r\n");
    EXPECT_EQ((*cards)[4].properties().back(), photo);
}

// Only the first card of an export is edited in place; the rest are kept
// byte for byte, and an import splits them into cards that join back whole.
TEST(VCardSamples, AMultiCardExportKeepsTheOtherCardsAndSplitsForImport) {
    const std::string bytes = readFile(kSamples / "android-v21--John_Doe_ANDROID.vcf");
    VCard card = parseSample("android-v21--John_Doe_ANDROID.vcf");
    EXPECT_EQ(card.additionalCardCount(), 5u);
    EXPECT_EQ(card.first("EMAIL")->text(), "john.doe@company.com");

    auto all = VCard::parseAll(bytes);
    ASSERT_TRUE(all.ok());
    ASSERT_EQ(all->size(), 6u);
    std::string joined;
    for (const VCard& one : *all) {
        EXPECT_EQ(one.additionalCardCount(), 0u);
        joined += one.serialize();
    }
    EXPECT_EQ(joined, bytes);
    EXPECT_EQ((*all)[5].first("TEL")->text(), "55556666");

    const std::string qp = readFile(kSamples / "v21-quoted-printable--kcontacts-vcard10.vcf");
    VCard edited = parseSample("v21-quoted-printable--kcontacts-vcard10.vcf");
    edited.first("ORG")->setText("Bike Shop & Repairs");
    const std::string written = edited.serialize();
    EXPECT_EQ(written.substr(written.find("END:VCARD\r\n") + 11), qp.substr(qp.find("END:VCARD\r\n") + 11));
}

// Golden files: the whole output of a 2.1 card after one edit, checked by
// eye once and kept, so that any change in what the upgrade rewrites shows.
struct UpgradeCase {
    const char* sample;
    const char* golden;
    void (*edit)(VCard&);
};

TEST(VCardSamples, Version21CardsAreWrittenAs30AfterAnEdit) {
    const UpgradeCase cases[] = {
        {"outlook--John_Doe_MS_OUTLOOK.vcf", "outlook-tel-edited.vcf",
         [](VCard& card) { card.first("TEL")->setText("(905) 555-9999"); }},
        {"xing-v21--xing.vcf", "xing-title-edited.vcf",
         [](VCard& card) { card.first("TITLE")->setText("CEO"); }},
        {"android-v21--John_Doe_ANDROID.vcf", "android-email-added.vcf",
         [](VCard& card) { card.add("EMAIL").setRawValue("second@company.com"); }},
        {"windows-mobile-6.5--v21_winmo_65.vcf", "winmo-uid-added.vcf",
         [](VCard& card) {
             EXPECT_EQ(card.ensureUid("7D3C2A1B-0000-4000-8000-000000000001"), UidRepair::added);
         }},
    };
    for (const UpgradeCase& c : cases) {
        VCard card = parseSample(c.sample);
        c.edit(card);
        const std::string written = card.serialize();
        const std::string expected = readFile(kGolden / c.golden);
        EXPECT_EQ(written, expected) << c.sample << "\n--- written:\n" << written;

        auto reread = VCard::parse(written);
        ASSERT_TRUE(reread.ok()) << c.sample;
        EXPECT_EQ(reread->version(), VCardVersion::v3_0) << c.sample;
        EXPECT_TRUE(reread->warnings().empty()) << c.sample;
        for (const VCardProperty* property : reread->properties()) {
            EXPECT_FALSE(property->parameter("ENCODING").value_or("b") != "b")
                << c.sample << property->name();
            EXPECT_FALSE(property->parameter("CHARSET").has_value()) << c.sample << property->name();
            for (const VCardParameter& parameter : property->parameters()) {
                EXPECT_FALSE(parameter.nameless) << c.sample << " " << property->logicalLine();
            }
        }
    }
}

TEST(VCardSamples, UpgradedValuesMeanWhatTheyMeantIn21) {
    const VCard original = parseSample("outlook--John_Doe_MS_OUTLOOK.vcf");
    VCard card = parseSample("outlook--John_Doe_MS_OUTLOOK.vcf");
    card.first("NICKNAME")->setText("Johnny");
    auto reread = VCard::parse(card.serialize());
    ASSERT_TRUE(reread.ok());
    EXPECT_EQ(reread->first("LABEL")->text(), original.first("LABEL")->text());
    EXPECT_EQ(reread->find("ADR")[1]->components(), original.find("ADR")[1]->components());
    EXPECT_EQ(reread->first("PHOTO")->binary(), original.first("PHOTO")->binary());
    EXPECT_EQ(reread->first("EMAIL")->parameterValues("TYPE"),
              original.first("EMAIL")->parameterValues("TYPE"));
    EXPECT_EQ(reread->first("X-MS-OL-DESIGN")->text(), original.first("X-MS-OL-DESIGN")->text());
}

} // namespace
} // namespace kinbook
