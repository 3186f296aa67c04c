// Decoder for LZFSE streams read from Trash files. The files come from a
// synced folder, so every length, table and distance is checked before it is
// used; the hot loops only copy without checks after one bounds check per
// sequence.

#include "KinbookKit/text/Lzfse.h"
#include "KinbookKit/text/LzfseFormat.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace kinbook {

using namespace lzfse;

namespace {

// Reads an LSB-first bit string backwards from its end, as LZFSE stores its
// entropy-coded streams. Keeps up to 63 unread bits in an accumulator; a read
// that would pass the start of the payload sets a sticky failure flag and
// yields zeros, so callers check once per group of reads.
class BackwardBitReader {
public:
    // `adjustment` is the stored bit-count adjustment (-8..0): the number of
    // zero padding bits, negated, at the top of the last byte.
    bool init(const std::uint8_t* begin, const std::uint8_t* end, std::int32_t adjustment) {
        m_begin = begin;
        m_next = end;
        if (adjustment > 0 || adjustment < -8) {
            return false;
        }
        if (begin == end) {
            return adjustment == 0;
        }
        refill();
        // The padding must be zero: a stream whose top bits are set was not
        // written by an LZFSE encoder.
        return read(static_cast<std::uint32_t>(-adjustment)) == 0 && !m_failed;
    }

    [[gnu::always_inline]] void refill() {
        const std::uint32_t bytes = (63 - m_count) >> 3;
        if (bytes == 0) {
            return;
        }
        if (m_next - m_begin >= 8) {
            const std::uint64_t word = loadU64(m_next - 8);
            m_next -= bytes;
            m_acc = (m_acc << (bytes * 8)) | (word >> (64 - bytes * 8));
            m_count += bytes * 8;
            return;
        }
        for (std::uint32_t i = 0; i < bytes && m_next > m_begin; ++i) {
            --m_next;
            m_acc = (m_acc << 8) | *m_next;
            m_count += 8;
        }
    }

    [[gnu::always_inline]] std::uint32_t read(std::uint32_t bits) {
        if (bits > m_count) {
            m_failed = true;
            return 0;
        }
        return readUnchecked(bits);
    }

    // For callers that made sure `bits <= available()`.
    [[gnu::always_inline]] std::uint32_t readUnchecked(std::uint32_t bits) {
        m_count -= bits;
        return static_cast<std::uint32_t>((m_acc >> m_count) & ((std::uint64_t{1} << bits) - 1));
    }

    std::uint32_t available() const { return m_count; }

