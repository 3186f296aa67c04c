#pragma once

// Constants of the LZFSE stream format shared by the decoder and the encoders.
// Internal to the codec; not part of the library's interface.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace kinbook::lzfse {

inline constexpr std::uint32_t magicEndOfStream = 0x24787662; // "bvx$"
inline constexpr std::uint32_t magicRaw = 0x2D787662;         // "bvx-"
inline constexpr std::uint32_t magicV1 = 0x31787662;          // "bvx1"
inline constexpr std::uint32_t magicV2 = 0x32787662;          // "bvx2"
inline constexpr std::uint32_t magicLzvn = 0x6E787662;        // "bvxn"

inline constexpr std::size_t v1HeaderSize = 772;
inline constexpr std::size_t v2FixedHeaderSize = 32;

inline constexpr std::uint32_t maxLiteralsPerBlock = 40000;
inline constexpr std::uint32_t maxMatchesPerBlock = 10000;

inline constexpr std::uint32_t literalStates = 1024;
inline constexpr std::uint32_t lStates = 64;
inline constexpr std::uint32_t mStates = 64;
inline constexpr std::uint32_t dStates = 256;

inline constexpr std::uint32_t literalSymbols = 256;
inline constexpr std::uint32_t lSymbols = 20;
inline constexpr std::uint32_t mSymbols = 20;
inline constexpr std::uint32_t dSymbols = 64;

inline constexpr std::uint32_t maxL = 315;
inline constexpr std::uint32_t maxM = 2359;
inline constexpr std::uint32_t maxD = 262139;

inline constexpr std::uint32_t maxLzvnDistance = 65535;

// Inputs from this size on are written as LZFSE blocks, smaller ones as LZVN.
inline constexpr std::size_t lzfseThreshold = 4096;
// Inputs below this size are always written raw.
inline constexpr std::size_t lzvnThreshold = 8;

inline constexpr std::array<std::uint8_t, lSymbols> lExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                  0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
inline constexpr std::array<std::uint32_t, lSymbols> lBaseValue = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                                   10, 11, 12, 13, 14, 15, 16, 20, 28, 60};
inline constexpr std::array<std::uint8_t, mSymbols> mExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                  0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
inline constexpr std::array<std::uint32_t, mSymbols> mBaseValue = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                                   10, 11, 12, 13, 14, 15, 16, 24, 56, 312};

constexpr std::array<std::uint8_t, dSymbols> makeDExtraBits() {
    std::array<std::uint8_t, dSymbols> bits{};
    for (std::uint32_t s = 0; s < dSymbols; ++s) {
        bits[s] = static_cast<std::uint8_t>(s / 4);
    }
    return bits;
}

constexpr std::array<std::uint32_t, dSymbols> makeDBaseValue() {
    std::array<std::uint32_t, dSymbols> base{};
    std::uint32_t next = 0;
    for (std::uint32_t s = 0; s < dSymbols; ++s) {
        base[s] = next;
        next += 1u << (s / 4);
    }
    return base;
}

inline constexpr std::array<std::uint8_t, dSymbols> dExtraBits = makeDExtraBits();
inline constexpr std::array<std::uint32_t, dSymbols> dBaseValue = makeDBaseValue();
static_assert(dBaseValue[63] + (1u << 15) - 1 == maxD);

inline std::uint32_t loadU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

inline std::uint64_t loadU64(const std::uint8_t* p) {
    std::uint64_t value;
    std::memcpy(&value, p, sizeof value);
    if constexpr (std::endian::native == std::endian::big) {
        value = __builtin_bswap64(value);
    }
    return value;
}

inline std::uint16_t loadU16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

// floor(log2(value)) for value > 0.
inline constexpr std::uint32_t floorLog2(std::uint32_t value) {
    std::uint32_t result = 0;
    while (value >>= 1) {
        ++result;
    }
    return result;
}

} // namespace kinbook::lzfse
