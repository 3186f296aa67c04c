#include "KinbookKit/people/Sections.h"

#include "KinbookKit/text/AreaCodes.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace kinbook {
namespace {

// At 100,000 people the people and their key strings are spread over a
// hundred megabytes, so a sort that compared the strings in place would
// wait on memory for most comparisons. Instead each person's keys are read
// once into a small flat entry: leading bytes of the strings as big-endian
// words, which compare in the same order as the strings. Only people whose
// keys the words cannot settle (longer keys that tie on their first bytes)
// are compared again through the person.
//
// The sort runs in two steps. The people are first put in sort-key order,
// which is the order the list keeps them in, so this is usually a check.
// Every order breaks its ties by sort key and then by arrival, so a stable
// sort on the order's own leading keys then gives the final order.

// Bytes `offset`..`offset`+7 of `text` as a big-endian word, zero past its end.
std::uint64_t wordAt(std::string_view text, std::size_t offset) {
    std::uint64_t word = 0;
    if (offset + 8 <= text.size()) {
        std::memcpy(&word, text.data() + offset, 8);
        if constexpr (std::endian::native == std::endian::little) {
            word = __builtin_bswap64(word);
        }
        return word;
    }
    for (std::size_t i = 0; i < 8; ++i) {
        word = (word << 8) | (offset + i < text.size() ? static_cast<unsigned char>(text[offset + i]) : 0u);
    }
    return word;
}

// Whether words of `text`'s first `limit` bytes order it exactly: it fits,
// and holds no NUL that would look like the zero padding.
bool wordsSettle(std::string_view text, std::size_t limit) {
    return text.size() <= limit && std::memchr(text.data(), 0, text.size()) == nullptr;
}

constexpr std::size_t kWords = 4;
constexpr std::uint8_t kSettled = kWords;

// A person's keys as words: either the sort key (for the first step), or
// the leading keys of one order. Words compare in the order of the keys
// they come from; where a key is longer than its words, `fallbackAt` is the
// word whose tie sends the comparison to the person's own strings.
struct Entry {
    std::array<std::uint64_t, kWords> words;
    std::uint32_t index;
    std::uint8_t fallbackAt;
    char letter; // the one-byte section letter of the name orders, or 0 to ask the person
};

template <typename FullLess>
bool entryLess(const Entry& a, const Entry& b, FullLess&& fullLess) {
    for (std::uint8_t i = 0; i < kWords; ++i) {
        if (a.words[i] != b.words[i]) {
            return a.words[i] < b.words[i];
        }
        if (i >= a.fallbackAt || i >= b.fallbackAt) {
            return fullLess(a.index, b.index);
        }
    }
    return false;
}

// `count` words of `text` from `words[at]` on; returns the fallback word.
std::uint8_t putString(Entry& entry, std::size_t at, std::size_t count, std::string_view text) {
    for (std::size_t i = 0; i < count; ++i) {
        entry.words[at + i] = wordAt(text, 8 * i);
    }
    return wordsSettle(text, 8 * count) ? kSettled : static_cast<std::uint8_t>(at + count - 1);
}

// The text that settled words hold: their bytes up to the padding.
std::string textOfWords(const Entry& entry, std::size_t at, std::size_t count) {
    std::string text;
    for (std::size_t i = at; i < at + count; ++i) {
        for (int shift = 56; shift >= 0; shift -= 8) {
            const auto byte = static_cast<char>((entry.words[i] >> shift) & 0xff);
            if (byte == '\0') {
                return text;
            }
            text += byte;
        }
    }
    return text;
}

// Circles sort from closest to farthest; people without one come after
// every circle.
constexpr std::uint64_t kNoCircleRank = 99;

// Phone classes of the area-code order: national codes, then international
// ("+44"), then numbers without a code, then people without a number.
enum AreaCodeClass : std::uint64_t { nationalCode = 0, internationalCode = 1, otherNumbers = 2, noPhone = 3 };

// A person with a single area code sorts after everyone who shares that
// first code and has a second one.
constexpr std::string_view kNoSecondCode = "~";

// The zip key: the first postal code cut before its first "-" (a ZIP+4 code
// sorts and files with its five-digit part), upper-cased. Postal codes that
// have letters use ASCII ones ("SW1A 1AA", "K1A 0B1").
std::string_view zipKeyView(const Person& person, std::string& buffer) {
    std::string_view key = person.postalCodes.front();
    key = key.substr(0, key.find('-'));
    if (std::none_of(key.begin(), key.end(), [](char c) { return c >= 'a' && c <= 'z'; })) {
        return key;
    }
    buffer.assign(key);
    for (auto& c : buffer) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return buffer;
}

std::string zipKeyOf(const Person& person) {
    std::string buffer;
    return std::string(zipKeyView(person, buffer));
}

std::string_view secondCodeOf(const Person& person) {
    return person.areaCodes().size() > 1 ? std::string_view(person.areaCodes()[1]) : kNoSecondCode;
}

char oneByteLetter(std::string_view letter) {
    return letter.size() == 1 && letter[0] != '\0' ? letter[0] : '\0';
}

Entry sortKeyEntryOf(const Person& person, std::uint32_t index) {
    Entry entry{{}, index, kSettled, '\0'};
    entry.fallbackAt = putString(entry, 0, kWords, person.sortKey());
    return entry;
}

Entry entryOf(SortOrder order, const Person& person, std::uint32_t index) {
    Entry entry{{}, index, kSettled, '\0'};
    std::string zipBuffer;
    switch (order) {
    case SortOrder::lastName:
        entry.letter = oneByteLetter(person.sectionLetter());
        break;
    case SortOrder::firstName:
        entry.fallbackAt = putString(entry, 0, kWords, person.firstNameSortKey());
        entry.letter = oneByteLetter(person.firstNameSectionLetter());
        break;
    case SortOrder::circle:
        entry.words[0] = person.circle ? static_cast<std::uint64_t>(rawValue(*person.circle)) : kNoCircleRank;
        break;
    case SortOrder::areaCode: {
        const auto& codes = person.areaCodes();
        if (codes.empty()) {
            entry.words[0] = person.phoneNumbers.empty() ? noPhone : otherNumbers;
            break;
        }
        entry.words[0] = codes.front().starts_with('+') ? internationalCode : nationalCode;
        entry.fallbackAt = putString(entry, 1, 1, codes.front());
        const auto second = putString(entry, 2, 1, secondCodeOf(person));
        entry.fallbackAt = std::min(entry.fallbackAt, second);
        break;
    }
    case SortOrder::zip:
        if (person.postalCodes.empty()) {
            entry.words[0] = 1;
        } else {
            entry.fallbackAt = putString(entry, 1, kWords - 1, zipKeyView(person, zipBuffer));
        }
        break;
    case SortOrder::completeness:
        // Most filled first.
        entry.words[0] = static_cast<std::uint64_t>(std::int64_t{INT_MAX} - person.filledCount);
        break;
    case SortOrder::photo:
        entry.words[0] = person.hasImage ? 0 : 1;
        break;
    }
    return entry;
}

// Memory is asked for a person's lines some steps before they are read, so
// that the reads of many people overlap instead of waiting one by one.
constexpr std::size_t kPrefetchDistance = 16;

void prefetchPerson(const Person& person) {
    __builtin_prefetch(&person.memberIDs); // beside the keys' address
    __builtin_prefetch(&person.phoneNumbers);
    __builtin_prefetch(&person.postalCodes);
    __builtin_prefetch(&person.circle);
}

constexpr std::uint32_t bitOf(SortOrder order) {
    return 1u << static_cast<unsigned>(order);
}

// The keys' block and the lists, once the person's own lines have arrived.
// The block starts with the short keys; the search text comes last.
void prefetchKeyText(const Person& person, std::uint32_t orders) {
    const auto* keys = static_cast<const char*>(person.keysAddress());
    __builtin_prefetch(keys);
    __builtin_prefetch(keys + 64);
    if (orders & bitOf(SortOrder::zip)) {
        __builtin_prefetch(person.postalCodes.address());
    }
}

// The exact comparison of two people whose words tie and do not settle it.
bool leadingKeysLess(SortOrder order, const Person& a, const Person& b) {
    switch (order) {
    case SortOrder::firstName:
        return a.firstNameSortKey() < b.firstNameSortKey();
    case SortOrder::areaCode: {
        // Both have codes: the ranks tied and only people with codes have words.
        if (const int byFirst = a.areaCodes().front().compare(b.areaCodes().front()); byFirst != 0) {
            return byFirst < 0;
        }
        return secondCodeOf(a) < secondCodeOf(b);
    }
    case SortOrder::zip:
        return zipKeyOf(a) < zipKeyOf(b);
    case SortOrder::lastName:
    case SortOrder::circle:
    case SortOrder::completeness:
    case SortOrder::photo:
        break;
    }
    return false;
}

// Section titles of one order. A title depends only on the leading keys, so
// it is worked out again only where they change; titles that must be made
// (an area code's label, a field count) are made once per run.
class SectionTitler {
public:
    SectionTitler(SortOrder order, std::span<const PersonPtr> people) : m_order(order), m_people(people) {}

