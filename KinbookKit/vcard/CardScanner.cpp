#include "KinbookKit/vcard/CardScanner.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/RawPersonBuilder.h"
#include "KinbookKit/vcard/VCard.h"
#include "KinbookKit/vcard/VCardLines.h"
#include "KinbookKit/vcard/VCardValue.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// The line rules below are the codec's (VCard.cpp, VCardProperty.cpp),
// restated over bytes: where the two could differ, the scanner must follow
// the codec, and the equality tests over real and generated cards hold it to
// that.

namespace kinbook {
namespace {

using namespace vcardlines;

struct PhysicalLine {
    std::size_t begin = 0;
    std::size_t contentEnd = 0;
};

bool contains(std::string_view text, char c) {
    return std::memchr(text.data(), c, text.size()) != nullptr;
}

// Cheap tests that rule out most lines before the exact ones run, from one
// look at the line's head: BASE64 needs a "B" among the parameters, AGENT a
// name ending in "AGENT".
struct HeadHints {
    bool mayDeclareBase64 = false;
    bool mayBeAgent = false;
};

HeadHints headHints(std::string_view text) {
    const std::string_view head = roughHead(text);
    const std::size_t semicolon = head.find(';');
    HeadHints hints;
    if (semicolon != std::string_view::npos) {
        const std::string_view parameters = head.substr(semicolon);
        hints.mayDeclareBase64 = contains(parameters, 'B') || contains(parameters, 'b');
    }
    const std::string_view name = head.substr(0, semicolon);
    hints.mayBeAgent = name.size() >= 5 && equalsIgnoringCase(name.substr(name.size() - 5), "AGENT");
    return hints;
}

bool isNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool isOneOf(std::string_view value, std::initializer_list<std::string_view> candidates) {
    return std::any_of(candidates.begin(), candidates.end(),
                       [&](std::string_view candidate) { return equalsIgnoringCase(value, candidate); });
}

// One content line, read as VCardProperty::parse reads it, without copying.
struct ScannedLine {
    std::string_view name;
    bool hasGroup = false;
    std::string_view parameters; // from the first ';' up to the value's ':'
    // A parameter that may be ENCODING or CHARSET, or a bare 2.1 word (which
    // may be an encoding): only then can the value need decoding.
    bool mayNeedDecoding = false;
    std::string_view value;
};

// The name (and group) of a line; false when the line is not a property.
// Most lines of a card are not wanted, so the name is read first and the
// parameters only when the line counts (scanParameters).
bool scanName(std::string_view text, ScannedLine& line) {
    std::size_t i = 0;
    while (i < text.size() && isNameChar(text[i])) {
        ++i;
    }
    std::size_t nameStart = 0;
    if (i < text.size() && text[i] == '.' && i > 0) {
        nameStart = i + 1;
        i = nameStart;
        while (i < text.size() && isNameChar(text[i])) {
            ++i;
        }
    }
    if (i == nameStart || i == text.size() || (text[i] != ';' && text[i] != ':')) {
        return false;
    }
    line.name = text.substr(nameStart, i - nameStart);
    line.hasGroup = nameStart > 0;
    return true;
}

// The parameters and the value of a line whose name scanName read; false
// when no ':' ends the parameters (not a property after all).
bool scanParameters(std::string_view text, ScannedLine& line) {
    std::size_t i = static_cast<std::size_t>(line.name.data() + line.name.size() - text.data());
    const std::size_t parametersBegin = i;
    while (i < text.size() && text[i] == ';') {
        const std::size_t start = ++i;
        i = parameterEnd(text, start).end;
        if (i == std::string_view::npos) {
            return false;
        }
        if (!line.mayNeedDecoding) {
            const std::string_view written = text.substr(start, i - start);
            const char first = written.empty() ? '\0' : asciiUpper(written.front());
            line.mayNeedDecoding =
                first == 'E' || first == 'C' || written.find('=') == std::string_view::npos;
        }
    }
    line.parameters = text.substr(parametersBegin, i - parametersBegin);
    line.value = text.substr(i + 1);
    return true;
}

// The parameters a value's decoding depends on, with the values joined as
// VCardProperty::parameter joins them.
struct Decoding {
    bool hasEncoding = false;
    std::string encoding;
    bool hasCharset = false;
    std::string charset;
};

void appendParameterValues(std::string_view list, VCardVersion version, std::string& joined) {
    forEachParameterValue(list, version, [&](const std::string& value, bool /*quoted*/) {
        if (!value.empty()) {
            if (!joined.empty()) {
                joined.push_back(',');
            }
            joined += value;
        }
    });
}

// Splits the parameters as the codec does (quotes protect ';' and ':') and
// reads ENCODING and CHARSET, named or as a bare 2.1 word.
Decoding decodingOf(std::string_view parameters, VCardVersion version) {
    Decoding decoding;
    std::size_t i = 0;
    while (i < parameters.size() && parameters[i] == ';') {
        const std::size_t start = ++i;
        bool inQuotes = false;
        while (i < parameters.size()) {
            const char c = parameters[i];
            if (c == '"') {
                inQuotes = !inQuotes;
            } else if (!inQuotes && c == ';') {
                break;
            }
            ++i;
        }
        if (i == parameters.size() && inQuotes) {
            // Unbalanced: the codec reads this parameter up to the next ';'.
            i = start;
            while (i < parameters.size() && parameters[i] != ';') {
                ++i;
            }
        }
        const std::string_view written = parameters.substr(start, i - start);
        const std::size_t equals = written.find('=');
        if (equals == std::string_view::npos) {
            if (isOneOf(written, {"QUOTED-PRINTABLE", "BASE64", "8BIT", "7BIT", "B"})) {
                decoding.hasEncoding = true;
                if (!written.empty()) {
                    if (!decoding.encoding.empty()) {
                        decoding.encoding.push_back(',');
                    }
                    decoding.encoding += makeValidUtf8(written);
                }
            }
            continue;
        }
        const std::string_view name = written.substr(0, equals);
        if (equalsIgnoringCase(name, "ENCODING")) {
            decoding.hasEncoding = true;
            appendParameterValues(written.substr(equals + 1), version, decoding.encoding);
        } else if (equalsIgnoringCase(name, "CHARSET")) {
            decoding.hasCharset = true;
            appendParameterValues(written.substr(equals + 1), version, decoding.charset);
        }
    }
    return decoding;
}

void normaliseLineBreaks(std::string& text) {
    if (text.find('\r') == std::string::npos) {
        return;
    }
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            out.push_back('\n');
            if (i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
        } else {
            out.push_back(text[i]);
        }
    }
    text = std::move(out);
}

class ValueReader {
public:
    ValueReader(const ScannedLine& line, VCardVersion version) : m_line(line), m_version(version) {
        if (line.mayNeedDecoding) {
            m_decoding = decodingOf(line.parameters, version);
        }
    }

