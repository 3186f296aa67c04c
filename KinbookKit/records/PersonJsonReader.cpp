#include "KinbookKit/records/PersonJsonReader.h"

#include "KinbookKit/records/PersonFields.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/CodePoints.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace kinbook {
namespace {

bool readHex4(const char*& at, std::uint32_t& value) {
    value = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = hexDigitValue(*at);
        if (digit < 0) {
            return false;
        }
        value = value * 16 + static_cast<std::uint32_t>(digit);
        ++at;
    }
    return true;
}

// The end of a run of bytes that stand for themselves: the first quote,
// backslash or control character. Sixteen bytes at a time where the
// processor has SSE2 (every x86-64 does); the text's padding makes reading
// past its end safe.
const char* plainRun(const char* at) {
#ifdef __SSE2__
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    // A byte below 0x20 is one from which a saturating subtraction of 0x1F
    // leaves zero.
    const __m128i controlLimit = _mm_set1_epi8(0x1F);
    for (;;) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        const __m128i special =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, quote), _mm_cmpeq_epi8(bytes, backslash)),
                         _mm_cmpeq_epi8(_mm_subs_epu8(bytes, controlLimit), _mm_setzero_si128()));
        const int mask = _mm_movemask_epi8(special);
        if (mask != 0) {
            return at + __builtin_ctz(static_cast<unsigned>(mask));
        }
        at += 16;
    }
#else
    while (*at != '"' && *at != '\\' && static_cast<unsigned char>(*at) >= 0x20) {
        ++at;
    }
    return at;
#endif
}

// What a reader keeps from person to person, so that the texts and lists it
// reads into are not made anew for each of 100,000 people.
struct ReaderScratch {
    std::vector<std::string> texts;
    PersonKeys keys;
};

// Reads a person field by field, each key checked as the literal text the
// writer puts before it (see PersonFields).
class WrittenPersonReader {
public:
    WrittenPersonReader(const char* at, ReaderScratch& scratch)
        : m_at(at), m_scratch(scratch.texts), m_keys(scratch.keys) {}

    const char* person(Person& person) {
        PersonKeys& keys = m_keys;
        const bool read = everyPersonField([&](auto field) {
                              using Field = decltype(field);
                              if constexpr (Field::derived) {
                                  return literal(kWrittenKey<Field>) && value(keys.*Field::key);
                              } else if constexpr (Field::optional) {
                                  return optionalValue(kWrittenKey<Field>, person.*Field::member);
                              } else {
                                  return literal(kWrittenKey<Field>) && value(person.*Field::member);
                              }
                          }) &&
                          literal("}");
        if (!read) {
            return nullptr;
        }
        person.adoptKeys(keys);
        return m_at;
    }

private:
    // Compares the whole literal even past a NUL; the caller's padding makes
    // that safe.
    // Its length known here, the comparison is a few eight-byte loads, not
    // a call (the last load overlaps the one before it).
    template <std::size_t length>
    bool literalOfLength(const char* text) {
        const auto word = [](const char* bytes) {
            std::uint64_t value = 0;
            std::memcpy(&value, bytes, sizeof value);
            return value;
        };
        if constexpr (length >= 8) {
            for (std::size_t i = 0; i + 8 <= length; i += 8) {
                if (word(m_at + i) != word(text + i)) {
                    return false;
                }
            }
            if (length % 8 != 0 && word(m_at + length - 8) != word(text + length - 8)) {
                return false;
            }
        } else if (std::memcmp(m_at, text, length) != 0) {
            return false;
        }
        m_at += length;
        return true;
    }
    template <std::size_t N>
    bool literal(const char (&text)[N]) {
        return literalOfLength<N - 1>(text);
    }
    template <std::size_t N>
    bool literal(const std::array<char, N>& text) {
        return literalOfLength<N>(text.data());
    }

    bool value(std::string& out) { return string(out); }
    bool value(Texts& out) { return strings(out); }
    bool value(std::vector<std::string>& out) { return scratchStrings(out); }
    bool value(bool& out) { return boolean(out); }
    bool value(int& out) { return integer(out); }

    // An optional field is there with its key, or absent: the writer leaves
    // out what is not set, and writes no null.
    template <std::size_t N>
    bool optionalValue(const std::array<char, N>& key, std::optional<std::string>& out) {
        if (literal(key)) {
            return string(out.emplace());
        }
        out.reset();
        return true;
    }
    template <std::size_t N>
    bool optionalValue(const std::array<char, N>& key, std::optional<ContactCircle>& out) {
        out.reset();
        if (literal(key)) {
            int raw = 0;
            if (!integer(raw)) {
                return false;
            }
            // A circle this version doesn't know reads as none.
            out = circleFromRawValue(raw);
        }
        return true;
    }

