#pragma once

#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/VCard.h"

#include <string>
#include <string_view>

namespace kinbook {

// Reading an entry's label from a card. Labels come in two forms: the
// X-ABLabel line in the entry's group (Apple's and Google's custom labels,
// and Apple's label tokens such as "_$!<School>!$_"), and the TYPE values
// that every writer uses for the common labels (TYPE=CELL, TYPE=HOME;TYPE=FAX).
// Only reading lives here: the writer decides how a label is written back.
//
// All functions are pure and thread-safe; none throws.

// The label of `property` (which belongs to `card`) as a label constant: a
// stock constant ("_$!<Mobile>!$_", "iPhone", "iCloud"), another Apple token
// kept as written ("_$!<Anniversary>!$_", "_$!<Spouse>!$_"), a custom text
// ("ex-work", "Gym") or "" when the entry has none.
//
// An X-ABLabel in the same group wins when it has text: a stock constant or
// token stays what it is, the bare word "Other" (Google) is the other label,
// any other text is custom and kept as written. Otherwise the label comes
// from TYPE, where VOICE, INTERNET and PREF never name a label:
//   TEL   IPHONE iPhone; FAX with HOME home fax, with WORK work fax; CELL
//         mobile (work with WORK); PAGER pager; MAIN main; HOME home; WORK
//         work; OTHER other.
//   EMAIL HOME, WORK, OTHER; ICLOUD iCloud.
//   URL   HOME, WORK, OTHER; HOMEPAGE (or X-HOMEPAGE) homepage.
//   ADR   HOME, WORK, OTHER; POSTAL, PARCEL, DOM and INTL are ignored.
// A phone, e-mail or address with nothing specific is "other" (Google and
// Android write other entries without a TYPE); a web address is unlabelled.
// Any other TYPE value is a custom label: lower-cased when written all in
// capitals, less a leading "X-" (Android's 2.1 custom labels).
// Anniversary properties without a label read as the anniversary token, and
// a 4.0 RELATED line's TYPE (spouse, child, …) as the matching token.
// Social profiles and messaging addresses carry their service in TYPE, so
// only HOME, WORK and OTHER count as labels there.
std::string readLabel(const VCard& card, const VCardProperty& property);

// Whether a TYPE value of an entry of this kind counts towards its label as
// readLabel reads it: false for the values that never name one (VOICE,
// INTERNET, PREF, an address's POSTAL, PARCEL, DOM and INTL, an e-mail's
// X400, and on social profiles and messaging anything but HOME, WORK and
// OTHER), true for every other value, unknown ones included. The writer
// removes exactly these values when it gives an entry another label, so
// that the entry then reads as the label it was given.
bool isLabelType(EntryKind kind, std::string_view type);

// What the user sees for a label constant: a stock constant's display name
// ("mobile", "home fax"), an Apple token's name in words
// ("_$!<AssistantPhone>!$_" is "assistant phone"), a custom text as it is.
std::string labelDisplayText(std::string_view label);

} // namespace kinbook
