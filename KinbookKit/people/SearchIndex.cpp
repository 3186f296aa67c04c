#include "KinbookKit/people/SearchIndex.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kinbook {
namespace {

std::size_t slotOf(const Person* person, std::size_t mask) {
    // People are allocated at least 16 bytes apart; the multiplier spreads
    // the remaining bits over the table.
    const auto bits = reinterpret_cast<std::uintptr_t>(person) >> 4;
    return static_cast<std::size_t>(bits * 0x9E3779B97F4A7C15ull) & mask;
}

bool occursIn(std::string_view haystack, std::string_view needle) {
    return findBytes(haystack, needle) != std::string_view::npos;
}

// The bit of each byte a folded search text is mostly made of: the
// lowercase letters, the digits and the punctuation of addresses and
// numbers. Other bytes have none and constrain nothing.
constexpr std::array<std::uint64_t, 256> kLetterBits = [] {
    std::array<std::uint64_t, 256> bits{};
    int next = 0;
    const auto give = [&](unsigned char byte) { bits[byte] = std::uint64_t{1} << next++; };
    for (unsigned char c = 'a'; c <= 'z'; ++c) {
        give(c);
    }
    for (unsigned char c = '0'; c <= '9'; ++c) {
        give(c);
    }
    for (const unsigned char c : {' ', '.', '@', '-', '+', ',', '\'', '/', '(', ')', '_', '\n'}) {
        give(c);
    }
    return bits;
}();

constexpr std::size_t kLetterCount = 26;
constexpr std::size_t kPairCount = kLetterCount * kLetterCount;

bool isLetter(char c) {
    return c >= 'a' && c <= 'z';
}

// The pair's row; both bytes must be letters.
std::size_t pairOf(char first, char second) {
    return static_cast<std::size_t>(first - 'a') * kLetterCount + static_cast<std::size_t>(second - 'a');
}

} // namespace

std::size_t findBytes(std::string_view haystack, std::string_view needle) {
    const std::size_t length = needle.size();
    if (length == 0) {
        return 0;
    }
    if (length > haystack.size()) {
        return std::string_view::npos;
    }
    const char* data = haystack.data();
    if (length == 1) {
        const void* hit = std::memchr(data, needle[0], haystack.size());
        return hit == nullptr ? std::string_view::npos
                              : static_cast<std::size_t>(static_cast<const char*>(hit) - data);
    }
    const std::size_t starts = haystack.size() - length + 1; // positions a match may begin at
    std::size_t at = 0;
#if defined(__SSE2__)
    // Sixteen starting positions at a time: only where both the first and
    // the last byte of the needle fit is the rest compared.
    const __m128i first = _mm_set1_epi8(needle.front());
    const __m128i last = _mm_set1_epi8(needle.back());
    for (; at + 16 <= starts; at += 16) {
        const __m128i heads = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
        const __m128i tails = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at + length - 1));
        auto candidates = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(first, heads), _mm_cmpeq_epi8(last, tails))));
        while (candidates != 0) {
            const auto offset = static_cast<std::size_t>(std::countr_zero(candidates));
            if (std::memcmp(data + at + offset + 1, needle.data() + 1, length - 2) == 0) {
                return at + offset;
            }
            candidates &= candidates - 1;
        }
    }
#endif
    for (; at < starts; ++at) {
        if (data[at] == needle.front() && std::memcmp(data + at + 1, needle.data() + 1, length - 1) == 0) {
            return at;
        }
    }
    return std::string_view::npos;
}

SearchIndex::SearchIndex(std::span<const PersonPtr> people) {
    m_people.reserve(people.size());
    m_starts.reserve(people.size() + 1);
    std::size_t bytes = 0;
    for (const auto& person : people) {
        bytes += person->searchText().size() + 1;
    }
    m_text.reserve(bytes);
    for (const auto& person : people) {
        m_people.push_back(person.get());
        m_starts.push_back(static_cast<std::uint32_t>(m_text.size()));
        m_text += person->searchText();
        m_text.push_back('\0');
    }
    m_starts.push_back(static_cast<std::uint32_t>(m_text.size()));
    m_letters.reserve(people.size());
    m_pairWords = (people.size() + 63) / 64;
    m_pairs.assign(kPairCount * m_pairWords, 0);
    for (std::uint32_t position = 0; position < m_people.size(); ++position) {
        const auto text = searchText(position);
        m_letters.push_back(lettersOf(text));
        const std::uint64_t bit = std::uint64_t{1} << (position % 64);
        for (std::size_t i = 1; i < text.size(); ++i) {
            if (isLetter(text[i - 1]) && isLetter(text[i])) {
                m_pairs[pairOf(text[i - 1], text[i]) * m_pairWords + position / 64] |= bit;
            }
        }
    }

    m_slots.assign(std::bit_ceil(people.size() * 2 + 2), {nullptr, 0});
    const std::size_t mask = m_slots.size() - 1;
    for (std::uint32_t position = 0; position < m_people.size(); ++position) {
        auto slot = slotOf(m_people[position], mask);
        while (m_slots[slot].first != nullptr && m_slots[slot].first != m_people[position]) {
            slot = (slot + 1) & mask;
        }
        if (m_slots[slot].first == nullptr) {
            m_slots[slot] = {m_people[position], position};
        }
    }
}

std::uint64_t SearchIndex::lettersOf(std::string_view text) {
    std::uint64_t letters = 0;
    for (const char c : text) {
        letters |= kLetterBits[static_cast<unsigned char>(c)];
    }
    return letters;
}

std::string_view SearchIndex::searchText(std::uint32_t position) const {
    return std::string_view(m_text).substr(m_starts[position],
                                           m_starts[position + 1] - m_starts[position] - 1);
}

