#include "KinbookKit/records/PersonJsonWriter.h"

#include "KinbookKit/records/PersonFields.h"
#include "KinbookKit/text/CodePoints.h"

#include <array>
#include <charconv>
#include <optional>
#include <vector>

namespace kinbook {
namespace {

class PersonWriter {
public:
    PersonWriter(std::string& out, InvalidUTF8 invalid) : m_out(out), m_invalid(invalid) {}

    void person(const Person& person) {
        forEachPersonField([&](auto field) {
            using Field = decltype(field);
            if constexpr (Field::derived) {
                value(kWrittenKey<Field>, (person.*Field::accessor)());
            } else if constexpr (Field::optional) {
                optionalValue(kWrittenKey<Field>, person.*Field::member);
            } else {
                value(kWrittenKey<Field>, person.*Field::member);
            }
        });
        m_out += '}';
    }

private:
    template <std::size_t N>
    void key(const std::array<char, N>& text) {
        m_out.append(text.data(), N);
    }
    template <std::size_t N>
    void value(const std::array<char, N>& name, std::string_view text) {
        key(name);
        appendJsonString(m_out, text, m_invalid);
    }
    template <std::size_t N>
    void value(const std::array<char, N>& name, bool flag) {
        key(name);
        m_out += flag ? "true" : "false";
    }
    template <std::size_t N>
    void value(const std::array<char, N>& name, int number) {
        key(name);
        std::array<char, 16> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        m_out.append(digits.data(), end);
    }
    template <std::size_t N>
    void value(const std::array<char, N>& name, const Texts& texts) {
        list(name, texts);
    }
    template <std::size_t N>
    void value(const std::array<char, N>& name, const TextList& texts) {
        list(name, texts);
    }
    // The optional fields are left out when not set.
    template <std::size_t N>
    void optionalValue(const std::array<char, N>& name, const std::optional<std::string>& text) {
        if (text) {
            value(name, std::string_view(*text));
        }
    }
    template <std::size_t N>
    void optionalValue(const std::array<char, N>& name, const std::optional<ContactCircle>& circle) {
        if (circle) {
            value(name, rawValue(*circle));
        }
    }

    template <std::size_t N, typename List>
    void list(const std::array<char, N>& name, const List& texts) {
        key(name);
        m_out += '[';
        bool first = true;
        for (const auto& text : texts) {
            if (!first) {
                m_out += ',';
            }
            first = false;
            appendJsonString(m_out, text, m_invalid);
        }
        m_out += ']';
    }

    std::string& m_out;
    InvalidUTF8 m_invalid;
};

} // namespace

void appendJsonString(std::string& out, std::string_view text, InvalidUTF8 invalid) {
    static constexpr char kHex[] = "0123456789abcdef";
    const bool copyHigh = invalid == InvalidUTF8::copy;
    out += '"';
    std::size_t runStart = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte != '"' && byte != '\\' && (byte < 0x80 || copyHigh)) {
            ++i; // part of a run copied whole
            continue;
        }
        out.append(text.data() + runStart, i - runStart);
        if (byte >= 0x80) {
            const auto character = decodeAt(text, i);
            if (character.value >= 0) {
                out.append(text.data() + i, character.length);
            } else {
                out += "\xEF\xBF\xBD";
            }
            i += character.length;
            runStart = i;
            continue;
        }
        out += '\\';
        switch (byte) {
        case '"':
            out += '"';
            break;
        case '\\':
            out += '\\';
            break;
        case '\n':
            out += 'n';
            break;
        case '\r':
            out += 'r';
            break;
        case '\t':
            out += 't';
            break;
        case '\b':
            out += 'b';
            break;
        case '\f':
            out += 'f';
            break;
        default:
            out += "u00";
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
            break;
        }
        runStart = ++i;
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out += '"';
}

void appendPersonJson(std::string& out, const Person& person, InvalidUTF8 invalid) {
    PersonWriter(out, invalid).person(person);
}

} // namespace kinbook
