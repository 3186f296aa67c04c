// LZFSE block encoder: a hash-chain-free match finder with one pending match
// (a cheap form of lazy matching), then FSE entropy coding of the literals and
// of the literal-length / match-length / distance triples of each block.

#include "KinbookKit/text/LzfseEncoder.h"

#include "KinbookKit/text/LzfseFormat.h"

#include <algorithm>
#include <array>
#include <bit>

namespace kinbook::lzfse {

namespace {

// Blocks are closed before they reach the format's limits, leaving room for
// the padding of the literals to a multiple of 4.
constexpr std::size_t blockTripleLimit = 9991;
constexpr std::size_t blockLiteralLimit = maxLiteralsPerBlock - 16;

// A match of this length is taken at once instead of waiting for a better one.
constexpr std::size_t goodEnoughMatch = 40;

struct Triple {
    std::uint32_t literalCount;
    std::uint32_t matchCount;
    std::uint32_t distance;
};

// Appends bit fields LSB-first; the decoder reads them back from the end.
class BitWriter {
public:
    explicit BitWriter(std::vector<std::uint8_t>& out) : m_out(out) {}

    void write(std::uint32_t value, std::uint32_t bits) {
        m_acc |= static_cast<std::uint64_t>(value) << m_count;
        m_count += bits;
        while (m_count >= 8) {
            m_out.push_back(static_cast<std::uint8_t>(m_acc));
            m_acc >>= 8;
            m_count -= 8;
        }
    }

    // Pads to a whole byte and returns the stored bit-count adjustment (-7..0).
    std::int32_t finish() {
        if (m_count == 0) {
            return 0;
        }
        const std::int32_t adjustment = static_cast<std::int32_t>(m_count) - 8;
        m_out.push_back(static_cast<std::uint8_t>(m_acc));
        m_acc = 0;
        m_count = 0;
        return adjustment;
    }

private:
    std::vector<std::uint8_t>& m_out;
    std::uint64_t m_acc = 0;
    std::uint32_t m_count = 0;
};

// Turns symbol counts into frequencies that sum to exactly `states`, giving
// every symbol that occurs at least 1. Rounds each count to its share of the
// states, then settles the difference on the most frequent symbol when that
// is cheap, or trims every symbol a little when it is not.
template <std::size_t Symbols>
std::array<std::uint16_t, Symbols> normalize(const std::array<std::uint32_t, Symbols>& counts,
                                             std::uint32_t states) {
    std::array<std::uint16_t, Symbols> frequencies{};
    std::uint64_t total = 0;
    for (const std::uint32_t count : counts) {
        total += count;
    }
    if (total == 0) {
        frequencies[0] = static_cast<std::uint16_t>(states);
        return frequencies;
    }
    const std::uint32_t logStates = floorLog2(states);
    const std::uint64_t step = (std::uint64_t{1} << 31) / total;
    std::int64_t remaining = states;
    std::size_t largest = 0;
    for (std::size_t s = 0; s < Symbols; ++s) {
        if (counts[s] == 0) {
            continue;
        }
        std::uint64_t f = (((counts[s] * step) >> (30 - logStates)) + 1) >> 1;
        f = std::max<std::uint64_t>(f, 1);
        frequencies[s] = static_cast<std::uint16_t>(f);
        remaining -= static_cast<std::int64_t>(f);
        if (frequencies[s] > frequencies[largest]) {
            largest = s;
        }
    }
    if (remaining >= 0 || -remaining < frequencies[largest] / 4) {
        frequencies[largest] = static_cast<std::uint16_t>(frequencies[largest] + remaining);
        return frequencies;
    }
    std::int64_t excess = -remaining;
    for (int shift = 3; shift >= 0 && excess > 0; --shift) {
        for (std::size_t s = 0; s < Symbols && excess > 0; ++s) {
            if (frequencies[s] > 1) {
                const std::int64_t take = std::min<std::int64_t>((frequencies[s] - 1) >> shift, excess);
                frequencies[s] = static_cast<std::uint16_t>(frequencies[s] - take);
                excess -= take;
            }
        }
    }
    return frequencies;
}

// tANS encoder for one frequency table; the inverse of the decoder's table.
template <std::size_t Symbols>
class FseEncoder {
public:
    FseEncoder(const std::array<std::uint16_t, Symbols>& frequencies, std::uint32_t states)
        : m_states(states) {
        const std::uint32_t logStates = floorLog2(states);
        std::uint32_t start = 0;
        for (std::size_t s = 0; s < Symbols; ++s) {
            const std::uint32_t f = frequencies[s];
            if (f == 0) {
                continue;
            }
            const std::uint32_t k = logStates - floorLog2(f);
            m_symbols[s] = {f, start, k, f << k};
            start += f;
        }
    }

