#include "KinbookKit/records/ContactDraft.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/Ascii.h"

#include <type_traits>

namespace kinbook {
namespace {

std::vector<ContactDraft::Field> fieldsFrom(const std::vector<ContactCard::Item>& items) {
    std::vector<ContactDraft::Field> fields;
    fields.reserve(items.size());
    for (const auto& item : items) {
        fields.push_back({item.id, labelFromDisplayName(item.label), item.value, false});
    }
    return fields;
}

// The address in its parts when the card gives them; a card made without
// them (by hand, say) has only the formatted text, which stays whole in the
// street rather than being guessed apart.
ContactDraft::Address addressFrom(const ContactCard::Item& item, const ContactCard::PostalParts* parts) {
    ContactDraft::Address address;
    address.id = item.id;
    address.label = labelFromDisplayName(item.label);
    if (parts == nullptr) {
        address.street = item.value;
        return address;
    }
    address.street = parts->street;
    address.city = parts->city;
    address.state = parts->state;
    address.postalCode = parts->postalCode;
    address.country = parts->country;
    return address;
}

// A value with nothing in it is no entry: the draft drops it, as saving would.
template <typename Entry>
void dropBlank(std::vector<Entry>& entries) {
    std::erase_if(entries, [](const Entry& entry) {
        if constexpr (std::is_same_v<Entry, ContactDraft::Address>) {
            return entry.isEmpty();
        } else {
            return isBlank(entry.value, " \t\r\n");
        }
    });
}

} // namespace

bool ContactDraft::Address::isEmpty() const {
    constexpr std::string_view blanks = " \t";
    return isBlank(street, blanks) && isBlank(city, blanks) && isBlank(state, blanks) &&
           isBlank(postalCode, blanks) && isBlank(country, blanks);
}

ContactDraft ContactDraft::empty(std::optional<std::string> id, std::optional<std::string> accountID) {
    ContactDraft draft;
    draft.id = std::move(id);
    draft.accountID = std::move(accountID);
    return draft;
}

ContactDraft ContactDraft::fromCard(const ContactCard& card, std::optional<DateComponents> birthday) {
    ContactDraft draft;
    draft.id = card.id;
    draft.namePrefix = card.namePrefix;
    draft.givenName = card.givenName;
    draft.middleName = card.middleName;
    draft.familyName = card.familyName;
    draft.nameSuffix = card.nameSuffix;
    draft.nickname = card.nickname;
    draft.organization = card.organization;
    draft.department = card.department;
    draft.jobTitle = card.jobTitle;
    draft.phones = fieldsFrom(card.phones);
    draft.emails = fieldsFrom(card.emails);
    for (const auto& url : card.urls) {
        if (KinID::isAnchorURL(url.value)) {
            if (!draft.anchorURL) {
                draft.anchorURL = url.value;
            }
            continue;
        }
        draft.urls.push_back({url.id, labelFromDisplayName(url.label), url.value, false});
    }
    for (std::size_t i = 0; i < card.addresses.size(); ++i) {
        const bool hasParts = card.addressParts.size() == card.addresses.size();
        draft.addresses.push_back(addressFrom(card.addresses[i], hasParts ? &card.addressParts[i] : nullptr));
    }
    dropBlank(draft.phones);
    dropBlank(draft.emails);
    dropBlank(draft.urls);
    dropBlank(draft.addresses);
    draft.birthday = birthday;
    draft.links = card.links;
    for (const auto& link : card.links) {
        for (const auto& message : card.messaging) {
            if (message.id == link.id) {
                draft.messageLinkIDs.insert(link.id);
            }
        }
    }
    return draft;
}

ContactDraft ContactDraft::copyForAccount(std::string targetAccountID) const {
    ContactDraft copy = *this;
    copy.id = std::nullopt;
    copy.accountID = std::move(targetAccountID);
    for (auto* list : {&copy.phones, &copy.emails, &copy.urls}) {
        for (auto& field : *list) {
            field.id = makeUUID();
            field.isNew = true;
        }
    }
    for (auto& address : copy.addresses) {
        address.id = makeUUID();
        address.isNew = true;
    }
    for (auto& date : copy.dates) {
        date.id = makeUUID();
        date.isNew = true;
    }
    for (auto& link : copy.links) {
        link.id = makeUUID();
        link.isNew = true;
    }
    // The new card has no messaging entries of its own yet: its links are
    // written as new profiles.
    copy.messageLinkIDs.clear();
    return copy;
}

bool ContactDraft::isEmpty() const {
    constexpr std::string_view spaces = " ";
    for (const auto* text :
         {&namePrefix, &givenName, &middleName, &familyName, &nameSuffix, &nickname, &organization,
          &department, &jobTitle, &phoneticGivenName, &phoneticFamilyName}) {
        if (!isBlank(*text, spaces)) {
            return false;
        }
    }
    for (const auto* list : {&phones, &emails, &urls}) {
        for (const auto& field : *list) {
            if (!isBlank(field.value, spaces)) {
                return false;
            }
        }
    }
    for (const auto& address : addresses) {
        if (!address.isEmpty()) {
            return false;
        }
    }
    if (birthday || !dates.empty()) {
        return false;
    }
    return !note || isBlank(*note, " \t\r\n");
}

std::string ContactDraft::labelDisplay(std::string_view label) {
    if (label.empty()) {
        return "no label";
    }
    return localizedLabel(label);
}

} // namespace kinbook
