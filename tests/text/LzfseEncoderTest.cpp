// Checks the structure of the encoder's LZFSE blocks field by field with a
// reader written apart from the decoder, so that a mistake shared by our
// encoder and our decoder still shows up here.

#include "KinbookKit/text/Lzfse.h"
#include "LzfseTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string>
#include <vector>

namespace kinbook {
namespace {

using testing::magicAt;
using testing::randomBytes;
using testing::readVector;

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
        if (magic == 0x24787662) {
            EXPECT_EQ(offset + 4, stream.size()) << "bytes after the end of stream";
            return blocks;
        }
        const std::uint32_t rawBytes = magicAt(stream, offset + 4);
        blocks.push_back({magic, rawBytes});
        if (magic == 0x2D787662) {
            offset += 8 + rawBytes;
            continue;
        }
        if (magic == 0x6E787662) {
            offset += 12 + magicAt(stream, offset + 8);
            continue;
        }
        EXPECT_EQ(magic, 0x32787662u);
        if (magic != 0x32787662u) {
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

TEST(LzfseEncoderTest, WritesWellFormedCompressedHeaderBlocks) {
    const std::vector<std::string> names = {"text-4096", "text-10k", "repetitive-200k", "mixed-1m",
                                            "run-100k"};
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const auto input = readVector(name + ".bin");
        const auto blocks = checkStructure(lzfseCompress(input));
        const std::uint64_t total = std::accumulate(
            blocks.begin(), blocks.end(), std::uint64_t{0},
            [](std::uint64_t sum, const BlockSummary& block) { return sum + block.rawBytes; });
        EXPECT_EQ(total, input.size());
        EXPECT_EQ(blocks.front().magic, 0x32787662u);
    }
}

TEST(LzfseEncoderTest, SplitsLargeInputsIntoBlocksWithinTheFormatLimits) {
    const auto input = readVector("mixed-1m.bin");
    const auto blocks = checkStructure(lzfseCompress(input));
    EXPECT_GT(blocks.size(), 10u);
}

TEST(LzfseEncoderTest, CodesASingleByteValueWithAnEmptyLiteralPayload) {
    const auto stream = lzfseCompress(std::vector<std::uint8_t>(100000, 0));
    checkStructure(stream);
    ASSERT_EQ(magicAt(stream, 0), 0x32787662u);
    EXPECT_EQ(bitsOf(u64At(stream, 8), 20, 20), 0u) << "literal payload bytes";
    EXPECT_LT(stream.size(), 250u);
}

TEST(LzfseEncoderTest, FallsBackToRawOnlyForBlocksThatDoNotShrink) {
    std::vector<std::uint8_t> input = randomBytes(100000, 7);
    const auto text = readVector("repetitive-200k.bin");
    input.insert(input.end(), text.begin(), text.end());
    const auto blocks = checkStructure(lzfseCompress(input));
    ASSERT_FALSE(blocks.empty());
    EXPECT_EQ(blocks.front().magic, 0x2D787662u);
    EXPECT_EQ(blocks.back().magic, 0x32787662u);
}

} // namespace
} // namespace kinbook
