#pragma once

#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/Person.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// What the user typed in the search field, folded once so that matching is
// plain byte search over each person's pre-folded keys.
struct SearchQuery {
    struct Word {
        std::string bytes;      // the folded word, UTF-8
        std::string digitBytes; // for a phone-like word ("(555)", "12-34"): its digits; else empty
        // For a phone-like word dialled from abroad ("0044"): the digits
        // after the leading 00, which begin a number written "+44 …".
        std::string internationalDigits;

        // Whether this phone-like word is in one of the numbers' digits.
        bool inNumbers(const TextList& phoneDigits) const;

        bool operator==(const Word&) const = default;
    };

    std::string whole; // the trimmed, folded query; its UTF-8 bytes are what is searched for
    std::vector<Word> words;

    bool operator==(const SearchQuery&) const = default;

    static SearchQuery parse(std::string_view text);

    // Blank queries search nothing: the list shows everyone.
    bool isEmpty() const { return words.empty(); }
    std::string_view wholeBytes() const { return whole; }

    // Whether every person this query matches is matched by `earlier`, so
    // that the earlier result may be searched instead of everyone: the user
    // typed more, and no word that `earlier` searched as text only became a
    // phone number here ("(" matches nobody's text, "(2" everyone's number
    // that holds a 2).
    bool narrows(const SearchQuery& earlier) const;

    // Whether the person matches: the whole query anywhere in the search text
    // or past-job text, else every word somewhere (search text, past-job text,
    // or for phone-like words the digits of one phone number). `pastJobText`
    // is null when the person has none.
    bool matches(const Person& person, const std::string* pastJobText) const;
};

} // namespace kinbook