    bool failed() const { return m_failed; }

private:
    const std::uint8_t* m_begin = nullptr;
    const std::uint8_t* m_next = nullptr;
    std::uint64_t m_acc = 0;
    std::uint32_t m_count = 0;
    bool m_failed = false;
};

struct LiteralEntry {
    std::uint8_t bits;
    std::uint8_t symbol;
    std::uint16_t nextBase;
};

struct ValueEntry {
    std::uint8_t totalBits; // state bits + extra bits, read as one field
    std::uint8_t extraBits;
    std::uint16_t nextBase;
    std::uint32_t valueBase;
};

// Checks a frequency table. A table that the block uses must fill its states
// exactly; an unused one must at least not overflow them.
bool frequenciesValid(std::span<const std::uint16_t> frequencies, std::uint32_t states, bool used) {
    std::uint32_t sum = 0;
    for (const std::uint16_t f : frequencies) {
        sum += f;
    }
    return used ? sum == states : sum <= states;
}

// Calls `fill(state, symbol, bits, nextBase)` for every state of a table whose
// frequencies sum to `states` (a power of two): runs in symbol order, no spreading.
template <typename Fill>
void forEachState(std::span<const std::uint16_t> frequencies, std::uint32_t states, Fill&& fill) {
    const std::uint32_t logStates = floorLog2(states);
    std::uint32_t state = 0;
    for (std::uint32_t symbol = 0; symbol < frequencies.size(); ++symbol) {
        const std::uint32_t f = frequencies[symbol];
        if (f == 0) {
            continue;
        }
        const std::uint32_t k = logStates - floorLog2(f);
        const std::uint32_t j0 = ((2 * states) >> k) - f;
        // The first j0 states of the run read k bits, the rest k - 1.
        const std::uint32_t wide = std::min(j0, f);
        for (std::uint32_t j = 0; j < wide; ++j) {
            fill(state + j, symbol, k, ((f + j) << k) - states);
        }
        for (std::uint32_t j = wide; j < f; ++j) {
            fill(state + j, symbol, k - 1, (j - j0) << (k - 1));
        }
        state += f;
    }
}

void buildLiteralTable(std::span<const std::uint16_t> frequencies, std::span<LiteralEntry> table) {
    forEachState(frequencies, literalStates,
                 [&](std::uint32_t state, std::uint32_t symbol, std::uint32_t bits, std::uint32_t base) {
                     table[state] = {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(symbol),
                                     static_cast<std::uint16_t>(base)};
                 });
}

void buildValueTable(std::span<const std::uint16_t> frequencies, std::uint32_t states,
                     std::span<const std::uint8_t> extraBits, std::span<const std::uint32_t> valueBase,
                     std::span<ValueEntry> table) {
    forEachState(frequencies, states,
                 [&](std::uint32_t state, std::uint32_t symbol, std::uint32_t bits, std::uint32_t base) {
                     table[state] = {static_cast<std::uint8_t>(bits + extraBits[symbol]), extraBits[symbol],
                                     static_cast<std::uint16_t>(base), valueBase[symbol]};
                 });
}

// The most bits one literal group and one triple take from their streams.
constexpr std::uint32_t literalGroupBits = 4 * 10;
constexpr std::uint32_t tripleBits = 14 + 17 + 23;

template <bool Checked>
[[gnu::always_inline]] inline std::uint32_t decodeValue(const ValueEntry* table, std::uint32_t& state,
                                                        BackwardBitReader& reader) {
    const ValueEntry entry = table[state];
    const std::uint32_t field =
        Checked ? reader.read(entry.totalBits) : reader.readUnchecked(entry.totalBits);
    state = entry.nextBase + (field >> entry.extraBits);
    return entry.valueBase + (field & ((1u << entry.extraBits) - 1));
}

// The fields of a `bvx1` or `bvx2` header, in one form.
struct LzfseBlockHeader {
    std::uint32_t rawBytes = 0;
    std::uint32_t literals = 0;
    std::uint32_t matches = 0;
    std::uint32_t literalPayloadBytes = 0;
    std::uint32_t lmdPayloadBytes = 0;
    std::int32_t literalBits = 0;
    std::int32_t lmdBits = 0;
    std::array<std::uint32_t, 4> literalState{};
    std::uint32_t lState = 0;
    std::uint32_t mState = 0;
    std::uint32_t dState = 0;
    std::array<std::uint16_t, lSymbols> lFrequencies{};
    std::array<std::uint16_t, mSymbols> mFrequencies{};
    std::array<std::uint16_t, dSymbols> dFrequencies{};
    std::array<std::uint16_t, literalSymbols> literalFrequencies{};
    std::size_t headerSize = 0;
};

// Decodes the variable-length frequency code of a `bvx2` header. The code
// must end in the last byte of the header, no earlier and no later.
bool decodeFrequencyCode(std::span<const std::uint8_t> code, LzfseBlockHeader& header) {
    std::array<std::uint16_t*, 4> tables = {header.lFrequencies.data(), header.mFrequencies.data(),
                                            header.dFrequencies.data(), header.literalFrequencies.data()};
    const std::array<std::uint32_t, 4> sizes = {lSymbols, mSymbols, dSymbols, literalSymbols};
    std::uint64_t acc = 0;
    std::uint32_t accBits = 0;
    std::size_t position = 0;
    std::size_t totalBits = 0;
    for (std::size_t t = 0; t < tables.size(); ++t) {
        for (std::uint32_t i = 0; i < sizes[t]; ++i) {
            while (accBits <= 56 && position < code.size()) {
                acc |= static_cast<std::uint64_t>(code[position++]) << accBits;
                accBits += 8;
            }
            std::uint32_t bits;
            std::uint32_t value;
            if ((acc & 1) == 0) {
                bits = 2;
                value = (acc >> 1) & 1;
            } else if ((acc & 3) == 1) {
                bits = 3;
                value = 2 + ((acc >> 2) & 1);
            } else if ((acc & 7) == 3) {
                bits = 5;
                value = 4 + ((acc >> 3) & 3);
            } else if ((acc & 15) == 7) {
                bits = 8;
                value = 8 + ((acc >> 4) & 15);
            } else {
                bits = 14;
                value = 24 + ((acc >> 4) & 1023);
            }
            if (bits > accBits) {
                return false;
            }
            acc >>= bits;
            accBits -= bits;
            totalBits += bits;
            tables[t][i] = static_cast<std::uint16_t>(value);
        }
    }
    return (totalBits + 7) / 8 == code.size();
}

std::optional<LzfseError> parseV1Header(std::span<const std::uint8_t> block, LzfseBlockHeader& header) {
    if (block.size() < v1HeaderSize) {
        return LzfseError::truncated;
    }
    const std::uint8_t* p = block.data();
    header.rawBytes = loadU32(p + 4);
    header.literals = loadU32(p + 12);
    header.matches = loadU32(p + 16);
    header.literalPayloadBytes = loadU32(p + 20);
    header.lmdPayloadBytes = loadU32(p + 24);
    header.literalBits = static_cast<std::int32_t>(loadU32(p + 28));
    for (std::size_t i = 0; i < 4; ++i) {
        header.literalState[i] = loadU16(p + 32 + 2 * i);
    }
    header.lmdBits = static_cast<std::int32_t>(loadU32(p + 40));
    header.lState = loadU16(p + 44);
    header.mState = loadU16(p + 46);
    header.dState = loadU16(p + 48);
    const std::uint8_t* f = p + 50;
    auto readTable = [&f](std::span<std::uint16_t> table) {
        for (std::uint16_t& value : table) {
            value = loadU16(f);
            f += 2;
        }
    };
    readTable(header.lFrequencies);
    readTable(header.mFrequencies);
    readTable(header.dFrequencies);
    readTable(header.literalFrequencies);
    header.headerSize = v1HeaderSize;
    return std::nullopt;
}

std::optional<LzfseError> parseV2Header(std::span<const std::uint8_t> block, LzfseBlockHeader& header) {
    if (block.size() < v2FixedHeaderSize) {
        return LzfseError::truncated;
    }
    const std::uint8_t* p = block.data();
    header.rawBytes = loadU32(p + 4);
    const std::uint64_t w0 = loadU64(p + 8);
    const std::uint64_t w1 = loadU64(p + 16);
    const std::uint64_t w2 = loadU64(p + 24);
    header.literals = static_cast<std::uint32_t>(w0 & 0xFFFFF);
    header.literalPayloadBytes = static_cast<std::uint32_t>((w0 >> 20) & 0xFFFFF);
    header.matches = static_cast<std::uint32_t>((w0 >> 40) & 0xFFFFF);
    header.literalBits = static_cast<std::int32_t>((w0 >> 60) & 7) - 7;
    for (std::size_t i = 0; i < 4; ++i) {
        header.literalState[i] = static_cast<std::uint32_t>((w1 >> (10 * i)) & 0x3FF);
    }
    header.lmdPayloadBytes = static_cast<std::uint32_t>((w1 >> 40) & 0xFFFFF);
    header.lmdBits = static_cast<std::int32_t>((w1 >> 60) & 7) - 7;
    header.headerSize = static_cast<std::uint32_t>(w2 & 0xFFFFFFFF);
    header.lState = static_cast<std::uint32_t>((w2 >> 32) & 0x3FF);
    header.mState = static_cast<std::uint32_t>((w2 >> 42) & 0x3FF);
    header.dState = static_cast<std::uint32_t>((w2 >> 52) & 0x3FF);
    if (header.headerSize < v2FixedHeaderSize) {
        return LzfseError::badBlockHeader;
    }
    if (header.headerSize > block.size()) {
        return LzfseError::truncated;
    }
    // A header of exactly 32 bytes omits the tables: every frequency is 0.
    if (header.headerSize > v2FixedHeaderSize &&
        !decodeFrequencyCode(block.subspan(v2FixedHeaderSize, header.headerSize - v2FixedHeaderSize),
                             header)) {
        return LzfseError::badFrequencyTable;
    }
    return std::nullopt;
}

// Copies `count` bytes that may overlap their source `distance` bytes back,
// with the semantics of a forward byte-by-byte copy. `room` is how many bytes
// may be written at `dst` without leaving the buffer.
inline void copyMatch(std::uint8_t* dst, std::size_t distance, std::size_t count, std::size_t room) {
    const std::uint8_t* src = dst - distance;
    if (distance >= 8 && room >= count + 8) {
        for (std::size_t i = 0; i < count; i += 8) {
            std::memcpy(dst + i, src + i, 8);
        }
    } else if (distance == 1) {
        std::memset(dst, *src, count);
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            dst[i] = src[i];
        }
    }
}

