// LZVN encoder for small inputs: byte-aligned instructions without entropy
// coding, so short Trash files do not pay for FSE tables.

#include "KinbookKit/text/LzvnEncoder.h"

#include "KinbookKit/text/LzfseFormat.h"

#include <algorithm>
#include <array>
#include <bit>

namespace kinbook::lzfse {

namespace {

// The hash table grows with the input up to 2^14 buckets; LZVN inputs are
// small, and clearing a table much larger than the input would dominate.
constexpr std::uint32_t maxHashBits = 14;
constexpr std::uint32_t minHashBits = 8;
constexpr std::size_t ways = 4; // the inserts below assume 4
constexpr std::size_t minMatch = 3;
// Distances below this fit the two-byte small-distance instruction.
constexpr std::uint32_t smallDistanceLimit = 1536;
// Distances below this fit the medium-distance instruction.
constexpr std::uint32_t mediumDistanceLimit = 16384;
constexpr std::size_t maxInstructionLength = 271;

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

// Writes LZVN instructions and remembers the previous distance, which the
// cheapest instructions reuse.
class LzvnWriter {
public:
    void literals(const std::uint8_t* source, std::size_t count) {
        while (count > 15) {
            const std::size_t piece = std::min(count, maxInstructionLength);
            m_out.push_back(0xE0);
            m_out.push_back(static_cast<std::uint8_t>(piece - 16));
            append(source, piece);
            source += piece;
            count -= piece;
        }
        if (count > 0) {
            m_out.push_back(static_cast<std::uint8_t>(0xE0 | count));
            append(source, count);
        }
    }

    // Emits `literalCount` literals from `source`, then a match of
    // `matchCount` (at least 3) bytes at `distance`.
    void match(const std::uint8_t* source, std::size_t literalCount, std::size_t matchCount,
               std::uint32_t distance) {
        // The match instruction itself carries up to 3 literals; longer runs
        // go out first as literal instructions.
        while (literalCount > 15) {
            const std::size_t piece = std::min(literalCount, maxInstructionLength);
            m_out.push_back(0xE0);
            m_out.push_back(static_cast<std::uint8_t>(piece - 16));
            append(source, piece);
            source += piece;
            literalCount -= piece;
        }
        if (literalCount >= 4) {
            m_out.push_back(static_cast<std::uint8_t>(0xE0 | literalCount));
            append(source, literalCount);
            source += literalCount;
            literalCount = 0;
        }
        const auto l = static_cast<std::uint32_t>(literalCount);
        const auto first = static_cast<std::uint32_t>(std::min<std::size_t>(matchCount, 10 - 2 * l));
        std::size_t rest = matchCount - first;
        if (distance == m_previousDistance) {
            if (l == 0) {
                m_out.push_back(static_cast<std::uint8_t>(0xF0 | first));
            } else {
                m_out.push_back(static_cast<std::uint8_t>(l << 6 | (first - 3) << 3 | 6));
            }
            append(source, l);
        } else if (distance < smallDistanceLimit) {
            m_out.push_back(static_cast<std::uint8_t>(l << 6 | (first - 3) << 3 | distance >> 8));
            m_out.push_back(static_cast<std::uint8_t>(distance));
            append(source, l);
        } else if (distance >= mediumDistanceLimit || matchCount > 34) {
            m_out.push_back(static_cast<std::uint8_t>(l << 6 | (first - 3) << 3 | 7));
            m_out.push_back(static_cast<std::uint8_t>(distance));
            m_out.push_back(static_cast<std::uint8_t>(distance >> 8));
            append(source, l);
        } else {
            // The medium-distance form carries the whole match length.
            const auto m = static_cast<std::uint32_t>(matchCount - 3);
            const std::uint32_t word = (m & 3) | distance << 2;
            m_out.push_back(static_cast<std::uint8_t>(0xA0 | l << 3 | m >> 2));
            m_out.push_back(static_cast<std::uint8_t>(word));
            m_out.push_back(static_cast<std::uint8_t>(word >> 8));
            append(source, l);
            rest = 0;
        }
        while (rest >= 16) {
            const std::size_t piece = std::min(rest, maxInstructionLength);
            m_out.push_back(0xF0);
            m_out.push_back(static_cast<std::uint8_t>(piece - 16));
            rest -= piece;
        }
        if (rest > 0) {
            m_out.push_back(static_cast<std::uint8_t>(0xF0 | rest));
        }
        m_previousDistance = distance;
    }

    std::vector<std::uint8_t> finish() {
        const std::array<std::uint8_t, 8> endOfStream = {0x06, 0, 0, 0, 0, 0, 0, 0};
        m_out.insert(m_out.end(), endOfStream.begin(), endOfStream.end());
        return std::move(m_out);
    }

