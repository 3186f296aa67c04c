#pragma once

// Shared helpers of the LZFSE tests: reading the vectors and making inputs.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kinbook::testing {

inline std::filesystem::path lzfseVectorDir() {
    return std::filesystem::path(KINBOOK_TESTDATA_DIR "/lzfse/");
}

inline std::vector<std::uint8_t> readFileBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline std::vector<std::uint8_t> readVector(const std::string& name) {
    return readFileBytes(lzfseVectorDir() / name);
}

// Deterministic pseudo-random bytes (SplitMix64), incompressible for the codec.
inline std::vector<std::uint8_t> randomBytes(std::size_t size, std::uint64_t seed) {
    std::vector<std::uint8_t> out(size);
    std::uint64_t state = seed;
    for (std::size_t i = 0; i < size; ++i) {
        if (i % 8 == 0) {
            state += 0x9E3779B97F4A7C15ull;
        }
        std::uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        z ^= z >> 31;
        out[i] = static_cast<std::uint8_t>(z >> (8 * (i % 8)));
    }
    return out;
}

inline std::uint32_t magicAt(const std::vector<std::uint8_t>& stream, std::size_t offset) {
    return static_cast<std::uint32_t>(stream[offset]) | static_cast<std::uint32_t>(stream[offset + 1]) << 8 |
           static_cast<std::uint32_t>(stream[offset + 2]) << 16 |
           static_cast<std::uint32_t>(stream[offset + 3]) << 24;
}

} // namespace kinbook::testing