// Copies literals whose source has at least 16 readable bytes past `count`.
inline void copyLiterals(std::uint8_t* dst, const std::uint8_t* src, std::size_t count, std::size_t room) {
    if (room >= count + 16) {
        for (std::size_t i = 0; i < count; i += 16) {
            std::memcpy(dst + i, src + i, 16);
        }
    } else {
        std::memcpy(dst, src, count);
    }
}

// Decodes `groups` groups of 4 literals from four interleaved states over
// one backward bit stream. False when the stream is malformed.
bool decodeLiterals(const LiteralEntry* table, const std::uint8_t* begin, const std::uint8_t* end,
                    std::int32_t adjustment, const std::array<std::uint32_t, 4>& initialState,
                    std::uint32_t groups, std::uint8_t* lit) {
    BackwardBitReader reader;
    if (!reader.init(begin, end, adjustment)) {
        return false;
    }
    std::uint32_t s0 = initialState[0];
    std::uint32_t s1 = initialState[1];
    std::uint32_t s2 = initialState[2];
    std::uint32_t s3 = initialState[3];
    for (std::uint32_t g = 0; g < groups; ++g, lit += 4) {
        reader.refill();
        const bool checked = reader.available() < literalGroupBits;
        auto step = [&](std::uint32_t& state, std::uint8_t* target) {
            const LiteralEntry entry = table[state];
            *target = entry.symbol;
            state = entry.nextBase + (checked ? reader.read(entry.bits) : reader.readUnchecked(entry.bits));
        };
        step(s0, lit);
        step(s1, lit + 1);
        step(s2, lit + 2);
        step(s3, lit + 3);
        if (checked && reader.failed()) {
            return false;
        }
    }
    return true;
}

