#include "KinbookKit/vcard/VCardValue.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/Base64.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>

namespace kinbook {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Length of the valid UTF-8 sequence starting at `i`, or 0 when the bytes
// there are not one (RFC 3629: no overlong forms, no surrogates, nothing
// above U+10FFFF).
std::size_t validSequenceLength(std::string_view s, std::size_t i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) {
        return 1;
    }
    auto cont = [&](std::size_t k) {
        return i + k < s.size() && (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80;
    };
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[i + k]); };
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        return cont(1) ? 2 : 0;
    }
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (!cont(1) || !cont(2)) {
            return 0;
        }
        if (b0 == 0xE0 && byte(1) < 0xA0) {
            return 0; // overlong
        }
        if (b0 == 0xED && byte(1) >= 0xA0) {
            return 0; // surrogate
        }
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) {
            return 0;
        }
        if (b0 == 0xF0 && byte(1) < 0x90) {
            return 0;
        }
        if (b0 == 0xF4 && byte(1) >= 0x90) {
            return 0;
        }
        return 4;
    }
    return 0;
}

bool isUtf8Name(std::string_view charset) {
    std::string upper;
    for (char c : charset) {
        if (c != '-' && c != '_') {
            upper.push_back(asciiUpper(c));
        }
    }
    return upper.empty() || upper == "UTF8";
}

// Splits on unescaped `separator`, leaving escapes in place.
std::vector<std::string_view> splitUnescaped(std::string_view value, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\') {
            ++i;
        } else if (value[i] == separator) {
            parts.push_back(value.substr(start, i - start));
            start = i + 1;
        }
    }
    parts.push_back(value.substr(start));
    return parts;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexDigitValue(text[i + 1]);
            const int low = hexDigitValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

} // namespace

std::string_view versionText(VCardVersion version) {
    switch (version) {
    case VCardVersion::v2_1:
        return "2.1";
    case VCardVersion::v3_0:
        return "3.0";
    case VCardVersion::v4_0:
        return "4.0";
    }
    return "3.0";
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return asciiUpper(x) == asciiUpper(y); });
}

std::string escapeVCardText(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case ',':
            out += "\\,";
            break;
        case ';':
            out += "\\;";
            break;
        case '\r':
            if (i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
            out += "\\n";
            break;
        case '\n':
            out += "\\n";
            break;
        default:
            out.push_back(c);
        }
    }
    return out;
}

std::string unescapeVCardText(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c != '\\' || i + 1 == value.size()) {
            out.push_back(c);
            continue;
        }
        const char next = value[++i];
        out.push_back(next == 'n' || next == 'N' ? '\n' : next);
    }
    return out;
}

std::vector<std::vector<std::string>> splitVCardStructured(std::string_view value, bool componentLists) {
    std::vector<std::vector<std::string>> fields;
    for (std::string_view field : splitUnescaped(value, ';')) {
        std::vector<std::string> components;
        if (componentLists) {
            for (std::string_view component : splitUnescaped(field, ',')) {
                components.push_back(unescapeVCardText(component));
            }
        } else {
            components.push_back(unescapeVCardText(field));
        }
        fields.push_back(std::move(components));
    }
    return fields;
}

std::string joinVCardStructured(const std::vector<std::vector<std::string>>& fields) {
    std::string out;
    for (std::size_t f = 0; f < fields.size(); ++f) {
        if (f > 0) {
            out.push_back(';');
        }
        for (std::size_t c = 0; c < fields[f].size(); ++c) {
            if (c > 0) {
                out.push_back(',');
            }
            out += escapeVCardText(fields[f][c]);
        }
    }
    return out;
}

std::vector<std::string> splitVCardList(std::string_view value) {
    std::vector<std::string> values;
    for (std::string_view part : splitUnescaped(value, ',')) {
        values.push_back(unescapeVCardText(part));
    }
    return values;
}

std::string joinVCardList(const std::vector<std::string>& values) {
    std::string out;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) {
            out.push_back(',');
        }
        out += escapeVCardText(values[i]);
    }
    return out;
}