    // The value as VCardProperty::text gives it. Plain values (no escapes,
    // no encodings, valid UTF-8) are the raw bytes themselves.
    std::string_view text(std::string& storage) const {
        const std::string_view raw = m_line.value;
        if (!isQuotedPrintable() && isPlain(raw)) {
            return raw;
        }
        storage = unescapeVCardText(transferDecoded());
        normaliseLineBreaks(storage);
        return storage;
    }

    // The value for reading as a structured value; `storage` holds it when
    // it had to be decoded.
    std::string_view structured(std::string& storage) const {
        const std::string_view raw = m_line.value;
        if (!isQuotedPrintable() && (isAscii(raw) || isValidUtf8(raw)) &&
            std::memchr(raw.data(), 0, raw.size()) == nullptr) {
            return raw;
        }
        storage = transferDecoded();
        return storage;
    }

    std::string list() const {
        std::string joined;
        for (auto& value : splitVCardList(transferDecoded())) {
            normaliseLineBreaks(value);
            if (!joined.empty()) {
                joined += ", ";
            }
            joined += value;
        }
        return joined;
    }

    bool hasInlineData() const {
        const std::string_view value = m_line.value;
        if (m_decoding.hasEncoding && isOneOf(m_decoding.encoding, {"B", "BASE64"})) {
            return !isBlankLine(value);
        }
        return value.size() >= 5 && equalsIgnoringCase(value.substr(0, 5), "data:");
    }

private:
    // Text that unescaping, line-break normalising and UTF-8 repair would
    // all leave as it is.
    static bool isPlain(std::string_view raw) {
        if (contains(raw, '\\') || contains(raw, '\r') || contains(raw, '\0')) {
            return false;
        }
        return isAscii(raw) || isValidUtf8(raw);
    }