// Where the triples of one block are coded, and their initial states.
struct TripleStream {
    const std::uint8_t* begin;
    const std::uint8_t* end;
    std::int32_t adjustment;
    std::uint32_t lState;
    std::uint32_t mState;
    std::uint32_t dState;
    std::uint32_t count;
};

// Decodes the triples of one block and runs them: literals from `literals`,
// then a match into the output, which starts at `base` and must be filled
// from `out` up to `outEnd` exactly.
std::optional<LzfseError> runTriples(const ValueEntry* lTable, const ValueEntry* mTable,
                                     const ValueEntry* dTable, const TripleStream& stream,
                                     std::span<const std::uint8_t> literals, std::uint8_t* const base,
                                     std::uint8_t*& out, std::uint8_t* const outEnd) {
    BackwardBitReader reader;
    if (!reader.init(stream.begin, stream.end, stream.adjustment)) {
        return LzfseError::badBitStream;
    }
    std::uint32_t lState = stream.lState;
    std::uint32_t mState = stream.mState;
    std::uint32_t dState = stream.dState;
    const std::uint8_t* lit = literals.data();
    const std::uint8_t* const litEnd = lit + literals.size();
    std::size_t previousDistance = 0; // none yet in this block
    for (std::uint32_t i = 0; i < stream.count; ++i) {
        reader.refill();
        std::uint32_t literalCount;
        std::uint32_t matchCount;
        std::uint32_t codedDistance;
        if (reader.available() >= tripleBits) {
            literalCount = decodeValue<false>(lTable, lState, reader);
            matchCount = decodeValue<false>(mTable, mState, reader);
            codedDistance = decodeValue<false>(dTable, dState, reader);
        } else {
            literalCount = decodeValue<true>(lTable, lState, reader);
            matchCount = decodeValue<true>(mTable, mState, reader);
            codedDistance = decodeValue<true>(dTable, dState, reader);
            if (reader.failed()) {
                return LzfseError::badBitStream;
            }
        }
        const std::size_t distance = codedDistance != 0 ? codedDistance : previousDistance;
        previousDistance = distance;
        if (literalCount > static_cast<std::size_t>(litEnd - lit)) {
            return LzfseError::badBlockHeader;
        }
        const std::size_t room = static_cast<std::size_t>(outEnd - out);
        if (std::size_t{literalCount} + matchCount > room) {
            return LzfseError::contentSizeMismatch;
        }
        copyLiterals(out, lit, literalCount, room);
        out += literalCount;
        lit += literalCount;
        if (distance == 0 || distance > static_cast<std::size_t>(out - base)) {
            return LzfseError::badDistance;
        }
        copyMatch(out, distance, matchCount, room - literalCount);
        out += matchCount;
    }
    return std::nullopt;
}

