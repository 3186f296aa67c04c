#pragma once

#include "KinbookKit/vcard/VCardValue.h"

#include <algorithm>
#include <string_view>

// Rough looks at a vCard's unfolded lines, shared by the lossless reader and
// the fast scan of the list so that both split a file into cards and
// properties the same way.
namespace kinbook::vcardlines {

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

inline bool isSpaceOrTab(char c) {
    return c == ' ' || c == '\t';
}

inline bool isBlankLine(std::string_view text) {
    return std::all_of(text.begin(), text.end(), isSpaceOrTab);
}

inline std::string_view trimmedSpaceTab(std::string_view text) {
    while (!text.empty() && isSpaceOrTab(text.back())) {
        text.remove_suffix(1);
    }
    while (!text.empty() && isSpaceOrTab(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}

// "BEGIN:VCARD" or "END:VCARD" in any case, optionally behind a group.
inline bool isMarker(std::string_view line, std::string_view marker) {
    if (line.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        line.remove_prefix(kByteOrderMark.size());
    }
    line = trimmedSpaceTab(line);
    if (line.size() > marker.size() && line[line.size() - marker.size() - 1] == '.') {
        line = line.substr(line.size() - marker.size());
    }
    return equalsIgnoringCase(line, marker);
}

// Both markers end in "D": most lines are told apart by their last
// character before anything else is looked at.
inline bool mayBeMarker(std::string_view line) {
    std::size_t end = line.size();
    while (end > 0 && isSpaceOrTab(line[end - 1])) {
        --end;
    }
    return end > 0 && (line[end - 1] == 'D' || line[end - 1] == 'd');
}

inline bool isBegin(std::string_view line) {
    return line.size() >= 11 && mayBeMarker(line) && isMarker(line, "BEGIN:VCARD");
}

inline bool isEnd(std::string_view line) {
    return line.size() >= 9 && mayBeMarker(line) && isMarker(line, "END:VCARD");
}

// The name and parameters of a logical line, roughly: up to the first colon.
inline std::string_view roughHead(std::string_view text) {
    return text.substr(0, text.find(':'));
}

// Whether the line's parameters name `encoding`, as "ENCODING=X" or a bare
// 2.1 "X".
inline bool declaresEncoding(std::string_view text, std::string_view encoding) {
    std::string_view head = roughHead(text);
    std::size_t pos = head.find(';');
    while (pos != std::string_view::npos) {
        const std::size_t next = head.find(';', pos + 1);
        std::string_view token =
            head.substr(pos + 1, next == std::string_view::npos ? std::string_view::npos : next - pos - 1);
        if (token.size() > 9 && equalsIgnoringCase(token.substr(0, 9), "ENCODING=")) {
            token.remove_prefix(9);
        }
        if (equalsIgnoringCase(trimmedSpaceTab(token), encoding)) {
            return true;
        }
        pos = next;
    }
    return false;
}

// A line of a 2.1 base64 block that continues without the fold marker.
inline bool isBase64Data(std::string_view line) {
    if (isBlankLine(line)) {
        return false;
    }
    return std::all_of(line.begin(), line.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
               c == '/' || c == '=' || c == ' ' || c == '\t';
    });
}

// The property name of a logical line without its group, for the few
// names the readers themselves must recognise.
inline std::string_view roughName(std::string_view text) {
    std::string_view head = roughHead(text);
    head = head.substr(0, head.find(';'));
    const std::size_t dot = head.find('.');
    return dot == std::string_view::npos ? head : head.substr(dot + 1);
}

inline std::string_view roughValue(std::string_view text) {
    const std::size_t colon = text.find(':');
    return colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
}

// "AGENT:BEGIN:VCARD": a 2.1 agent card that starts on the AGENT line itself.
inline bool isAgentBegin(std::string_view text) {
    return equalsIgnoringCase(roughName(text), "AGENT") &&
           equalsIgnoringCase(trimmedSpaceTab(roughValue(text)), "BEGIN:VCARD");
}

// Where the parameter that starts at `start` ends: at the ';' before the next
// parameter or the ':' before the value. A quoted value may hold both. A
// quote left open would swallow the rest of the line, so the parameter is
// then read again as if quotes meant nothing, and `unbalancedQuote` says so.
// `end` is npos when no ':' follows: the line is not a property.
struct ParameterEnd {
    std::size_t end = std::string_view::npos;
    bool unbalancedQuote = false;
};

inline ParameterEnd parameterEnd(std::string_view text, std::size_t start) {
    std::size_t i = start;
    bool inQuotes = false;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '"') {
            inQuotes = !inQuotes;
        } else if (!inQuotes && (c == ';' || c == ':')) {
            return {i, false};
        }
        ++i;
    }
    i = start;
    while (i < text.size() && text[i] != ';' && text[i] != ':') {
        ++i;
    }
    return {i == text.size() ? std::string_view::npos : i, true};
}

} // namespace kinbook::vcardlines
