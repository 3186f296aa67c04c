#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Texts kept back to back, read as views: a person's area codes or phone
// digits. Valid as long as the person it came from.
class TextList {
public:
    class Iterator {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = std::string_view;

        Iterator() = default;
        Iterator(const TextList* list, std::size_t at) : m_list(list), m_at(at) {}
        std::string_view operator*() const { return (*m_list)[m_at]; }
        std::string_view operator[](difference_type offset) const {
            return (*m_list)[m_at + static_cast<std::size_t>(offset)];
        }
        Iterator& operator++() {
            ++m_at;
            return *this;
        }
        Iterator operator++(int) { return Iterator(m_list, m_at++); }
        Iterator& operator--() {
            --m_at;
            return *this;
        }
        Iterator operator--(int) { return Iterator(m_list, m_at--); }
        Iterator& operator+=(difference_type offset) {
            m_at += static_cast<std::size_t>(offset);
            return *this;
        }
        Iterator& operator-=(difference_type offset) {
            m_at -= static_cast<std::size_t>(offset);
            return *this;
        }
        friend Iterator operator+(Iterator it, difference_type offset) { return it += offset; }
        friend Iterator operator+(difference_type offset, Iterator it) { return it += offset; }
        friend Iterator operator-(Iterator it, difference_type offset) { return it -= offset; }
        friend difference_type operator-(const Iterator& a, const Iterator& b) {
            return static_cast<difference_type>(a.m_at) - static_cast<difference_type>(b.m_at);
        }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a.m_at == b.m_at; }
        friend auto operator<=>(const Iterator& a, const Iterator& b) { return a.m_at <=> b.m_at; }

    private:
        const TextList* m_list = nullptr;
        std::size_t m_at = 0;
    };

    TextList() = default;
    // `ends[i]` is where text i ends in `bytes`; text 0 starts at `start`.
    TextList(const std::uint32_t* ends, const char* bytes, std::uint32_t start, std::size_t count)
        : m_ends(ends), m_bytes(bytes), m_start(start), m_count(count) {}

    std::size_t size() const { return m_count; }
    bool empty() const { return m_count == 0; }
    std::string_view operator[](std::size_t i) const {
        const std::uint32_t begin = i == 0 ? m_start : m_ends[i - 1];
        return {m_bytes + begin, m_ends[i] - begin};
    }
    std::string_view front() const { return (*this)[0]; }
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, m_count); }
    std::vector<std::string> strings() const { return {begin(), end()}; }

private:
    const std::uint32_t* m_ends = nullptr;
    const char* m_bytes = nullptr;
    std::uint32_t m_start = 0;
    std::size_t m_count = 0;
};

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
    PackedKeys(const PackedKeys& other) noexcept;
    PackedKeys(PackedKeys&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    PackedKeys& operator=(const PackedKeys& other) noexcept;
    PackedKeys& operator=(PackedKeys&& other) noexcept;
    ~PackedKeys();

    std::string_view text(Text which) const {
        if (m_block == nullptr) {
            return {};
        }
        const auto i = static_cast<std::uint32_t>(which);
        const std::uint32_t* ends = m_block->ends();
        const std::uint32_t begin = i == 0 ? 0 : ends[i - 1];
        return {m_block->bytes() + begin, ends[i] - begin};
    }
    TextList areaCodes() const;
    TextList phoneDigits() const;
    PersonKeys unpacked() const;
    // Where the block lies, for asking memory for it ahead of a read.
    const void* address() const { return m_block; }

    bool operator==(const PackedKeys& other) const;

private:
    // The block's head, then where each text ends (the six single texts, the
    // area codes, the phone digits), then the texts' bytes back to back.
    struct Block {
        std::atomic<std::uint32_t> shares;
        std::uint32_t areaCodeCount;
        std::uint32_t phoneDigitCount;

        static constexpr std::uint32_t kSingleTexts = 6;

        std::uint32_t* ends() { return reinterpret_cast<std::uint32_t*>(this + 1); }
        const std::uint32_t* ends() const { return reinterpret_cast<const std::uint32_t*>(this + 1); }
        std::uint32_t endCount() const { return kSingleTexts + areaCodeCount + phoneDigitCount; }
        char* bytes() { return reinterpret_cast<char*>(ends() + endCount()); }
        const char* bytes() const { return reinterpret_cast<const char*>(ends() + endCount()); }
        std::uint32_t byteCount() const { return ends()[endCount() - 1]; }
        std::size_t size() const { return sizeof(Block) + endCount() * sizeof(std::uint32_t) + byteCount(); }
    };

    Block* m_block = nullptr;
};

} // namespace kinbook
