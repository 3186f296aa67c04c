#include "cli/JsonWriter.h"

#include <array>
#include <charconv>
#include <vector>

namespace kinbook::cli {

namespace {

// The length of the valid UTF-8 sequence at the start of `text`, or 0.
std::size_t validSequence(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    std::size_t length = 0;
    std::uint32_t minimum = 0;
    std::uint32_t codePoint = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        minimum = 0x80;
        codePoint = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        minimum = 0x800;
        codePoint = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        minimum = 0x10000;
        codePoint = lead & 0x07;
    } else {
        return 0;
    }
    if (text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = (codePoint << 6) | (byte & 0x3F);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return 0;
    }
    return length;
}

class PersonWriter {
public:
    explicit PersonWriter(std::string& out) : m_out(out) {}

    void person(const Person& person) {
        m_out += "{\"id\":";
        appendJsonString(m_out, person.id);
        field("givenName", person.givenName);
        field("middleName", person.middleName);
        field("familyName", person.familyName);
        field("nickname", person.nickname);
        field("organization", person.organization);
        field("jobTitle", person.jobTitle);
        field("department", person.department);
        field("phoneNumbers", person.phoneNumbers);
        field("emailAddresses", person.emailAddresses);
        field("accountIDs", person.accountIDs);
        field("hasImage", person.hasImage);
        field("postalCodes", person.postalCodes);
        field("places", person.places);
        field("filledCount", person.filledCount);
        field("detailed", person.detailed);
        if (person.kinID) {
            field("kinID", *person.kinID);
        }
        field("hidden", person.hidden);
        if (person.circle) {
            field("circle", rawValue(*person.circle));
        }
        field("isPrimaryCard", person.isPrimaryCard);
        field("memberIDs", person.memberIDs);
        field("displayName", person.displayName());
        field("sortKey", person.sortKey());
        field("sectionLetter", person.sectionLetter());
        field("firstNameSortKey", person.firstNameSortKey());
        field("firstNameSectionLetter", person.firstNameSectionLetter());
        field("areaCodes", person.areaCodes());
        field("searchText", person.searchText());
        field("phoneDigits", person.phoneDigits());
        m_out += '}';
    }

private:
    void key(std::string_view name) {
        m_out += ",\"";
        m_out += name;
        m_out += "\":";
    }
    void field(std::string_view name, const std::string& value) {
        key(name);
        appendJsonString(m_out, value);
    }
    void field(std::string_view name, bool value) {
        key(name);
        m_out += value ? "true" : "false";
    }
    void field(std::string_view name, int value) {
        key(name);
        std::array<char, 16> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        m_out.append(digits.data(), end);
    }
    void field(std::string_view name, const std::vector<std::string>& values) {
        key(name);
        m_out += '[';
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (i > 0) {
                m_out += ',';
            }
            appendJsonString(m_out, values[i]);
        }
        m_out += ']';
    }

    std::string& m_out;
};

} // namespace

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\') {
            // A run of plain ASCII is copied whole.
            std::size_t end = i + 1;
            while (end < text.size()) {
                const auto next = static_cast<unsigned char>(text[end]);
                if (next < 0x20 || next >= 0x80 || next == '"' || next == '\\') {
                    break;
                }
                ++end;
            }
            out.append(text.data() + i, end - i);
            i = end;
            continue;
        }
        if (byte >= 0x80) {
            if (const std::size_t length = validSequence(text.substr(i))) {
                out.append(text.data() + i, length);
                i += length;
            } else {
                out += "\xEF\xBF\xBD";
                ++i;
            }
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
        default:
            out += "u00";
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
            break;
        }
        ++i;
    }
    out += '"';
}

void appendPersonJson(std::string& out, const Person& person) {
    PersonWriter(out).person(person);
}

void writeSectionsJson(std::FILE* stream, std::span<const Section> sections, int matchCount) {
    std::string out = "{\"matchCount\":" + std::to_string(matchCount) + ",\"sections\":[";
    // Written in pieces of about a megabyte, so memory stays flat however
    // long the list.
    constexpr std::size_t kChunk = 1 << 20;
    auto flushIfFull = [&] {
        if (out.size() >= kChunk) {
            std::fwrite(out.data(), 1, out.size(), stream);
            out.clear();
        }
    };
    for (std::size_t s = 0; s < sections.size(); ++s) {
        out += s == 0 ? "\n{\"letter\":" : ",\n{\"letter\":";
        appendJsonString(out, sections[s].letter);
        out += ",\"people\":[";
        const auto& people = sections[s].people;
        for (std::size_t p = 0; p < people.size(); ++p) {
            out += p == 0 ? "\n" : ",\n";
            appendPersonJson(out, *people[p]);
            flushIfFull();
        }
        out += "]}";
    }
    out += "]}\n";
    std::fwrite(out.data(), 1, out.size(), stream);
}

} // namespace kinbook::cli