// Decodes LZFSE stream blocks into one contiguous output buffer, so that
// matches can reach into content of earlier blocks.
class StreamDecoder {
public:
    StreamDecoder(std::span<const std::uint8_t> input, std::size_t sizeLimit)
        : m_input(input), m_sizeLimit(sizeLimit) {}

    Result<std::vector<std::uint8_t>, LzfseError> run() {
        std::size_t position = 0;
        for (;;) {
            if (m_input.size() - position < 4) {
                return failure(LzfseError::truncated);
            }
            const std::span<const std::uint8_t> block = m_input.subspan(position);
            std::size_t blockSize = 0;
            std::optional<LzfseError> error;
            switch (loadU32(block.data())) {
            case magicEndOfStream:
                return std::move(m_output);
            case magicRaw:
                error = decodeRawBlock(block, blockSize);
                break;
            case magicLzvn:
                error = decodeLzvnBlock(block, blockSize);
                break;
            case magicV1:
            case magicV2:
                error = decodeLzfseBlock(block, blockSize);
                break;
            default:
                return failure(LzfseError::badBlockMagic);
            }
            if (error) {
                return failure(*error);
            }
            position += blockSize;
        }
    }

private:
    // Makes room for a block's claimed content, within the caller's limit.
    // The claim is checked before anything is allocated, and the buffer's
    // growth stops at the limit too: doubling past it would take up to twice
    // the memory the caller allowed.
    std::optional<LzfseError> growOutput(std::uint64_t rawBytes) {
        if (rawBytes > m_sizeLimit - m_output.size()) {
            return LzfseError::sizeLimitExceeded;
        }
        const std::size_t needed = m_output.size() + static_cast<std::size_t>(rawBytes);
        if (needed > m_output.capacity()) {
            m_output.reserve(std::min(std::max(needed, m_output.capacity() * 2), m_sizeLimit));
        }
        m_output.resize(needed);
        return std::nullopt;
    }

    std::optional<LzfseError> decodeRawBlock(std::span<const std::uint8_t> block, std::size_t& blockSize) {
        if (block.size() < 8) {
            return LzfseError::truncated;
        }
        const std::uint32_t rawBytes = loadU32(block.data() + 4);
        if (rawBytes > block.size() - 8) {
            return LzfseError::truncated;
        }
        const std::size_t start = m_output.size();
        if (auto error = growOutput(rawBytes)) {
            return error;
        }
        if (rawBytes > 0) {
            std::memcpy(m_output.data() + start, block.data() + 8, rawBytes);
        }
        blockSize = 8 + std::size_t{rawBytes};
        return std::nullopt;
    }

