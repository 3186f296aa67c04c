#pragma once

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kinbook {

// Walks a list of texts by place, handing out views.
template <typename List>
class TextIterator {
public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::string_view;

    TextIterator() = default;
    TextIterator(const List* list, std::size_t at) : m_list(list), m_at(at) {}
    std::string_view operator*() const { return (*m_list)[m_at]; }
    std::string_view operator[](difference_type offset) const {
        return (*m_list)[m_at + static_cast<std::size_t>(offset)];
    }
    TextIterator& operator++() {
        ++m_at;
        return *this;
    }
    TextIterator operator++(int) { return TextIterator(m_list, m_at++); }
    TextIterator& operator--() {
        --m_at;
        return *this;
    }
    TextIterator operator--(int) { return TextIterator(m_list, m_at--); }
    TextIterator& operator+=(difference_type offset) {
        m_at += static_cast<std::size_t>(offset);
        return *this;
    }
    TextIterator& operator-=(difference_type offset) {
        m_at -= static_cast<std::size_t>(offset);
        return *this;
    }
    friend TextIterator operator+(TextIterator it, difference_type offset) { return it += offset; }
    friend TextIterator operator+(difference_type offset, TextIterator it) { return it += offset; }
    friend TextIterator operator-(TextIterator it, difference_type offset) { return it -= offset; }
    friend difference_type operator-(const TextIterator& a, const TextIterator& b) {
        return static_cast<difference_type>(a.m_at) - static_cast<difference_type>(b.m_at);
    }
    friend bool operator==(const TextIterator& a, const TextIterator& b) { return a.m_at == b.m_at; }
    friend auto operator<=>(const TextIterator& a, const TextIterator& b) { return a.m_at <=> b.m_at; }

private:
    const List* m_list = nullptr;
    std::size_t m_at = 0;
};

// Texts kept back to back, read as views: a stretch of a Texts block, such
// as a person's area codes or phone digits. Valid as long as the block.
class TextList {
public:
    using Iterator = TextIterator<TextList>;

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

// A list of texts in one block of memory, shared by its copies and never
// changed: a person's phone numbers, e-mail addresses, accounts or cards.
// As a list of strings, each was one allocation for the list and one for
// every text longer than a few bytes, and a start from the cache spent much
// of its time asking the system for that memory at 100,000 people. An empty
// list takes no memory at all.
class Texts {
public:
    using Iterator = TextIterator<Texts>;
    using iterator = Iterator;
    using const_iterator = Iterator;
    using value_type = std::string_view;

    Texts() = default;
    Texts(std::initializer_list<std::string_view> texts)
        : Texts(made([&](const auto& visit) {
              for (const auto text : texts) {
                  visit(text);
              }
          })) {}
    // From any list of texts: strings, views, another list's stretch.
    template <std::ranges::input_range Range>
    requires(!std::same_as<std::remove_cvref_t<Range>, Texts> &&
             std::convertible_to<std::ranges::range_reference_t<const Range>, std::string_view>)
        Texts(const Range& texts) // NOLINT(google-explicit-constructor): a list of texts is Texts
        : Texts(made([&](const auto& visit) {
              for (const auto& text : texts) {
                  visit(std::string_view(text));
              }
          })) {}

    Texts(const Texts& other) noexcept;
    Texts(Texts&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    Texts& operator=(const Texts& other) noexcept;
    Texts& operator=(Texts&& other) noexcept;
    ~Texts();

    std::size_t size() const { return m_block == nullptr ? 0 : m_block->count; }
    bool empty() const { return size() == 0; }
    std::string_view operator[](std::size_t i) const {
        const std::uint32_t* ends = m_block->ends();
        const std::uint32_t begin = i == 0 ? 0 : ends[i - 1];
        return {m_block->bytes() + begin, ends[i] - begin};
    }
    std::string_view front() const { return (*this)[0]; }
    std::string_view back() const { return (*this)[size() - 1]; }
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, size()); }
    bool contains(std::string_view text) const;
    // `count` texts from place `from` on, as views into this block.
    TextList stretch(std::size_t from, std::size_t count) const;
    std::vector<std::string> strings() const { return {begin(), end()}; }

    // The same texts in the same order (and the same mark).
    bool operator==(const Texts& other) const;
    template <std::ranges::input_range Range>
    requires(!std::same_as<std::remove_cvref_t<Range>, Texts> &&
             std::convertible_to<std::ranges::range_reference_t<const Range>, std::string_view>) bool
    operator==(const Range& other) const {
        return std::ranges::equal(*this, other, [](std::string_view left, const auto& right) {
            return left == std::string_view(right);
        });
    }

    // Where the block lies, for asking memory for it ahead of a read.
    const void* address() const { return m_block; }
    // The number made() was given, kept in the block: what an owner that
    // packs several lists into one needs to find them again. 0 for an empty
    // list.
    std::uint32_t mark() const { return m_block == nullptr ? 0 : m_block->mark; }

    // The list `each(visit)` hands out, visit(text) by visit(text): `each` is
    // called twice, once to measure and once to copy. `mark` is a number the
    // list's owner keeps with it (see mark()).
    template <typename Each>
    static Texts made(const Each& each, std::uint32_t mark = 0) {
        std::size_t count = 0;
        std::size_t byteCount = 0;
        each([&](std::string_view text) {
            ++count;
            byteCount += text.size();
        });
        Texts texts;
        if (count != 0) {
            texts.m_block = allocate(count, byteCount, mark);
            std::uint32_t filled = 0;
            each([&](std::string_view text) { put(*texts.m_block, filled, text); });
        }
        return texts;
    }

private:
    // The block's head, then where each text ends, then the texts' bytes
    // back to back.
    struct Block {
        std::atomic<std::uint32_t> shares;
        std::uint32_t count;
        std::uint32_t mark;

        std::uint32_t* ends() { return reinterpret_cast<std::uint32_t*>(this + 1); }
        const std::uint32_t* ends() const { return reinterpret_cast<const std::uint32_t*>(this + 1); }
        char* bytes() { return reinterpret_cast<char*>(ends() + count); }
        const char* bytes() const { return reinterpret_cast<const char*>(ends() + count); }
        std::uint32_t byteCount() const { return count == 0 ? 0 : ends()[count - 1]; }
    };

    // An unfilled block for `count` texts of `byteCount` bytes in all.
    static Block* allocate(std::size_t count, std::size_t byteCount, std::uint32_t mark);
    // Copies text number `filled` in, and counts it.
    static void put(Block& block, std::uint32_t& filled, std::string_view text);

    Block* m_block = nullptr;
};

} // namespace kinbook

// Hashes as the same texts in a list of strings do.
template <>
struct std::hash<kinbook::Texts> {
    std::size_t operator()(const kinbook::Texts& texts) const;
};
