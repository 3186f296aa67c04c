#pragma once

#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/DateComponents.h"
#include "KinbookKit/records/KinID.h"
#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Writing Kinbook's edits into a card. Every function here changes only the
// lines its edit is about; every other line of the card, other programs'
// groups and parameters included, keeps its bytes. A value that already says
// what the edit wants is left alone, so an edit that changes nothing leaves
// the card unmodified (VCard::isModified() stays false) and nothing is written.
//
// None of these functions throws; malformed lines are never touched. A card
// is edited by one thread at a time (see VCard).

namespace kinbook {

// Labels.
//
// A stock label is written the way Apple's software writes it, since that is
// what the strictest consumers accept: TYPE values (a mobile phone is
// "type=CELL;type=VOICE", an iPhone "type=IPHONE;type=CELL;type=VOICE", a
// work e-mail "type=INTERNET;type=WORK") and no label line. School, homepage,
// an "other" web address, iPhone/iCloud where no TYPE value carries them, and
// any custom text — former labels such as "ex-work" included — go into a
// group ("item3.EMAIL") with an "X-ABLabel" line, and the TYPE values that
// name a label (isLabelType: HOME, WORK, CELL, an unknown CAR…) are removed
// so that programs which ignore X-ABLabel don't show the entry as current.
// TYPE values that carry no label (INTERNET, VOICE, pref, POSTAL…) stay.
// An empty label removes the label-bearing TYPE values and the label line.
//
// `label` is a label constant (StockLabel.h) or a custom text. When the entry
// already reads as that label (readLabel), nothing changes: the editor's
// draft holds what readLabel said, so an untouched label writes nothing.
void writeLabel(VCard& card, VCardProperty& property, EntryKind kind, std::string_view label);

// The card's birthday as applyDraft compares it: the first BDAY read as a
// date, with Apple's stand-in year 1604 (or the year X-APPLE-OMIT-YEAR names)
// meaning "no year". None when there is no BDAY or it is not a date.
std::optional<DateComponents> cardBirthday(const VCard& card);

// What a write did to the card's entries, for recordCardEntries: the
// identity each entry of the written card must carry. A changed entry keeps
// its identity, a new one takes the editor's fresh one, an untouched one
// keeps what it had. Pointers are valid while the card is not edited again.
struct ApplyResult {
    std::vector<std::pair<const VCardProperty*, std::string>> entryIDs;
};

// Tells the registry which identity each entry of a written card carries.
// `written` is the card parsed back from the bytes `edited.serialize()` gave:
// a 2.1 card is written as 3.0, so lines nobody edited may still change form
// in the writing, and the registry must know them as they are in the file.
// Entries are matched by position, which writing never changes.
void recordWrittenEntries(const VCard& edited, const ApplyResult& result, const VCard& written,
                          std::string_view cardID, EntryRegistry& registry);

// Applies the editor's draft onto the card as just read, entry by entry:
//
// - Names: N (family;given;middle;prefix;suffix, keeping the card's field
//   count and any component the draft doesn't show), NICKNAME, ORG
//   (organisation;department, further components kept) and TITLE. An empty
//   text removes NICKNAME, TITLE, and ORG when nothing is left in it.
// - FN follows a changed name only when it was the name's own display form
//   ("given family", "family given", the full name with prefix and suffix,
//   or the organisation): it is rewritten in the same form. An FN the user
//   wrote differently is kept. A card without FN gets one when its name
//   changes.
// - Phones, e-mails and web addresses: each draft field whose trimmed value
//   is empty is dropped; one whose id names an entry of the card edits that
//   entry's label and value in place; any other becomes a new entry. Entries
//   no field names are removed with their group (label, X-ABADR and other
//   companions). An entry that was already blank and is still blank is kept
//   as it is: there was nothing to clear. Values keep the card's form (a 4.0
//   "tel:" URI stays a URI).
// - The anchor URL: with draft.anchorURL, the card ends with exactly one
//   anchor entry — its first one, else a new one — labelled "Vellumary
//   Contacts", holding that URL, first among the web addresses; without it,
//   anchor entries stay as they are.
// - Addresses: each of the five parts is compared with what the editor was
//   shown (addressPartsOf); only a part that differs is written, into its
//   own component. A changed street goes into the street component and
//   clears the PO box and extended address, which the editor showed within
//   it. Other components and X-ABADR survive. A draft address with all five
//   parts blank deletes the entry, unless those parts were blank already.
// - Birthday: written in the card's written version's form (3.0
//   "1987-03-14", year-less "BDAY;X-APPLE-OMIT-YEAR=1604:1604-03-14"; 4.0
//   "19870314" or "--0314"); none removes BDAY, except a BDAY that is not a
//   date, which the draft could not show and so did not remove.
// - Links: as social profiles ("X-SOCIALPROFILE;type=<service>;x-user=
//   <handle>:<profile address>"). A link from a social profile, messaging
//   entry or web address edits that entry only when its service or handle
//   changed; a new link adds a social profile; a social profile that reads as
//   a link, or a messaging entry in draft.messageLinkIDs, that no link names
//   any more is removed. Social profiles and messaging entries that are no
//   link are never touched.
// - Phonetic given and family name: X-PHONETIC-FIRST-NAME and
//   X-PHONETIC-LAST-NAME, like TITLE (an empty text removes the line).
// - Other dates: like phones, by id, onto ANNIVERSARY, X-ABDATE and the
//   exporters' own date lines; a date that reads the same is not rewritten,
//   a new one is an X-ABDATE in the birthday's form. Date entries in free
//   text, which the draft can't hold, are never removed.
// - The note, when the draft has one and it differs from cardNote: replaces
//   the first NOTE line's text (further NOTE lines go); a blank text removes
//   every NOTE line. No draft note leaves the note alone.
// - REV, when the card has one, is set to `now` if anything changed.
//
// Order: phones, e-mails, web addresses and addresses are saved in draft
// order. New entries are placed after the entry that precedes them in the
// draft; then the kind's entries take the places they hold between them in
// draft order, each line moved whole with the label lines that follow it and
// its bytes kept, so a draft in the card's own order moves nothing. The
// anchor stays first among the web addresses: it is moved there when it is
// not.
//
// A draft for a new card is applied onto newCardFor(draft, uid). Record the
// result with recordWrittenEntries.
ApplyResult applyDraft(VCard& card, const ContactDraft& draft, std::string_view cardID,
                       EntryRegistry& registry, std::chrono::system_clock::time_point now);

// Changes the card's anchor: reads it from the URL values (or starts a new one
// with a fresh ID), applies `change`, and leaves exactly one anchor entry —
// the first one the card had, keeping its identity, or a new one — labelled
// "Vellumary Contacts", holding Anchor::url(), first among the web
// addresses. Nothing else changes, except REV. Returns the anchor written.
KinID::Anchor changeAnchor(VCard& card, const std::function<void(KinID::Anchor&)>& change,
                           std::chrono::system_clock::time_point now);

struct AnchorChange {
    KinID::Anchor anchor;
    ApplyResult entries; // the identities to record, the anchor entry's kept one included
};

// The same, for a card whose entries have identities in `registry`.
AnchorChange changeAnchor(VCard& card, std::string_view cardID, EntryRegistry& registry,
                          const std::function<void(KinID::Anchor&)>& change,
                          std::chrono::system_clock::time_point now);

// Replaces the card's photo with `jpeg` (3.0: "PHOTO;ENCODING=b;TYPE=JPEG:",
// 4.0: a "data:image/jpeg;base64," URI) at the old photo's place, and drops
// what described the old image: Apple's crop rectangle, X-IMAGEHASH and
// X-IMAGETYPE. Updates REV.
void setPhoto(VCard& card, std::span<const std::uint8_t> jpeg, std::chrono::system_clock::time_point now);
// Removes the photo and its X-IMAGEHASH and X-IMAGETYPE lines; updates REV
// when there was one.
void removePhoto(VCard& card, std::chrono::system_clock::time_point now);

// Whether the card has a NOTE with some text in it (not just white space).
bool hasNote(const VCard& card);

// The note a draft's text stands for: "" for a blank one.
std::string wantedNote(std::string_view note);

// Whether applying the draft would change the card's note (cardNote).
bool draftChangesNote(const VCard& card, const ContactDraft& draft);

// The start of a new card for a draft: vCard 3.0 with PRODID, N, FN (given
// and family name, else the organisation, else the nickname) and `uid`.
// applyDraft then writes the rest.
VCard newCardFor(const ContactDraft& draft, std::string_view uid);

// A social profile's service name, user name and address, as read from
// TYPE (else SERVICE-TYPE, X-SERVICE-TYPE), X-USER (else USERNAME) and the
// value.
struct SocialProfileValue {
    std::string service;
    std::string userName;
    std::string url;

