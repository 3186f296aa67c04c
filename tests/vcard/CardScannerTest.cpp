// The fast scan must read every card exactly as the full parser and
// readPerson do: the real samples, the same samples reshaped (refolded,
// other line endings, VERSION last), and hand-made cards in the shapes that
// take the scanner off its plain path.

#include "KinbookKit/vcard/CardScanner.h"

#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/VCard.h"
#include "tests/support/Files.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kinbook {
namespace {

const std::filesystem::path kSamples = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real";

using testing::readFile;

struct Sample {
    std::string name;
    std::string bytes;
};

std::vector<Sample> samples() {
    std::vector<Sample> all;
    for (const auto& entry : std::filesystem::directory_iterator(kSamples)) {
        if (entry.path().extension() == ".vcf") {
            all.push_back({entry.path().filename().string(), readFile(entry.path())});
        }
    }
    std::sort(all.begin(), all.end(), [](const Sample& a, const Sample& b) { return a.name < b.name; });
    return all;
}

// What the full parser says, as the scan must say it. The scan's group flag
// starts out set, so a scan that never sets it shows on the plain cards and
// one that always clears it on the group cards below.
std::optional<Person> parsedPerson(std::string_view bytes, std::string_view fileName, bool details,
                                   bool* isGroup) {
    auto card = VCard::parse(bytes);
    if (!card) {
        return std::nullopt;
    }
    *isGroup = isGroupCard(card.value());
    return readPerson(card.value(), cardIDOf(card.value(), fileName), "acct", details);
}

void expectSameAsParser(std::string_view bytes, std::string_view fileName, const std::string& what) {
    for (const bool details : {false, true}) {
        bool parsedGroup = false;
        bool scannedGroup = !parsedGroup;
        const auto expected = parsedPerson(bytes, fileName, details, &parsedGroup);
        const auto scanned = scanPerson(bytes, fileName, "acct", details, &scannedGroup);
        ASSERT_EQ(scanned.has_value(), expected.has_value()) << what;
        EXPECT_EQ(scanPerson(bytes, fileName, "acct", details), scanned) << what; // not asked: the same
        if (expected) {
            EXPECT_EQ(*scanned, *expected)
                << what << (details ? " (details)" : " (names)") << "\nscanned:  " << scanned->toJSON().dump()
                << "\nexpected: " << expected->toJSON().dump();
            EXPECT_EQ(scannedGroup, parsedGroup) << what;
        }
    }
}

// Every logical line refolded at `width` octets, wherever that falls (inside
// a UTF-8 sequence or an escape, too), with `ending` between lines. Lines
// that the codec joins by other rules (2.1 quoted-printable soft breaks and
// base64 blocks) are left as they are.
std::string refolded(std::string_view bytes, std::size_t width, std::string_view ending) {
    std::vector<std::string> lines;
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        std::size_t end = bytes.find('\n', pos);
        end = end == std::string_view::npos ? bytes.size() : end;
        std::string_view line = bytes.substr(pos, end - pos);
        while (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        lines.emplace_back(line);
        pos = end + 1;
    }
    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const bool isContinuation = !line.empty() && (line[0] == ' ' || line[0] == '\t');
        const bool plain = line.find("QUOTED-PRINTABLE") == std::string::npos &&
                           line.find("BASE64") == std::string::npos && !isContinuation && line.size() > width;
        if (!plain) {
            out += line;
            out += ending;
            continue;
        }
        for (std::size_t at = 0; at < line.size(); at += width) {
            if (at > 0) {
                out += ' ';
            }
            out += line.substr(at, width);
            out += ending;
        }
    }
    return out;
}

std::string withVersionLast(std::string bytes) {
    const std::size_t version = bytes.find("VERSION:");
    if (version == std::string::npos) {
        return bytes;
    }
    const std::size_t lineEnd = bytes.find('\n', version);
    const std::string line = bytes.substr(version, lineEnd + 1 - version);
    bytes.erase(version, line.size());
    const std::size_t end = bytes.rfind("END:VCARD");
    bytes.insert(end, line);
    return bytes;
}

TEST(CardScanner, ReadsEverySampleAsItIsAndReshapedAsTheParserDoes) {
    for (const auto& sample : samples()) {
        expectSameAsParser(sample.bytes, sample.name, sample.name);
        for (const std::size_t width : {7, 40}) {
            for (const std::string_view ending : {"\r\n", "\n", "\r"}) {
                expectSameAsParser(refolded(sample.bytes, width, ending), sample.name,
                                   sample.name + " folded at " + std::to_string(width));
            }
        }
        expectSameAsParser(withVersionLast(sample.bytes), sample.name, sample.name + " with VERSION last");
    }
}

struct HandMade {
    const char* what;
    const char* bytes;
};