    bool string(std::string& out) {
        if (*m_at != '"') {
            return false;
        }
        m_at = readJsonString(m_at + 1, out);
        return m_at != nullptr;
    }

    // A list of texts into the first `count` texts of `into`, which keep
    // their memory: `into` only grows.
    bool textsInto(std::vector<std::string>& into, std::size_t& count) {
        count = 0;
        if (*m_at != '[') {
            return false;
        }
        ++m_at;
        if (*m_at == ']') {
            ++m_at;
            return true;
        }
        for (;;) {
            if (count == into.size()) {
                into.emplace_back();
            }
            if (!string(into[count++])) {
                return false;
            }
            if (*m_at == ']') {
                ++m_at;
                return true;
            }
            if (*m_at++ != ',') {
                return false;
            }
        }
    }

    // A list is read into the scratch texts, which keep their memory from
    // person to person, and then packed once at its size.
    bool strings(Texts& out) {
        std::size_t count = 0;
        if (!textsInto(m_scratch, count)) {
            return false;
        }
        out = Texts(std::span<const std::string>(m_scratch.data(), count));
        return true;
    }

    // A list kept in the scratch: its texts keep their memory for the next
    // person's.
    bool scratchStrings(std::vector<std::string>& out) {
        std::size_t count = 0;
        if (!textsInto(out, count)) {
            return false;
        }
        out.resize(count);
        return true;
    }

    bool boolean(bool& out) {
        if (std::memcmp(m_at, "true", 4) == 0) {
            out = true;
            m_at += 4;
            return true;
        }
        if (std::memcmp(m_at, "false", 5) == 0) {
            out = false;
            m_at += 5;
            return true;
        }
        return false;
    }

    // A JSON integer within the range of an int: no leading zeros, no
    // fraction, no exponent.
    bool integer(int& out) {
        const bool negative = *m_at == '-';
        const char* digits = m_at + (negative ? 1 : 0);
        const char* end = digits;
        long long value = 0;
        while (*end >= '0' && *end <= '9' && end - digits < 11) {
            value = value * 10 + (*end - '0');
            ++end;
        }
        if (end == digits || (*digits == '0' && end - digits > 1) || *end == '.' || *end == 'e' ||
            *end == 'E' || (*end >= '0' && *end <= '9')) {
            return false;
        }
        value = negative ? -value : value;
        if (value < INT_MIN || value > INT_MAX) {
            return false;
        }
        out = static_cast<int>(value);
        m_at = end;
        return true;
    }

    const char* m_at;
    std::vector<std::string>& m_scratch;
    PersonKeys& m_keys;
};

} // namespace

const char* readJsonString(const char* at, std::string& out) {
    const char* run = plainRun(at);
    // Most strings have no escapes: one copy of the right size.
    out.assign(at, run);
    at = run;
    for (;;) {
        if (*at == '"') {
            return at + 1;
        }
        if (*at != '\\') {
            return nullptr; // a raw control character, or the end of the text
        }
        ++at;
        switch (*at++) {
        case '"':
            out += '"';
            break;
        case '\\':
            out += '\\';
            break;
        case '/':
            out += '/';
            break;
        case 'b':
            out += '\b';
            break;
        case 'f':
            out += '\f';
            break;
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        case 't':
            out += '\t';
            break;
        case 'u': {
            std::uint32_t code = 0;
            if (!readHex4(at, code)) {
                return nullptr;
            }
            if (code >= 0xdc00 && code <= 0xdfff) {
                return nullptr; // a second half without its first
            }
            if (code >= 0xd800 && code <= 0xdbff) {
                std::uint32_t low = 0;
                if (at[0] != '\\' || at[1] != 'u') {
                    return nullptr;
                }
                at += 2;
                if (!readHex4(at, low) || low < 0xdc00 || low > 0xdfff) {
                    return nullptr;
                }
                code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
            }
            appendCodePoint(out, static_cast<std::int32_t>(code));
            break;
        }
        default:
            return nullptr;
        }
        run = plainRun(at);
        out.append(at, run);
        at = run;
    }
}

const char* readWrittenPerson(const char* at, Person& person) {
    thread_local ReaderScratch scratch;
    return WrittenPersonReader(at, scratch).person(person);
}

} // namespace kinbook