    bool operator==(const SocialProfileValue&) const = default;
};
SocialProfileValue readSocialProfile(const VCardProperty& property);

// Whole groups of a card set at once, as a script to the Contacts
// application sets them ("delete every phone", then "make new phone" for
// each). A group that is present replaces what the card holds; an absent one
// is left alone.
struct WholeGroups {
    std::optional<ContactDraft> names; // only its nine name and work texts count
    std::optional<std::vector<ContactDraft::Field>> phones;
    std::optional<std::vector<ContactDraft::Field>> emails;
    std::optional<std::vector<ContactDraft::Field>> urls; // every web address, anchors included
    std::optional<std::vector<ContactDraft::Address>> addresses;
    std::optional<std::vector<SocialProfileValue>> socialProfiles; // by position
    std::optional<std::optional<DateComponents>> birthday;
    std::optional<std::optional<std::string>> note;
};

// Writes whole groups onto a card the way applyDraft writes a draft, so that
// only what differs changes: names, phones, e-mails, web addresses (every
// one, the anchor being just another entry here) and addresses as applyDraft
// writes them, fields naming the entries they stand for by id; the birthday
// likewise. Social profiles, which a script cannot delete, are set by
// position: the i-th profile of the card takes the i-th value (each of its
// parts only when it differs), further values are added as X-SOCIALPROFILE
// lines, and profiles beyond the list are left as they are. A note replaces
// the first NOTE line's text (further NOTE lines go); none removes every NOTE
// line. REV, when the card has one, is set to `now` if anything changed.
ApplyResult applyWholeGroups(VCard& card, std::string_view cardID, EntryRegistry& registry,
                             const WholeGroups& groups, std::chrono::system_clock::time_point now);

// Sets REV, when the card has one, to `time` in the form its value uses
// (extended "2024-01-02T03:04:05Z" or basic "20240102T030405Z").
void touchRevision(VCard& card, std::chrono::system_clock::time_point time);

} // namespace kinbook