    std::optional<LzfseError> decodeLzvnBlock(std::span<const std::uint8_t> block, std::size_t& blockSize) {
        if (block.size() < 12) {
            return LzfseError::truncated;
        }
        const std::uint32_t rawBytes = loadU32(block.data() + 4);
        const std::uint32_t payloadBytes = loadU32(block.data() + 8);
        if (payloadBytes > block.size() - 12) {
            return LzfseError::truncated;
        }
        // One instruction byte pair expands to at most 271 bytes, so a claim
        // beyond 136 bytes per payload byte cannot be honest. The reference
        // decoder also refuses empty LZVN blocks.
        if (rawBytes == 0 || rawBytes > std::uint64_t{payloadBytes} * 136) {
            return LzfseError::badBlockHeader;
        }
        const std::size_t start = m_output.size();
        if (auto error = growOutput(rawBytes)) {
            return error;
        }
        blockSize = 12 + std::size_t{payloadBytes};
        return decodeLzvnPayload(block.data() + 12, block.data() + 12 + payloadBytes, start);
    }

    std::optional<LzfseError> decodeLzvnPayload(const std::uint8_t* src, const std::uint8_t* srcEnd,
                                                std::size_t start);

    std::optional<LzfseError> decodeLzfseBlock(std::span<const std::uint8_t> block, std::size_t& blockSize);

    std::span<const std::uint8_t> m_input;
    std::size_t m_sizeLimit;
    std::vector<std::uint8_t> m_output;
    // Scratch for one block's literals and their decoding table, sized on
    // the first LZFSE block that needs them.
    std::vector<std::uint8_t> m_literals;
    std::vector<LiteralEntry> m_literalTable;
};

enum class LzvnOp : std::uint8_t { smlD, medD, lrgD, preD, smlM, lrgM, smlL, lrgL, nop, eos, udef };

constexpr std::array<LzvnOp, 256> makeLzvnOps() {
    std::array<LzvnOp, 256> ops{};
    for (std::uint32_t b = 0; b < 256; ++b) {
        const std::uint32_t high = b >> 4;
        const std::uint32_t low3 = b & 7;
        LzvnOp op = LzvnOp::udef;
        if (b >= 0xF1) {
            op = LzvnOp::smlM;
        } else if (b == 0xF0) {
            op = LzvnOp::lrgM;
        } else if (b >= 0xE1) {
            op = LzvnOp::smlL;
        } else if (b == 0xE0) {
            op = LzvnOp::lrgL;
        } else if (b >= 0xA0 && b <= 0xBF) {
            op = LzvnOp::medD;
        } else if (high == 7 || high == 0xD) {
            op = LzvnOp::udef;
        } else if (b == 0x06) {
            op = LzvnOp::eos;
        } else if (b == 0x0E || b == 0x16) {
            op = LzvnOp::nop;
        } else if (b == 0x1E || b == 0x26 || b == 0x2E || b == 0x36 || b == 0x3E) {
            op = LzvnOp::udef;
        } else if (low3 == 7) {
            op = LzvnOp::lrgD;
        } else if (low3 == 6) {
            op = LzvnOp::preD;
        } else {
            op = LzvnOp::smlD;
        }
        ops[b] = op;
    }
    return ops;
}

constexpr std::array<LzvnOp, 256> lzvnOps = makeLzvnOps();

