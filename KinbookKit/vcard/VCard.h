#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/vcard/VCardError.h"
#include "KinbookKit/vcard/VCardProperty.h"
#include "KinbookKit/vcard/VCardValue.h"

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Whether removing a property takes the rest of its group along: the
// X-ABLabel, X-ABADR and other companions that only describe it.
enum class VCardRemoval { propertyOnly, wholeGroup };

// What ensureUid found and did.
enum class UidRepair {
    unchanged,   // exactly one UID line, written "UID" without a group
    added,       // there was none: "UID:<new value>" was added
    normalised,  // UID lines that agree were merged into one plain "UID" line
    conflicting, // several UID lines with different values: nothing changed
};

// One .vcf file as a lossless document: the first card in it, parsed into
// properties that each keep the bytes they were read from, and everything
// else in the file (a BOM, text before the card, further cards after it)
// kept as raw bytes.
//
// Reading. `parse` accepts whatever a sync run or an export left behind:
// CRLF, LF, CR or CR CR LF line endings, mixed; folding (unfolded on bytes, so
// a fold inside a UTF-8 sequence is harmless); 2.1 quoted-printable soft line
// breaks and base64 blocks ended by a blank line; an embedded 2.1 card under
// AGENT. A line it cannot read is kept raw and reported in `warnings()`; a
// card without "END:VCARD" is read to the end of the file, with a warning.
// Only bytes without any "BEGIN:VCARD" line are an error.
//
// Writing. `serialize` of an unchanged document returns the input bytes
// exactly. After edits, every property nobody touched is written from its
// original bytes, in its original place; changed and new properties are
// written folded at 75 octets with the line ending the file uses most (CRLF
// for a new card; CR CR LF in a file that uses it throughout). A card read
// without "END:VCARD" gets one; a card read without VERSION gets
// "VERSION:3.0" after BEGIN. Further cards in the file are never touched.
//
// vCard 2.1. A card is never written as 2.1: once a 2.1 document is changed
// at all, `serialize` writes it as 3.0. Its VERSION line becomes "3.0", and a
// line is rewritten if it uses syntax 3.0 does not have — a nameless
// parameter (TEL;CELL becomes TEL;TYPE=CELL), ENCODING (QUOTED-PRINTABLE,
// 8BIT, 7BIT dropped with the value decoded; BASE64 becomes ENCODING=b with
// the same base64 text refolded and the blank line after it dropped),
// CHARSET (dropped, the value converted to UTF-8), VALUE=URL, CONTENT-ID or
// INLINE (uri, uri, dropped), a value that is not UTF-8 (read as CHARSET
// says, else as Windows-1252), an embedded AGENT card (becomes an escaped
// TEXT value) or a structured value (N, ADR, ORG, GENDER) holding a comma
// or a backslash: 2.1 has no component lists, so a middle name "Paul,George"
// is one name and is written "Paul\,George". Rewritten TEXT, structured and list values are re-escaped for
// 3.0, so a comma inside a 2.1 ADR field becomes "\,". Every other 2.1 line
// stays byte for byte (a NOTE with an unescaped comma among them: 3.0 readers
// take it as it is). Edits to a 2.1 document are encoded as 3.0 from the
// start.
//
// Pointers to properties stay valid until that property is removed or the
// document is destroyed; copying a VCard copies its properties (the copy
// hands out its own pointers) and shares the read bytes. Not thread-safe for
// writing; const access from several threads is safe.
class VCard {
public:
    // Reads the first card in `bytes`. Fails only when there is no card at
    // all (VCardError::empty, VCardError::notAVCard).
    static Result<VCard, VCardError> parse(std::string_view bytes);
    // Every card in an export file, each as its own document whose bytes are
    // just that card (text between cards is dropped). For import.
    static Result<std::vector<VCard>, VCardError> parseAll(std::string_view bytes);
    // A new, empty card: BEGIN, VERSION and END with CRLF. 2.1 gives 3.0.
    static VCard create(VCardVersion version = VCardVersion::v3_0);

