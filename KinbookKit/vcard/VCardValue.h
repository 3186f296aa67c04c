#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The value-level rules of vCard text: escaping, structured and list values,
// the transfer encodings of old cards, character sets, parameter quoting and
// line folding. VCard and VCardProperty use these; the contact mapping may
// use them directly for values it assembles itself.
//
// All functions are pure and thread-safe. None throws; malformed input gives
// a best-effort result, never a failure. Every function that returns text
// for display returns valid UTF-8.

namespace kinbook {

enum class VCardVersion { v2_1, v3_0, v4_0 };

// "2.1", "3.0" or "4.0".
std::string_view versionText(VCardVersion version);

// Inline binary data, decoded: a photo, a logo, a key.
struct VCardBinary {
    std::vector<std::uint8_t> bytes;
    std::string mediaType; // "image/jpeg"; empty when the card does not say

    bool operator==(const VCardBinary&) const = default;
};

// TEXT escaping: backslash, comma and semicolon are escaped, a line break
// (LF, CRLF or CR) becomes "\n". Escaping the semicolon is required in 3.0
// and allowed in 4.0, so one rule serves both.
std::string escapeVCardText(std::string_view text);

// Undoes TEXT escaping: "\n" and "\N" give a line break, "\\" "\," "\;"
// their character. Writers also escape characters no standard lets them
// ("http\://", "\"") — for any other "\x" the backslash is dropped. A
// trailing lone backslash is kept.
std::string unescapeVCardText(std::string_view value);

// Splits a structured value (N, ADR, ORG) into fields on unescaped ';', and
// each field into components on unescaped ','; every component is unescaped.
// `componentLists` false keeps commas inside a field, as 2.1 means them.
// Any number of fields is accepted; an empty value gives one empty field.
std::vector<std::vector<std::string>> splitVCardStructured(std::string_view value,
                                                           bool componentLists = true);

// The inverse: components escaped, joined with ',' and fields with ';'.
std::string joinVCardStructured(const std::vector<std::vector<std::string>>& fields);

// A list value (CATEGORIES, NICKNAME): split on unescaped ',' and unescaped.
std::vector<std::string> splitVCardList(std::string_view value);
std::string joinVCardList(const std::vector<std::string>& values);

// Quoted-printable as 2.1 cards use it: "=XX" gives the byte XX (either
// case); an '=' that starts no valid escape is kept. Soft line breaks must
// already have been joined (the reader does that while unfolding).
std::string decodeQuotedPrintable(std::string_view value);

// Converts bytes in `charset` (an IANA name such as "ISO-8859-1" or
// "Shift_JIS", any case) to UTF-8. An empty or UTF-8 charset, or one that is
// not known, validates instead: invalid bytes become U+FFFD.
std::string convertToUtf8(std::string_view bytes, std::string_view charset);

bool isValidUtf8(std::string_view bytes);

// Valid UTF-8 with every invalid byte sequence replaced by U+FFFD, and NUL
// bytes as well, so that a damaged card never hands raw bytes onwards.
std::string makeValidUtf8(std::string_view bytes);

// A parameter value as written (quotes included) to the value it means:
// surrounding double quotes removed and, when `caretEscapes`, "^n" "^'" "^^"
// decoded (RFC 6868).
std::string decodeVCardParameterValue(std::string_view written, bool caretEscapes);

// Each value of a parameter's comma list as written (`"a,b",c`): a comma
// inside quotes does not separate. `each(value, quoted)` gets the value
// decoded (carets in 4.0, and in quoted 3.0 values) and made valid UTF-8,
// and whether it was written in quotes. The full parser and the list's fast
// scan both read parameters through this, so that they agree.
template <typename Each>
void forEachParameterValue(std::string_view list, VCardVersion version, Each&& each) {
    std::size_t start = 0;
    bool inQuotes = false;
    for (std::size_t i = 0; i <= list.size(); ++i) {
        if (i < list.size() && list[i] == '"') {
            inQuotes = !inQuotes;
            continue;
        }
        if (i < list.size() && (inQuotes || list[i] != ',')) {
            continue;
        }
        const std::string_view piece = list.substr(start, i - start);
        start = i + 1;
        const bool quoted = !piece.empty() && piece.front() == '"';
        const bool carets = version == VCardVersion::v4_0 || (version == VCardVersion::v3_0 && quoted);
        each(makeValidUtf8(decodeVCardParameterValue(piece, carets)), quoted);
    }
}

// A parameter value ready to write: quoted when it holds ':' ';' ',' or
// white space other than a plain space, with '^', '"' and line breaks
// caret-escaped (and then quoted); control characters dropped.
std::string encodeVCardParameterValue(std::string_view value);

// An RFC 2397 "data:" URI to its bytes and media type; base64 and
// percent-encoded forms. None when `uri` is not a data URI or its data does
// not decode.
std::optional<VCardBinary> decodeDataUri(std::string_view uri);

// The media type a 3.0 image TYPE names: "JPEG" or "image/jpeg" give
// "image/jpeg". Empty when the value names no media type.
std::string mediaTypeFromImageType(std::string_view type);

// Folds one logical line for writing: physical lines of at most 75 octets
// (the first) and one space plus 74 octets (the others), never splitting a
// UTF-8 sequence, each followed by `lineEnding`.
std::string foldVCardLine(std::string_view logicalLine, std::string_view lineEnding);

// ASCII case-insensitive equality, for property, parameter and group names.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

} // namespace kinbook
