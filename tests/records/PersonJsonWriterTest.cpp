#include "KinbookKit/records/PersonJsonWriter.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

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

TEST(PersonJsonWriter, APersonIsTheObjectToJSONMakes) {
    Person person;
    person.id = "card-1";
    person.givenName = "Zoë \"Zo\"";
    person.familyName = "Ørsted";
    person.phoneNumbers = {"+1 (212) 555-0100", "ext. 12"};
    person.accountIDs = {"acc-1"};
    person.places = {"New York\nUSA"};
    person.kinID = "ab12cd34";
    person.circle = ContactCircle::goodFriends;
    person.filledCount = 7;
    person.derive();
    Person plain;
    plain.id = "card-2";
    plain.derive();
    for (const auto* each : {&person, &plain}) {
        std::string out;
        appendPersonJson(out, *each, InvalidUTF8::replace);
        EXPECT_EQ(nlohmann::json::parse(out), each->toJSON()) << out;
    }
}

} // namespace
} // namespace kinbook
