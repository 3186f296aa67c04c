#include "KinbookKit/text/Fold.h"

#include <utf8proc.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace kinbook {
namespace {

// Case folding plus mark stripping; composition brings back precomposed
// forms that have no marks (Hangul syllables, for one).
constexpr int kFoldOptions = UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_STRIPMARK;

void appendMapped(std::string& out, std::string_view utf8) {
    utf8proc_uint8_t* mapped = nullptr;
    const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data()),
                                     static_cast<utf8proc_ssize_t>(utf8.size()), &mapped,
                                     static_cast<utf8proc_option_t>(kFoldOptions));
    if (length < 0) {
        out.append(utf8);
    } else {
        out.append(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
    }
    std::free(mapped);
}

void appendCodepoint(std::string& out, std::int32_t codepoint) {
    utf8proc_uint8_t buffer[4];
    const auto length = utf8proc_encode_char(codepoint, buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

// Folding a single code point in isolation gives the same result as folding
// it in context for every code point except conjoining Hangul jamo, which
// compose with their neighbours. Their presence sends the whole text down
// the slow path.
bool isConjoiningJamo(std::int32_t codepoint) {
    return (codepoint >= 0x1100 && codepoint <= 0x11FF) || (codepoint >= 0xA960 && codepoint <= 0xA97F) ||
           (codepoint >= 0xD7B0 && codepoint <= 0xD7FF);
}

// The folded forms of 256 consecutive code points of the Basic Multilingual
// Plane, built on first use of that block so that start-up pays nothing.
struct Page {
    std::array<std::uint16_t, 257> offsets{};
    std::string bytes;

    explicit Page(std::int32_t first) {
        for (std::int32_t i = 0; i < 256; ++i) {
            offsets[static_cast<std::size_t>(i)] = static_cast<std::uint16_t>(bytes.size());
            const std::int32_t codepoint = first + i;
            if (!utf8proc_codepoint_valid(codepoint)) {
                continue;
            }
            std::string single;
            appendCodepoint(single, codepoint);
            appendMapped(bytes, single);
        }
        offsets[256] = static_cast<std::uint16_t>(bytes.size());
    }

    std::string_view folded(std::int32_t codepoint) const {
        const auto slot = static_cast<std::size_t>(codepoint & 0xFF);
        return std::string_view(bytes).substr(offsets[slot], offsets[slot + 1] - offsets[slot]);
    }
};

class PageTable {
public:
    ~PageTable() {
        for (auto& page : m_pages) {
            delete page.load(std::memory_order_relaxed);
        }
    }

    const Page& page(std::int32_t codepoint) {
        auto& slot = m_pages[static_cast<std::size_t>(codepoint >> 8)];
        if (const Page* existing = slot.load(std::memory_order_acquire)) {
            return *existing;
        }
        // Two threads may build the same page at once; the loser's copy is
        // dropped. Pages are identical, so either is correct.
        auto built = std::make_unique<Page>(codepoint & ~0xFF);
        const Page* expected = nullptr;
        if (slot.compare_exchange_strong(expected, built.get(), std::memory_order_acq_rel)) {
            return *built.release();
        }
        return *expected;
    }

private:
    std::array<std::atomic<const Page*>, 256> m_pages{};
};

PageTable& pages() {
    static PageTable table;
    return table;
}

char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
}

} // namespace

void foldInto(std::string& out, std::string_view text) {
    const std::size_t start = out.size();
    out.reserve(start + text.size());
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    std::size_t position = 0;
    while (position < text.size()) {
        const unsigned char byte = bytes[position];
        if (byte < 0x80) {
            out.push_back(asciiLower(static_cast<char>(byte)));
            ++position;
            continue;
        }
        std::int32_t codepoint = 0;
        const auto length = utf8proc_iterate(
            bytes + position, static_cast<utf8proc_ssize_t>(text.size() - position), &codepoint);
        if (length <= 0) {
            out.push_back(static_cast<char>(byte));
            ++position;
            continue;
        }
        if (isConjoiningJamo(codepoint)) {
            out.resize(start);
            appendMapped(out, text);
            return;
        }
        if (codepoint <= 0xFFFF) {
            out.append(pages().page(codepoint).folded(codepoint));
        } else {
            appendMapped(out, text.substr(position, static_cast<std::size_t>(length)));
        }
        position += static_cast<std::size_t>(length);
    }
}

std::string fold(std::string_view text) {
    std::string out;
    foldInto(out, text);
    return out;
}

} // namespace kinbook