std::string decodeQuotedPrintable(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '=' && i + 2 < value.size()) {
            const int high = hexDigitValue(value[i + 1]);
            const int low = hexDigitValue(value[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out.push_back(value[i]);
    }
    return out;
}

bool isValidUtf8(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = validSequenceLength(bytes, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string makeValidUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = validSequenceLength(bytes, i);
        if (length == 0 || bytes[i] == '\0') {
            out += kReplacement;
            ++i;
            continue;
        }
        out.append(bytes.substr(i, length));
        i += length;
    }
    return out;
}

std::string convertToUtf8(std::string_view bytes, std::string_view charset) {
    if (isUtf8Name(charset)) {
        return makeValidUtf8(bytes);
    }
    const std::string name(charset);
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name.c_str(), &status);
    if (U_FAILURE(status) || converter == nullptr) {
        return makeValidUtf8(bytes);
    }
    // Each input byte yields at most one UTF-16 unit, each unit at most three
    // UTF-8 bytes.
    std::u16string utf16(bytes.size() + 1, u'\0');
    status = U_ZERO_ERROR;
    const int32_t units = ucnv_toUChars(converter, utf16.data(), static_cast<int32_t>(utf16.size()),
                                        bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    ucnv_close(converter);
    if (U_FAILURE(status)) {
        return makeValidUtf8(bytes);
    }
    std::string out;
    out.reserve(static_cast<std::size_t>(units) * 3);
    for (int32_t i = 0; i < units; ++i) {
        std::uint32_t code = utf16[static_cast<std::size_t>(i)];
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < units) {
            const std::uint32_t low = utf16[static_cast<std::size_t>(i) + 1];
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if ((code >= 0xD800 && code <= 0xDFFF) || code == 0) {
            out += kReplacement;
        } else if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return out;
}

std::string decodeVCardParameterValue(std::string_view written, bool caretEscapes) {
    std::string_view inner = written;
    if (inner.size() >= 2 && inner.front() == '"' && inner.back() == '"') {
        inner = inner.substr(1, inner.size() - 2);
    } else if (!inner.empty() && inner.front() == '"') {
        inner.remove_prefix(1); // an unterminated quote: take the rest as the value
    }
    if (!caretEscapes) {
        return std::string(inner);
    }
    std::string out;
    out.reserve(inner.size());
    for (std::size_t i = 0; i < inner.size(); ++i) {
        if (inner[i] == '^' && i + 1 < inner.size()) {
            const char next = inner[i + 1];
            if (next == 'n' || next == 'N') {
                out.push_back('\n');
                ++i;
                continue;
            }
            if (next == '\'') {
                out.push_back('"');
                ++i;
                continue;
            }
            if (next == '^') {
                out.push_back('^');
                ++i;
                continue;
            }
        }
        out.push_back(inner[i]);
    }
    return out;
}

std::string encodeVCardParameterValue(std::string_view value) {
    std::string body;
    body.reserve(value.size());
    bool quote = false;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '^') {
            body += "^^";
            quote = true;
        } else if (c == '"') {
            body += "^'";
            quote = true;
        } else if (c == '\r' || c == '\n') {
            if (c == '\r' && i + 1 < value.size() && value[i + 1] == '\n') {
                ++i;
            }
            body += "^n";
            quote = true;
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            continue;
        } else {
            if (c == ':' || c == ';' || c == ',') {
                quote = true;
            }
            body.push_back(c);
        }
    }
    return quote ? "\"" + body + "\"" : body;
}

std::optional<VCardBinary> decodeDataUri(std::string_view uri) {
    if (uri.size() < 5 || !equalsIgnoringCase(uri.substr(0, 5), "data:")) {
        return std::nullopt;
    }
    const std::size_t comma = uri.find(',');
    if (comma == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view header = uri.substr(5, comma - 5);
    const std::string_view data = uri.substr(comma + 1);
    bool base64 = false;
    if (header.size() >= 7 && equalsIgnoringCase(header.substr(header.size() - 7), ";base64")) {
        base64 = true;
        header.remove_suffix(7);
    }
    VCardBinary binary;
    const std::string_view mediaType = header.substr(0, header.find(';'));
    for (char c : mediaType) {
        binary.mediaType.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
    if (base64) {
        auto bytes = base64Decode(percentDecode(data));
        if (!bytes) {
            return std::nullopt;
        }
        binary.bytes = std::move(*bytes);
    } else {
        const std::string decoded = percentDecode(data);
        binary.bytes.assign(decoded.begin(), decoded.end());
    }
    return binary;
}

std::string mediaTypeFromImageType(std::string_view type) {
    std::string lower;
    for (char c : type) {
        lower.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
    if (lower.find('/') != std::string::npos) {
        return lower;
    }
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kKnown{{
        {"jpeg", "image/jpeg"},
        {"jpg", "image/jpeg"},
        {"png", "image/png"},
        {"gif", "image/gif"},
        {"bmp", "image/bmp"},
        {"tiff", "image/tiff"},
        {"heic", "image/heic"},
        {"webp", "image/webp"},
    }};
    for (const auto& [name, media] : kKnown) {
        if (lower == name) {
            return std::string(media);
        }
    }
    return {};
}

std::string foldVCardLine(std::string_view logicalLine, std::string_view lineEnding) {
    constexpr std::size_t kFirst = 75;
    constexpr std::size_t kNext = 74; // after the one-space fold marker
    std::string out;
    out.reserve(logicalLine.size() + (logicalLine.size() / kNext + 1) * (lineEnding.size() + 1));
    std::size_t pos = 0;
    std::size_t limit = kFirst;
    while (logicalLine.size() - pos > limit) {
        std::size_t cut = pos + limit;
        // Step back over continuation bytes so that a character stays whole;
        // give up after three (the input was not UTF-8 there) and cut anyway.
        std::size_t back = 0;
        while (back < 3 && cut > pos + 1 && (static_cast<unsigned char>(logicalLine[cut]) & 0xC0) == 0x80) {
            --cut;
            ++back;
        }
        if ((static_cast<unsigned char>(logicalLine[cut]) & 0xC0) == 0x80) {
            cut = pos + limit;
        }
        out.append(logicalLine.substr(pos, cut - pos));
        out.append(lineEnding);
        out.push_back(' ');
        pos = cut;
        limit = kNext;
    }
    out.append(logicalLine.substr(pos));
    out.append(lineEnding);
    return out;
}

} // namespace kinbook
