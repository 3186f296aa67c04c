#pragma once

#include "KinbookKit/records/ContactCircle.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// The keys the list sorts, sections and searches by, worked out once from a
// person's stored fields so that no comparison or keystroke folds text again.
struct PersonKeys {
    std::string displayName;
    std::string sortKey;                  // folded; family name (else display name), a blank, given name
    std::string sectionLetter;            // "A"…"Z" or "#"
    std::string firstNameSortKey;         // folded; given name (else display name), a blank, family name
    std::string firstNameSectionLetter;   // "A"…"Z" or "#"
    std::vector<std::string> areaCodes;   // one per phone number that has one, in order
    std::string searchText;               // folded names, e-mails, places and postal codes, one per line
    std::vector<std::string> phoneDigits; // one per phone number: its digits only

    bool operator==(const PersonKeys&) const = default;
};

// One row of the people list. The address book produces one per card (a
// "raw" person); the list joins the raw people of one human into one. A
// value, stored in the snapshot cache under its field names.
//
// The stored fields are filled by whoever reads the card, who then calls
// derive() once; the derived keys are never set any other way. A person is
// changed afterwards only through with(), which keeps the keys right.
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

    // Derived keys (see PersonKeys).
    const std::string& displayName() const { return m_keys.displayName; }
    const std::string& sortKey() const { return m_keys.sortKey; }
    const std::string& sectionLetter() const { return m_keys.sectionLetter; }
    const std::string& firstNameSortKey() const { return m_keys.firstNameSortKey; }
    const std::string& firstNameSectionLetter() const { return m_keys.firstNameSectionLetter; }
    const std::vector<std::string>& areaCodes() const { return m_keys.areaCodes; }
    const std::string& searchText() const { return m_keys.searchText; }
    const std::vector<std::string>& phoneDigits() const { return m_keys.phoneDigits; }
    const PersonKeys& keys() const { return m_keys; }

    // Works the derived keys out from the stored fields.
    void derive();
    // Takes keys that derive() made earlier for these same stored fields, as
    // read back from the snapshot cache, instead of folding everything again.
    void adoptKeys(PersonKeys keys) { m_keys = std::move(keys); }

    // What a copy with changes may replace; an absent member keeps the old
    // value. For `circle` and `kinID`, keeping the old value (absent) differs
    // from setting none (present and empty).
    struct Changes {
        std::optional<std::vector<std::string>> accountIDs;
        std::optional<bool> hidden;
        std::optional<std::optional<ContactCircle>> circle;
        std::optional<std::optional<std::string>> kinID;
        std::optional<bool> isPrimaryCard;
        std::optional<std::vector<std::string>> memberIDs;
    };
    Person with(Changes changes) const;

    bool operator==(const Person&) const = default;

    // Every stored and derived field under its name.
    nlohmann::json toJSON() const;
    // None when a stored field is missing or of the wrong type. Derived keys
    // are taken as stored when all are present and worked out otherwise.
    static std::optional<Person> fromJSON(const nlohmann::json& json);

private:
    PersonKeys m_keys;
};

} // namespace kinbook

template <>
struct std::hash<kinbook::Person> {
    std::size_t operator()(const kinbook::Person& person) const;
};
