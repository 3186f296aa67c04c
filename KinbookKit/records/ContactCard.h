#pragma once

#include "KinbookKit/records/LinkService.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// One card of one account, fully read: what the person's page shows and the
// editor starts from. A plain value with no tie to the store. Texts are never
// absent: a field the card lacks is the empty string, except where optional.
struct ContactCard {
    // One labelled value of a multi-valued field.
    struct Item {
        std::string label; // as the user sees it ("mobile", "ex-work", a custom text); empty when none
        std::string value;
        std::string id; // the entry's identity, stable across edits

        bool operator==(const Item&) const = default;
    };

    // One postal address in its parts, as the editor shows them.
    struct PostalParts {
        std::string street; // street lines, one per line
        std::string city;
        std::string state;
        std::string postalCode;
        std::string country;

        bool operator==(const PostalParts&) const = default;
    };

    std::string id;
    std::string namePrefix;
    std::string givenName;
    std::string middleName;
    std::string familyName;
    std::string nameSuffix;
    std::string nickname;
    std::string phoneticName; // phonetic given and family names, empty ones dropped, joined by a blank
    std::string organization;
    std::string department;
    std::string jobTitle;
    std::vector<Item> phones;
    std::vector<Item> emails;
    std::vector<Item> addresses;           // one multi-line text per address, one part per line
    std::vector<PostalParts> addressParts; // the same addresses in their parts, in the same order
    std::vector<Item> urls;                // less the anchor and less the addresses recognised as links
    std::optional<std::string> birthday;   // month in words, in the locale's order; year optional
    std::vector<Item> dates;               // other dates, formatted like the birthday
    std::vector<Item> relations;           // related people's names
    std::vector<Item> social;              // label: the service; value: the user name, else the URL
    std::vector<Item> messaging;           // label: the service; value: the user name
    std::vector<LinkedAccount> links;      // profiles, messaging and URLs of a known service
    std::optional<std::vector<std::uint8_t>> thumbnail;
    std::optional<std::string> kinID;
    std::optional<std::vector<std::uint8_t>> image; // the full-size photo

    bool operator==(const ContactCard&) const = default;

    // For showing a card (the inspect tool): member names as keys, items as
    // {"label", "value", "id"}, links as {"id", "service" (case name),
    // "handle", "isNew"}, the images as their byte counts, absent optionals
    // as null.
    nlohmann::json toJSON() const;
};

// "Given Family" from phonetic parts, empty ones dropped.
std::string joinPhoneticName(std::string_view phoneticGivenName, std::string_view phoneticFamilyName);

} // namespace kinbook

template <>
struct std::hash<kinbook::ContactCard::Item> {
    std::size_t operator()(const kinbook::ContactCard::Item& item) const;
};

template <>
struct std::hash<kinbook::LinkedAccount> {
    std::size_t operator()(const kinbook::LinkedAccount& link) const;
};

template <>
struct std::hash<kinbook::ContactCard> {
    std::size_t operator()(const kinbook::ContactCard& card) const;
};