std::optional<std::uint32_t> SearchIndex::positionOf(const Person* person) const {
    const std::size_t mask = m_slots.size() - 1;
    for (auto slot = slotOf(person, mask); m_slots[slot].first != nullptr; slot = (slot + 1) & mask) {
        if (m_slots[slot].first == person) {
            return m_slots[slot].second;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<std::uint32_t>> SearchIndex::positionsOf(std::span<const Section> sections) const {
    std::vector<std::uint32_t> positions;
    positions.reserve(static_cast<std::size_t>(peopleCount(sections)));
    for (const auto& section : sections) {
        for (const auto& person : section.people) {
            const auto position = positionOf(person);
            if (!position) {
                return std::nullopt;
            }
            positions.push_back(*position);
        }
    }
    return positions;
}

bool SearchIndex::matchesWords(const SearchQuery& query, std::uint32_t position,
                               const std::string* pastJobs) const {
    // As SearchQuery::matches, once the whole query was not found: every
    // word somewhere, a one-word query's texts already tried.
    const auto text = searchText(position);
    const bool textsTried = query.words.size() == 1;
    for (const auto& word : query.words) {
        if (word.bytes.empty()) {
            continue;
        }
        if (!textsTried &&
            (occursIn(text, word.bytes) || (pastJobs != nullptr && occursIn(*pastJobs, word.bytes)))) {
            continue;
        }
        if (!word.digitBytes.empty()) {
            if (word.inNumbers(m_people[position]->phoneDigits())) {
                continue;
            }
        }
        return false;
    }
    return true;
}

void SearchIndex::match(const SearchQuery& query, std::span<const std::uint32_t> candidates, bool everyone,
                        std::span<const std::string* const> pastJobs,
                        std::vector<std::uint8_t>& matched) const {
    const std::string_view whole = query.wholeBytes();
    // A one-letter query is answered by the letters each text holds, a
    // two-letter one by the pairs. A longer one is looked for in the texts
    // that hold all its letters and letter pairs; one without a letter pair
    // is looked for in one pass over everyone's text when everyone is a
    // candidate. (A NUL in the query could match across two people's texts
    // in the block.)
    const std::uint64_t needed = lettersOf(whole);
    const bool byLetterAlone = whole.size() == 1 && needed != 0;
    // The rows of the query's letter pairs, each once. A text that holds the
    // query holds every one of them.
    std::vector<const std::uint64_t*> pairs;
    for (std::size_t i = 1; i < whole.size(); ++i) {
        if (isLetter(whole[i - 1]) && isLetter(whole[i])) {
            const auto* row = pairRow(pairOf(whole[i - 1], whole[i]));
            if (std::find(pairs.begin(), pairs.end(), row) == pairs.end()) {
                pairs.push_back(row);
            }
        }
    }
    const bool byPairAlone = whole.size() == 2 && pairs.size() == 1;
    // With pairs to pass people over, visiting each beats reading everyone's text.
    const bool onePass = everyone && !byLetterAlone && pairs.empty() && !whole.empty() &&
                         whole.find('\0') == std::string_view::npos;
    const auto textHolds = [&](std::uint32_t position) {
        if (byPairAlone) {
            return holds(pairs.front(), position);
        }
        if ((m_letters[position] & needed) != needed) {
            return false;
        }
        if (byLetterAlone) {
            return true;
        }
        for (const auto* row : pairs) {
            if (!holds(row, position)) {
                return false;
            }
        }
        return occursIn(searchText(position), whole);
    };
    if (onePass) {
        std::size_t from = 0;
        std::uint32_t position = 0;
        const std::string_view text = m_text;
        while (from < text.size()) {
            const auto hit = findBytes(text.substr(from), whole);
            if (hit == std::string_view::npos) {
                break;
            }
            const auto at = from + hit;
            while (m_starts[position + 1] <= at) {
                ++position;
            }
            matched[position] = 1;
            from = m_starts[position + 1]; // the next person's text
        }
    }
    const bool wordsLeft = query.words.size() > 1 || std::any_of(query.words.begin(), query.words.end(),
                                                                 [](const SearchQuery::Word& word) {
                                                                     return !word.digitBytes.empty();
                                                                 });
    const auto rest = [&](std::uint32_t position) {
        if (matched[position] != 0) {
            return;
        }
        if (!onePass && textHolds(position)) {
            matched[position] = 1;
            return;
        }
        const std::string* past = pastJobs.empty() ? nullptr : pastJobs[position];
        if (past != nullptr && occursIn(*past, whole)) {
            matched[position] = 1;
            return;
        }
        if ((wordsLeft || past != nullptr) && matchesWords(query, position, past)) {
            matched[position] = 1;
        }
    };
    if (everyone) {
        if (onePass && !wordsLeft && pastJobs.empty()) {
            return; // a one-word query found in one pass: nothing else can match
        }
        if (!pairs.empty() && !wordsLeft && pastJobs.empty()) {
            // Only the text can match, and only where it holds every pair:
            // visit just those people, sixty-four positions to a word.
            for (std::size_t word = 0; word < m_pairWords; ++word) {
                std::uint64_t bits = ~std::uint64_t{0};
                for (const auto* row : pairs) {
                    bits &= row[word];
                }
                for (; bits != 0; bits &= bits - 1) {
                    rest(static_cast<std::uint32_t>(word * 64 +
                                                    static_cast<std::size_t>(std::countr_zero(bits))));
                }
            }
            return;
        }
        for (std::uint32_t position = 0; position < m_people.size(); ++position) {
            rest(position);
        }
    } else {
        for (const auto position : candidates) {
            rest(position);
        }
    }
}

} // namespace kinbook
