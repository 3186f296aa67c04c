#pragma once

#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/DateComponents.h"
#include "KinbookKit/records/LinkService.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The editable copy of one card's fields. Saving does not rewrite the card:
// the address book applies the draft entry by entry onto the stored card, so
// every entry the user did not remove keeps its identity, and the anchor URL
// (held aside here, never shown) keeps the person's KinID through every edit.
struct ContactDraft {
    struct Field {
        std::string id;    // the entry it came from; a fresh UUID for a new entry
        std::string label; // a stock label constant, a custom text, or a former ("ex-") label
        std::string value;
        bool isNew = false; // the store doesn't have this entry yet

        bool operator==(const Field&) const = default;
    };

    struct Address {
        std::string id;
        std::string label;
        std::string street;
        std::string city;
        std::string state;
        std::string postalCode;
        std::string country;
        bool isNew = false;

        bool operator==(const Address&) const = default;

        // All five parts blank after trimming spaces and tabs.
        bool isEmpty() const;
    };

    // An anniversary or other labelled date, with or without a year.
    struct Date {
        std::string id;
        std::string label;
        DateComponents date;
        bool isNew = false;

        bool operator==(const Date&) const = default;
    };

    std::optional<std::string> id;        // the card being edited; none for a new card
    std::optional<std::string> accountID; // where a new card is made; none when editing
    std::string namePrefix;
    std::string givenName;
    std::string middleName;
    std::string familyName;
    std::string nameSuffix;
    std::string nickname;
    std::string organization;
    std::string department;
    std::string jobTitle;
    std::vector<Field> phones;
    std::vector<Field> emails;
    std::vector<Field> urls; // web addresses, never the anchor
    std::vector<Address> addresses;
    std::optional<DateComponents> birthday;
    std::vector<LinkedAccount> links;
    std::set<std::string> messageLinkIDs; // the messaging entries the links stand for
    std::optional<std::string> anchorURL; // the card's anchor as read
    std::string phoneticGivenName;
    std::string phoneticFamilyName;
    // Only the card's dates that read as dates: one in free text can't be
    // shown as a date, so the draft neither holds nor removes it.
    std::vector<Date> dates;
    // None: the note is not edited and stays as it is. A text replaces the
    // note; a blank one removes it. Where the store locks notes, a changed
    // note is written through the Contacts application.
    std::optional<std::string> note;

    bool operator==(const ContactDraft&) const = default;

    // An empty draft for a card, or for a new card in an account.
    static ContactDraft empty(std::optional<std::string> id = std::nullopt,
                              std::optional<std::string> accountID = std::nullopt);

    // The draft of a card as read: every entry keeps its identity, labels
    // become label constants again, an anchor URL among the web addresses is
    // held aside, and the card's links come along. The card's formatted
    // birthday can't be edited back into parts, so the reader that knows them
    // passes them in. The card shows its phonetic name joined and its other
    // dates formatted, so the draft holds none of them, and no note: a draft
    // to save comes from the store's draft(), which reads them all.
    static ContactDraft fromCard(const ContactCard& card,
                                 std::optional<DateComponents> birthday = std::nullopt);

    // The same contents as a new card in another account: every entry gets a
    // fresh identity and is new; the card id is dropped.
    ContactDraft copyForAccount(std::string targetAccountID) const;

    // No name, phonetic name or work text, no entry, address, birthday or date, and no
    // note with content. A new card is saved only when its draft is not empty.
    bool isEmpty() const;

    // The editor's text for a label: "no label" for none, else its display name.
    static std::string labelDisplay(std::string_view label);
};

} // namespace kinbook
