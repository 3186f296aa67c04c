#include "KinbookKit/records/KinID.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/CodePoints.h"

#include <utf8proc.h>

#include <charconv>

namespace kinbook {
namespace {

bool isLetterOrDigit(std::int32_t codepoint) {
    switch (utf8proc_category(codepoint)) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
        return true;
    default:
        return false;
    }
}

// The run of letters and digits at the start of `text`, upper-cased. Letters
// outside ASCII count too: IDs written by other versions may carry them.
std::string leadingIDRun(std::string_view text) {
    std::string id;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    std::size_t position = 0;
    while (position < text.size()) {
        std::int32_t codepoint = 0;
        const auto length = utf8proc_iterate(
            bytes + position, static_cast<utf8proc_ssize_t>(text.size() - position), &codepoint);
        if (length <= 0 || !isLetterOrDigit(codepoint)) {
            break;
        }
        appendCodePoint(id, utf8proc_toupper(codepoint));
        position += static_cast<std::size_t>(length);
    }
    return id;
}

std::optional<std::string> idOfAnchor(std::string_view url) {
    if (!KinID::isAnchorURL(url)) {
        return std::nullopt;
    }
    std::string id = leadingIDRun(url.substr(KinID::scheme.size()));
    if (id.empty()) {
        return std::nullopt;
    }
    return id;
}

// The query's items, or none when any part of it is not valid
// percent-encoding. An item without "=" has no value.
std::optional<std::vector<KinID::QueryItem>> parseQuery(std::string_view query) {
    std::vector<KinID::QueryItem> items;
    if (query.empty()) {
        return items;
    }
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = std::min(query.find('&', start), query.size());
        const std::string_view piece = query.substr(start, end - start);
        const std::size_t equals = piece.find('=');
        // An empty piece ("?&x" or "x&&y") names nothing, and an anchor
        // written back could not keep it.
        if (piece.empty()) {
            if (end == query.size()) {
                break;
            }
            start = end + 1;
            continue;
        }
        KinID::QueryItem item;
        auto name = percentDecode(piece.substr(0, equals));
        if (!name) {
            return std::nullopt;
        }
        item.name = std::move(*name);
        if (equals != std::string_view::npos) {
            auto value = percentDecode(piece.substr(equals + 1));
            if (!value) {
                return std::nullopt;
            }
            item.value = std::move(*value);
        }
        items.push_back(std::move(item));
        if (end == query.size()) {
            break;
        }
        start = end + 1;
    }
    return items;
}

// "r" takes a decimal integer with an optional sign; anything else, and
// integers outside 1…6, mean no circle.
std::optional<ContactCircle> circleFromQueryValue(const std::optional<std::string>& value) {
    if (!value || value->empty()) {
        return std::nullopt;
    }
    std::string_view digits = *value;
    bool negative = false;
    if (digits.front() == '+' || digits.front() == '-') {
        negative = digits.front() == '-';
        digits.remove_prefix(1);
    }
    if (digits.empty()) {
        return std::nullopt;
    }
    long long number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc{} || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return circleFromRawValue(negative ? -number : number);
}

bool isQuerySafe(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
        return true;
    }
    switch (c) {
    case '-':
    case '.':
    case '_':
    case '~':
    case '!':
    case '$':
    case '\'':
    case '(':
    case ')':
    case '*':
    case ',':
    case ';':
    case ':':
    case '@':
    case '/':
    case '?':
        return true;
    default:
        return false;
    }
}

} // namespace

std::string percentEncodeQueryComponent(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (isQuerySafe(byte)) {
            out.push_back(c);
        } else {
            out.push_back('%');
            out.push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0x0F]);
        }
    }
    return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = hexDigitValue(text[i + 1]);
        const int low = hexDigitValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    // The decoded text must be UTF-8: a query that decodes to arbitrary bytes
    // is as unreadable as a broken escape.
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(out.data());
    std::size_t position = 0;
    while (position < out.size()) {
        std::int32_t codepoint = 0;
        const auto length = utf8proc_iterate(
            bytes + position, static_cast<utf8proc_ssize_t>(out.size() - position), &codepoint);
        if (length <= 0) {
            return std::nullopt;
        }
        position += static_cast<std::size_t>(length);
    }
    return out;
}

namespace KinID {

std::string makeID() {
    std::string id;
    id.reserve(8);
    for (int i = 0; i < 8; ++i) {
        id.push_back(alphabet[secureRandomBelow(alphabet.size())]);
    }
    return id;
}

bool isAnchorURL(std::string_view text) {
    if (text.size() < scheme.size()) {
        return false;
    }
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        if (asciiLower(text[i]) != scheme[i]) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> readID(std::span<const std::string> urls) {
    for (const auto& url : urls) {
        if (auto id = idOfAnchor(url)) {
            return id;
        }
    }
    return std::nullopt;
}

std::string anchorURL(std::string_view id) {
    return std::string(scheme) + std::string(id);
}

std::optional<Anchor> Anchor::read(std::span<const std::string> urls) {
    for (const auto& url : urls) {
        if (!isAnchorURL(url)) {
            continue;
        }
        auto id = idOfAnchor(url);
        if (!id) {
            return std::nullopt;
        }
        Anchor anchor;
        anchor.id = std::move(*id);
        const std::size_t questionMark = url.find('?');
        if (questionMark == std::string::npos) {
            return anchor;
        }
        // As in any URL, a fragment ("#…") ends the query.
        std::string_view query = std::string_view(url).substr(questionMark + 1);
        query = query.substr(0, query.find('#'));
        auto items = parseQuery(query);
        if (!items) {
            return anchor;
        }
        // Known names are matched exactly; when one repeats, the last wins.
        for (auto& item : *items) {
            if (item.name == "h") {
                anchor.hidden = item.value == "1";
            } else if (item.name == "r") {
                anchor.circle = circleFromQueryValue(item.value);
            } else if (item.name == "p") {
                anchor.primary = item.value == "1";
            } else {
                anchor.other.push_back(std::move(item));
            }
        }
        return anchor;
    }
    return std::nullopt;
}

std::string Anchor::url() const {
    std::string query;
    auto append = [&query](std::string_view name, const std::optional<std::string>& value) {
        if (!query.empty()) {
            query.push_back('&');
        }
        query += percentEncodeQueryComponent(name);
        if (value) {
            query.push_back('=');
            query += percentEncodeQueryComponent(*value);
        }
    };
    if (hidden) {
        append("h", "1");
    }
    if (circle) {
        append("r", std::to_string(rawValue(*circle)));
    }
    if (primary) {
        append("p", "1");
    }
    for (const auto& item : other) {
        append(item.name, item.value);
    }
    std::string result = anchorURL(id);
    if (!query.empty()) {
        result.push_back('?');
        result += query;
    }
    return result;
}

std::string dragText(std::string_view personID) {
    return std::string(dragPrefix) + std::string(personID);
}

std::vector<std::string> personIDsFromDrop(std::span<const std::string> texts) {
    std::vector<std::string> ids;
    for (const auto& text : texts) {
        std::size_t start = 0;
        while (start <= text.size()) {
            const std::size_t end = std::min(text.find('\n', start), text.size());
            std::string_view line = std::string_view(text).substr(start, end - start);
            // Texts dropped from other programs may end their lines with CR LF.
            if (line.ends_with('\r')) {
                line.remove_suffix(1);
            }
            if (line.starts_with(dragPrefix) && line.size() > dragPrefix.size()) {
                ids.emplace_back(line.substr(dragPrefix.size()));
            }
            start = end + 1;
        }
    }
    return ids;
}

} // namespace KinID
} // namespace kinbook
