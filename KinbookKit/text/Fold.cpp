#include "KinbookKit/text/Fold.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/CodePoints.h"

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

// Letters that are no base letter plus marks, so that stripping marks leaves
// them as they are, but that people type as plain Latin letters when they
// search a name: "lukasz" for Łukasz, "jorgensen" for Jørgensen. Each is the
// case-folded letter and what it becomes.
struct PlainLetter {
    std::string_view letter;
    std::string_view plain;
};
constexpr PlainLetter kPlainLetters[] = {
    {"\u0142", "l"},  // ł
    {"\u00F8", "o"},  // ø
    {"\u0111", "d"},  // đ
    {"\u00F0", "d"},  // ð
    {"\u00E6", "ae"}, // æ
    {"\u0153", "oe"}, // œ
    {"\u0131", "i"},  // ı
    {"\u00FE", "th"}, // þ
    {"\u0127", "h"},  // ħ
    {"\u0167", "t"},  // ŧ
};

// `folded` with the letters above made plain. All of them are two bytes in
// UTF-8 with a lead byte of 0xC3, 0xC4 or 0xC5; text without such a byte
// comes back untouched.
void makeLettersPlain(std::string& folded, std::size_t from) {
    if (folded.find_first_of("\xC3\xC4\xC5", from) == std::string::npos) {
        return;
    }
    std::string plain = folded.substr(0, from);
    for (std::size_t i = from; i < folded.size();) {
        bool replaced = false;
        for (const auto& [letter, replacement] : kPlainLetters) {
            if (folded.compare(i, letter.size(), letter) == 0) {
                plain += replacement;
                i += letter.size();
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            plain.push_back(folded[i++]);
        }
    }
    folded = std::move(plain);
}

void appendMapped(std::string& out, std::string_view utf8) {
    const std::size_t start = out.size();
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
    makeLettersPlain(out, start);
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
            appendCodePoint(single, codepoint);
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

// Decodes one UTF-8 sequence; the length, or -1 for an invalid one. Two- and
// three-byte sequences (most scripts of names) are decoded here; the rest go
// to utf8proc.
std::ptrdiff_t decodeUtf8(const utf8proc_uint8_t* bytes, std::size_t available, std::int32_t& codepoint) {
    const unsigned lead = bytes[0];
    if (lead >= 0xC2 && lead <= 0xDF && available >= 2 && (bytes[1] & 0xC0) == 0x80) {
        codepoint = static_cast<std::int32_t>(((lead & 0x1F) << 6) | (bytes[1] & 0x3F));
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF && available >= 3 && (bytes[1] & 0xC0) == 0x80 &&
        (bytes[2] & 0xC0) == 0x80) {
        codepoint =
            static_cast<std::int32_t>(((lead & 0x0F) << 12) | ((bytes[1] & 0x3F) << 6) | (bytes[2] & 0x3F));
        // Overlong forms and surrogates are not valid UTF-8.
        if (codepoint < 0x800 || (codepoint >= 0xD800 && codepoint <= 0xDFFF)) {
            return -1;
        }
        return 3;
    }
    return utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(available), &codepoint);
}

PageTable& pages() {
    static PageTable table;
    return table;
}

} // namespace

void foldInto(std::string& out, std::string_view text) {
    const std::size_t start = out.size();
    out.reserve(start + text.size());
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    const std::size_t size = text.size();
    PageTable& table = pages();
    const Page* lastPage = nullptr;
    std::int32_t lastPageIndex = -1;
    std::size_t position = 0;
    while (position < size) {
        // Most names and addresses are ASCII: lower-case whole runs at once.
        std::size_t runEnd = position;
        while (runEnd < size && bytes[runEnd] < 0x80) {
            ++runEnd;
        }
        if (runEnd > position) {
            const std::size_t written = out.size();
            out.resize(written + (runEnd - position));
            char* destination = out.data() + written;
            for (std::size_t i = position; i < runEnd; ++i) {
                *destination++ = asciiLower(static_cast<char>(bytes[i]));
            }
            position = runEnd;
            if (position == size) {
                break;
            }
        }
        std::int32_t codepoint = 0;
        const auto length = decodeUtf8(bytes + position, size - position, codepoint);
        if (length <= 0) {
            out.push_back(static_cast<char>(bytes[position]));
            ++position;
            continue;
        }
        if (isConjoiningJamo(codepoint)) {
            out.resize(start);
            appendMapped(out, text);
            return;
        }
        if (codepoint <= 0xFFFF) {
            // Text in one script stays within a block or two: keep the page.
            if ((codepoint >> 8) != lastPageIndex) {
                lastPage = &table.page(codepoint);
                lastPageIndex = codepoint >> 8;
            }
            out.append(lastPage->folded(codepoint));
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
