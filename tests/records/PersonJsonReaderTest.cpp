#include "KinbookKit/records/PersonJsonReader.h"

#include "KinbookKit/records/PersonJsonWriter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook {
namespace {

// Text as a file read for parsing holds it: followed by zeroed padding.
struct Padded {
    explicit Padded(std::string_view text) : bytes(text) { bytes.append(64, '\0'); }
    const char* begin() const { return bytes.data(); }
    std::string bytes;
};

std::string written(const Person& person) {
    std::string out;
    appendPersonJson(out, person, InvalidUTF8::copy);
    return out;
}

// What readWrittenPerson makes of `text`, and whether it stopped exactly at
// the text's end.
std::optional<Person> readBack(std::string_view text) {
    const Padded padded(text);
    Person person;
    const char* end = readWrittenPerson(padded.begin(), person);
    if (end == nullptr) {
        return std::nullopt;
    }
    EXPECT_EQ(end, padded.begin() + text.size()) << text;
    return person;
}

std::vector<Person> variedPeople() {
    Person full;
    full.id = "D3ABAA53-182D-457E-B2D5-BBB2313AFA2A";
    full.givenName = "Zoë \"Zo\"";
    full.middleName = "back\\slash";
    full.familyName = "Ørsted-Łukasz";
    full.nickname = "tab\there \x01 and a long run past sixteen bytes";
    full.organization = "},{\"id\":\"not a boundary";
    full.jobTitle = "乐队指挥 🎻";
    full.phoneNumbers = {"+1 (212) 555-0100", "+44 20 7946 0958", "ext. 12"};
    full.emailAddresses = {"zoe@example.com"};
    full.accountIDs = {"acc-1", "acc-2"};
    full.hasImage = true;
    full.postalCodes = {"10001-1234"};
    full.places = {"New York\nUSA"};
    full.filledCount = 11;
    full.detailed = true;
    full.kinID = "HXG0WAXN";
    full.hidden = true;
    full.circle = ContactCircle::goodFriends;
    full.isPrimaryCard = true;
    full.memberIDs = {full.id, "other-card"};
    full.derive();

    Person empty;
    empty.derive();

    Person negative = full;
    negative.kinID.reset();
    negative.filledCount = -2147483647 - 1;
    negative.derive();

    Person circleOnly = empty;
    circleOnly.id = "x";
    circleOnly.circle = ContactCircle::acquaintance;
    circleOnly.filledCount = 2147483647;
    circleOnly.derive();
    return {full, empty, negative, circleOnly};
}

TEST(PersonJsonReader, ReadsEveryPersonTheWriterWritesBackEqual) {
    for (const auto& person : variedPeople()) {
        const auto read = readBack(written(person));
        ASSERT_TRUE(read.has_value()) << written(person);
        EXPECT_EQ(*read, person) << written(person);
        EXPECT_EQ(read->keys(), person.keys());
    }
}

TEST(PersonJsonReader, AnythingTheWriterWouldNotWriteIsLeftToTheGeneralReader) {
    const std::string text = written(variedPeople().front());
    const auto replaced = [&](std::string_view from, std::string_view to) {
        std::string changed = text;
        const auto at = changed.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return changed.replace(at, from.size(), to);
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a blank after a colon", replaced("\"givenName\":", "\"givenName\": ")},
        {"keys in another order",
         replaced("\"middleName\":\"back\\\\slash\",\"familyName\"", "\"familyName\":\"x\",\"middleName\"")},
        {"a derived key missing", replaced(",\"sectionLetter\":\"O\"", "")},
        {"a count with a leading zero", replaced("\"filledCount\":11", "\"filledCount\":011")},
        {"a count with a fraction", replaced("\"filledCount\":11", "\"filledCount\":11.0")},
        {"a count out of range", replaced("\"filledCount\":11", "\"filledCount\":2147483648")},
        {"a null kinID", replaced("\"kinID\":\"HXG0WAXN\"", "\"kinID\":null")},
        {"a raw control character", replaced("back\\\\slash", "back\tslash")},
        {"an unknown escape", replaced("back\\\\slash", "back\\qslash")},
        {"a lone second half of a pair", replaced("back\\\\slash", "back\\udc00slash")},
        {"a first half without its second", replaced("back\\\\slash", "back\\ud800slash")},
        {"a short escape", replaced("back\\\\slash", "back\\u12")},
        {"a list not closed", replaced("[\"acc-1\",\"acc-2\"]", "[\"acc-1\",\"acc-2\"")},
        {"a list with a trailing comma", replaced("[\"acc-1\",\"acc-2\"]", "[\"acc-1\",\"acc-2\",]")},
        {"a number in a list of texts", replaced("[\"acc-1\",\"acc-2\"]", "[\"acc-1\",2]")},
        {"a yes spelled otherwise", replaced("\"hasImage\":true", "\"hasImage\":True")},
    };
    for (const auto& [what, changed] : cases) {
        EXPECT_EQ(readBack(changed), std::nullopt) << what << ": " << changed;
    }
    // Cut anywhere, a person is never read, and never read past its end.
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_EQ(readBack(text.substr(0, length)), std::nullopt) << length;
    }
}

TEST(PersonJsonReader, StringsUndoEveryEscape) {
    const Padded padded(R"(a\"b\\c\/d\b\f\n\r\t\u00e9\u4e50\ud83c\udfbb" rest)");
    std::string out;
    const char* end = readJsonString(padded.begin(), out);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(out, "a\"b\\c/d\b\f\n\r\té乐🎻");
    EXPECT_EQ(std::string_view(end, 5), " rest");
}

} // namespace
} // namespace kinbook
