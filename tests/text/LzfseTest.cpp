// The LZFSE codec against the reference vectors in tests/data/lzfse, streams
// made by hand for the faults those do not cover, and a reader of the
// encoder's blocks written apart from the decoder.

#include "KinbookKit/text/Lzfse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {
namespace {

const std::filesystem::path kVectors = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "lzfse";

std::vector<std::uint8_t> readVector(const std::string& name) {
    std::ifstream file(kVectors / name, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Deterministic pseudo-random bytes (SplitMix64), incompressible for the codec.
std::vector<std::uint8_t> randomBytes(std::size_t size, std::uint64_t seed) {
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

std::uint32_t magicAt(const std::vector<std::uint8_t>& stream, std::size_t offset) {
    return static_cast<std::uint32_t>(stream[offset]) | static_cast<std::uint32_t>(stream[offset + 1]) << 8 |
           static_cast<std::uint32_t>(stream[offset + 2]) << 16 |
           static_cast<std::uint32_t>(stream[offset + 3]) << 24;
}

constexpr std::size_t generousLimit = std::size_t{1} << 30;

constexpr std::uint32_t magicEnd = 0x24787662;
constexpr std::uint32_t magicRaw = 0x2D787662;
constexpr std::uint32_t magicV2 = 0x32787662;
constexpr std::uint32_t magicLzvn = 0x6E787662;

std::vector<std::string> validVectorNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kVectors)) {
        if (entry.path().extension() == ".bin") {
            names.push_back(entry.path().stem().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> corruptVectorNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kVectors)) {
        if (entry.path().filename().string().starts_with("corrupt-")) {
            names.push_back(entry.path().filename().string());
        }
    }
    if (std::filesystem::exists(kVectors / "regressions")) {
        for (const auto& entry : std::filesystem::directory_iterator(kVectors / "regressions")) {
            names.push_back("regressions/" + entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

// Each vector decodes within a limit of exactly its content's size, and not
// within one byte less.
TEST(LzfseDecompressTest, DecodesEveryVectorToItsContentWithinAnExactLimit) {
    const auto names = validVectorNames();
    ASSERT_GE(names.size(), 19u);
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const auto expected = readVector(name + ".bin");
        const auto stream = readVector(name + ".lzfse");
        ASSERT_FALSE(stream.empty());
        const auto result = lzfseDecompress(stream, expected.size());
        ASSERT_TRUE(result.ok()) << describe(result.error());
        EXPECT_TRUE(*result == expected);
        if (!expected.empty()) {
            const auto below = lzfseDecompress(stream, expected.size() - 1);
            ASSERT_FALSE(below.ok());
            EXPECT_EQ(below.error(), LzfseError::sizeLimitExceeded);
        }
    }
}

// Every corrupt vector and every input the fuzzer once broke the decoder
// with is refused; the made ones say what is wrong with them.
TEST(LzfseDecompressTest, RejectsEveryCorruptVectorNamingItsFault) {
    const std::map<std::string, LzfseError> faults = {
        {"corrupt-truncated-header.lzfse", LzfseError::truncated},
        {"corrupt-truncated-v2-payload.lzfse", LzfseError::truncated},
        {"corrupt-truncated-lzvn-payload.lzfse", LzfseError::truncated},
        {"corrupt-missing-end-of-stream.lzfse", LzfseError::truncated},
        {"corrupt-bad-magic.lzfse", LzfseError::badBlockMagic},
        {"corrupt-huge-raw-size.lzfse", LzfseError::truncated},
        {"corrupt-huge-lzvn-size.lzfse", LzfseError::badBlockHeader},
        {"corrupt-huge-literal-count.lzfse", LzfseError::badBlockHeader},
        {"corrupt-fse-table-bitflip.lzfse", LzfseError::badFrequencyTable},
        {"corrupt-state-out-of-range.lzfse", LzfseError::badState},
        {"corrupt-lzvn-bad-distance.lzfse", LzfseError::badDistance},
        {"corrupt-lzvn-undefined-opcode.lzfse", LzfseError::undefinedOpcode},
    };
    const auto names = corruptVectorNames();
    ASSERT_GE(names.size(), faults.size());
    std::size_t named = 0;
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const auto result = lzfseDecompress(readVector(name), generousLimit);
        ASSERT_FALSE(result.ok());
        if (const auto fault = faults.find(name); fault != faults.end()) {
            ++named;
            EXPECT_EQ(result.error(), fault->second) << describe(result.error());
        }
    }
    EXPECT_EQ(named, faults.size());
}

TEST(LzfseDecompressTest, RejectsEveryProperPrefixOfAValidStream) {
    for (const char* name : {"text-4096.lzfse", "handmade-mixed-blocks.lzfse", "contacts-json-3k.lzfse",
                             "handmade-v1-header.lzfse", "run-100k.lzfse"}) {
        SCOPED_TRACE(name);
        const auto stream = readVector(name);
        for (std::size_t length = 0; length < stream.size(); ++length) {
            const auto result = lzfseDecompress(std::span(stream.data(), length), generousLimit);
            ASSERT_FALSE(result.ok()) << "prefix of " << length << " bytes";
        }
    }
}

// The format has no checksum, so a flipped bit may decode to wrong bytes; it
// must never decode to a different size, read out of bounds or crash.
TEST(LzfseDecompressTest, SingleBitFlipsNeverChangeTheDecodedSize) {
    for (const char* name : {"text-4096", "contacts-json-3k", "handmade-mixed-blocks"}) {
        SCOPED_TRACE(name);
        const auto stream = readVector(std::string(name) + ".lzfse");
        const std::size_t expectedSize = readVector(std::string(name) + ".bin").size();
        for (std::size_t bit = 0; bit < stream.size() * 8; ++bit) {
            auto damaged = stream;
            damaged[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            const auto result = lzfseDecompress(damaged, generousLimit);
            if (result.ok()) {
                ASSERT_EQ(result->size(), expectedSize) << "bit " << bit;
            }
        }
    }
}

// A block header's size is only a claim: one that the block's payload could
// never produce is refused before any memory is set aside for it.
TEST(LzfseDecompressTest, RefusesAClaimedSizeTheBlockCannotProduce) {
    struct Case {
        const char* what;
        const char* vector;
        std::uint32_t rawBytes;
        std::uint32_t matches; // 0: unchanged
    };
    const Case cases[] = {
        {"more than its triples can copy", "text-4096.lzfse", 20'000'000, 0},
        {"more than its triples can copy", "run-100k.lzfse", 200'000, 0},
        // 10 000 triples could copy 23 MB, but not with 301 bytes of match codes.
        {"more than its match codes can pay for", "text-4096.lzfse", 1'000'000, 10'000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto stream = readVector(c.vector);
        for (int i = 0; i < 4; ++i) {
            stream[4 + i] = static_cast<std::uint8_t>(c.rawBytes >> (8 * i));
        }
        if (c.matches != 0) {
            // n_matches: bits 40..59 of the first packed word, at byte 8.
            stream[13] = static_cast<std::uint8_t>(c.matches);
            stream[14] = static_cast<std::uint8_t>(c.matches >> 8);
            stream[15] = static_cast<std::uint8_t>((stream[15] & 0xF0) | ((c.matches >> 16) & 0x0F));
        }
        const auto result = lzfseDecompress(stream, generousLimit);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error(), LzfseError::badBlockHeader);
    }
}

TEST(LzfseDecompressTest, NeverTakesMoreMemoryThanTheLimit) {
    // Seven raw blocks of 1,000 bytes fill a 7,000-byte limit exactly; the
    // output grows block by block, and its growth may not overshoot the
    // limit either. An eighth block is refused before any memory is taken.
    std::vector<std::uint8_t> stream;
    const auto put32 = [&](std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            stream.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    };
    for (int block = 0; block < 7; ++block) {
        put32(magicRaw);
        put32(1000);
        stream.insert(stream.end(), 1000, static_cast<std::uint8_t>('a' + block));
    }
    put32(magicEnd);
    const auto decoded = lzfseDecompress(stream, 7000);
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(decoded->size(), 7000u);
    EXPECT_LE(decoded->capacity(), 7000u);

    const auto over = lzfseDecompress(stream, 6999);
    ASSERT_FALSE(over.ok());
    EXPECT_EQ(over.error(), LzfseError::sizeLimitExceeded);
}

// Hand-made streams for faults the reference vectors do not cover.
TEST(LzfseDecompressTest, RejectsMalformedHandMadeBlocks) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> stream;
        LzfseError error;
    };
    const std::vector<Case> cases = {
        {"empty input", {}, LzfseError::truncated},
        {"partial magic", {0x62, 0x76, 0x78}, LzfseError::truncated},
        {"raw block header cut short", {0x62, 0x76, 0x78, 0x2D, 0x05, 0x00}, LzfseError::truncated},
        {"LZVN block with no content",
         {0x62, 0x76, 0x78, 0x6E, 0, 0, 0, 0, 8, 0, 0, 0, 0x06, 0, 0, 0, 0, 0, 0, 0, 0x62, 0x76, 0x78, 0x24},
         LzfseError::badBlockHeader},
        {"LZVN end-of-stream before the end of the payload",
         {0x62, 0x76, 0x78, 0x6E, 1, 0, 0, 0, 11, 0,    0,    0,    0xE1, 'a',
          0x06, 0,    0,    0,    0, 0, 0, 0, 0,  0x62, 0x76, 0x78, 0x24},
         LzfseError::badBlockHeader},
        {"LZVN end-of-stream cut short",
         {0x62, 0x76, 0x78, 0x6E, 1, 0, 0, 0, 6, 0, 0, 0, 0xE1, 'a', 0x06, 0, 0, 0, 0x62, 0x76, 0x78, 0x24},
         LzfseError::truncated},
        {"LZVN producing less than it declares",
         {0x62, 0x76, 0x78, 0x6E, 2, 0, 0, 0, 10, 0,    0,    0,    0xE1,
          'a',  0x06, 0,    0,    0, 0, 0, 0, 0,  0x62, 0x76, 0x78, 0x24},
         LzfseError::contentSizeMismatch},
        {"LZVN producing more than it declares",
         {0x62, 0x76, 0x78, 0x6E, 1, 0, 0, 0, 11, 0,    0,    0,    0xE2, 'a',
          'b',  0x06, 0,    0,    0, 0, 0, 0, 0,  0x62, 0x76, 0x78, 0x24},
         LzfseError::contentSizeMismatch},
        {"LZVN previous-distance match at block start",
         {0x62, 0x76, 0x78, 0x6E, 4, 0, 0, 0, 11, 0,    0,    0,    0xE1, 'a',
          0xF3, 0x06, 0,    0,    0, 0, 0, 0, 0,  0x62, 0x76, 0x78, 0x24},
         LzfseError::badDistance},
        {"v2 header size below its fixed part",
         {0x62, 0x76, 0x78, 0x32, 0, 0,    0,  0, 0, 0, 0, 0, 0, 0, 0,    0,    0,    0,
          0,    0,    0,    0,    0, 0x70, 16, 0, 0, 0, 0, 0, 0, 0, 0x62, 0x76, 0x78, 0x24},
         LzfseError::badBlockHeader},
        {"v2 without tables that still codes literals",
         {0x62, 0x76, 0x78, 0x32, 0, 0,    0,  0, 4, 0, 0, 0, 0, 0, 0,    0x70, 0,    0,
          0,    0,    0,    0,    0, 0x70, 32, 0, 0, 0, 0, 0, 0, 0, 0x62, 0x76, 0x78, 0x24},
         LzfseError::badFrequencyTable},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto result = lzfseDecompress(c.stream, generousLimit);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error(), c.error) << describe(result.error());
    }
}

// What the format allows and a strict reader might refuse: bytes after the
// end of the stream, and a v2 block without tables that codes nothing.
TEST(LzfseDecompressTest, AcceptsTrailingBytesAndAnEmptyV2BlockWithoutTables) {
    auto trailing = readVector("five-bytes.lzfse");
    trailing.insert(trailing.end(), {0xDE, 0xAD, 0xBE, 0xEF, 0x00});
    const std::vector<std::uint8_t> emptyV2 = {
        0x62, 0x76, 0x78, 0x32, 0, 0, 0, 0,    0,   0,   0,    0,    0,    0,   0, 0x70,
        0,    0,    0,    0,    0, 0, 0, 0x70, 32,  0,   0,    0,    0,    0,   0, 0,
        0x62, 0x76, 0x78, 0x2D, 2, 0, 0, 0,    'o', 'k', 0x62, 0x76, 0x78, 0x24};
    for (const auto& [stream, content] :
         {std::pair{trailing, bytesOf("Hello")}, std::pair{emptyV2, bytesOf("ok")}}) {
        const auto result = lzfseDecompress(stream, generousLimit);
        ASSERT_TRUE(result.ok()) << describe(result.error());
        EXPECT_EQ(*result, content);
    }
}

std::vector<std::uint8_t> textPrefix(std::size_t size) {
    const auto text = readVector("repetitive-200k.bin");
    return std::vector<std::uint8_t>(text.begin(),
                                     text.begin() + static_cast<std::ptrdiff_t>(std::min(size, text.size())));
}

// Inputs at the edges of every size class and block limit, with the kind of
// block each must start with where that is decided by its size alone.
struct EdgeInput {
    std::string what;
    std::vector<std::uint8_t> bytes;
    std::optional<std::uint32_t> firstMagic;
};

std::vector<EdgeInput> edgeInputs() {
    std::vector<EdgeInput> inputs = {
        {"empty", {}, magicRaw},
        {"one byte", {0x41}, magicRaw},
        {"7 bytes", textPrefix(7), magicRaw},
        {"8 bytes", textPrefix(8), std::nullopt},
        {"8 bytes that do not shrink", bytesOf("Contacts"), magicRaw},
        {"9 bytes", textPrefix(9), std::nullopt},
        {"8 equal bytes", std::vector<std::uint8_t>(8, 'z'), magicRaw},
        {"24 equal bytes", std::vector<std::uint8_t>(24, 'a'), magicLzvn},
        {"small text", textPrefix(1000), magicLzvn},
        {"4095 bytes", textPrefix(4095), magicLzvn},
        {"4096 bytes", textPrefix(4096), magicV2},
        {"4097 bytes", textPrefix(4097), std::nullopt},
        {"large text", textPrefix(SIZE_MAX), magicV2},
        {"random 3000", randomBytes(3000, 9), magicRaw},
        {"random 4095", randomBytes(4095, 1), magicRaw},
        {"random 4096", randomBytes(4096, 2), magicRaw},
        {"random 5000", randomBytes(5000, 10), magicRaw},
        {"random 200k", randomBytes(200000, 3), std::nullopt},
        {"zeros 5M", std::vector<std::uint8_t>(5'000'000, 0), std::nullopt},
        {"run of 2359 + 1", std::vector<std::uint8_t>(2360 + 4096, 'x'), std::nullopt},
    };
    // Short repeats of a 3-byte pattern: overlapping copies with D = 3 and
    // many triples, enough to close blocks on the triple limit.
    std::vector<std::uint8_t> pattern;
    for (std::size_t i = 0; i < 300000; ++i) {
        pattern.push_back(static_cast<std::uint8_t>(i % 7 == 0 ? 'a' + (i / 7) % 5 : "abc"[i % 3]));
    }
    inputs.push_back({"short patterns 300k", pattern, std::nullopt});
    // Random text with one repeat at the largest distance LZFSE can code and
    // one just beyond it.
    auto far = randomBytes(600000, 4);
    std::copy(far.begin() + 1000, far.begin() + 1400, far.begin() + 1000 + 262139);
    std::copy(far.begin() + 5000, far.begin() + 5400, far.begin() + 5000 + 262140 + 1000);
    inputs.push_back({"matches at the largest distance", far, std::nullopt});
    // Content that alternates between random and repeated stretches, so that
    // blocks fall back to raw between compressed ones.
    std::vector<std::uint8_t> mixed;
    for (std::uint64_t chunk = 0; chunk < 12; ++chunk) {
        auto part = chunk % 2 == 0 ? randomBytes(50000, chunk) : textPrefix(50000);
        mixed.insert(mixed.end(), part.begin(), part.end());
    }
    inputs.push_back({"alternating random and text", mixed, std::nullopt});
    return inputs;
}

TEST(LzfseCompressTest, RoundTripsEveryVectorAndEdgeInputInTheBlockItsSizeCallsFor) {
    auto inputs = edgeInputs();
    for (const auto& name : validVectorNames()) {
        inputs.push_back({name, readVector(name + ".bin"), std::nullopt});
    }
    for (const auto& input : inputs) {
        SCOPED_TRACE(input.what);
        const auto stream = lzfseCompress(input.bytes);
        ASSERT_GE(stream.size(), 4u);
        EXPECT_EQ(magicAt(stream, stream.size() - 4), magicEnd);
        if (input.firstMagic) {
            EXPECT_EQ(magicAt(stream, 0), *input.firstMagic);
        }
        const auto result = lzfseDecompress(stream, input.bytes.size());
        ASSERT_TRUE(result.ok()) << describe(result.error());
        EXPECT_TRUE(*result == input.bytes);
    }
}

// The empty input is written byte for byte as the reference encoder writes
// it; incompressible input grows by a block header per block only; the rest
// stays within ten percent of the reference encoder's size.
TEST(LzfseCompressTest, StaysCloseToTheReferenceEncodersSize) {
    EXPECT_EQ(lzfseCompress({}), readVector("empty.lzfse"));
    const auto random = readVector("random-300k.bin");
    EXPECT_LE(lzfseCompress(random).size(), random.size() + 12 * 8 + 4);
    for (const char* name : {"text-4096", "text-10k", "repetitive-200k", "contacts-json-3k", "mixed-1m"}) {
        SCOPED_TRACE(name);
        const auto reference = readVector(std::string(name) + ".lzfse");
        const auto ours = lzfseCompress(readVector(std::string(name) + ".bin"));
        EXPECT_LE(static_cast<double>(ours.size()), 1.10 * static_cast<double>(reference.size()))
            << "ours " << ours.size() << ", reference " << reference.size();
    }
}

// ---------------------------------------------------------------------------
// The encoder's blocks, field by field, read apart from the decoder, so that
// a mistake shared by our encoder and our decoder still shows up here.

std::uint64_t u64At(const std::vector<std::uint8_t>& s, std::size_t offset) {
    return static_cast<std::uint64_t>(magicAt(s, offset)) | static_cast<std::uint64_t>(magicAt(s, offset + 4))
                                                                << 32;
}

std::uint64_t bitsOf(std::uint64_t word, unsigned first, unsigned width) {
    return (word >> first) & ((std::uint64_t{1} << width) - 1);
}

// Reads the frequency code one bit at a time, in the order the bits are
// written: a prefix of up to 4 bits names the code length.
struct FrequencyCodeReader {
    const std::vector<std::uint8_t>& stream;
    std::size_t bitPosition;

    unsigned bit() {
        const unsigned value = (stream[bitPosition / 8] >> (bitPosition % 8)) & 1;
        ++bitPosition;
        return value;
    }
    unsigned bits(unsigned count) {
        unsigned value = 0;
        for (unsigned i = 0; i < count; ++i) {
            value |= bit() << i;
        }
        return value;
    }
    unsigned next() {
        if (bit() == 0) {
            return bit(); // 0 x
        }
        if (bit() == 0) {
            return 2 + bit(); // 1 0 x
        }
        if (bit() == 0) {
            return 4 + bits(2); // 1 1 0 xx
        }
        if (bit() == 0) {
            return 8 + bits(4); // 1 1 1 0 xxxx
        }
        return 24 + bits(10); // 1 1 1 1 xxxxxxxxxx
    }
};

struct BlockSummary {
    std::uint32_t magic;
    std::uint32_t rawBytes;
};

// Walks a stream our encoder wrote and checks every field of each "bvx2"
// block against the format's rules. Returns the blocks seen.
std::vector<BlockSummary> checkStructure(const std::vector<std::uint8_t>& stream) {
    std::vector<BlockSummary> blocks;
    std::size_t offset = 0;
    for (;;) {
        EXPECT_LE(offset + 4, stream.size());
        if (offset + 4 > stream.size()) {
            return blocks;
        }
        const std::uint32_t magic = magicAt(stream, offset);
        if (magic == magicEnd) {
            EXPECT_EQ(offset + 4, stream.size()) << "bytes after the end of stream";
            return blocks;
        }
        const std::uint32_t rawBytes = magicAt(stream, offset + 4);
        blocks.push_back({magic, rawBytes});
        if (magic == magicRaw) {
            offset += 8 + rawBytes;
            continue;
        }
        if (magic == magicLzvn) {
            offset += 12 + magicAt(stream, offset + 8);
            continue;
        }
        EXPECT_EQ(magic, magicV2);
        if (magic != magicV2) {
            return blocks;
        }
        const std::uint64_t w0 = u64At(stream, offset + 8);
        const std::uint64_t w1 = u64At(stream, offset + 16);
        const std::uint64_t w2 = u64At(stream, offset + 24);
        const std::uint64_t literals = bitsOf(w0, 0, 20);
        const std::uint64_t literalPayload = bitsOf(w0, 20, 20);
        const std::uint64_t matches = bitsOf(w0, 40, 20);
        const std::int64_t literalBits = static_cast<std::int64_t>(bitsOf(w0, 60, 3)) - 7;
        const std::uint64_t lmdPayload = bitsOf(w1, 40, 20);
        const std::int64_t lmdBits = static_cast<std::int64_t>(bitsOf(w1, 60, 3)) - 7;
        const std::uint64_t headerSize = bitsOf(w2, 0, 32);
        EXPECT_EQ(bitsOf(w0, 63, 1), 0u);
        EXPECT_EQ(bitsOf(w1, 63, 1), 0u);
        EXPECT_EQ(bitsOf(w2, 62, 2), 0u);
        EXPECT_EQ(literals % 4, 0u);
        EXPECT_LE(literals, 40000u);
        EXPECT_GE(matches, 1u);
        EXPECT_LE(matches, 10000u);
        EXPECT_GE(headerSize, 122u);
        EXPECT_LE(headerSize, 662u);
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_LT(bitsOf(w1, 10 * i, 10), 1024u);
        }
        EXPECT_LT(bitsOf(w2, 32, 10), 64u);
        EXPECT_LT(bitsOf(w2, 42, 10), 64u);
        EXPECT_LT(bitsOf(w2, 52, 10), 256u);

        FrequencyCodeReader reader{stream, (offset + 32) * 8};
        const std::array<std::pair<unsigned, unsigned>, 4> tables = {
            {{20, 64}, {20, 64}, {64, 256}, {256, 1024}}};
        for (const auto& [symbols, states] : tables) {
            unsigned sum = 0;
            for (unsigned s = 0; s < symbols; ++s) {
                sum += reader.next();
            }
            EXPECT_EQ(sum, states);
        }
        EXPECT_EQ((reader.bitPosition + 7) / 8, offset + headerSize) << "frequency code ends elsewhere";

        // The unused top bits of each payload's last byte are zero, and the
        // match stream starts with 8 zero bytes.
        const std::size_t literalStart = offset + headerSize;
        const std::size_t lmdStart = literalStart + literalPayload;
        if (literalPayload > 0) {
            EXPECT_EQ(stream[lmdStart - 1] >> (8 + literalBits), 0);
        } else {
            EXPECT_EQ(literalBits, 0);
        }
        EXPECT_GE(lmdPayload, 8u);
        for (std::size_t i = 0; i < 8 && i < lmdPayload; ++i) {
            EXPECT_EQ(stream[lmdStart + i], 0) << "LMD byte " << i;
        }
        EXPECT_EQ(stream[lmdStart + lmdPayload - 1] >> (8 + lmdBits), 0);
        offset = lmdStart + lmdPayload;
    }
}

// Every input here is large enough to start with a compressed block; the
// megabyte one must be split into many, each within the format's limits.
TEST(LzfseEncoderTest, WritesWellFormedCompressedHeaderBlocks) {
    const std::vector<std::string> names = {"text-4096", "text-10k", "repetitive-200k", "mixed-1m",
                                            "run-100k"};
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const auto input = readVector(name + ".bin");
        const auto blocks = checkStructure(lzfseCompress(input));
        ASSERT_FALSE(blocks.empty());
        const std::uint64_t total = std::accumulate(
            blocks.begin(), blocks.end(), std::uint64_t{0},
            [](std::uint64_t sum, const BlockSummary& block) { return sum + block.rawBytes; });
        EXPECT_EQ(total, input.size());
        EXPECT_EQ(blocks.front().magic, magicV2);
        if (name == "mixed-1m") {
            EXPECT_GT(blocks.size(), 10u);
        }
    }
}

TEST(LzfseEncoderTest, CodesASingleByteValueWithAnEmptyLiteralPayload) {
    const auto stream = lzfseCompress(std::vector<std::uint8_t>(100000, 0));
    checkStructure(stream);
    ASSERT_EQ(magicAt(stream, 0), magicV2);
    EXPECT_EQ(bitsOf(u64At(stream, 8), 20, 20), 0u) << "literal payload bytes";
    EXPECT_LT(stream.size(), 250u);
}

TEST(LzfseEncoderTest, FallsBackToRawOnlyForBlocksThatDoNotShrink) {
    std::vector<std::uint8_t> input = randomBytes(100000, 7);
    const auto text = readVector("repetitive-200k.bin");
    input.insert(input.end(), text.begin(), text.end());
    const auto blocks = checkStructure(lzfseCompress(input));
    ASSERT_FALSE(blocks.empty());
    EXPECT_EQ(blocks.front().magic, magicRaw);
    EXPECT_EQ(blocks.back().magic, magicV2);
}

} // namespace
} // namespace kinbook
