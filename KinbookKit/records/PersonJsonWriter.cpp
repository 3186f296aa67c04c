#include "KinbookKit/records/PersonJsonWriter.h"

#include "KinbookKit/text/CodePoints.h"

#include <array>
#include <charconv>
#include <vector>

namespace kinbook {
namespace {

class PersonWriter {
public:
    PersonWriter(std::string& out, InvalidUTF8 invalid) : m_out(out), m_invalid(invalid) {}

    void person(const Person& person) {
        m_out += "{\"id\":";
        appendJsonString(m_out, person.id, m_invalid);
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
    void field(std::string_view name, std::string_view value) {
        key(name);
        appendJsonString(m_out, value, m_invalid);
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
    void field(std::string_view name, const Texts& values) { list(name, values); }
    void field(std::string_view name, const TextList& values) { list(name, values); }

    template <typename List>
    void list(std::string_view name, const List& values) {
        key(name);
        m_out += '[';
        bool first = true;
        for (const auto& value : values) {
            if (!first) {
                m_out += ',';
            }
            first = false;
            appendJsonString(m_out, value, m_invalid);
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
