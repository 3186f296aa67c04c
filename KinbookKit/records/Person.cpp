#include "KinbookKit/records/Person.h"

#include "KinbookKit/Hash.h"

#include <nlohmann/json.hpp>

namespace kinbook {

nlohmann::json Person::toJSON() const {
    nlohmann::json json = {
        {"id", id},
        {"givenName", givenName},
        {"middleName", middleName},
        {"familyName", familyName},
        {"nickname", nickname},
        {"organization", organization},
        {"jobTitle", jobTitle},
        {"department", department},
        {"phoneNumbers", phoneNumbers},
        {"emailAddresses", emailAddresses},
        {"accountIDs", accountIDs},
        {"hasImage", hasImage},
        {"postalCodes", postalCodes},
        {"places", places},
        {"filledCount", filledCount},
        {"detailed", detailed},
        {"hidden", hidden},
        {"isPrimaryCard", isPrimaryCard},
        {"memberIDs", memberIDs},
    };
    if (kinID) {
        json["kinID"] = *kinID;
    }
    if (circle) {
        json["circle"] = rawValue(*circle);
    }
    return json;
}

std::optional<Person> Person::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    try {
        Person person;
        json.at("id").get_to(person.id);
        json.at("givenName").get_to(person.givenName);
        json.at("middleName").get_to(person.middleName);
        json.at("familyName").get_to(person.familyName);
        json.at("nickname").get_to(person.nickname);
        json.at("organization").get_to(person.organization);
        json.at("jobTitle").get_to(person.jobTitle);
        json.at("department").get_to(person.department);
        json.at("phoneNumbers").get_to(person.phoneNumbers);
        json.at("emailAddresses").get_to(person.emailAddresses);
        json.at("accountIDs").get_to(person.accountIDs);
        json.at("hasImage").get_to(person.hasImage);
        json.at("postalCodes").get_to(person.postalCodes);
        json.at("places").get_to(person.places);
        json.at("filledCount").get_to(person.filledCount);
        json.at("detailed").get_to(person.detailed);
        json.at("hidden").get_to(person.hidden);
        json.at("isPrimaryCard").get_to(person.isPrimaryCard);
        json.at("memberIDs").get_to(person.memberIDs);
        if (const auto kinID = json.find("kinID"); kinID != json.end() && !kinID->is_null()) {
            person.kinID = kinID->get<std::string>();
        }
        if (const auto circle = json.find("circle"); circle != json.end() && !circle->is_null()) {
            // A circle this version doesn't know reads as none, like an
            // unreadable anchor value.
            person.circle = circleFromRawValue(circle->get<long long>());
        }
        return person;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

} // namespace kinbook

std::size_t std::hash<kinbook::Person>::operator()(const kinbook::Person& person) const {
    return kinbook::hashAll(
        person.id, person.givenName, person.middleName, person.familyName, person.nickname,
        person.organization, person.jobTitle, person.department, person.phoneNumbers, person.emailAddresses,
        person.accountIDs, person.hasImage, person.postalCodes, person.places, person.filledCount,
        person.detailed, person.kinID, person.hidden, person.circle ? kinbook::rawValue(*person.circle) : 0,
        person.isPrimaryCard, person.memberIDs);
}
