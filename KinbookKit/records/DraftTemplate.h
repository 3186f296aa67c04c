#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/records/ContactDraft.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kinbook {

// A contact draft as plain text for a text editor (`kinbook new`, `kinbook
// edit`), and that text read back into a draft.
//
// The text has one field per line, "field: value", comments starting with
// "#", and for the entries of a list (phones, e-mails, web addresses, postal
// addresses, links) a label between the field and the colon, written as a
// word ("phone mobile: +1 555 0100", "email ex-work: ann@acme.example"). An
// entry the card already has ends in a short tag, "[2]". The tag is how the
// entry keeps its identity, so a changed number stays the same entry; the
// tags are numbered from the original draft, so the text carries no store
// identifiers and the reader needs that draft to make sense of them. Lines
// may be moved freely (the entries are saved in the new order); a line
// without a tag is a new entry, and a removed line removes its entry.
//
// What the user left alone comes back exactly as it was: a label or value
// written as rendered keeps the draft's own bytes (its label constant, its
// spaces), so an unchanged text reads back as a draft equal to the original.
//
// Pure functions, safe on any thread.
namespace DraftTemplate {

// Where the text went wrong: a 1-based line and what is wrong with it.
struct Mistake {
    std::size_t line = 0;
    std::string message;

    bool operator==(const Mistake&) const = default;
};

// The text of a draft; `heading` becomes its first comment line(s) (say
// whose card it is).
std::string render(const ContactDraft& draft, std::string_view heading = {});

// The draft a (possibly edited) text describes, applied onto `original` (the
// draft it was rendered from): its id, account, anchor and message links are
// kept, each tagged entry keeps the identity of the original entry of that
// tag, and every entry without a tag is new. The first mistake found ends
// the reading: an unknown field, a field written twice, a bad date, a bad
// label, an unknown or misplaced tag.
Result<ContactDraft, Mistake> parse(std::string_view text, const ContactDraft& original);

// One change for scripts (`kinbook edit --set`): `field` is a template field
// with an optional label ("nickname", "phone work"), `value` its value. A
// text field or the birthday is replaced (an empty value clears it); a list
// field adds a new entry. An address written in one piece is split into its
// parts by the address parser. Fails with the reason on an unknown field, a
// bad label or a bad date, leaving the draft as it was.
Result<void, std::string> set(ContactDraft& draft, std::string_view field, std::string_view value);

// The fields `set` and the template know, for help texts.
std::string fieldNames();

} // namespace DraftTemplate
} // namespace kinbook