    static bool isAscii(std::string_view raw) {
        std::size_t i = 0;
        for (; i + 8 <= raw.size(); i += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, raw.data() + i, 8);
            if ((word & 0x8080808080808080ULL) != 0) {
                return false;
            }
        }
        for (; i < raw.size(); ++i) {
            if (static_cast<unsigned char>(raw[i]) >= 0x80) {
                return false;
            }
        }
        return true;
    }

    bool isQuotedPrintable() const {
        return m_decoding.hasEncoding && equalsIgnoringCase(m_decoding.encoding, "QUOTED-PRINTABLE");
    }

    std::string transferDecoded() const {
        const std::string_view value = m_line.value;
        std::string bytes = isQuotedPrintable() ? decodeQuotedPrintable(value) : std::string(value);
        if (isValidUtf8(bytes) && bytes.find('\0') == std::string::npos) {
            return bytes;
        }
        if (m_decoding.hasCharset) {
            return convertToUtf8(bytes, m_decoding.charset);
        }
        if (m_version == VCardVersion::v2_1) {
            return convertToUtf8(bytes, "windows-1252");
        }
        return makeValidUtf8(bytes);
    }

    const ScannedLine& m_line;
    VCardVersion m_version;
    Decoding m_decoding;
};

// Where the unescaped `separator` after `from` is, or the end.
std::size_t nextUnescaped(std::string_view value, std::size_t from, char separator) {
    for (std::size_t i = from; i < value.size(); ++i) {
        if (value[i] == '\\') {
            ++i;
        } else if (value[i] == separator) {
            return i;
        }
    }
    return value.size();
}

// A structured value read in place, split and unescaped only where asked:
// the same components as splitVCardStructured, without building them all.
class StructuredView final : public StructuredValue {
public:
    StructuredView(std::string_view value, bool componentLists)
        : m_value(value), m_componentLists(componentLists) {}

    std::string joined(std::size_t index, std::string_view separator) const override {
        std::string joined;
        const auto field = fieldAt(index);
        if (!field) {
            return joined;
        }
        forEachComponent(*field, [&](std::string_view component, bool first) {
            if (!first) {
                joined += separator;
            }
            appendComponent(component, joined);
        });
        return joined;
    }

    bool isFilled() const override {
        bool filled = false;
        std::string component;
        for (std::size_t start = 0;;) {
            const std::size_t end = nextUnescaped(m_value, start, ';');
            forEachComponent(m_value.substr(start, end - start), [&](std::string_view raw, bool) {
                component.clear();
                appendComponent(raw, component);
                filled = filled || isFilledValue(component);
            });
            if (filled || end == m_value.size()) {
                return filled;
            }
            start = end + 1;
        }
    }

private:
    // Where the fields start, found in one pass when first asked for: the
    // readers ask for several fields of one value in turn.
    static constexpr std::size_t kKnownFields = 8;

    std::optional<std::string_view> fieldAt(std::size_t index) const {
        if (m_fieldCount == 0) {
            for (std::size_t start = 0; m_fieldCount < kKnownFields;) {
                m_fieldStarts[m_fieldCount++] = start;
                const std::size_t end = nextUnescaped(m_value, start, ';');
                if (end == m_value.size()) {
                    m_lastKnownIsLast = true;
                    break;
                }
                start = end + 1;
            }
        }
        std::size_t start = 0;
        if (index < m_fieldCount) {
            start = m_fieldStarts[index];
        } else if (m_lastKnownIsLast) {
            return std::nullopt;
        } else {
            // Beyond the fields no reader asks for: walk on from the last known.
            start = m_fieldStarts[kKnownFields - 1];
            for (std::size_t i = kKnownFields - 1; i < index; ++i) {
                const std::size_t end = nextUnescaped(m_value, start, ';');
                if (end == m_value.size()) {
                    return std::nullopt;
                }
                start = end + 1;
            }
        }
        return m_value.substr(start, nextUnescaped(m_value, start, ';') - start);
    }