    std::uint32_t previousDistance() const { return m_previousDistance; }

private:
    void append(const std::uint8_t* source, std::size_t count) {
        m_out.insert(m_out.end(), source, source + count);
    }

    std::vector<std::uint8_t> m_out;
    std::uint32_t m_previousDistance = 0;
};

struct Match {
    std::size_t start = 0;
    std::size_t length = 0; // 0: no match
    std::uint32_t distance = 0;
    std::int64_t gain = 0; // bytes saved over sending the same bytes as literals

    std::size_t end() const { return start + length; }
};

struct Bucket {
    std::array<std::uint32_t, ways> position{};
    std::array<std::uint32_t, ways> value{};
};

std::uint32_t hash(std::uint32_t value, std::uint32_t hashBits) {
    return (((value & 0xFFFFFF) * (1u + (1u << 6) + (1u << 12))) >> 12) & ((1u << hashBits) - 1);
}

void insert(Bucket& bucket, std::size_t i, std::uint32_t value) {
    // Written as whole arrays: a shifting loop becomes a memmove call.
    bucket.position = {static_cast<std::uint32_t>(i), bucket.position[0], bucket.position[1],
                       bucket.position[2]};
    bucket.value = {value, bucket.value[0], bucket.value[1], bucket.value[2]};
}

} // namespace

std::vector<std::uint8_t> encodeLzvnPayload(std::span<const std::uint8_t> input) {
    LzvnWriter writer;
    const std::uint8_t* p = input.data();
    const std::size_t size = input.size();
    const std::size_t searchEnd = size >= 8 ? size - 8 : 0;
    const std::uint32_t hashBits =
        std::clamp<std::uint32_t>(static_cast<std::uint32_t>(std::bit_width(size)), minHashBits, maxHashBits);
    // Slots start zeroed; the zero value of a slot at position 0 is only a
    // guess, which `consider` checks against the input itself.
    std::vector<Bucket> buckets(std::size_t{1} << hashBits);

    std::size_t literalStart = 0;
    Match pending;
    auto gainOf = [&](std::size_t length, std::uint32_t distance) {
        const std::int64_t cost = distance == writer.previousDistance() ? 1
                                  : distance < smallDistanceLimit       ? 2
                                                                        : 3;
        return static_cast<std::int64_t>(length) - cost;
    };
    auto emit = [&](const Match& match) {
        writer.match(p + literalStart, match.start - literalStart, match.length, match.distance);
        literalStart = match.end();
    };
    auto consider = [&](Match& best, std::size_t i, std::size_t candidate) {
        if (candidate >= i || i - candidate > maxLzvnDistance) {
            return;
        }
        if (p[candidate] != p[i] || p[candidate + 1] != p[i + 1] || p[candidate + 2] != p[i + 2]) {
            return;
        }
        Match match{i,
                    minMatch + commonLength(p + i + minMatch, p + candidate + minMatch, size - i - minMatch),
                    static_cast<std::uint32_t>(i - candidate)};
        while (match.start > literalStart && match.start > match.distance &&
               p[match.start - 1] == p[match.start - 1 - match.distance]) {
            --match.start;
            ++match.length;
        }
        match.gain = gainOf(match.length, match.distance);
        if (match.gain > best.gain) {
            best = match;
        }
    };

    std::size_t i = 0;
    auto skipTo = [&](std::size_t target) {
        for (std::size_t j = i + 1; j < target && j < searchEnd; ++j) {
            const std::uint32_t value = loadU32(p + j);
            insert(buckets[hash(value, hashBits)], j, value);
        }
        i = std::max(i + 1, target);
    };
    while (i < searchEnd) {
        const std::uint32_t value = loadU32(p + i);
        Bucket& bucket = buckets[hash(value, hashBits)];
        Match best;
        for (std::size_t w = 0; w < ways; ++w) {
            if (((bucket.value[w] ^ value) & 0xFFFFFF) == 0) {
                consider(best, i, bucket.position[w]);
            }
        }
        if (writer.previousDistance() != 0 && writer.previousDistance() <= i) {
            consider(best, i, i - writer.previousDistance());
        }
        insert(bucket, i, value);
        if (best.gain <= 0) {
            ++i;
            continue;
        }
        if (pending.length == 0) {
            pending = best;
            ++i;
            continue;
        }
        if (pending.end() <= best.start) {
            emit(pending);
            pending = best;
            ++i;
            continue;
        }
        const Match winner = pending.gain >= best.gain ? pending : best;
        pending = {};
        emit(winner);
        skipTo(winner.end());
    }
    if (pending.length > 0) {
        emit(pending);
    }
    writer.literals(p + literalStart, size - literalStart);
    return writer.finish();
}

} // namespace kinbook::lzfse
