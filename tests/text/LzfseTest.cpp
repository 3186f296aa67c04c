#include "KinbookKit/text/Lzfse.h"

#include "LzfseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kinbook {
namespace {

using testing::lzfseVectorDir;
using testing::magicAt;
using testing::randomBytes;
using testing::readVector;

constexpr std::size_t generousLimit = std::size_t{1} << 30;

constexpr std::uint32_t magicEnd = 0x24787662;
constexpr std::uint32_t magicRaw = 0x2D787662;
constexpr std::uint32_t magicV2 = 0x32787662;
constexpr std::uint32_t magicLzvn = 0x6E787662;

std::vector<std::string> validVectorNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(lzfseVectorDir())) {
        if (entry.path().extension() == ".bin") {
            names.push_back(entry.path().stem().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> corruptVectorNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(lzfseVectorDir())) {
        if (entry.path().filename().string().starts_with("corrupt-")) {
            names.push_back(entry.path().filename().string());
        }
    }
    if (std::filesystem::exists(lzfseVectorDir() / "regressions")) {
        for (const auto& entry : std::filesystem::directory_iterator(lzfseVectorDir() / "regressions")) {
            names.push_back("regressions/" + entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

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
    }
}

TEST(LzfseDecompressTest, FailsWhenTheLimitIsBelowTheContentSize) {
    for (const auto& name : validVectorNames()) {
        const auto expected = readVector(name + ".bin");
        if (expected.empty()) {
            continue;
        }
        SCOPED_TRACE(name);
        const auto result = lzfseDecompress(readVector(name + ".lzfse"), expected.size() - 1);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error(), LzfseError::sizeLimitExceeded);
    }
}

TEST(LzfseDecompressTest, RejectsEveryCorruptVector) {
    const auto names = corruptVectorNames();
    ASSERT_GE(names.size(), 12u);
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(lzfseDecompress(readVector(name), generousLimit).ok());
    }
}

TEST(LzfseDecompressTest, NamesTheFaultOfEachCorruptVector) {
    struct Case {
        const char* name;
        LzfseError error;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto result = lzfseDecompress(readVector(c.name), generousLimit);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error(), c.error) << describe(result.error());
    }
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

TEST(LzfseDecompressTest, IgnoresBytesAfterTheEndOfStream) {
    auto stream = readVector("five-bytes.lzfse");
    stream.insert(stream.end(), {0xDE, 0xAD, 0xBE, 0xEF, 0x00});
    const auto result = lzfseDecompress(stream, generousLimit);
    ASSERT_TRUE(result.ok());
    EXPECT_EQ(*result, bytesOf("Hello"));
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

TEST(LzfseDecompressTest, AcceptsAnEmptyV2BlockWithoutTables) {
    const std::vector<std::uint8_t> stream = {
        0x62, 0x76, 0x78, 0x32, 0, 0, 0, 0,    0,   0,   0,    0,    0,    0,   0, 0x70,
        0,    0,    0,    0,    0, 0, 0, 0x70, 32,  0,   0,    0,    0,    0,   0, 0,
        0x62, 0x76, 0x78, 0x2D, 2, 0, 0, 0,    'o', 'k', 0x62, 0x76, 0x78, 0x24};
    const auto result = lzfseDecompress(stream, generousLimit);
    ASSERT_TRUE(result.ok()) << describe(result.error());
    EXPECT_EQ(*result, bytesOf("ok"));
}

// Inputs at the edges of every size class and block limit.
std::vector<std::pair<std::string, std::vector<std::uint8_t>>> edgeInputs() {
    const auto text = readVector("repetitive-200k.bin");
    auto prefix = [&](std::size_t size) {
        return std::vector<std::uint8_t>(text.begin(), text.begin() + size);
    };
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> inputs = {
        {"empty", {}},
        {"one byte", {0x41}},
        {"7 bytes", prefix(7)},
        {"8 bytes", prefix(8)},
        {"9 bytes", prefix(9)},
        {"8 equal bytes", std::vector<std::uint8_t>(8, 'z')},
        {"4095 bytes", prefix(4095)},
        {"4096 bytes", prefix(4096)},
        {"4097 bytes", prefix(4097)},
        {"random 4095", randomBytes(4095, 1)},
        {"random 4096", randomBytes(4096, 2)},
        {"random 200k", randomBytes(200000, 3)},
        {"zeros 5M", std::vector<std::uint8_t>(5'000'000, 0)},
        {"run of 2359 + 1", std::vector<std::uint8_t>(2360 + 4096, 'x')},
    };
    // Short repeats of a 3-byte pattern: overlapping copies with D = 3 and
    // many triples, enough to close blocks on the triple limit.
    std::vector<std::uint8_t> pattern;
    for (std::size_t i = 0; i < 300000; ++i) {
        pattern.push_back(static_cast<std::uint8_t>(i % 7 == 0 ? 'a' + (i / 7) % 5 : "abc"[i % 3]));
    }
    inputs.emplace_back("short patterns 300k", pattern);
    // Random text with one repeat at the largest distance LZFSE can code and
    // one just beyond it.
    auto far = randomBytes(600000, 4);
    std::copy(far.begin() + 1000, far.begin() + 1400, far.begin() + 1000 + 262139);
    std::copy(far.begin() + 5000, far.begin() + 5400, far.begin() + 5000 + 262140 + 1000);
    inputs.emplace_back("matches at the largest distance", far);
    // Content that alternates between random and repeated stretches, so that
    // blocks fall back to raw between compressed ones.
    std::vector<std::uint8_t> mixed;
    for (std::uint64_t chunk = 0; chunk < 12; ++chunk) {
        auto part = chunk % 2 == 0 ? randomBytes(50000, chunk) : prefix(50000);
        mixed.insert(mixed.end(), part.begin(), part.end());
    }
    inputs.emplace_back("alternating random and text", mixed);
    return inputs;
}

TEST(LzfseCompressTest, RoundTripsEveryVectorAndEdgeInput) {
    auto inputs = edgeInputs();
    for (const auto& name : validVectorNames()) {
        inputs.emplace_back(name, readVector(name + ".bin"));
    }
    for (const auto& [name, input] : inputs) {
        SCOPED_TRACE(name);
        const auto stream = lzfseCompress(input);
        ASSERT_GE(stream.size(), 4u);
        EXPECT_EQ(magicAt(stream, stream.size() - 4), magicEnd);
        const auto result = lzfseDecompress(stream, input.size());
        ASSERT_TRUE(result.ok()) << describe(result.error());
        EXPECT_TRUE(*result == input);
    }
}

TEST(LzfseCompressTest, ChoosesTheBlockTypeBySize) {
    const auto text = readVector("repetitive-200k.bin");
    auto prefix = [&](std::size_t size) {
        return std::vector<std::uint8_t>(text.begin(), text.begin() + size);
    };
    struct Case {
        const char* what;
        std::vector<std::uint8_t> input;
        std::uint32_t firstMagic;
    };
    const std::vector<Case> cases = {
        {"empty", {}, magicRaw},
        {"below 8 bytes", prefix(7), magicRaw},
        {"8 bytes that do not shrink", bytesOf("Contacts"), magicRaw},
        {"8 equal bytes", std::vector<std::uint8_t>(8, 'z'), magicRaw},
        {"24 equal bytes", std::vector<std::uint8_t>(24, 'a'), magicLzvn},
        {"small text", prefix(1000), magicLzvn},
        {"4095 bytes", prefix(4095), magicLzvn},
        {"random below 4096", randomBytes(3000, 9), magicRaw},
        {"4096 bytes", prefix(4096), magicV2},
        {"large text", text, magicV2},
        {"random from 4096", randomBytes(5000, 10), magicRaw},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto stream = lzfseCompress(c.input);
        EXPECT_EQ(magicAt(stream, 0), c.firstMagic);
    }
}

TEST(LzfseCompressTest, WritesTheEmptyInputAsTheReferenceEncoderDoes) {
    EXPECT_EQ(lzfseCompress({}), readVector("empty.lzfse"));
}

TEST(LzfseCompressTest, IncompressibleInputGrowsByAFewBytesPerBlockOnly) {
    const auto input = readVector("random-300k.bin");
    const auto stream = lzfseCompress(input);
    EXPECT_LE(stream.size(), input.size() + 12 * 8 + 4);
}

TEST(LzfseCompressTest, StaysWithinTenPercentOfTheReferenceEncoder) {
    for (const char* name : {"text-4096", "text-10k", "repetitive-200k", "contacts-json-3k", "mixed-1m"}) {
        SCOPED_TRACE(name);
        const auto reference = readVector(std::string(name) + ".lzfse");
        const auto ours = lzfseCompress(readVector(std::string(name) + ".bin"));
        EXPECT_LE(static_cast<double>(ours.size()), 1.10 * static_cast<double>(reference.size()))
            << "ours " << ours.size() << ", reference " << reference.size();
    }
}

} // namespace
} // namespace kinbook