std::optional<LzfseError> StreamDecoder::decodeLzvnPayload(const std::uint8_t* src,
                                                           const std::uint8_t* srcEnd, std::size_t start) {
    std::uint8_t* const base = m_output.data();
    std::uint8_t* out = base + start;
    std::uint8_t* const outEnd = base + m_output.size();
    std::size_t distance = 0; // the previous distance, invalid until an instruction sets it
    while (src < srcEnd) {
        const std::uint8_t opcode = *src;
        const std::size_t available = static_cast<std::size_t>(srcEnd - src);
        std::size_t literalCount = 0;
        std::size_t matchCount = 0;
        std::size_t length = 1; // opcode and operand bytes
        switch (lzvnOps[opcode]) {
        case LzvnOp::smlD:
            if (available < 2) {
                return LzfseError::truncated;
            }
            literalCount = opcode >> 6;
            matchCount = ((opcode >> 3) & 7) + 3;
            distance = std::size_t{opcode & 7u} << 8 | src[1];
            length = 2;
            break;
        case LzvnOp::medD: {
            if (available < 3) {
                return LzfseError::truncated;
            }
            const std::uint32_t word = loadU16(src + 1);
            literalCount = (opcode >> 3) & 3;
            matchCount = (((opcode & 7u) << 2) | (word & 3)) + 3;
            distance = word >> 2;
            length = 3;
            break;
        }
        case LzvnOp::lrgD:
            if (available < 3) {
                return LzfseError::truncated;
            }
            literalCount = opcode >> 6;
            matchCount = ((opcode >> 3) & 7) + 3;
            distance = loadU16(src + 1);
            length = 3;
            break;
        case LzvnOp::preD:
            literalCount = opcode >> 6;
            matchCount = ((opcode >> 3) & 7) + 3;
            break;
        case LzvnOp::smlM:
            matchCount = opcode & 15;
            break;
        case LzvnOp::lrgM:
            if (available < 2) {
                return LzfseError::truncated;
            }
            matchCount = std::size_t{src[1]} + 16;
            length = 2;
            break;
        case LzvnOp::smlL:
            literalCount = opcode & 15;
            break;
        case LzvnOp::lrgL:
            if (available < 2) {
                return LzfseError::truncated;
            }
            literalCount = std::size_t{src[1]} + 16;
            length = 2;
            break;
        case LzvnOp::nop:
            ++src;
            continue;
        case LzvnOp::eos:
            // The end-of-stream instruction fills the payload's last 8 bytes exactly.
            if (available < 8) {
                return LzfseError::truncated;
            }
            if (available > 8) {
                return LzfseError::badBlockHeader;
            }
            if (out != outEnd) {
                return LzfseError::contentSizeMismatch;
            }
            return std::nullopt;
        case LzvnOp::udef:
            return LzfseError::undefinedOpcode;
        }
        src += length;
        if (literalCount > static_cast<std::size_t>(srcEnd - src)) {
            return LzfseError::truncated;
        }
        const std::size_t room = static_cast<std::size_t>(outEnd - out);
        if (literalCount + matchCount > room) {
            return LzfseError::contentSizeMismatch;
        }
        if (literalCount > 0) {
            if (static_cast<std::size_t>(srcEnd - src) >= literalCount + 16) {
                copyLiterals(out, src, literalCount, room);
            } else {
                std::memcpy(out, src, literalCount);
            }
            out += literalCount;
            src += literalCount;
        }
        if (matchCount > 0) {
            if (distance == 0 || distance > static_cast<std::size_t>(out - base)) {
                return LzfseError::badDistance;
            }
            copyMatch(out, distance, matchCount, static_cast<std::size_t>(outEnd - out));
            out += matchCount;
        }
    }
    // The payload ended without its end-of-stream instruction.
    return LzfseError::truncated;
}

