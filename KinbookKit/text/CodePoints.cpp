#include "KinbookKit/text/CodePoints.h"

#include <utf8proc.h>

namespace kinbook {

void appendCodePoint(std::string& out, std::int32_t value) {
    utf8proc_uint8_t buffer[4];
    const auto length = utf8proc_encode_char(value, buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

CodePoint decodeAt(std::string_view text, std::size_t position) {
    const auto byte = static_cast<unsigned char>(text[position]);
    if (byte < 0x80) {
        return {byte, 1};
    }
    utf8proc_int32_t value = -1;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + position,
                                         static_cast<utf8proc_ssize_t>(text.size() - position), &value);
    if (length <= 0) {
        return {-1, 1};
    }
    return {value, static_cast<std::size_t>(length)};
}

bool isSpaceCodePoint(std::int32_t value) {
    if (value == ' ' || (value >= '\t' && value <= '\r')) {
        return true;
    }
    if (value < 0x80) {
        return false;
    }
    const auto category = utf8proc_category(value);
    return category == UTF8PROC_CATEGORY_ZS || category == UTF8PROC_CATEGORY_ZL ||
           category == UTF8PROC_CATEGORY_ZP || value == 0x85 || value == 0xFEFF;
}

bool isNumberCodePoint(std::int32_t value) {
    if (value < 0x80) {
        return value >= '0' && value <= '9';
    }
    const auto category = utf8proc_category(value);
    return category == UTF8PROC_CATEGORY_ND || category == UTF8PROC_CATEGORY_NL ||
           category == UTF8PROC_CATEGORY_NO;
}

std::string numberCharacters(std::string_view text) {
    std::string digits;
    for (std::size_t position = 0; position < text.size();) {
        const auto c = decodeAt(text, position);
        if (isNumberCodePoint(c.value)) {
            digits.append(text.substr(position, c.length));
        }
        position += c.length;
    }
    return digits;
}

} // namespace kinbook
