#pragma once

#include "KinbookKit/people/SearchQuery.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/Person.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The folded search text of every person laid end to end in one block, so
// that a keystroke is one pass over one block of memory rather than a visit
// to every person: at 100,000 people the visits alone cost more than the
// search. Each person has a position, their place in the people it was made
// from; lists of people carry their positions along to be searched here.
//
// Matches exactly what SearchQuery::matches says of each person.
//
// Immutable once made, so it may be made off the main thread and read from
// any. It refers to the people it was made from, which must outlive it.
class SearchIndex {
public:
    explicit SearchIndex(std::span<const PersonPtr> people);

    std::size_t size() const { return m_people.size(); }
    const Person& person(std::uint32_t position) const { return *m_people[position]; }
    std::string_view searchText(std::uint32_t position) const;

    // Where a person is; none for someone this index was not made from.
    std::optional<std::uint32_t> positionOf(const Person* person) const;
    // The positions of everyone in the sections, in order; none when
    // anyone in them is unknown here.
    std::optional<std::vector<std::uint32_t>> positionsOf(std::span<const Section> sections) const;

    // Sets matched[p] for each candidate position p whose person the query
    // matches (`matched` has one flag per position; others are left alone).
    // `candidates` empty and `everyone` set searches everyone in one pass.
    // `pastJobs` holds each position's past-job text (null for none), or is
    // empty when nobody has any.
    void match(const SearchQuery& query, std::span<const std::uint32_t> candidates, bool everyone,
               std::span<const std::string* const> pastJobs, std::vector<std::uint8_t>& matched) const;

private:
    // Which of the bytes that have a bit of their own (lowercase letters,
    // digits, common punctuation) occur in a text.
    static std::uint64_t lettersOf(std::string_view text);

    bool matchesWords(const SearchQuery& query, std::uint32_t position, const std::string* pastJobs) const;

    // One letter pair's row of m_pairs, and whether it holds a position.
    const std::uint64_t* pairRow(std::size_t pair) const { return m_pairs.data() + pair * m_pairWords; }
    static bool holds(const std::uint64_t* row, std::uint32_t position) {
        return ((row[position / 64] >> (position % 64)) & 1u) != 0;
    }

    std::vector<const Person*> m_people;
    std::string m_text;                  // every search text, each followed by a NUL
    std::vector<std::uint32_t> m_starts; // where each text begins; one more at the end
    // For each person, lettersOf(search text): a candidate whose text lacks
    // a byte of the query is passed over without being read, and a one-letter
    // query is answered by the bit alone.
    std::vector<std::uint64_t> m_letters;
    // For each pair of lowercase ASCII letters, one bit per position: whether
    // the person's text holds the two letters side by side. What is typed is
    // mostly letters, so a candidate whose text lacks a pair of the query is
    // passed over without being read, and a two-letter query (the keystroke
    // after the first) is answered by the bit alone. One row per pair reads
    // a few kilobytes per keystroke where per-person masks would read
    // megabytes.
    std::vector<std::uint64_t> m_pairs;
    std::size_t m_pairWords = 0; // words per row
    // Open addressing from a person's address to its position.
    std::vector<std::pair<const Person*, std::uint32_t>> m_slots;
};

// The first occurrence of `needle` in `haystack`; npos when there is none.
// Plain byte search, fast on the short needles typing makes.
std::size_t findBytes(std::string_view haystack, std::string_view needle);

} // namespace kinbook