    template <typename Visit>
    void forEachComponent(std::string_view field, Visit&& visit) const {
        if (!m_componentLists) {
            visit(field, true);
            return;
        }
        for (std::size_t start = 0, index = 0;; ++index) {
            const std::size_t end = nextUnescaped(field, start, ',');
            visit(field.substr(start, end - start), index == 0);
            if (end == field.size()) {
                return;
            }
            start = end + 1;
        }
    }

    static void appendComponent(std::string_view raw, std::string& out) {
        if (std::none_of(raw.begin(), raw.end(), [](char c) { return c == '\\' || c == '\r'; })) {
            out += raw;
            return;
        }
        std::string component = unescapeVCardText(raw);
        normaliseLineBreaks(component);
        out += component;
    }

    std::string_view m_value;
    bool m_componentLists;
    mutable std::array<std::size_t, kKnownFields> m_fieldStarts{};
    mutable std::size_t m_fieldCount = 0;
    mutable bool m_lastKnownIsLast = false;
};

// The per-thread buffers the walk reuses from card to card.
struct Buffers {
    std::vector<PhysicalLine> lines;
    std::string logical;
    std::string value;
    RawPersonBuilder::Lists lists;
};

Buffers& buffers() {
    thread_local Buffers instance;
    return instance;
}

enum class Walk { done, needsParser };

// Turns physical lines into logical ones the way the codec's first pass does
// and hands each non-blank one to `visit`, which returns false to stop.
template <typename Visit>
Walk walkLogicalLines(std::string_view bytes, const std::vector<PhysicalLine>& lines, std::size_t beginIndex,
                      std::string& scratch, Visit&& visit) {
    const std::size_t n = lines.size();
    auto content = [&](std::size_t k) {
        return bytes.substr(lines[k].begin, lines[k].contentEnd - lines[k].begin);
    };
    std::size_t i = beginIndex + 1;
    while (i < n) {
        const std::string_view line = content(i);
        if (isEnd(line)) {
            return Walk::done;
        }
        if (isBegin(line)) {
            return Walk::needsParser;
        }
        // The logical line stays a view into the bytes until something must
        // be joined to it.
        std::string_view text = line;
        bool copied = false;
        auto append = [&](std::string_view more) {
            if (!copied) {
                scratch.assign(text);
                copied = true;
            }
            scratch.append(more);
            text = scratch;
        };
        std::size_t j = i;
        int quotedPrintable = -1;
        while (j + 1 < n) {
            const std::string_view next = content(j + 1);
            if (!text.empty() && text.back() == '=' && !isBegin(next) && !isEnd(next)) {
                if (quotedPrintable < 0) {
                    quotedPrintable = declaresEncoding(text, "QUOTED-PRINTABLE") ? 1 : 0;
                }
                if (quotedPrintable == 1) {
                    if (!copied) {
                        scratch.assign(text);
                        copied = true;
                    }
                    scratch.pop_back();
                    scratch.append(next);
                    text = scratch;
                    ++j;
                    continue;
                }
            }
            if (!next.empty() && isSpaceOrTab(next[0])) {
                append(next.substr(1));
                ++j;
                continue;
            }
            break;
        }
        if (isBlankLine(text)) {
            i = j + 1;
            continue;
        }
        const HeadHints hints = headHints(text);
        if (hints.mayDeclareBase64 && declaresEncoding(text, "BASE64")) {
            while (j + 1 < n && isBase64Data(content(j + 1))) {
                append(content(j + 1));
                ++j;
            }
            if (j + 1 < n && content(j + 1).empty()) {
                ++j;
            }
        } else if (hints.mayBeAgent && isAgentBegin(text)) {
            return Walk::needsParser;
        }
        if (!visit(text)) {
            return Walk::done;
        }
        i = j + 1;
    }
    return Walk::done;
}

