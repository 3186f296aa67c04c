#pragma once

#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The multi-valued parts of a card that the user sees and edits one by one,
// each with an identity that survives edits (see EntryRegistry).
enum class EntryKind {
    phone,     // TEL
    email,     // EMAIL
    address,   // ADR
    url,       // URL (the KinID anchor included)
    date,      // ANNIVERSARY, X-ABDATE and the exporters' own anniversary properties
    relation,  // X-ABRELATEDNAMES, RELATED
    social,    // X-SOCIALPROFILE, SOCIALPROFILE
    messaging, // IMPP and the older per-service properties (X-AIM, X-JABBER, …)
};

// Which kind of entry a property is, if any.
std::optional<EntryKind> entryKind(const VCardProperty& property);

// An ADR line's five parts as the editor shows them, each trimmed: the
// street is the street component's lines, then the extended address's, then
// the PO box's (writers differ in which of them holds the street: Google's
// export sometimes puts it all in the extended address), one per line; city,
// state, postal code and country are their components, several joined by a
// space. id and label stay empty. The reader fills the draft with this and
// the writer compares the draft with it, so an address the user left alone
// is never rewritten.
ContactDraft::Address addressPartsOf(const VCardProperty& property);

// A phone's number as the user sees and edits it: the value trimmed, and a
// 4.0 "tel:" URI without its scheme ("tel:+1-555-555-0100" is
// "+1-555-555-0100"). The writer compares a draft's number with this, so a
// number the user left alone is never rewritten.
std::string phoneNumberOf(const VCardProperty& property);

// What identifies a property's line to the registry: its upper-case name,
// the fingerprint of its unfolded line without the group (other programs
// renumber groups), its normalised value and its 4.0 PID.
EntryRegistry::Entry entryKey(const VCardProperty& property);

template <typename Property>
struct BasicCardEntry {
    EntryKind kind;
    Property* property;
    std::string id;
};
using CardEntry = BasicCardEntry<VCardProperty>;
using ConstCardEntry = BasicCardEntry<const VCardProperty>;

// Every entry of the card in file order, with its identity. Identities are
// asked of the registry once for the whole card, so that matching after an
// outside edit sees every entry together.
std::vector<CardEntry> cardEntries(VCard& card, std::string_view cardID, EntryRegistry& registry);
std::vector<ConstCardEntry> cardEntries(const VCard& card, std::string_view cardID, EntryRegistry& registry);

// After Kinbook changed a card: tells the registry which identity each entry
// now carries. `wanted` maps a property to the identity it must keep or take
// (an edited phone keeps its own, a new one takes the editor's); entries not
// listed keep the identity their unchanged lines already carry.
void recordCardEntries(const VCard& card, std::string_view cardID, EntryRegistry& registry,
                       const std::vector<std::pair<const VCardProperty*, std::string>>& wanted);

} // namespace kinbook