    // Whether `entry` may have another title than `previous`.
    bool titleMayChange(const Entry& previous, const Entry& entry) const {
        switch (m_order) {
        case SortOrder::lastName:
        case SortOrder::firstName:
            return entry.letter == '\0' || entry.letter != previous.letter;
        case SortOrder::areaCode:
            // The title is the first code's; the second code is not in it.
            return entry.words[0] != previous.words[0] || entry.words[1] != previous.words[1] ||
                   entry.fallbackAt != kSettled || previous.fallbackAt != kSettled;
        case SortOrder::zip:
            return entry.words != previous.words || entry.fallbackAt != kSettled ||
                   previous.fallbackAt != kSettled;
        case SortOrder::circle:
        case SortOrder::completeness:
        case SortOrder::photo:
            return entry.words[0] != previous.words[0];
        }
        return true;
    }

    std::string_view titleOf(const Entry& entry) {
        const Person& person = *m_people[entry.index];
        switch (m_order) {
        case SortOrder::lastName:
            return person.sectionLetter();
        case SortOrder::firstName:
            return person.firstNameSectionLetter();
        case SortOrder::circle:
            return person.circle ? circleTitle(*person.circle) : std::string_view("No Circle");
        case SortOrder::areaCode:
            switch (entry.words[0]) {
            case otherNumbers:
                return "Other Numbers";
            case noPhone:
                return "No Phone";
            default: {
                // Most codes are in the words; the label is made once per code.
                const std::string code = entry.fallbackAt == kSettled
                                             ? textOfWords(entry, 1, 1)
                                             : std::string(person.areaCodes().front());
                if (!m_hasTitle || code != m_key) {
                    m_key = code;
                    m_title = AreaCodes::label(m_key);
                    m_hasTitle = true;
                }
                return m_title;
            }
            }
        case SortOrder::zip:
            if (entry.words[0] != 0) {
                return "No Address";
            }
            // A zip order has a section for nearly every code; its title comes
            // from the words rather than from the person, far off in memory.
            m_title = entry.fallbackAt == kSettled ? textOfWords(entry, 1, kWords - 1) : zipKeyOf(person);
            return m_title;
        case SortOrder::completeness:
            m_title = person.filledCount == 1 ? std::string("1 field")
                                              : fmt::format("{} fields", person.filledCount);
            return m_title;
        case SortOrder::photo:
            return person.hasImage ? "Picture" : "No Picture";
        }
        return "#";
    }

private:
    SortOrder m_order;
    std::span<const PersonPtr> m_people;
    std::string m_title;
    std::string m_key;
    bool m_hasTitle = false;
};

} // namespace

