#include "KinbookKit/people/SearchQuery.h"

#include "KinbookKit/text/CodePoints.h"
#include "KinbookKit/text/Fold.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kinbook {
namespace {

// Plain byte search over folded UTF-8: a folded needle can only occur at a
// character boundary of a folded haystack, so no decoding is needed.
//
// Search texts are short (a hundred bytes or so), so what a general search
// spends on studying the needle is most of its time here. This looks, sixteen
// start positions at a time, for the needle's first and last byte at once,
// and compares the rest only where both agree.
bool occursIn(std::string_view haystack, std::string_view needle) {
    const std::size_t length = needle.size();
    if (length == 0) {
        return true;
    }
    if (length > haystack.size()) {
        return false;
    }
    const char* data = haystack.data();
    if (length == 1) {
        return std::memchr(data, needle[0], haystack.size()) != nullptr;
    }
    const std::size_t starts = haystack.size() - length + 1;
    std::size_t start = 0;
#if defined(__SSE2__)
    const __m128i first = _mm_set1_epi8(needle.front());
    const __m128i last = _mm_set1_epi8(needle.back());
    for (; start + 16 <= starts; start += 16) {
        const __m128i atFirst = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + start));
        const __m128i atLast = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + start + length - 1));
        auto candidates = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(atFirst, first), _mm_cmpeq_epi8(atLast, last))));
        while (candidates != 0) {
            const auto offset = static_cast<std::size_t>(__builtin_ctz(candidates));
            if (std::memcmp(data + start + offset + 1, needle.data() + 1, length - 2) == 0) {
                return true;
            }
            candidates &= candidates - 1;
        }
    }
#endif
    for (; start < starts; ++start) {
        if (data[start] == needle.front() && data[start + length - 1] == needle.back() &&
            std::memcmp(data + start + 1, needle.data() + 1, length - 2) == 0) {
            return true;
        }
    }
    return false;
}

bool occursInAny(const TextList& haystacks, std::string_view needle) {
    for (const auto& haystack : haystacks) {
        if (occursIn(haystack, needle)) {
            return true;
        }
    }
    return false;
}

// A word the user typed as (part of) a phone number: "(555)", "12-34",
// "+44". Letters anywhere make it text ("a5"), and punctuation alone is not
// a number.
bool isPhoneLike(std::string_view piece) {
    bool hasNumber = false;
    for (std::size_t position = 0; position < piece.size();) {
        const auto character = decodeAt(piece, position);
        position += character.length;
        const auto value = character.value;
        if (isNumberCodePoint(value)) {
            hasNumber = true;
        } else if (value != '+' && value != '-' && value != '(' && value != ')' && value != '.') {
            return false;
        }
    }
    return hasNumber;
}

} // namespace

SearchQuery SearchQuery::parse(std::string_view text) {
    SearchQuery query;
    std::size_t trimmedBegin = std::string_view::npos;
    std::size_t trimmedEnd = 0;
    std::size_t wordBegin = std::string_view::npos;
    const auto endWord = [&](std::size_t end) {
        const auto piece = text.substr(wordBegin, end - wordBegin);
        Word word;
        word.bytes = fold(piece);
        if (isPhoneLike(piece)) {
            word.digitBytes = numberCharacters(piece);
            if (word.digitBytes.size() > 2 && word.digitBytes.starts_with("00")) {
                word.internationalDigits = word.digitBytes.substr(2);
            }
        }
        query.words.push_back(std::move(word));
        wordBegin = std::string_view::npos;
    };
    for (std::size_t position = 0; position < text.size();) {
        const auto character = decodeAt(text, position);
        if (isSpaceCodePoint(character.value)) {
            if (wordBegin != std::string_view::npos) {
                endWord(position);
            }
        } else {
            if (wordBegin == std::string_view::npos) {
                wordBegin = position;
            }
            if (trimmedBegin == std::string_view::npos) {
                trimmedBegin = position;
            }
            trimmedEnd = position + character.length;
        }
        position += character.length;
    }
    if (wordBegin != std::string_view::npos) {
        endWord(text.size());
    }
    if (trimmedBegin != std::string_view::npos) {
        query.whole = fold(text.substr(trimmedBegin, trimmedEnd - trimmedBegin));
    }
    return query;
}

bool SearchQuery::Word::inNumbers(const TextList& phoneDigits) const {
    if (occursInAny(phoneDigits, digitBytes)) {
        return true;
    }
    if (!internationalDigits.empty()) {
        for (const auto& number : phoneDigits) {
            if (std::string_view(number).starts_with(internationalDigits)) {
                return true;
            }
        }
    }
    return false;
}

bool SearchQuery::narrows(const SearchQuery& earlier) const {
    if (earlier.isEmpty() || !whole.starts_with(earlier.whole)) {
        return false;
    }
    // This query is the earlier one with more typed, so each earlier word is
    // here at the same place, the last perhaps longer.
    for (std::size_t i = 0; i < earlier.words.size() && i < words.size(); ++i) {
        if ((!words[i].digitBytes.empty() && earlier.words[i].digitBytes.empty()) ||
            (!words[i].internationalDigits.empty() && earlier.words[i].internationalDigits.empty())) {
            return false;
        }
    }
    return true;
}

bool SearchQuery::matches(const Person& person, const std::string* pastJobText) const {
    const std::string_view searchText = person.searchText();
    if (occursIn(searchText, whole) || (pastJobText != nullptr && occursIn(*pastJobText, whole))) {
        return true;
    }
    // A one-word query is its whole query, which was just looked for in the
    // texts; only the phone digits are left to try.
    const bool textsTried = words.size() == 1;
    for (const auto& word : words) {
        if (word.bytes.empty()) {
            continue;
        }
        if (!textsTried && (occursIn(searchText, word.bytes) ||
                            (pastJobText != nullptr && occursIn(*pastJobText, word.bytes)))) {
            continue;
        }
        if (!word.digitBytes.empty() && word.inNumbers(person.phoneDigits())) {
            continue;
        }
        return false;
    }
    return true;
}

} // namespace kinbook
