#include "KinbookKit/people/SearchQuery.h"

#include "KinbookKit/text/CodePoints.h"
#include "KinbookKit/text/Fold.h"

#include <cstring>

namespace kinbook {
namespace {

// Plain byte search over folded UTF-8: a folded needle can only occur at a
// character boundary of a folded haystack, so no decoding is needed.
bool occursIn(std::string_view haystack, std::string_view needle) {
    if (needle.empty()) {
        return true;
    }
    return ::memmem(haystack.data(), haystack.size(), needle.data(), needle.size()) != nullptr;
}

bool occursInAny(const std::vector<std::string>& haystacks, std::string_view needle) {
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

bool SearchQuery::matches(const Person& person, const std::string* pastJobText) const {
    const std::string& searchText = person.searchText();
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
        if (!word.digitBytes.empty() && occursInAny(person.phoneDigits(), word.digitBytes)) {
            continue;
        }
        return false;
    }
    return true;
}

} // namespace kinbook