bool Section::operator==(const Section& other) const {
    return letter == other.letter &&
           std::equal(people.begin(), people.end(), other.people.begin(), other.people.end(),
                      [](const Person* a, const Person* b) { return a == b || (a && b && *a == *b); });
}

namespace {

// The keys of the requested orders, read in one pass over the people, and
// the people's sort-key order.
class KeyTable {
public:
    KeyTable(std::span<const PersonPtr> people, std::span<const SortOrder> orders) : m_people(people) {
        std::uint32_t wanted = 0;
        for (const auto order : orders) {
            wanted |= bitOf(order);
            m_entries[static_cast<std::size_t>(order)].reserve(people.size());
        }
        std::vector<Entry> bySortKey;
        bySortKey.reserve(people.size());
        for (std::uint32_t index = 0; index < people.size(); ++index) {
            if (index + 2 * kPrefetchDistance < people.size()) {
                prefetchPerson(*people[index + 2 * kPrefetchDistance]);
            }
            if (index + kPrefetchDistance < people.size()) {
                prefetchKeyText(*people[index + kPrefetchDistance], wanted);
            }
            const Person& person = *people[index];
            bySortKey.push_back(sortKeyEntryOf(person, index));
            for (const auto order : orders) {
                m_entries[static_cast<std::size_t>(order)].push_back(entryOf(order, person, index));
            }
        }

        // The list keeps its people in sort-key order, so this is usually a check.
        const auto sortKeyLess = [&](const Entry& a, const Entry& b) {
            return entryLess(a, b, [&](std::uint32_t x, std::uint32_t y) {
                return people[x]->sortKey() < people[y]->sortKey();
            });
        };
        if (!std::is_sorted(bySortKey.begin(), bySortKey.end(), sortKeyLess)) {
            std::stable_sort(bySortKey.begin(), bySortKey.end(), sortKeyLess);
            m_sortKeyOrder.reserve(people.size());
            for (const auto& entry : bySortKey) {
                m_sortKeyOrder.push_back(entry.index);
            }
        }
    }

