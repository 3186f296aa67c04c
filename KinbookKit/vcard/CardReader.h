#pragma once

#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/DateComponents.h"
#include "KinbookKit/records/Person.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/RawPersonBuilder.h"
#include "KinbookKit/vcard/VCard.h"

#include <optional>
#include <string>
#include <string_view>

// Reading a parsed card into the records the rest of Kinbook works with: the
// full card for the person page, the draft for the editor and the raw person
// for the list.
//
// Every function is pure over the parsed card (the registry aside, which
// hands out entry identities and must be used from its own executor). None
// throws; whatever a card holds reads as something, never as a failure.

namespace kinbook {

// The id of a card that has no UID, from its file name: the name without
// ".vcf" when it is made only of letters, digits and "-_.@" (the usual
// UUID-like names), otherwise the name with every other byte replaced by "-"
// plus "-" and the 16-hex-digit fingerprint of the whole file name, so that
// names differing only in such bytes keep apart. Stable for a file name, and
// safe to write into the card later as its UID.
std::string cardIDFromFileName(std::string_view fileName);

// The card's id: its UID (trimmed) when it has a non-empty one, else the id
// from its file name.
std::string cardIDOf(const VCard& card, std::string_view fileName);

// A group card (iCloud's X-ADDRESSBOOKSERVER-KIND:group, 4.0 KIND:group):
// it lists members and is kept, but is never shown as a person.
bool isGroupCard(const VCard& card);

// A card that stands for an organisation (Apple's X-ABShowAs:COMPANY, 4.0
// KIND:org): known by its organisation rather than by a person's name.
bool isCompanyCard(const VCard& card);

// A card date in any form writers use: 1985-12-10, 19851210, a date-time
// (its time ignored), --1210, --12-10. A year equal to `omitYear` (Apple's
// X-APPLE-OMIT-YEAR), or Apple's stand-in year 1604, means no year. None when
// month or day is missing or the date does not exist.
std::optional<DateComponents> parseCardDate(std::string_view text, std::string_view omitYear = {});

// The date of a BDAY, ANNIVERSARY or X-ABDATE line; none for VALUE=text.
std::optional<DateComponents> readCardDate(const VCardProperty& property);

// The first BDAY line's date.
std::optional<DateComponents> readBirthday(const VCard& card);

// The card's note as one text, the way the Contacts application shows it:
// the NOTE lines that hold text, joined by line breaks; "" when none.
std::string cardNote(const VCard& card);

// An address in mailing style, one part per line, empty parts dropped:
// street lines, then "City, State PostalCode" — or "PostalCode City" (state
// on a line of its own) where the country writes the code first, or the city
// and the code on two lines for the United Kingdom — then the country.
// `layout` is Apple's X-ABADR country code when the card has one; otherwise
// the country text decides.
std::string formatPostalAddress(const ContactDraft::Address& address, std::string_view layout = {});

// The card's names as the editor shows them: N's and ORG's fields, with FN
// standing in for a missing name (as the given name) or, on a company card,
// for a missing organisation. The writer compares a draft with this, so an
// untouched name is never rewritten.
CardNames readCardNames(const VCard& card);

// The card's contents as the person page shows them. Labels are display
// texts, entries carry their identities from `registry`, dates are written
// for `locale` (ICU name; empty is the process's locale). `thumbnail` stays
// empty: the small image is made by the photo store, not read from the card.
ContactCard readContactCard(const VCard& card, std::string_view cardID, EntryRegistry& registry,
                            std::string_view locale = {});

// The editor's draft of the card, read from the card itself so that nothing
// is lost to formatting: labels are constants (readLabel), addresses keep
// their parts (street lines from the street, extended and post-office-box
// fields joined by "\n"), the birthday keeps its parts, and the first anchor
// URL is held aside. Web addresses shown as links are left out of `urls`.
ContactDraft readDraft(const VCard& card, std::string_view cardID, EntryRegistry& registry);

// The card as one raw row of the people list (see RawPersonBuilder for the
// names, the filled-field measure and the names-only pass). `accountIDs` is
// {accountID}, `memberIDs` {cardID}.
Person readPerson(const VCard& card, std::string_view cardID, std::string_view accountID, bool details);

} // namespace kinbook
