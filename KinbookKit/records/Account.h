#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

// What the store says about one account (an address-book collection), before
// Kinbook names it.
struct AccountContainer {
    enum class Kind { unassigned, local, exchange, cardDAV };

    std::string id;
    std::string name; // the collection's own name, as configured or found
    Kind kind = Kind::local;
    bool isDefault = false; // the store's default account
};

// One account of the address book, as the user sees it.
struct Account {
    std::string id;
    std::string name;

    bool operator==(const Account&) const = default;

    // The account's display name: its own name trimmed, unless that is empty
    // or one of the generic "Card" / "Contacts", in which case its kind names
    // it ("iCloud" for the default CardDAV account, "CardDAV", "Exchange",
    // "On My Computer" for a local folder).
    static std::string displayName(const AccountContainer& container);
    static Account from(const AccountContainer& container);
};

// A reference to one card inside one person.
struct CardRef {
    std::string cardID;
    std::string unifiedID; // the store's grouping of linked cards; on a vdir, the card's own id
    std::string accountID;

    bool operator==(const CardRef&) const = default;
};

} // namespace kinbook

template <>
struct std::hash<kinbook::Account> {
    std::size_t operator()(const kinbook::Account& account) const;
};

template <>
struct std::hash<kinbook::CardRef> {
    std::size_t operator()(const kinbook::CardRef& ref) const;
};
