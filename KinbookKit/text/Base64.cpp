#include "KinbookKit/text/Base64.h"

#include <array>

namespace kinbook {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& entry : table) {
        entry = -1;
    }
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

constexpr auto kDecode = makeDecodeTable();

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

} // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group =
            (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        out.push_back(kAlphabet[(group >> 18) & 63]);
        out.push_back(kAlphabet[(group >> 12) & 63]);
        out.push_back(kAlphabet[(group >> 6) & 63]);
        out.push_back(kAlphabet[group & 63]);
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = std::uint32_t{bytes[i]} << 16;
        if (rest == 2) {
            group |= std::uint32_t{bytes[i + 1]} << 8;
        }
        out.push_back(kAlphabet[(group >> 18) & 63]);
        out.push_back(kAlphabet[(group >> 12) & 63]);
        out.push_back(rest == 2 ? kAlphabet[(group >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    int count = 0;
    int padding = 0;
    for (char c : text) {
        if (isSpace(c)) {
            continue;
        }
        if (c == '=') {
            ++padding;
            continue;
        }
        const std::int8_t value = kDecode[static_cast<unsigned char>(c)];
        if (value < 0 || padding > 0) {
            return std::nullopt;
        }
        group = (group << 6) | static_cast<std::uint32_t>(value);
        if (++count == 4) {
            out.push_back(static_cast<std::uint8_t>(group >> 16));
            out.push_back(static_cast<std::uint8_t>(group >> 8));
            out.push_back(static_cast<std::uint8_t>(group));
            group = 0;
            count = 0;
        }
    }
    if (padding > 2 || count == 1) {
        return std::nullopt;
    }
    if (count == 2) {
        out.push_back(static_cast<std::uint8_t>(group >> 4));
    } else if (count == 3) {
        out.push_back(static_cast<std::uint8_t>(group >> 10));
        out.push_back(static_cast<std::uint8_t>(group >> 2));
    }
    return out;
}

} // namespace kinbook