    // The sections of one order of those asked for; takes that order's keys.
    std::vector<Section> sections(SortOrder order) {
        auto entries = std::move(m_entries[static_cast<std::size_t>(order)]);
        if (!m_sortKeyOrder.empty()) {
            std::vector<Entry> arranged;
            arranged.reserve(entries.size());
            for (const auto index : m_sortKeyOrder) {
                arranged.push_back(entries[index]);
            }
            entries = std::move(arranged);
        }
        // Stable on the order's own keys, so sort-key order stays within ties.
        const auto less = [&](const Entry& a, const Entry& b) {
            return entryLess(a, b, [&](std::uint32_t x, std::uint32_t y) {
                return leadingKeysLess(order, *m_people[x], *m_people[y]);
            });
        };
        if (!std::is_sorted(entries.begin(), entries.end(), less)) {
            std::stable_sort(entries.begin(), entries.end(), less);
        }
        return cut(order, entries);
    }

private:
    std::vector<Section> cut(SortOrder order, const std::vector<Entry>& entries) const {
        std::vector<Section> sections;
        // Titles come in runs. In the name orders a title can come back
        // (a "#" of digits before "A" and of non-Latin names after "Z"), and
        // so can an area code's label when stored codes look like labels; a
        // map finds the section made earlier. In the other orders a title
        // stands for one value of the leading key, so a run never comes
        // back, and a zip order's tens of thousands of sections need no map.
        const bool titlesReturn =
            order == SortOrder::lastName || order == SortOrder::firstName || order == SortOrder::areaCode;
        std::unordered_map<std::string, std::size_t> sectionOfTitle;
        SectionTitler titler(order, m_people);
        std::size_t current = 0;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const Entry& entry = entries[i];
            if (i == 0 || titler.titleMayChange(entries[i - 1], entry)) {
                const std::string_view title = titler.titleOf(entry);
                if (sections.empty() || sections[current].letter != title) {
                    if (!titlesReturn) {
                        current = sections.size();
                        sections.push_back(Section{std::string(title), {}});
                    } else if (const auto [found, inserted] =
                                   sectionOfTitle.try_emplace(std::string(title), sections.size());
                               inserted) {
                        current = sections.size();
                        sections.push_back(Section{std::string(title), {}});
                    } else {
                        current = found->second;
                    }
                }
            }
            sections[current].people.push_back(m_people[entry.index].get());
        }
        return sections;
    }

    std::span<const PersonPtr> m_people;
    std::array<std::vector<Entry>, 7> m_entries;
    std::vector<std::uint32_t> m_sortKeyOrder; // empty when the people came in it
};

} // namespace

namespace {

// The last-name sections of people already in sort-key order, as the list
// keeps them: that order cut where the letter changes, in one pass without
// a table of keys. This is the first thing a start shows. None when the
// people turn out not to be in that order.
std::optional<std::vector<Section>> lastNameSectionsInOrder(std::span<const PersonPtr> people) {
    std::vector<Section> sections;
    // A letter can come back: "#" holds digits, which sort before "A", and
    // letters outside Latin, which sort after "Z".
    std::unordered_map<std::string_view, std::size_t> sectionOfTitle;
    std::size_t current = 0;
    std::string_view previousKey;
    for (std::size_t i = 0; i < people.size(); ++i) {
        if (i + 2 * kPrefetchDistance < people.size()) {
            prefetchPerson(*people[i + 2 * kPrefetchDistance]);
        }
        if (i + kPrefetchDistance < people.size()) {
            prefetchKeyText(*people[i + kPrefetchDistance], bitOf(SortOrder::lastName));
        }
        const Person& person = *people[i];
        const std::string_view key = person.sortKey();
        if (key < previousKey) {
            return std::nullopt;
        }
        previousKey = key;
        const std::string_view letter = person.sectionLetter();
        if (sections.empty() || sections[current].letter != letter) {
            const auto [found, inserted] = sectionOfTitle.try_emplace(letter, sections.size());
            if (inserted) {
                sections.push_back(Section{std::string(letter), {}});
            }
            current = found->second;
        }
        sections[current].people.push_back(people[i].get());
    }
    return sections;
}

} // namespace

