#include "KinbookKit/people/Sections.h"

#include "KinbookKit/text/AreaCodes.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <unordered_map>

namespace kinbook {
namespace {

// What one person sorts by in one order, taken out of the person once so
// that the sort compares flat keys instead of working them out per
// comparison. The string views point into the people (or into `ownedKeys`
// of the builder), which outlive the sort.
struct SortEntry {
    const Person* person;
    std::uint32_t index; // position in the input, for building the sections
    int rank;            // the order's leading class: circle, picture, phone class, …
    std::string_view first;
    std::string_view second;
    std::string_view sortKey;
};

bool entryLess(const SortEntry& a, const SortEntry& b) {
    if (a.rank != b.rank) {
        return a.rank < b.rank;
    }
    if (const int order = a.first.compare(b.first); order != 0) {
        return order < 0;
    }
    if (const int order = a.second.compare(b.second); order != 0) {
        return order < 0;
    }
    return a.sortKey < b.sortKey;
}

// Circles sort from closest to farthest; people without one come after
// every circle.
constexpr int kNoCircleRank = 99;

// Phone classes of the area-code order: national codes, then international
// ("+44"), then numbers without a code, then people without a number.
enum AreaCodeClass : int { nationalCode = 0, internationalCode = 1, otherNumbers = 2, noPhone = 3 };

// A person with a single area code sorts after everyone who shares that
// first code and has a second one.
constexpr std::string_view kNoSecondCode = "~";

std::string_view zipKeyView(const std::string& postalCode, std::string& owned) {
    // A ZIP+4 code ("94103-1234") sorts and files with its five-digit part.
    std::string_view key = postalCode;
    if (const auto dash = key.find('-'); dash != std::string_view::npos) {
        key = key.substr(0, dash);
    }
    if (std::none_of(key.begin(), key.end(), [](char c) { return c >= 'a' && c <= 'z'; })) {
        return key;
    }
    // Postal codes that have letters use ASCII ones ("SW1A 1AA", "K1A 0B1").
    owned.assign(key);
    for (auto& c : owned) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return owned;
}

int areaCodeClass(const Person& person) {
    const auto& codes = person.areaCodes();
    if (!codes.empty()) {
        return codes.front().starts_with('+') ? internationalCode : nationalCode;
    }
    return person.phoneNumbers.empty() ? noPhone : otherNumbers;
}

// Section titles of one order. Titles that must be made (an area code's
// label, a field count) are made once per run of equal keys, not per person.
class SectionTitler {
public:
    explicit SectionTitler(SortOrder order) : m_order(order) {}

    std::string_view titleOf(const SortEntry& entry) {
        const Person& person = *entry.person;
        switch (m_order) {
        case SortOrder::lastName:
            return person.sectionLetter();
        case SortOrder::firstName:
            return person.firstNameSectionLetter();
        case SortOrder::circle:
            return person.circle ? circleTitle(*person.circle) : std::string_view("No Circle");
        case SortOrder::areaCode:
            switch (entry.rank) {
            case otherNumbers:
                return "Other Numbers";
            case noPhone:
                return "No Phone";
            default:
                if (!m_hasCode || entry.first != m_code) {
                    m_code.assign(entry.first);
                    m_title = AreaCodes::label(entry.first);
                    m_hasCode = true;
                }
                return m_title;
            }
        case SortOrder::zip:
            return entry.rank == 0 ? entry.first : std::string_view("No Address");
        case SortOrder::completeness:
            if (!m_hasCount || person.filledCount != m_count) {
                m_count = person.filledCount;
                m_title = m_count == 1 ? std::string("1 field") : fmt::format("{} fields", m_count);
                m_hasCount = true;
            }
            return m_title;
        case SortOrder::photo:
            return person.hasImage ? "Picture" : "No Picture";
        }
        return "#";
    }

private:
    SortOrder m_order;
    std::string m_title;
    std::string m_code;
    bool m_hasCode = false;
    int m_count = 0;
    bool m_hasCount = false;
};

} // namespace

bool Section::operator==(const Section& other) const {
    return letter == other.letter &&
           std::equal(people.begin(), people.end(), other.people.begin(), other.people.end(),
                      [](const PersonPtr& a, const PersonPtr& b) { return a == b || (a && b && *a == *b); });
}

std::vector<Section> buildSections(SortOrder order, std::span<const PersonPtr> people) {
    std::vector<SortEntry> entries;
    entries.reserve(people.size());
    // Zip keys of lower-case postal codes, upper-cased; sized once so that
    // views into them stay put.
    std::vector<std::string> ownedKeys(order == SortOrder::zip ? people.size() : 0);

    for (std::uint32_t index = 0; index < people.size(); ++index) {
        const Person& person = *people[index];
        SortEntry entry{&person, index, 0, {}, {}, person.sortKey()};
        switch (order) {
        case SortOrder::lastName:
            break;
        case SortOrder::firstName:
            entry.first = person.firstNameSortKey();
            break;
        case SortOrder::circle:
            entry.rank = person.circle ? rawValue(*person.circle) : kNoCircleRank;
            break;
        case SortOrder::areaCode: {
            entry.rank = areaCodeClass(person);
            const auto& codes = person.areaCodes();
            if (!codes.empty()) {
                entry.first = codes[0];
                entry.second = codes.size() > 1 ? std::string_view(codes[1]) : kNoSecondCode;
            }
            break;
        }
        case SortOrder::zip:
            if (person.postalCodes.empty()) {
                entry.rank = 1;
            } else {
                entry.first = zipKeyView(person.postalCodes.front(), ownedKeys[index]);
            }
            break;
        case SortOrder::completeness:
            // Most filled first.
            entry.rank = -person.filledCount;
            break;
        case SortOrder::photo:
            entry.rank = person.hasImage ? 0 : 1;
            break;
        }
        entries.push_back(entry);
    }

    // The list arrives sorted by sortKey, so the last-name order usually
    // needs no sort at all.
    if (!std::is_sorted(entries.begin(), entries.end(), entryLess)) {
        std::stable_sort(entries.begin(), entries.end(), entryLess);
    }

    std::vector<Section> sections;
    // Titles usually come in runs; the map is asked only when a title
    // changes, and finds a section created earlier (a "#" of digits before
    // "A" and of non-Latin names after "Z").
    std::unordered_map<std::string, std::size_t> sectionOfTitle;
    SectionTitler titler(order);
    std::size_t current = 0;
    for (const auto& entry : entries) {
        const std::string_view title = titler.titleOf(entry);
        if (sections.empty() || sections[current].letter != title) {
            const auto [found, inserted] = sectionOfTitle.try_emplace(std::string(title), sections.size());
            if (inserted) {
                sections.push_back(Section{std::string(title), {}});
            }
            current = found->second;
        }
        sections[current].people.push_back(people[entry.index]);
    }
    return sections;
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
