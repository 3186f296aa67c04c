#include "KinbookKit/records/Person.h"

#include "KinbookKit/Hash.h"
#include "KinbookKit/records/PersonFields.h"
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

namespace {

// A field's value as the JSON tree holds it.
nlohmann::json jsonValue(const std::string& text) {
    return text;
}
nlohmann::json jsonValue(std::string_view text) {
    return std::string(text);
}
nlohmann::json jsonValue(const Texts& texts) {
    return texts.strings();
}
nlohmann::json jsonValue(const TextList& texts) {
    return texts.strings();
}
nlohmann::json jsonValue(bool flag) {
    return flag;
}
nlohmann::json jsonValue(int number) {
    return number;
}
nlohmann::json jsonValue(const std::optional<std::string>& text) {
    return *text;
}
nlohmann::json jsonValue(const std::optional<ContactCircle>& circle) {
    return rawValue(*circle);
}

template <typename T>
bool isSet(const T&) {
    return true;
}
template <typename T>
bool isSet(const std::optional<T>& value) {
    return value.has_value();
}

// What a field adds to the hash; a circle by its raw value, none as 0.
template <typename T>
const T& hashed(const T& value) {
    return value;
}
int hashed(const std::optional<ContactCircle>& circle) {
    return circle ? rawValue(*circle) : 0;
}

} // namespace

nlohmann::json Person::toJSON() const {
    nlohmann::json json = nlohmann::json::object();
    forEachPersonField([&](auto field) {
        using Field = decltype(field);
        if constexpr (Field::derived) {
            json[std::string(Field::name)] = jsonValue((this->*Field::accessor)());
        } else if (isSet(this->*Field::member)) {
            json[std::string(Field::name)] = jsonValue(this->*Field::member);
        }
    });
    return json;
}

} // namespace kinbook

std::size_t std::hash<kinbook::Person>::operator()(const kinbook::Person& person) const {
    // The stored fields, in order; the derived keys follow from them.
    std::size_t seed = 0;
    kinbook::forEachPersonField([&](auto field) {
        using Field = decltype(field);
        if constexpr (!Field::derived) {
            kinbook::hashCombine(seed, kinbook::hashed(person.*Field::member));
        }
    });
    return seed;
}