bool readThroughParser(Person& person, std::string_view bytes, std::string_view fileName,
                       std::string_view accountID, bool details, bool* isGroup) {
    auto card = VCard::parse(bytes);
    if (!card) {
        return false;
    }
    if (isGroup != nullptr) {
        *isGroup = isGroupCard(card.value());
    }
    person = readPerson(card.value(), cardIDOf(card.value(), fileName), accountID, details);
    return true;
}

} // namespace

std::optional<Person> scanPerson(std::string_view bytes, std::string_view fileName,
                                 std::string_view accountID, bool details, bool* isGroup) {
    std::optional<Person> person(std::in_place);
    if (!scanPersonInto(*person, bytes, fileName, accountID, details, isGroup)) {
        person.reset();
    }
    return person;
}

bool scanPersonInto(Person& person, std::string_view bytes, std::string_view fileName,
                    std::string_view accountID, bool details, bool* isGroup) {
    if (bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        return false;
    }
    Buffers& scratch = buffers();
    std::vector<PhysicalLine>& lines = scratch.lines;
    lines.clear();
    const char breakChar = std::memchr(bytes.data(), '\n', bytes.size()) != nullptr ? '\n' : '\r';
    std::size_t beginIndex = std::string_view::npos;
    for (std::size_t pos = 0; pos < bytes.size();) {
        const void* found = std::memchr(bytes.data() + pos, breakChar, bytes.size() - pos);
        const std::size_t end =
            found == nullptr ? bytes.size()
                             : static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data());
        std::size_t contentEnd = end;
        while (contentEnd > pos && bytes[contentEnd - 1] == '\r') {
            --contentEnd;
        }
        if (beginIndex == std::string_view::npos && isBegin(bytes.substr(pos, contentEnd - pos))) {
            beginIndex = lines.size();
        }
        lines.push_back({pos, contentEnd});
        pos = found == nullptr ? bytes.size() : end + 1;
    }
    if (beginIndex == std::string_view::npos) {
        return false;
    }

    // The version decides how values decode; it counts wherever its line is,
    // though nearly every card has it first.
    VCardVersion version = VCardVersion::v3_0;
    Walk walk = walkLogicalLines(bytes, lines, beginIndex, scratch.logical, [&](std::string_view text) {
        if (!equalsIgnoringCase(roughName(text), "VERSION")) {
            return true;
        }
        const std::string_view value = trimmedSpaceTab(roughValue(text));
        if (value == "2.1" || value == "2.0") {
            version = VCardVersion::v2_1;
        } else if (value == "4.0") {
            version = VCardVersion::v4_0;
        }
        return false;
    });
    if (walk == Walk::needsParser) {
        return readThroughParser(person, bytes, fileName, accountID, details, isGroup);
    }

    RawPersonBuilder builder(details, scratch.lists);
    walk = walkLogicalLines(bytes, lines, beginIndex, scratch.logical, [&](std::string_view text) {
        ScannedLine line;
        if (!scanName(text, line)) {
            return true;
        }
        const PersonLine kind = builder.classify(line.name, line.hasGroup);
        if (kind == PersonLine::ignored || !scanParameters(text, line)) {
            return true;
        }
        const ValueReader reader(line, version);
        switch (kind) {
        case PersonLine::n:
        case PersonLine::org:
        case PersonLine::adr:
            builder.addFields(
                kind, StructuredView(reader.structured(scratch.value), version != VCardVersion::v2_1));
            break;
        case PersonLine::nickname:
            builder.addText(kind, reader.list());
            break;
        case PersonLine::photo:
            builder.addPhoto(reader.hasInlineData());
            break;
        default:
            builder.addText(kind, reader.text(scratch.value));
            break;
        }
        return true;
    });
    if (walk == Walk::needsParser) {
        return readThroughParser(person, bytes, fileName, accountID, details, isGroup);
    }
    if (isGroup != nullptr) {
        *isGroup = builder.isGroup();
    }
    const auto& uid = builder.uid();
    const std::string_view trimmedUid = uid ? trimAsciiSpace(*uid) : std::string_view();
    if (!trimmedUid.empty()) {
        std::move(builder).finishInto(person, trimmedUid, accountID);
    } else {
        std::move(builder).finishInto(person, cardIDFromFileName(fileName), accountID);
    }
    return true;
}

} // namespace kinbook
