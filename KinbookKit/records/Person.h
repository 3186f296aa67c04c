#pragma once

#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/PackedKeys.h"
#include "KinbookKit/records/Texts.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// One row of the people list. The address book produces one per card (a
// "raw" person); the list joins the raw people of one human into one. A
// value, stored in the snapshot cache under its field names: PersonFields
// names every field for the cache and the tool's JSON, and a new field is
// added there too.
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
    Texts phoneNumbers;   // in card order
    Texts emailAddresses; // in card order
    Texts accountIDs;     // the accounts holding this person's cards
    bool hasImage = false;
    Texts postalCodes;
    Texts places;          // place text of the addresses, for search
    int filledCount = 0;   // how many fields of the card are filled
    bool detailed = false; // made from a full read, not a names-only pass
    std::optional<std::string> kinID;
    bool hidden = false;
    std::optional<ContactCircle> circle;
    bool isPrimaryCard = false;
    Texts memberIDs; // a joined person's card ids, leading card first

    // Derived keys (see PersonKeys), worked out once from the stored fields
    // so that no comparison or keystroke folds text again.
    std::string_view displayName() const { return m_keys.text(PackedKeys::Text::displayName); }
    std::string_view sortKey() const { return m_keys.text(PackedKeys::Text::sortKey); }
    std::string_view sectionLetter() const { return m_keys.text(PackedKeys::Text::sectionLetter); }
    std::string_view firstNameSortKey() const { return m_keys.text(PackedKeys::Text::firstNameSortKey); }
    std::string_view firstNameSectionLetter() const {
        return m_keys.text(PackedKeys::Text::firstNameSectionLetter);
    }
    TextList areaCodes() const { return m_keys.areaCodes(); }
    std::string_view searchText() const { return m_keys.text(PackedKeys::Text::searchText); }
    TextList phoneDigits() const { return m_keys.phoneDigits(); }
    PersonKeys keys() const { return m_keys.unpacked(); }
    // Where the keys lie, for asking memory for them ahead of a read.
    const void* keysAddress() const { return m_keys.address(); }

    // Works the derived keys out from the stored fields.
    void derive();
    // Takes keys that derive() made earlier for these same stored fields, as
    // read back from the snapshot cache, instead of folding everything again.
    void adoptKeys(const PersonKeys& keys) { m_keys = PackedKeys(keys); }

    // What a copy with changes may replace; an absent member keeps the old
    // value. For `circle` and `kinID`, keeping the old value (absent) differs
    // from setting none (present and empty).
    struct Changes {
        std::optional<Texts> accountIDs;
        std::optional<bool> hidden;
        std::optional<std::optional<ContactCircle>> circle;
        std::optional<std::optional<std::string>> kinID;
        std::optional<bool> isPrimaryCard;
        std::optional<Texts> memberIDs;
    };
    Person with(Changes changes) const;

    bool operator==(const Person&) const = default;

    // Every stored and derived field under its name (see PersonFields);
    // kinID and circle only when set.
    nlohmann::json toJSON() const;

private:
    PackedKeys m_keys;
};

} // namespace kinbook

template <>
struct std::hash<kinbook::Person> {
    std::size_t operator()(const kinbook::Person& person) const;
};
