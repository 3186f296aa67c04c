#include "KinbookKit/SecureRandom.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kinbook {
namespace {

__extension__ using UInt128 = unsigned __int128;

void fillRandom(void* buffer, std::size_t size) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const ssize_t got = getrandom(bytes, size, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            // Without a random source no identifier can be made safely; this
            // only happens on kernels older than 3.17.
            std::abort();
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
}

} // namespace

std::uint64_t secureRandom64() {
    std::uint64_t value = 0;
    fillRandom(&value, sizeof value);
    return value;
}

std::uint64_t secureRandomBelow(std::uint64_t bound) {
    const std::uint64_t threshold = (0 - bound) % bound; // 2^64 mod bound
    for (;;) {
        const UInt128 product = static_cast<UInt128>(secureRandom64()) * bound;
        if (static_cast<std::uint64_t>(product) >= threshold) {
            return static_cast<std::uint64_t>(product >> 64);
        }
    }
}

std::string makeUUID() {
    std::array<unsigned char, 16> bytes{};
    fillRandom(bytes.data(), bytes.size());
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(kHex[bytes[i] >> 4]);
        text.push_back(kHex[bytes[i] & 0x0F]);
    }
    return text;
}

} // namespace kinbook
