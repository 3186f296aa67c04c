#include "KinbookKit/records/Account.h"

#include "KinbookKit/Hash.h"
#include "KinbookKit/text/Ascii.h"

namespace kinbook {
std::string Account::displayName(const AccountContainer& container) {
    const std::string_view name = trimAsciiSpace(container.name);
    if (!name.empty() && name != "Card" && name != "Contacts") {
        return std::string(name);
    }
    switch (container.kind) {
    case AccountContainer::Kind::cardDAV:
        return container.isDefault ? "iCloud" : "CardDAV";
    case AccountContainer::Kind::exchange:
        return "Exchange";
    case AccountContainer::Kind::local:
        // A folder on this computer, not on a server.
        return "On My Computer";
    case AccountContainer::Kind::unassigned:
        return name.empty() ? "Contacts" : std::string(name);
    }
    return std::string(name);
}

Account Account::from(const AccountContainer& container) {
    return Account{container.id, displayName(container)};
}

} // namespace kinbook

std::size_t std::hash<kinbook::Account>::operator()(const kinbook::Account& account) const {
    return kinbook::hashAll(account.id, account.name);
}

std::size_t std::hash<kinbook::CardRef>::operator()(const kinbook::CardRef& ref) const {
    return kinbook::hashAll(ref.cardID, ref.unifiedID, ref.accountID);
}
