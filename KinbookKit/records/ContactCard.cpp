#include "KinbookKit/records/ContactCard.h"

#include "KinbookKit/Hash.h"

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
                            card.urls, card.birthday, card.dates, card.relations, card.social, card.messaging,
                            card.links, hashBytes(card.thumbnail), card.kinID, hashBytes(card.image));
}