std::optional<LzfseError> StreamDecoder::decodeLzfseBlock(std::span<const std::uint8_t> block,
                                                          std::size_t& blockSize) {
    LzfseBlockHeader header;
    const bool v1 = loadU32(block.data()) == magicV1;
    if (auto error = v1 ? parseV1Header(block, header) : parseV2Header(block, header)) {
        return error;
    }
    if (header.literals > maxLiteralsPerBlock || header.matches > maxMatchesPerBlock) {
        return LzfseError::badBlockHeader;
    }
    if (header.literalBits < -8 || header.literalBits > 0 || header.lmdBits < -8 || header.lmdBits > 0) {
        return LzfseError::badBlockHeader;
    }
    for (const std::uint32_t state : header.literalState) {
        if (state >= literalStates) {
            return LzfseError::badState;
        }
    }
    if (header.lState >= lStates || header.mState >= mStates || header.dState >= dStates) {
        return LzfseError::badState;
    }
    const std::uint64_t total =
        std::uint64_t{header.headerSize} + header.literalPayloadBytes + header.lmdPayloadBytes;
    if (total > block.size()) {
        return LzfseError::truncated;
    }
    // What the block could produce at most: each triple takes at most 315
    // literals, copies up to 15 bytes for free and every further byte costs
    // match-length extra bits, at best 11 bits for 2344 bytes. A larger claim
    // is not trusted with an allocation.
    constexpr std::uint64_t freeMatchBytes = 15;
    constexpr std::uint64_t matchBytesPerBit = (maxM - freeMatchBytes + 10) / 11;
    const std::uint64_t plausible =
        std::min<std::uint64_t>(header.literals, std::uint64_t{header.matches} * maxL) +
        std::min<std::uint64_t>(std::uint64_t{header.matches} * maxM,
                                std::uint64_t{header.matches} * freeMatchBytes +
                                    std::uint64_t{header.lmdPayloadBytes} * 8 * matchBytesPerBit);
    if (header.rawBytes > plausible) {
        return LzfseError::badBlockHeader;
    }
    const bool usesLiterals = header.literals > 0;
    const bool usesMatches = header.matches > 0;
    if (!frequenciesValid(header.literalFrequencies, literalStates, usesLiterals) ||
        !frequenciesValid(header.lFrequencies, lStates, usesMatches) ||
        !frequenciesValid(header.mFrequencies, mStates, usesMatches) ||
        !frequenciesValid(header.dFrequencies, dStates, usesMatches)) {
        return LzfseError::badFrequencyTable;
    }

    const std::size_t start = m_output.size();
    if (auto error = growOutput(header.rawBytes)) {
        return error;
    }
    blockSize = static_cast<std::size_t>(total);

    const std::uint8_t* literalPayload = block.data() + header.headerSize;
    const std::uint8_t* lmdPayload = literalPayload + header.literalPayloadBytes;
    const std::uint8_t* lmdEnd = lmdPayload + header.lmdPayloadBytes;

    // Literals are decoded in groups of 4, so a count that is not a multiple
    // of 4 is rounded up as the reference decoder does; only the true count
    // may be used by the triples.
    // The slack lets literal copies run in 16-byte steps past the last literal.
    constexpr std::size_t literalSlack = 64;
    const std::uint32_t literalGroups = (header.literals + 3) / 4;
    if (m_literals.size() < std::size_t{literalGroups} * 4 + literalSlack) {
        m_literals.resize(std::size_t{literalGroups} * 4 + literalSlack);
    }
    if (usesLiterals) {
        m_literalTable.resize(literalStates);
        buildLiteralTable(header.literalFrequencies, m_literalTable);
        if (!decodeLiterals(m_literalTable.data(), literalPayload, lmdPayload, header.literalBits,
                            header.literalState, literalGroups, m_literals.data())) {
            return LzfseError::badBitStream;
        }
    }

    std::uint8_t* const base = m_output.data();
    std::uint8_t* out = base + start;
    std::uint8_t* const outEnd = base + m_output.size();
    if (usesMatches) {
        std::array<ValueEntry, lStates> lTable;
        std::array<ValueEntry, mStates> mTable;
        std::array<ValueEntry, dStates> dTable;
        buildValueTable(header.lFrequencies, lStates, lExtraBits, lBaseValue, lTable);
        buildValueTable(header.mFrequencies, mStates, mExtraBits, mBaseValue, mTable);
        buildValueTable(header.dFrequencies, dStates, dExtraBits, dBaseValue, dTable);
        TripleStream triples{lmdPayload,    lmdEnd,        header.lmdBits, header.lState,
                             header.mState, header.dState, header.matches};
        if (auto error = runTriples(lTable.data(), mTable.data(), dTable.data(), triples,
                                    std::span(m_literals.data(), header.literals), base, out, outEnd)) {
            return error;
        }
    }
    if (out != outEnd) {
        return LzfseError::contentSizeMismatch;
    }
    return std::nullopt;
}

} // namespace

Result<std::vector<std::uint8_t>, LzfseError> lzfseDecompress(std::span<const std::uint8_t> input,
                                                              std::size_t sizeLimit) {
    return StreamDecoder(input, sizeLimit).run();
}

} // namespace kinbook