std::vector<Section> buildSections(SortOrder order, std::span<const PersonPtr> people) {
    if (order == SortOrder::lastName) {
        if (auto sections = lastNameSectionsInOrder(people)) {
            return std::move(*sections);
        }
    }
    const SortOrder orders[] = {order};
    return KeyTable(people, orders).sections(order);
}

std::map<SortOrder, std::vector<Section>> buildIndex(std::span<const PersonPtr> people,
                                                     const std::function<bool()>& shouldStop) {
    std::map<SortOrder, std::vector<Section>> index;
    KeyTable keys(people, allSortOrders());
    for (const auto order : allSortOrders()) {
        if (shouldStop && shouldStop()) {
            break;
        }
        index.emplace(order, keys.sections(order));
    }
    return index;
}

namespace {

// A position some people ahead of the filter, across section borders: in a
// zip order most sections hold one or two people.
class Lookahead {
public:
    Lookahead(std::span<const Section> sections, std::size_t distance) : m_sections(sections) {
        skipEmptySections();
        for (std::size_t i = 0; i < distance; ++i) {
            advance();
        }
    }

    const Person* current() const {
        return m_section < m_sections.size() ? m_sections[m_section].people[m_index] : nullptr;
    }

    void advance() {
        if (m_section >= m_sections.size()) {
            return;
        }
        ++m_index;
        skipEmptySections();
    }

private:
    void skipEmptySections() {
        while (m_section < m_sections.size() && m_index >= m_sections[m_section].people.size()) {
            ++m_section;
            m_index = 0;
        }
    }

    std::span<const Section> m_sections;
    std::size_t m_section = 0;
    std::size_t m_index = 0;
};

} // namespace

std::vector<Section> filterSections(std::span<const Section> sections,
                                    const std::function<bool(const Person&)>& keep) {
    std::vector<Section> kept;
    // What a filter reads of the people ahead: the flags and the search
    // text, whose own text is asked for once its header has come.
    Lookahead far(sections, 2 * kPrefetchDistance);
    Lookahead near(sections, kPrefetchDistance);
    for (const auto& section : sections) {
        Section narrowed{section.letter, {}};
        for (const auto& person : section.people) {
            if (const auto* ahead = far.current()) {
                __builtin_prefetch(ahead->keysAddress());
                __builtin_prefetch(&ahead->hidden);
            }
            if (const auto* ahead = near.current()) {
                const std::string_view text = ahead->searchText();
                __builtin_prefetch(text.data());
                __builtin_prefetch(text.data() + 64);
            }
            far.advance();
            near.advance();
            if (keep(*person)) {
                narrowed.people.push_back(person);
            }
        }
        if (!narrowed.people.empty()) {
            kept.push_back(std::move(narrowed));
        }
    }
    return kept;
}

std::vector<Section> inDirection(std::vector<Section> sections, bool descending) {
    if (!descending) {
        return sections;
    }
    // "Pictures First, Z to A": the picture order keeps its sections and
    // turns only the names around.
    const bool keepSectionOrder =
        std::any_of(sections.begin(), sections.end(), [](const Section& s) { return s.letter == "Picture"; });
    if (!keepSectionOrder) {
        std::reverse(sections.begin(), sections.end());
    }
    for (auto& section : sections) {
        std::reverse(section.people.begin(), section.people.end());
    }
    return sections;
}

std::vector<Heading> headingsOf(std::span<const Section> sections) {
    std::vector<Heading> headings;
    headings.reserve(sections.size());
    for (const auto& section : sections) {
        headings.push_back(Heading{section.letter, static_cast<int>(section.people.size())});
    }
    return headings;
}

int peopleCount(std::span<const Section> sections) {
    std::size_t count = 0;
    for (const auto& section : sections) {
        count += section.people.size();
    }
    return static_cast<int>(count);
}

} // namespace kinbook
