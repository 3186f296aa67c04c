#pragma once

#include <string>
#include <string_view>

namespace kinbook {

// Byte-wise ASCII helpers for the many places where a fixed ASCII token is
// matched ignoring case ("kinbook://c/", "ex-", "TYPE=") and no locale may
// take part. Bytes outside ASCII are left as they are.

constexpr char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
}

constexpr char asciiUpper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - ('a' - 'A')) : c;
}

constexpr bool isAsciiSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool isAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The value of a hexadecimal digit of either case; -1 for any other byte.
constexpr int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

inline std::string asciiLowered(std::string_view text) {
    std::string out(text);
    for (auto& c : out) {
        c = asciiLower(c);
    }
    return out;
}

constexpr bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) {
            return false;
        }
    }
    return true;
}

constexpr bool startsWithIgnoringAsciiCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoringAsciiCase(text.substr(0, prefix.size()), prefix);
}

// The text without ASCII white space at either end.
constexpr std::string_view trimAsciiSpace(std::string_view text) {
    while (!text.empty() && isAsciiSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isAsciiSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// True when the text holds nothing but characters from `blanks`.
constexpr bool isBlank(std::string_view text, std::string_view blanks = " ") {
    return text.find_first_not_of(blanks) == std::string_view::npos;
}

} // namespace kinbook