const HandMade kHandMade[] = {
    // What is no card at all is refused by both.
    {"nothing", ""},
    {"blank lines", " \r\n\t"},
    {"text without a card", "hello\nworld\n"},
    {"2.1 quoted-printable names with a soft break inside a character",
     "BEGIN:VCARD\r\nVERSION:2.1\r\nN;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:M=C3=BCller;J=C3=\r\n"
     "=BCrgen;;;\r\nTEL;CELL;VOICE:+49 170 1234567\r\nADR;HOME;ENCODING=QUOTED-PRINTABLE:;;Haupt=\r\n"
     "stra=C3=9Fe 1;Berlin;;10115;Germany\r\nEND:VCARD\r\n"},
    {"2.1 Latin-1 text without a charset",
     "BEGIN:VCARD\nVERSION:2.1\nN:Gr\xE9goire;Andr\xE9\nORG:Soci\xE9t\xE9\nEND:VCARD\n"},
    {"2.1 Latin-1 text with its charset",
     "BEGIN:VCARD\nVERSION:2.1\nN;CHARSET=ISO-8859-1:Gr\xE9goire;Andr\xE9\nEND:VCARD\n"},
    {"2.1 base64 photo block ended by a blank line",
     "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Doe;Jane\r\nPHOTO;ENCODING=BASE64;JPEG:\r\n/9j/"
     "4AAQSkZJRgABAQAAAQABAAD\r\n"
     "/4QBMRXhpZgAATU0AKgAAAAgAAYdpAAQAAAAB==\r\n\r\nTEL:123\r\nEND:VCARD\r\n"},
    {"groups, labels and anchors with flags",
     "BEGIN:VCARD\nVERSION:3.0\nN:Lind;Maja;;;\nitem1.URL:KINBOOK://C/ab12cd34?h=1&r=%2B3&p=1\n"
     "item1.X-ABLabel:Vellumary Contacts\nitem2.TEL:+46 8 555\nitem2.X-ABLabel:ex-work\n"
     "URL:kinbook://c/ZZZZ9999\nEND:VCARD\n"},
    {"an anchor with no ID before one with an ID",
     "BEGIN:VCARD\nVERSION:3.0\nFN:A\nURL:kinbook://c/?h=1\nURL:kinbook://c/AB12\nEND:VCARD\n"},
    {"an iCloud group card",
     "BEGIN:VCARD\nVERSION:3.0\nN:Friends\nFN:Friends\nX-ADDRESSBOOKSERVER-KIND:group\n"
     "X-ADDRESSBOOKSERVER-MEMBER:urn:uuid:1\nUID:g1\nEND:VCARD\n"},
    {"a 4.0 group card", "BEGIN:VCARD\nVERSION:4.0\nKIND:group\nFN:Team\nMEMBER:urn:uuid:1\nEND:VCARD\n"},
    {"a company card", "BEGIN:VCARD\nVERSION:3.0\nN:Doe;John;;;\nFN:Acme\nORG:Acme\\, Inc.;Sales\n"
                       "X-ABShowAs:COMPANY\nEND:VCARD\n"},
    {"only FN", "BEGIN:VCARD\nVERSION:3.0\nFN:  Prince  \nEMAIL:p@example.com\nEND:VCARD\n"},
    {"an AGENT card inside",
     "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Boss;Big\r\nAGENT:BEGIN:VCARD\r\nN:Helper;Little\r\n"
     "END:VCARD\r\nTEL:1\r\nEND:VCARD\r\n"},
    {"a card nested without AGENT", "BEGIN:VCARD\nVERSION:3.0\nN:A;B\nBEGIN:VCARD\nN:C;D\nEND:VCARD\n"
                                    "TEL:2\nEND:VCARD\n"},
    {"no END:VCARD", "BEGIN:VCARD\nVERSION:3.0\nN:A;B\nTEL:1\n"},
    {"UIDs: grouped, lower-case and padded",
     "BEGIN:VCARD\nVERSION:3.0\nitem1.UID:grouped\nuid:lower\nUID:  real-uid \nUID:second\nEND:VCARD\n"},
    {"empty UID", "BEGIN:VCARD\nVERSION:3.0\nUID:\nN:A;B\nEND:VCARD\n"},
    {"quoted parameters holding ':' and ';', and an unbalanced quote",
     "BEGIN:VCARD\nVERSION:3.0\nN:A;B\nTEL;TYPE=\"HOME,VOICE\";X-A=\"a:b;c\":+1 555\n"
     "EMAIL;X-Q=\"open;TYPE=WORK:x@example.com\nEND:VCARD\n"},
    {"escapes, blank entries and a data URI photo",
     "BEGIN:VCARD\nVERSION:4.0\nN:O\\;Brien;Pat\\,rick;;;\nNICKNAME:Pat,Paddy\\, the Great\n"
     "TEL:\nEMAIL: \nADR:;;;;;;\nURL:http\\://example.com\nX-ABDATE:\nPHOTO:data:image/png;base64,iVBORw0K\n"
     "BDAY:--0229\nEND:VCARD\n"},
    {"malformed lines among good ones", "BEGIN:VCARD\nVERSION:3.0\nthis line has no colon\n:no name\n"
                                        "N:A;B\n  \nTEL:1\nEND:VCARD\n"},
    {"CR CR LF endings and a BOM",
     "\xEF\xBB\xBF"
     "BEGIN:VCARD\r\r\nVERSION:3.0\r\r\nN:A;B\r\r\nTEL:1\r\r\n  2\r\r\nEND:VCARD\r\r\n"},
    {"a photo by reference", "BEGIN:VCARD\nVERSION:3.0\nN:A;B\nPHOTO;VALUE=uri:https://example.com/p.jpg\n"
                             "END:VCARD\n"},
};

TEST(CardScanner, ReadsHandMadeCardsAsTheParserDoes) {
    for (const auto& card : kHandMade) {
        expectSameAsParser(card.bytes, "hand-made.vcf", card.what);
    }
}

} // namespace
} // namespace kinbook
