// Persons written as JSON by the fast writer and read back by the fast
// reader that the snapshot cache starts from.

#include "KinbookKit/records/PersonJsonReader.h"
#include "KinbookKit/records/PersonJsonWriter.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook {
namespace {

std::string jsonString(std::string_view text, InvalidUTF8 invalid) {
    std::string out;
    appendJsonString(out, text, invalid);
    return out;
}

TEST(PersonJsonWriter, EscapesWhatJSONNeedsAndTreatsDamagedUTF8AsAsked) {
    EXPECT_EQ(jsonString("a\"b\\c\nd\te\x01", InvalidUTF8::replace), R"("a\"b\\c\nd\te\u0001")");
    EXPECT_EQ(jsonString("Zoë 乐 🎻", InvalidUTF8::replace), "\"Zoë 乐 🎻\"");
    // A lone continuation byte, a cut sequence, an overlong form and an
    // encoded surrogate: each damaged byte becomes one U+FFFD.
    EXPECT_EQ(
        jsonString("x\x80y\xE4\xB9z\xC0\xAF\xED\xA0\x80", InvalidUTF8::replace),
        "\"x\xEF\xBF\xBDy\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF"
        "\xBD\"");
    EXPECT_EQ(jsonString("x\x80y", InvalidUTF8::copy), "\"x\x80y\"");
}

// The snapshot cache reads its own files by these exact bytes, and the tool
// prints them: every field under its name, in this order, kinID and circle
// only when set, the same object as toJSON makes.
TEST(PersonJsonWriter, APersonIsWrittenFieldByFieldInItsFixedOrder) {
    Person person;
    person.id = "card-1";
    person.givenName = "Ann";
    person.middleName = "B";
    person.familyName = "Lee";
    person.nickname = "Annie";
    person.organization = "Acme";
    person.jobTitle = "Chief";
    person.department = "Ops";
    person.phoneNumbers = {"+1 212 555 0100"};
    person.emailAddresses = {"ann@example.com"};
    person.accountIDs = {"acc-1", "acc-2"};
    person.hasImage = true;
    person.postalCodes = {"75001"};
    person.places = {"Paris"};
    person.filledCount = 7;
    person.detailed = true;
    person.kinID = "AB12CD34";
    person.hidden = true;
    person.circle = ContactCircle::goodFriends;
    person.isPrimaryCard = true;
    person.memberIDs = {"card-1", "card-2"};
    person.derive();
    std::string out;
    appendPersonJson(out, person, InvalidUTF8::replace);
    EXPECT_EQ(nlohmann::json::parse(out), person.toJSON()) << "the object the snapshot cache reads";
    EXPECT_EQ(
        out, R"({"id":"card-1","givenName":"Ann","middleName":"B","familyName":"Lee","nickname":"Annie",)"
             R"("organization":"Acme","jobTitle":"Chief","department":"Ops",)"
             R"("phoneNumbers":["+1 212 555 0100"],"emailAddresses":["ann@example.com"],)"
             R"("accountIDs":["acc-1","acc-2"],"hasImage":true,"postalCodes":["75001"],)"
             R"("places":["Paris"],"filledCount":7,"detailed":true,"kinID":"AB12CD34","hidden":true,)"
             R"("circle":2,"isPrimaryCard":true,"memberIDs":["card-1","card-2"],)"
             R"("displayName":"Ann Lee","sortKey":"lee ann","sectionLetter":"L",)"
             R"("firstNameSortKey":"ann lee","firstNameSectionLetter":"A","areaCodes":["212"],)"
             R"("searchText":"ann\nb\nlee\nannie\nacme\nchief\nops\nann lee\nann@example.com\nparis\n75001",)"
             R"("phoneDigits":["12125550100"]})");

    Person plain;
    plain.id = "card-2";
    plain.derive();
    out.clear();
    appendPersonJson(out, plain, InvalidUTF8::replace);
    EXPECT_EQ(nlohmann::json::parse(out), plain.toJSON());
    EXPECT_EQ(out, R"({"id":"card-2","givenName":"","middleName":"","familyName":"","nickname":"",)"
                   R"("organization":"","jobTitle":"","department":"","phoneNumbers":[],"emailAddresses":[],)"
                   R"("accountIDs":[],"hasImage":false,"postalCodes":[],"places":[],"filledCount":0,)"
                   R"("detailed":false,"hidden":false,"isPrimaryCard":false,"memberIDs":[],)"
                   R"("displayName":"No Name","sortKey":" ","sectionLetter":"#","firstNameSortKey":" ",)"
                   R"("firstNameSectionLetter":"#","areaCodes":[],"searchText":"\n\n\n\n\n\n\nno name",)"
                   R"("phoneDigits":[]})");
}

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
        EXPECT_EQ(nlohmann::json::parse(written(person)), person.toJSON())
            << "escapes read as JSON reads them";
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
