#include "KinbookKit/records/ContactCard.h"

#include "KinbookKit/Hash.h"

#include <nlohmann/json.hpp>

#include <string_view>

namespace kinbook {

std::string joinPhoneticName(std::string_view phoneticGivenName, std::string_view phoneticFamilyName) {
    std::string name(phoneticGivenName);
    if (!phoneticFamilyName.empty()) {
        if (!name.empty()) {
            name.push_back(' ');
        }
        name += phoneticFamilyName;
    }
    return name;
}

nlohmann::json ContactCard::toJSON() const {
    using nlohmann::json;
    auto items = [](const std::vector<Item>& list) {
        json array = json::array();
        for (const auto& item : list) {
            array.push_back({{"label", item.label}, {"value", item.value}, {"id", item.id}});
        }
        return array;
    };
    auto byteCount = [](const std::optional<std::vector<std::uint8_t>>& bytes) {
        return bytes ? json(bytes->size()) : json(nullptr);
    };
    json parts = json::array();
    for (const auto& address : addressParts) {
        parts.push_back({{"street", address.street},
                         {"city", address.city},
                         {"state", address.state},
                         {"postalCode", address.postalCode},
                         {"country", address.country}});
    }
    json linkList = json::array();
    for (const auto& link : links) {
        linkList.push_back({{"id", link.id},
                            {"service", caseName(link.service)},
                            {"handle", link.handle},
                            {"isNew", link.isNew}});
    }
    return {
        {"id", id},
        {"namePrefix", namePrefix},
        {"givenName", givenName},
        {"middleName", middleName},
        {"familyName", familyName},
        {"nameSuffix", nameSuffix},
        {"nickname", nickname},
        {"phoneticName", phoneticName},
        {"organization", organization},
        {"department", department},
        {"jobTitle", jobTitle},
        {"phones", items(phones)},
        {"emails", items(emails)},
        {"addresses", items(addresses)},
        {"addressParts", std::move(parts)},
        {"urls", items(urls)},
        {"birthday", birthday ? json(*birthday) : json(nullptr)},
        {"dates", items(dates)},
        {"relations", items(relations)},
        {"social", items(social)},
        {"messaging", items(messaging)},
        {"links", std::move(linkList)},
        {"thumbnail", byteCount(thumbnail)},
        {"kinID", kinID ? json(*kinID) : json(nullptr)},
        {"image", byteCount(image)},
    };
}

} // namespace kinbook

std::size_t std::hash<kinbook::ContactCard::Item>::operator()(const kinbook::ContactCard::Item& item) const {
    return kinbook::hashAll(item.label, item.value, item.id);
}

std::size_t std::hash<kinbook::LinkedAccount>::operator()(const kinbook::LinkedAccount& link) const {
    return kinbook::hashAll(link.id, static_cast<int>(link.service), link.handle, link.isNew);
}

namespace {

struct BytesHash {
    std::size_t operator()(const std::vector<std::uint8_t>& bytes) const {
        return std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
};

std::size_t hashBytes(const std::optional<std::vector<std::uint8_t>>& bytes) {
    return bytes ? BytesHash{}(*bytes) + 1 : 0;
}

} // namespace

std::size_t std::hash<kinbook::ContactCard>::operator()(const kinbook::ContactCard& card) const {
    return kinbook::hashAll(card.id, card.namePrefix, card.givenName, card.middleName, card.familyName,
                            card.nameSuffix, card.nickname, card.phoneticName, card.organization,
                            card.department, card.jobTitle, card.phones, card.emails, card.addresses,
                            card.addressParts.size(), card.urls, card.birthday, card.dates, card.relations,
                            card.social, card.messaging, card.links, hashBytes(card.thumbnail), card.kinID,
                            hashBytes(card.image));
}
