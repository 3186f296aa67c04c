#pragma once

#include "KinbookKit/records/Texts.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The keys the list sorts, sections and searches by, as worked out (or read
// back from the cache) before they are packed.
struct PersonKeys {
    std::string displayName;
    std::string sortKey;                  // folded; family name (else display name), a blank, given name
    std::string sectionLetter;            // "A"…"Z" or "#"
    std::string firstNameSortKey;         // folded; given name (else display name), a blank, family name
    std::string firstNameSectionLetter;   // "A"…"Z" or "#"
    std::vector<std::string> areaCodes;   // one per phone number that has one, in order
    std::string searchText;               // folded names, e-mails, places and postal codes, one per line
    std::vector<std::string> phoneDigits; // one per phone number: its digits only

    bool operator==(const PersonKeys&) const = default;
};

// A person's keys in one block of memory, shared by the copies of the person
// and never changed. At 100,000 people the keys as separate strings and
// lists were six allocations and 240 bytes of every person; a start from the
// cache spent much of its time asking the system for that memory.
class PackedKeys {
public:
    enum class Text : std::uint8_t {
        displayName,
        sortKey,
        sectionLetter,
        firstNameSortKey,
        firstNameSectionLetter,
        searchText,
    };

    PackedKeys() = default;
    explicit PackedKeys(const PersonKeys& keys);

    std::string_view text(Text which) const {
        return m_texts.empty() ? std::string_view() : m_texts[static_cast<std::size_t>(which)];
    }
    TextList areaCodes() const;
    TextList phoneDigits() const;
    PersonKeys unpacked() const;
    // Where the block lies, for asking memory for it ahead of a read.
    const void* address() const { return m_texts.address(); }

    bool operator==(const PackedKeys& other) const;

private:
    static constexpr std::size_t kSingleTexts = 6;

    // The six single texts, then the area codes, then the phone digits; the
    // mark is how many area codes there are.
    Texts m_texts;
};

} // namespace kinbook