    // The version the card was read as (3.0 when it has no VERSION line).
    VCardVersion version() const { return m_version; }
    // The version it is written as once changed: 3.0 for a 2.1 card. Values
    // whose form differs by version (dates, photos) should follow this one.
    VCardVersion writtenVersion() const {
        return m_version == VCardVersion::v2_1 ? VCardVersion::v3_0 : m_version;
    }
    const std::vector<VCardWarning>& warnings() const { return m_warnings; }
    // Cards after the first one; a vdir file should have none. They are kept
    // as raw bytes and written back unchanged.
    std::size_t additionalCardCount() const { return m_additionalCards; }
    // The line ending used for lines this document writes.
    std::string_view lineEnding() const { return m_lineEnding; }
    bool isModified() const;

    // Every property between BEGIN and END in file order, malformed lines
    // included (they have no name).
    std::vector<VCardProperty*> properties();
    std::vector<const VCardProperty*> properties() const;
    // Properties with that name (case-insensitive), in any group.
    std::vector<VCardProperty*> find(std::string_view name);
    std::vector<const VCardProperty*> find(std::string_view name) const;
    VCardProperty* first(std::string_view name);
    const VCardProperty* first(std::string_view name) const;
    // Every property in `group` (case-insensitive); none for an empty group.
    std::vector<VCardProperty*> groupMembers(std::string_view group);
    std::vector<const VCardProperty*> groupMembers(std::string_view group) const;
    // The first other property named `name` in the same group as `property`
    // ("X-ABLabel" for item3.TEL); null when `property` has no group.
    VCardProperty* companion(const VCardProperty& property, std::string_view name);
    const VCardProperty* companion(const VCardProperty& property, std::string_view name) const;
    // A group name no property uses: "item" and one more than the highest
    // itemN already there ("ITEM" when the card writes its groups that way).
    std::string newGroupName() const;

    // Adds an empty property ("NAME:") and returns it for setting its value
    // and parameters. It goes after `after` when given; otherwise after the
    // last line of `group` when that group exists, else after the last
    // property of the same name (and that property's group), else before END.
    VCardProperty& add(std::string_view name, std::string_view group = {},
                       const VCardProperty* after = nullptr);
    // Removes `property` (which must belong to this document; others are
    // ignored), and with wholeGroup every other line of its group.
    void remove(const VCardProperty& property, VCardRemoval scope = VCardRemoval::propertyOnly);

    // Puts `order` (properties of this document, each named once) into the
    // places those same properties hold now, in the given order: the first
    // of them in the file becomes order[0], and so on. Each carries along
    // the lines of its group that directly follow it (its X-ABLabel), and
    // every line keeps its bytes. Nothing changes when they are in that
    // order already.
    void reorder(const std::vector<const VCardProperty*>& order);

    // The card's UID as sync tools see it: the value of the first line named
    // exactly "UID" (upper case, no group). None when there is no such line.
    std::optional<std::string> uid() const;
    // Makes the card carry exactly one plain "UID" line, keeping the value it
    // has; `newUid` is used only when it has none. See UidRepair.
    UidRepair ensureUid(std::string_view newUid);
    // Makes `uid` the card's only UID line, whatever was there.
    void setUid(std::string_view uid);

    std::string serialize() const;

private:
    VCard() = default;

    static Result<VCard, VCardError> parseFirst(std::shared_ptr<const std::string> source);
    void adoptStyle(VCardProperty& property) const;
    std::list<VCardProperty>::iterator locate(const VCardProperty& property);
    std::list<VCardProperty>::iterator insertionPoint(std::string_view name, std::string_view group,
                                                      const VCardProperty* after);
    void writeUid(VCardProperty& property, std::string_view uid);

    std::shared_ptr<const std::string> m_source;
    std::size_t m_propertiesBegin = 0; // after the BEGIN line
    std::size_t m_tailBegin = 0;       // the END line and everything after it
    bool m_missingEnd = false;
    bool m_missingVersion = false;
    bool m_structureChanged = false;
    std::list<VCardProperty> m_properties;
    VCardVersion m_version = VCardVersion::v3_0;
    std::string m_lineEnding = "\r\n";
    std::string m_typeSpelling = "TYPE";
    bool m_repeatTypes = true;
    bool m_upperCaseGroups = false;
    std::size_t m_additionalCards = 0;
    std::vector<VCardWarning> m_warnings;
};

} // namespace kinbook
