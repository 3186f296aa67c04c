#pragma once

#include "KinbookKit/vcard/VCardValue.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// One parameter of a content line, as read or as set.
struct VCardParameter {
    // The name as written ("type", "TYPE", "X-SERVICE-TYPE"). A nameless
    // 2.1 parameter ("TEL;CELL;VOICE:") carries the name it stands for:
    // "ENCODING" for QUOTED-PRINTABLE, BASE64, 8BIT, 7BIT and B, "VALUE"
    // for INLINE, URL, URI, CONTENT-ID and CID, "TYPE" for anything else.
    std::string name;
    // The values it means: quotes removed, caret escapes decoded (always in
    // 4.0, in 3.0 inside quotes, never in 2.1), split on commas outside
    // quotes. A quoted TYPE list ("HOME,VOICE") is split too.
    std::vector<std::string> values;
    bool nameless = false;
    // Exactly what stands between the ';' and the next ';' or ':', so that
    // a parameter nobody changed is written back as it was.
    std::string written;

    bool operator==(const VCardParameter&) const = default;
};

// One property of a card: a logical content line
// ("[group.]NAME;param=value:value"), with the exact bytes it was read from.
//
// Reading never fails. The decoding accessors (text, components,
// listValues, parameter values) return valid UTF-8, decoding the transfer
// encoding and character set first (2.1 quoted-printable and CHARSET) and
// then the value's own escaping; rawValue, logicalLine and originalBytes are
// the bytes as read. A line the reader could not
// make sense of is kept as a malformed property: no name, raw bytes only,
// never found by name, always written back byte for byte.
//
// Editing (set...) changes only this property (a malformed one ignores
// edits); the line is then written anew
// — folded at 75 octets, with the card's line ending — and every other line
// stays as it was. Edits are encoded for the version the card will be
// written in: 3.0 or 4.0 as read, 3.0 for a 2.1 card. A 2.1 property is
// brought to 3.0 form by its first edit (see VCard for the exact rules).
//
// A property belongs to one VCard, which hands out pointers to it; they stay
// valid until the property is removed or the VCard destroyed. Not
// thread-safe: one thread edits a VCard at a time; const access from several
// threads is safe.
class VCardProperty {
public:
    // What the line says, case as written.
    const std::string& group() const { return m_group; }
    const std::string& name() const { return m_name; }
    // Case-insensitive comparisons, as names and groups are compared.
    bool is(std::string_view name) const;
    bool isInGroup(std::string_view group) const;

    bool isMalformed() const { return m_malformed; }
    // Changed since it was read (or new).
    bool isModified() const { return m_modified; }

    const std::vector<VCardParameter>& parameters() const { return m_parameters; }
    // The values of every parameter of that name (case-insensitive), in
    // order, repeated parameters merged: "type=CELL;type=VOICE" and
    // "TYPE=CELL,VOICE" both give {"CELL", "VOICE"}.
    std::vector<std::string> parameterValues(std::string_view name) const;
    // Those values joined with ','; none when the parameter is absent.
    std::optional<std::string> parameter(std::string_view name) const;
    // Whether TYPE holds `type`, case-insensitively ("pref" finds "PREF").
    bool hasType(std::string_view type) const;

    // The value as it stands in the unfolded line: still escaped and, in 2.1,
    // still quoted-printable. For fingerprints and opaque values.
    std::string_view rawValue() const;
    // The unfolded line, and the same without its "group." prefix.
    std::string_view logicalLine() const { return m_line; }
    std::string_view lineWithoutGroup() const;
    // The bytes it was read from, every physical line with its line ending;
    // empty for a new property. Unchanged by edits.
    std::string_view originalBytes() const;

    // The value as text: transfer encoding and charset decoded, then TEXT
    // unescaping (lenient: "http\://" gives "http://"), line breaks as LF.
    // For an AGENT that embeds a whole 2.1 card, the embedded card's lines.
    std::string text() const;
    // A structured value (N, ADR, ORG, GENDER): fields split on ';', each
    // field's components split on ',' (in 2.1 commas stay in the text).
    std::vector<std::vector<std::string>> components() const;
    // A list value (CATEGORIES, NICKNAME).
    std::vector<std::string> listValues() const;
    // Inline binary data: ENCODING=b / B / BASE64 (with the image type from
    // TYPE or MEDIATYPE), or a "data:" URI. None for a reference by URI or
    // data that does not decode.
    std::optional<VCardBinary> binary() const;

