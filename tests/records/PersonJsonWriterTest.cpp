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

// The snapshot cache reads its own files by these exact bytes, and the tool
// prints them: every field under its name, in this order, kinID and circle
// only when set.
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
    EXPECT_EQ(out, R"({"id":"card-2","givenName":"","middleName":"","familyName":"","nickname":"",)"
                   R"("organization":"","jobTitle":"","department":"","phoneNumbers":[],"emailAddresses":[],)"
                   R"("accountIDs":[],"hasImage":false,"postalCodes":[],"places":[],"filledCount":0,)"
                   R"("detailed":false,"hidden":false,"isPrimaryCard":false,"memberIDs":[],)"
                   R"("displayName":"No Name","sortKey":" ","sectionLetter":"#","firstNameSortKey":" ",)"
                   R"("firstNameSectionLetter":"#","areaCodes":[],"searchText":"\n\n\n\n\n\n\nno name",)"
                   R"("phoneDigits":[]})");
}

} // namespace
} // namespace kinbook
