#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kinbook {

// One character of UTF-8 text: its code point, or -1 for a byte that starts
// no valid sequence (skipped on its own, so damaged text still reads on).
struct CodePoint {
    std::int32_t value;
    std::size_t length; // bytes taken
};

// The character that starts at `position`, which must be inside `text`.
CodePoint decodeAt(std::string_view text, std::size_t position);

// Appends the UTF-8 bytes of a code point.
void appendCodePoint(std::string& out, std::int32_t value);

// White space in any script, line separators and the byte-order mark included.
bool isSpaceCodePoint(std::int32_t value);

// A number character in any script: decimal digits, letter-like numerals
// (Roman numerals) and other numbers (superscripts, fractions).
bool isNumberCodePoint(std::int32_t value);

// The number characters of `text`, in order, as UTF-8: "+1 (555) 010-0199"
// gives "15550100199".
std::string numberCharacters(std::string_view text);

} // namespace kinbook