    // Sets the value as TEXT (escaped). Drops ENCODING and CHARSET, which
    // described the old value. Invalid UTF-8 in `text` is replaced.
    void setText(std::string_view text);
    // Sets a structured value: one inner vector per field, one string per
    // component; the field count is the caller's (keep the card's own).
    void setComponents(const std::vector<std::vector<std::string>>& fields);
    // Convenience: one component per field.
    void setComponents(const std::vector<std::string>& fields);
    void setListValues(const std::vector<std::string>& values);
    // Sets a value that is not TEXT and takes no escaping: a URI (URL, IMPP,
    // 4.0 UID, PHOTO by reference), a date, a phone number in 4.0 URI form.
    // Line breaks become spaces; invalid UTF-8 is replaced. Drops ENCODING
    // and CHARSET.
    void setRawValue(std::string_view value);
    // Sets inline binary data: in 3.0 "ENCODING=b" with the image TYPE
    // ("image/jpeg" gives TYPE=JPEG) and base64; in 4.0 a "data:" URI.
    // Drops VALUE and MEDIATYPE. Other parameters (an Apple crop rectangle)
    // are the caller's to remove.
    void setBinary(std::span<const std::uint8_t> bytes, std::string_view mediaType);

    // Replaces every parameter of that name (case-insensitive) by one with
    // `values`, at the place of the first one; an empty `values` removes it.
    // Keeps the line's own spelling of the name and, for TYPE, the card's
    // habit of repeating the parameter ("type=HOME;type=VOICE") or listing
    // ("TYPE=HOME,VOICE"). Values are quoted and caret-escaped as needed.
    void setParameter(std::string_view name, const std::vector<std::string>& values);
    void removeParameter(std::string_view name);
    // Moves the property into `group` (letters, digits, '-' and '_'; other
    // characters are dropped), or out of any group when empty.
    void setGroup(std::string_view group);

    // The bytes this property contributes to the file: its original bytes
    // when unchanged, else the line folded with `lineEnding`.
    std::string serialize(std::string_view lineEnding) const;

private:
    friend class VCard;

    VCardProperty() = default;

    static VCardProperty parse(std::string line, VCardVersion version, std::string* problem);
    static VCardProperty malformed(std::string line);
    static VCardProperty created(std::string_view group, std::string_view name, VCardVersion version);

    void setSource(std::shared_ptr<const std::string> source, std::size_t begin, std::size_t end);
    void appendToValue(std::string_view more) { m_line.append(more); }
    void setEmbedded(std::string embedded) { m_embedded = std::move(embedded); }
    void rename(std::string_view name);

    // Whether writing this 2.1 line as 3.0 needs it rewritten: nameless
    // parameters, ENCODING, CHARSET, 2.1 VALUE keywords, bytes that are not
    // UTF-8, or an embedded card.
    bool needsUpgradeFrom21() const;
    void upgradeFrom21();
    VCardProperty upgradedFrom21() const;

    // Brings a 2.1 line to 3.0 and marks the property changed; false for a
    // malformed line, which is never edited.
    bool prepareEdit();
    void setEncodedValue(std::string value);
    void dropParameters(std::initializer_list<std::string_view> names);
    void rebuildHead();
    std::string_view head() const;
    std::string transferDecoded() const;

    std::shared_ptr<const std::string> m_source;
    std::size_t m_rawBegin = 0;
    std::size_t m_rawEnd = 0;

    std::string m_line; // the current unfolded line
    std::size_t m_valueOffset = 0;
    std::string m_group;
    std::string m_name;
    std::vector<VCardParameter> m_parameters;
    std::string m_embedded; // a nested 2.1 card under AGENT, unfolded lines joined by LF

    VCardVersion m_syntax = VCardVersion::v3_0; // the syntax m_line is written in
    std::string m_typeSpelling = "TYPE";        // the card's habits, for parameters we add
    bool m_repeatTypes = true;
    bool m_malformed = false;
    bool m_modified = false;
};

} // namespace kinbook
