#include "KinbookKit/records/Person.h"

#include "KinbookKit/Hash.h"
#include "KinbookKit/text/AreaCodes.h"
#include "KinbookKit/text/CodePoints.h"
#include "KinbookKit/text/Fold.h"

#include <nlohmann/json.hpp>

namespace kinbook {
namespace {

std::string sectionLetterOf(const std::string& key) {
    // The key is folded already, so "É" arrived as "e"; a letter folding
    // left outside ASCII files under "#" with digits and punctuation.
    const char first = key.empty() ? '\0' : key.front();
    if ((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z')) {
        return std::string(1, static_cast<char>(first & ~0x20));
    }
    return "#";
}

// The texts derive() puts together, kept per thread with their memory: a
// large address book derives the keys of every person on every read, and
// the keys are then packed into one block at their final size.
struct DeriveScratch {
    std::string given;
    std::string family;
    std::string display;
    PersonKeys keys;
};

DeriveScratch& deriveScratch() {
    thread_local DeriveScratch scratch;
    return scratch;
}

// The lead, a blank, the tail: both folded already.
void sortKeyOf(std::string& key, const std::string& lead, const std::string& tail) {
    key.assign(lead);
    key += ' ';
    key += tail;
}

} // namespace

void Person::derive() {
    DeriveScratch& scratch = deriveScratch();
    PersonKeys& keys = scratch.keys;
    // Each name is folded once and the folds reused for every key.
    scratch.given.clear();
    foldInto(scratch.given, givenName);
    scratch.family.clear();
    foldInto(scratch.family, familyName);
    scratch.display.clear();
    keys.displayName.clear();
    if (!givenName.empty() && !familyName.empty()) {
        keys.displayName += givenName;
        keys.displayName += ' ';
        keys.displayName += familyName;
        foldInto(scratch.display, keys.displayName);
    } else if (!givenName.empty() || !familyName.empty()) {
        keys.displayName = givenName.empty() ? familyName : givenName;
        scratch.display = givenName.empty() ? scratch.family : scratch.given;
    } else {
        if (!organization.empty()) {
            keys.displayName = organization;
        } else if (!emailAddresses.empty()) {
            keys.displayName = emailAddresses.front();
        } else if (!phoneNumbers.empty()) {
            keys.displayName = phoneNumbers.front();
        }
        foldInto(scratch.display, keys.displayName);
    }
    // "No Name" is what the list shows, not a name: such a person sorts
    // first and files under "#", not among the Ns.
    const std::string& given = scratch.given;
    const std::string& family = scratch.family;
    sortKeyOf(keys.sortKey, familyName.empty() ? scratch.display : family, given);
    sortKeyOf(keys.firstNameSortKey, givenName.empty() ? scratch.display : given, family);
    if (keys.displayName.empty()) {
        keys.displayName = "No Name";
        scratch.display.clear();
        foldInto(scratch.display, keys.displayName);
    }
    keys.sectionLetter = sectionLetterOf(keys.sortKey);
    keys.firstNameSectionLetter = sectionLetterOf(keys.firstNameSortKey);

    keys.phoneDigits.clear();
    keys.areaCodes.clear();
    for (const auto& phone : phoneNumbers) {
        if (auto code = AreaCodes::areaCode(phone)) {
            keys.areaCodes.push_back(std::move(*code));
        }
        keys.phoneDigits.push_back(numberCharacters(phone));
    }

    std::string& search = keys.searchText;
    search.clear();
    const auto addFolded = [&](const std::string& folded) {
        search += folded;
        search += '\n';
    };
    const auto add = [&](std::string_view text) {
        foldInto(search, text);
        search += '\n';
    };
    addFolded(given);
    add(middleName);
    addFolded(family);
    add(nickname);
    add(organization);
    add(jobTitle);
    add(department);
    addFolded(scratch.display);
    for (const auto* list : {&emailAddresses, &places, &postalCodes}) {
        for (const auto& text : *list) {
            add(text);
        }
    }
    search.pop_back(); // the last line's break
    m_keys = PackedKeys(keys);
}

Person Person::with(Changes changes) const {
    // The derived keys come from names, phones, e-mails, places and postal
    // codes, none of which a change replaces, so the copy's keys are the
    // ones derive() would make again.
    Person copy = *this;
    if (changes.accountIDs) {
        copy.accountIDs = std::move(*changes.accountIDs);
    }
    if (changes.hidden) {
        copy.hidden = *changes.hidden;
    }
    if (changes.circle) {
        copy.circle = *changes.circle;
    }
    if (changes.kinID) {
        copy.kinID = std::move(*changes.kinID);
    }
    if (changes.isPrimaryCard) {
        copy.isPrimaryCard = *changes.isPrimaryCard;
    }
    if (changes.memberIDs) {
        copy.memberIDs = std::move(*changes.memberIDs);
    }
    return copy;
}

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
        {"phoneNumbers", phoneNumbers.strings()},
        {"emailAddresses", emailAddresses.strings()},
        {"accountIDs", accountIDs.strings()},
        {"hasImage", hasImage},
        {"postalCodes", postalCodes.strings()},
        {"places", places.strings()},
        {"filledCount", filledCount},
        {"detailed", detailed},
        {"hidden", hidden},
        {"isPrimaryCard", isPrimaryCard},
        {"memberIDs", memberIDs.strings()},
        {"displayName", displayName()},
        {"sortKey", sortKey()},
        {"sectionLetter", sectionLetter()},
        {"firstNameSortKey", firstNameSortKey()},
        {"firstNameSectionLetter", firstNameSectionLetter()},
        {"areaCodes", areaCodes().strings()},
        {"searchText", searchText()},
        {"phoneDigits", phoneDigits().strings()},
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
        person.phoneNumbers = json.at("phoneNumbers").get<std::vector<std::string>>();
        person.emailAddresses = json.at("emailAddresses").get<std::vector<std::string>>();
        person.accountIDs = json.at("accountIDs").get<std::vector<std::string>>();
        json.at("hasImage").get_to(person.hasImage);
        person.postalCodes = json.at("postalCodes").get<std::vector<std::string>>();
        person.places = json.at("places").get<std::vector<std::string>>();
        json.at("filledCount").get_to(person.filledCount);
        json.at("detailed").get_to(person.detailed);
        json.at("hidden").get_to(person.hidden);
        json.at("isPrimaryCard").get_to(person.isPrimaryCard);
        person.memberIDs = json.at("memberIDs").get<std::vector<std::string>>();
        if (const auto kinID = json.find("kinID"); kinID != json.end() && !kinID->is_null()) {
            person.kinID = kinID->get<std::string>();
        }
        if (const auto circle = json.find("circle"); circle != json.end() && !circle->is_null()) {
            // A circle this version doesn't know reads as none, like an
            // unreadable anchor value.
            person.circle = circleFromRawValue(circle->get<long long>());
        }
        if (json.contains("searchText")) {
            PersonKeys keys;
            json.at("displayName").get_to(keys.displayName);
            json.at("sortKey").get_to(keys.sortKey);
            json.at("sectionLetter").get_to(keys.sectionLetter);
            json.at("firstNameSortKey").get_to(keys.firstNameSortKey);
            json.at("firstNameSectionLetter").get_to(keys.firstNameSectionLetter);
            json.at("areaCodes").get_to(keys.areaCodes);
            json.at("searchText").get_to(keys.searchText);
            json.at("phoneDigits").get_to(keys.phoneDigits);
            person.adoptKeys(keys);
        } else {
            person.derive();
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