    void encode(std::uint32_t& state, std::size_t symbol, BitWriter& writer) const {
        const Entry& entry = m_symbols[symbol];
        const std::uint32_t x = state + m_states;
        const std::uint32_t bits = x >= entry.threshold ? entry.shift : entry.shift - 1;
        writer.write(state & ((1u << bits) - 1), bits);
        state = entry.start + (x >> bits) - entry.frequency;
    }

private:
    struct Entry {
        std::uint32_t frequency = 0;
        std::uint32_t start = 0;
        std::uint32_t shift = 0;
        std::uint32_t threshold = 0;
    };
    std::uint32_t m_states;
    std::array<Entry, Symbols> m_symbols{};
};

std::uint32_t lSymbolOf(std::uint32_t value) {
    return value < 16 ? value : value < 20 ? 16 : value < 28 ? 17 : value < 60 ? 18 : 19;
}

std::uint32_t mSymbolOf(std::uint32_t value) {
    return value < 16 ? value : value < 24 ? 16 : value < 56 ? 17 : value < 312 ? 18 : 19;
}

std::uint32_t dSymbolOf(std::uint32_t value) {
    return static_cast<std::uint32_t>(std::upper_bound(dBaseValue.begin(), dBaseValue.end(), value) -
                                      dBaseValue.begin() - 1);
}

// Writes one value of the frequency-table code.
void writeFrequencyCode(BitWriter& writer, std::uint32_t value) {
    if (value < 2) {
        writer.write(value << 1, 2);
    } else if (value < 4) {
        writer.write(1 | (value - 2) << 2, 3);
    } else if (value < 8) {
        writer.write(3 | (value - 4) << 3, 5);
    } else if (value < 24) {
        writer.write(7 | (value - 8) << 4, 8);
    } else {
        writer.write(15 | (value - 24) << 4, 14);
    }
}

void storeU32(std::uint8_t* p, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

void storeU64(std::uint8_t* p, std::uint64_t value) {
    storeU32(p, static_cast<std::uint32_t>(value));
    storeU32(p + 4, static_cast<std::uint32_t>(value >> 32));
}

void appendRawBlock(std::span<const std::uint8_t> content, std::vector<std::uint8_t>& out) {
    const std::size_t start = out.size();
    out.resize(start + 8);
    storeU32(out.data() + start, magicRaw);
    storeU32(out.data() + start + 4, static_cast<std::uint32_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
}

// Writes one "bvx2" block for the given triples and literals, whose content is
// `content`; falls back to a raw block when that is not larger.
void appendLzfseBlock(std::span<const Triple> triples, std::vector<std::uint8_t>& literals,
                      std::span<const std::uint8_t> content, std::vector<std::uint8_t>& out) {
    const std::size_t literalCount = literals.size();
    literals.resize((literalCount + 3) & ~std::size_t{3}, 0);

    std::array<std::uint32_t, literalSymbols> literalCounts{};
    for (const std::uint8_t byte : literals) {
        ++literalCounts[byte];
    }
    // Distances repeated from the previous triple are coded as 0.
    std::vector<std::uint32_t> codedDistances(triples.size());
    std::array<std::uint32_t, lSymbols> lCounts{};
    std::array<std::uint32_t, mSymbols> mCounts{};
    std::array<std::uint32_t, dSymbols> dCounts{};
    std::uint32_t previousDistance = 0;
    for (std::size_t i = 0; i < triples.size(); ++i) {
        const Triple& t = triples[i];
        codedDistances[i] = t.distance == previousDistance ? 0 : t.distance;
        previousDistance = t.distance;
        ++lCounts[lSymbolOf(t.literalCount)];
        ++mCounts[mSymbolOf(t.matchCount)];
        ++dCounts[dSymbolOf(codedDistances[i])];
    }
    const auto literalFrequencies = normalize(literalCounts, literalStates);
    const auto lFrequencies = normalize(lCounts, lStates);
    const auto mFrequencies = normalize(mCounts, mStates);
    const auto dFrequencies = normalize(dCounts, dStates);

    const std::size_t blockStart = out.size();
    out.resize(blockStart + v2FixedHeaderSize);
    BitWriter writer(out);
    for (const std::uint16_t f : lFrequencies) {
        writeFrequencyCode(writer, f);
    }
    for (const std::uint16_t f : mFrequencies) {
        writeFrequencyCode(writer, f);
    }
    for (const std::uint16_t f : dFrequencies) {
        writeFrequencyCode(writer, f);
    }
    for (const std::uint16_t f : literalFrequencies) {
        writeFrequencyCode(writer, f);
    }
    writer.finish();
    const std::size_t headerSize = out.size() - blockStart;

    // Literals: four interleaved states over one stream, written from the last
    // group to the first so that the decoder reads them in order.
    const FseEncoder<literalSymbols> literalEncoder(literalFrequencies, literalStates);
    std::array<std::uint32_t, 4> literalState{};
    for (std::size_t i = literals.size(); i > 0; i -= 4) {
        for (std::size_t k = 4; k > 0; --k) {
            literalEncoder.encode(literalState[k - 1], literals[i - 4 + k - 1], writer);
        }
    }
    const std::int32_t literalBits = writer.finish();
    const std::size_t literalPayloadBytes = out.size() - blockStart - headerSize;

    // Triples, last to first, each as D, M, L with the extra bits before the
    // state bits. The 8 leading zero bytes let decoders that start by loading
    // a whole 64-bit word read the stream.
    const FseEncoder<lSymbols> lEncoder(lFrequencies, lStates);
    const FseEncoder<mSymbols> mEncoder(mFrequencies, mStates);
    const FseEncoder<dSymbols> dEncoder(dFrequencies, dStates);
    writer.write(0, 32);
    writer.write(0, 32);
    std::uint32_t lState = 0;
    std::uint32_t mState = 0;
    std::uint32_t dState = 0;
    for (std::size_t i = triples.size(); i > 0; --i) {
        const Triple& t = triples[i - 1];
        const std::uint32_t d = codedDistances[i - 1];
        const std::uint32_t dSymbol = dSymbolOf(d);
        writer.write(d - dBaseValue[dSymbol], dExtraBits[dSymbol]);
        dEncoder.encode(dState, dSymbol, writer);
        const std::uint32_t mSymbol = mSymbolOf(t.matchCount);
        writer.write(t.matchCount - mBaseValue[mSymbol], mExtraBits[mSymbol]);
        mEncoder.encode(mState, mSymbol, writer);
        const std::uint32_t lSymbol = lSymbolOf(t.literalCount);
        writer.write(t.literalCount - lBaseValue[lSymbol], lExtraBits[lSymbol]);
        lEncoder.encode(lState, lSymbol, writer);
    }
    const std::int32_t lmdBits = writer.finish();
    const std::size_t lmdPayloadBytes = out.size() - blockStart - headerSize - literalPayloadBytes;

    if (out.size() - blockStart >= content.size() + 8) {
        out.resize(blockStart);
        appendRawBlock(content, out);
        return;
    }

    std::uint8_t* header = out.data() + blockStart;
    storeU32(header, magicV2);
    storeU32(header + 4, static_cast<std::uint32_t>(content.size()));
    storeU64(header + 8, std::uint64_t{literals.size()} | std::uint64_t{literalPayloadBytes} << 20 |
                             std::uint64_t{triples.size()} << 40 |
                             static_cast<std::uint64_t>(literalBits + 7) << 60);
    storeU64(header + 16, std::uint64_t{literalState[0]} | std::uint64_t{literalState[1]} << 10 |
                              std::uint64_t{literalState[2]} << 20 | std::uint64_t{literalState[3]} << 30 |
                              std::uint64_t{lmdPayloadBytes} << 40 |
                              static_cast<std::uint64_t>(lmdBits + 7) << 60);
    storeU64(header + 24, std::uint64_t{headerSize} | std::uint64_t{lState} << 32 |
                              std::uint64_t{mState} << 42 | std::uint64_t{dState} << 52);
}

// Collects triples in input order and closes a block whenever the next triple
// would not fit.
class BlockBuilder {
public:
    BlockBuilder(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out)
        : m_input(input), m_out(out) {
        m_triples.reserve(blockTripleLimit);
        m_literals.reserve(maxLiteralsPerBlock);
    }

    // Adds `literalCount` literals from the current position followed by a
    // match, splitting both to the per-triple limits.
    void addMatch(std::size_t literalCount, std::size_t matchCount, std::uint32_t distance) {
        while (literalCount > maxL) {
            addTriple(maxL, 0, literalOnlyDistance());
            literalCount -= maxL;
        }
        do {
            const std::size_t piece = std::min<std::size_t>(matchCount, maxM);
            addTriple(static_cast<std::uint32_t>(literalCount), static_cast<std::uint32_t>(piece), distance);
            literalCount = 0;
            matchCount -= piece;
        } while (matchCount > 0);
    }

    void addLiterals(std::size_t literalCount) {
        while (literalCount > 0) {
            const std::size_t piece = std::min<std::size_t>(literalCount, maxL);
            addTriple(static_cast<std::uint32_t>(piece), 0, literalOnlyDistance());
            literalCount -= piece;
        }
    }

    void flush() {
        if (m_triples.empty()) {
            return;
        }
        appendLzfseBlock(m_triples, m_literals, m_input.subspan(m_blockStart, m_position - m_blockStart),
                         m_out);
        m_triples.clear();
        m_literals.clear();
        m_blockStart = m_position;
    }

private:
    // A triple without a match still carries a distance; repeating the
    // previous one costs the fewest bits, and 1 is always valid after a literal.
    std::uint32_t literalOnlyDistance() const { return m_lastDistance == 0 ? 1 : m_lastDistance; }

    void addTriple(std::uint32_t literalCount, std::uint32_t matchCount, std::uint32_t distance) {
        if (m_triples.size() >= blockTripleLimit || m_literals.size() + literalCount > blockLiteralLimit) {
            flush();
        }
        m_literals.insert(m_literals.end(), m_input.begin() + static_cast<std::ptrdiff_t>(m_position),
                          m_input.begin() + static_cast<std::ptrdiff_t>(m_position + literalCount));
        m_triples.push_back({literalCount, matchCount, distance});
        m_position += std::size_t{literalCount} + matchCount;
        m_lastDistance = distance;
    }

    std::span<const std::uint8_t> m_input;
    std::vector<std::uint8_t>& m_out;
    std::vector<Triple> m_triples;
    std::vector<std::uint8_t> m_literals;
    std::size_t m_blockStart = 0;
    std::size_t m_position = 0;
    std::uint32_t m_lastDistance = 0;
};

// Number of equal bytes at `a` and `b`, at most `limit`.
std::size_t commonLength(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
    std::size_t length = 0;
    while (length + 8 <= limit) {
        const std::uint64_t difference = loadU64(a + length) ^ loadU64(b + length);
        if (difference != 0) {
            return length + static_cast<std::size_t>(std::countr_zero(difference)) / 8;
        }
        length += 8;
    }
    while (length < limit && a[length] == b[length]) {
        ++length;
    }
    return length;
}

struct Match {
    std::size_t start = 0;
    std::size_t length = 0; // 0: no match
    std::uint32_t distance = 0;

    std::size_t end() const { return start + length; }
};

// Remembers the 4 most recent positions of each 4-byte hash.
class MatchFinder {
public:
    static constexpr std::uint32_t hashBits = 14;
    static constexpr std::size_t ways = 4; // the inserts below assume 4

    // Slots start zeroed: position 0 with a value that is only a guess, so a
    // candidate at position 0 is checked against the input itself.
    explicit MatchFinder(std::span<const std::uint8_t> input)
        : m_input(input), m_buckets(1u << hashBits),
          m_firstValue(input.size() >= 4 ? loadU32(input.data()) : 0) {}

    // The longest earlier match for position `i` (which needs 4 readable bytes),
    // extended backwards no further than `floor`. Records `i` afterwards.
    Match findAndInsert(std::size_t i, std::size_t floor) {
        const std::uint8_t* p = m_input.data();
        const std::uint32_t value = loadU32(p + i);
        Bucket& bucket = m_buckets[hash(value)];
        Match best;
        for (std::size_t w = 0; w < ways; ++w) {
            const std::size_t candidate = bucket.position[w];
            if (bucket.value[w] != value || candidate >= i || i - candidate > maxD ||
                (candidate == 0 && m_firstValue != value)) {
                continue;
            }
            const std::size_t length = 4 + commonLength(p + i + 4, p + candidate + 4, m_input.size() - i - 4);
            if (length > best.length) {
                best = {i, length, static_cast<std::uint32_t>(i - candidate)};
            }
        }
        insert(bucket, i, value);
        if (best.length > 0) {
            while (best.start > floor && best.start > best.distance &&
                   p[best.start - 1] == p[best.start - 1 - best.distance]) {
                --best.start;
                ++best.length;
            }
        }
        return best;
    }

    void insert(std::size_t i) {
        const std::uint32_t value = loadU32(m_input.data() + i);
        insert(m_buckets[hash(value)], i, value);
    }

private:
    struct Bucket {
        std::array<std::uint32_t, ways> position{};
        std::array<std::uint32_t, ways> value{};
    };

    static std::uint32_t hash(std::uint32_t value) { return (value * 2654435761u) >> (32 - hashBits); }

    static void insert(Bucket& bucket, std::size_t i, std::uint32_t value) {
        // Written as whole arrays: a shifting loop becomes a memmove call.
        bucket.position = {static_cast<std::uint32_t>(i), bucket.position[0], bucket.position[1],
                           bucket.position[2]};
        bucket.value = {value, bucket.value[0], bucket.value[1], bucket.value[2]};
    }

    std::span<const std::uint8_t> m_input;
    std::vector<Bucket> m_buckets;
    std::uint32_t m_firstValue;
};

} // namespace

void encodeLzfseBlocks(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out) {
    BlockBuilder blocks(input, out);
    MatchFinder finder(input);
    std::size_t literalStart = 0; // first input byte not yet given to a triple
    Match pending;
    auto emit = [&](const Match& match) {
        blocks.addMatch(match.start - literalStart, match.length, match.distance);
        literalStart = match.end();
    };
    const std::size_t searchEnd = input.size() >= 8 ? input.size() - 8 : 0;
    std::size_t i = 0;
    // Moves the search past an emitted match; its positions still enter the
    // hash table so that later data can refer to them.
    auto skipTo = [&](std::size_t target) {
        for (std::size_t j = i + 1; j < target && j < searchEnd; ++j) {
            finder.insert(j);
        }
        i = std::max(i + 1, target);
    };
    while (i < searchEnd) {
        const Match match = finder.findAndInsert(i, literalStart);
        if (match.length == 0) {
            ++i;
            continue;
        }
        if (match.length >= goodEnoughMatch) {
            if (pending.length > 0 && pending.end() <= match.start) {
                emit(pending);
            }
            pending = {};
            emit(match);
            skipTo(match.end());
            continue;
        }
        if (pending.length == 0) {
            pending = match;
            ++i;
            continue;
        }
        if (pending.end() <= match.start) {
            emit(pending);
            pending = match;
            ++i;
            continue;
        }
        // Overlapping candidates: keep the longer, the earlier one on a tie.
        const Match winner = pending.length >= match.length ? pending : match;
        pending = {};
        emit(winner);
        skipTo(winner.end());
    }
    if (pending.length > 0) {
        emit(pending);
    }
    blocks.addLiterals(input.size() - literalStart);
    blocks.flush();
}

} // namespace kinbook::lzfse
