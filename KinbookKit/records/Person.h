#pragma once

#include "KinbookKit/records/ContactCircle.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// One row of the people list. The address book produces one per card (a
// "raw" person); the list joins the raw people of one human into one. A
// value, stored in the snapshot cache under its field names.
struct Person {
    std::string id; // the card's id; for a joined person, its leading card's
    std::string givenName;
    std::string middleName;
    std::string familyName;
    std::string nickname;
    std::string organization;
    std::string jobTitle;
    std::string department;
    std::vector<std::string> phoneNumbers;   // in card order
    std::vector<std::string> emailAddresses; // in card order
    std::vector<std::string> accountIDs;     // the accounts holding this person's cards
    bool hasImage = false;
    std::vector<std::string> postalCodes;
    std::vector<std::string> places; // place text of the addresses, for search
    int filledCount = 0;             // how many fields of the card are filled
    bool detailed = false;           // made from a full read, not a names-only pass
    std::optional<std::string> kinID;
    bool hidden = false;
    std::optional<ContactCircle> circle;
    bool isPrimaryCard = false;
    std::vector<std::string> memberIDs; // a joined person's card ids, leading card first

    bool operator==(const Person&) const = default;

    nlohmann::json toJSON() const;
    // None when a stored field is missing or of the wrong type.
    static std::optional<Person> fromJSON(const nlohmann::json& json);
};

} // namespace kinbook

template <>
struct std::hash<kinbook::Person> {
    std::size_t operator()(const kinbook::Person& person) const;
};
