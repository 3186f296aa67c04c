#pragma once

#include "KinbookKit/records/Person.h"

#include <optional>
#include <string_view>

namespace kinbook {

// The list's full read: one raw Person per card file, straight from the
// file's bytes, without building a VCard document. A large address book is
// read this way on every launch, so it walks the bytes once, unfolds lines
// into a reused per-thread buffer only when they are folded, passes over
// photo data without decoding it, and decodes only the values a Person
// holds (with the codec's own escaping, quoted-printable and character-set
// rules).
//
// The result is exactly readPerson(parsed card, cardIDOf(parsed card,
// fileName), accountID, details) for the same bytes; cards with a structure
// the fast walk does not handle (an embedded AGENT card, a card nested in
// another) are read through the full parser, with the same result.
//
// None when the bytes hold no card at all (what VCard::parse refuses).
// `isGroup`, when given, says whether the card is a group card, which the
// list leaves out. Thread-safe: each thread uses its own buffers.
std::optional<Person> scanPerson(std::string_view bytes, std::string_view fileName,
                                 std::string_view accountID, bool details, bool* isGroup = nullptr);

// The same into `person`, a freshly made one the caller keeps: a full read
// of a large address book fills its people in place. False, with `person`
// left as it was, when the bytes hold no card.
bool scanPersonInto(Person& person, std::string_view bytes, std::string_view fileName,
                    std::string_view accountID, bool details, bool* isGroup = nullptr);

} // namespace kinbook
