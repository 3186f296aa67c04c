#include "KinbookKit/vcard/RawPersonBuilder.h"

#include "KinbookKit/records/KinID.h"
#include "KinbookKit/text/Ascii.h"

#include <array>
#include <iterator>
#include <vector>

namespace kinbook {
namespace {

struct LineByName {
    std::string_view name;
    PersonLine line;
};

// Every property the raw person reads, and the entries it only counts.
constexpr std::array<LineByName, 37> kLines{{
    {"N", PersonLine::n},
    {"FN", PersonLine::fn},
    {"NICKNAME", PersonLine::nickname},
    {"ORG", PersonLine::org},
    {"TITLE", PersonLine::title},
    {"X-ABSHOWAS", PersonLine::showAs},
    {"KIND", PersonLine::kind},
    {"X-ADDRESSBOOKSERVER-KIND", PersonLine::abKind},
    {"TEL", PersonLine::tel},
    {"EMAIL", PersonLine::email},
    {"ADR", PersonLine::adr},
    {"URL", PersonLine::url},
    {"BDAY", PersonLine::bday},
    {"PHOTO", PersonLine::photo},
    {"ANNIVERSARY", PersonLine::entry},
    {"X-ABDATE", PersonLine::entry},
    {"X-ANNIVERSARY", PersonLine::entry},
    {"X-MS-ANNIVERSARY", PersonLine::entry},
    {"X-EVOLUTION-ANNIVERSARY", PersonLine::entry},
    {"X-ABRELATEDNAMES", PersonLine::entry},
    {"RELATED", PersonLine::entry},
    {"X-SOCIALPROFILE", PersonLine::entry},
    {"SOCIALPROFILE", PersonLine::entry},
    {"IMPP", PersonLine::entry},
    {"X-AIM", PersonLine::entry},
    {"X-ICQ", PersonLine::entry},
    {"X-JABBER", PersonLine::entry},
    {"X-MSN", PersonLine::entry},
    {"X-YAHOO", PersonLine::entry},
    {"X-SKYPE", PersonLine::entry},
    {"X-SKYPE-USERNAME", PersonLine::entry},
    {"X-GTALK", PersonLine::entry},
    {"X-GOOGLE-TALK", PersonLine::entry},
    {"X-QQ", PersonLine::entry},
    {"X-GADUGADU", PersonLine::entry},
    {"X-TWITTER", PersonLine::entry},
    {"X-GROUPWISE", PersonLine::entry},
}};

bool isDetail(PersonLine line) {
    switch (line) {
    case PersonLine::tel:
    case PersonLine::email:
    case PersonLine::adr:
    case PersonLine::bday:
    case PersonLine::photo:
    case PersonLine::entry:
        return true;
    default:
        return false;
    }
}

std::string trimmedCopy(std::string_view text) {
    return std::string(trimAsciiSpace(text));
}

} // namespace

bool isFilledValue(std::string_view text) {
    for (const char c : text) {
        if (!isAsciiSpace(c) && c != ';' && c != ',') {
            return true;
        }
    }
    return false;
}

std::string FieldsValue::joined(std::size_t index, std::string_view separator) const {
    std::string joined;
    if (index >= m_fields.size()) {
        return joined;
    }
    const auto& components = m_fields[index];
    for (std::size_t i = 0; i < components.size(); ++i) {
        if (i > 0) {
            joined += separator;
        }
        joined += components[i];
    }
    return joined;
}

bool FieldsValue::isFilled() const {
    for (const auto& field : m_fields) {
        for (const auto& component : field) {
            if (isFilledValue(component)) {
                return true;
            }
        }
    }
    return false;
}

std::string placeText(std::string_view city, std::string_view state, std::string_view country) {
    std::string place;
    for (const std::string_view part : {city, state, country}) {
        if (part.empty()) {
            continue;
        }
        if (!place.empty()) {
            place += ", ";
        }
        place += part;
    }
    return place;
}

void readNameFields(const StructuredValue& n, CardNames& names) {
    names.familyName = n.joined(0, " ");
    names.givenName = n.joined(1, " ");
    names.middleName = n.joined(2, " ");
    names.namePrefix = n.joined(3, " ");
    names.nameSuffix = n.joined(4, " ");
}

void readOrganizationFields(const StructuredValue& org, CardNames& names) {
    names.organization = org.joined(0, ",");
    names.department = org.joined(1, ",");
}

CardNames completeCardNames(CardNames names, std::string_view formattedName, bool isCompany) {
    const std::string_view fn = trimAsciiSpace(formattedName);
    if (isCompany) {
        if (trimAsciiSpace(names.organization).empty()) {
            names.organization = std::string(fn);
        }
    } else if (names.givenName.empty() && names.middleName.empty() && names.familyName.empty() &&
               !fn.empty() && fn != trimAsciiSpace(names.organization)) {
        // Cards written by hand or by small tools often have only FN.
        names.givenName = std::string(fn);
    }
    return names;
}

PersonLine RawPersonBuilder::classify(std::string_view name, bool hasGroup) const {
    if (name == "UID") {
        return hasGroup || m_uid ? PersonLine::ignored : PersonLine::uid;
    }
    // Compared in upper case against the table, length first: this runs for
    // every line of every card in a full read.
    constexpr std::size_t kLongest = 24;
    if (name.empty() || name.size() > kLongest) {
        return PersonLine::ignored;
    }
    char upper[kLongest];
    for (std::size_t i = 0; i < name.size(); ++i) {
        upper[i] = asciiUpper(name[i]);
    }
    const std::string_view key(upper, name.size());
    // The table by name length, built once.
    static const auto byLength = [] {
        std::array<std::vector<LineByName>, kLongest + 1> index;
        for (const auto& entry : kLines) {
            index[entry.name.size()].push_back(entry);
        }
        return index;
    }();
    PersonLine line = PersonLine::ignored;
    for (const auto& entry : byLength[key.size()]) {
        if (entry.name == key) {
            line = entry.line;
            break;
        }
    }
    if (!m_details && isDetail(line)) {
        return PersonLine::ignored;
    }
    switch (line) {
    case PersonLine::n:
        return m_hasN ? PersonLine::ignored : line;
    case PersonLine::org:
        return m_hasOrg ? PersonLine::ignored : line;
    case PersonLine::fn:
        return m_fn ? PersonLine::ignored : line;
    case PersonLine::nickname:
        return m_nickname ? PersonLine::ignored : line;
    case PersonLine::title:
        return m_title ? PersonLine::ignored : line;
    case PersonLine::bday:
        return m_birthday ? PersonLine::ignored : line;
    default:
        return line;
    }
}

void RawPersonBuilder::addFields(PersonLine line, const StructuredValue& value) {
    switch (line) {
    case PersonLine::n:
        m_hasN = true;
        readNameFields(value, m_names);
        break;
    case PersonLine::org:
        m_hasOrg = true;
        readOrganizationFields(value, m_names);
        break;
    case PersonLine::adr: {
        const std::string code = trimmedCopy(value.joined(5, " "));
        const std::string place =
            placeText(trimmedCopy(value.joined(3, " ")), trimmedCopy(value.joined(4, " ")),
                      trimmedCopy(value.joined(6, " ")));
        if (!code.empty()) {
            m_lists->postalCodes.push_back(code);
        }
        if (!place.empty()) {
            m_lists->places.push_back(place);
        }
        m_filledEntries += value.isFilled() ? 1 : 0;
        break;
    }
    default:
        break;
    }
}

void RawPersonBuilder::addText(PersonLine line, std::string_view text) {
    switch (line) {
    case PersonLine::fn:
        m_fn = std::string(text);
        break;
    case PersonLine::nickname:
        m_nickname = std::string(text);
        break;
    case PersonLine::title:
        m_title = std::string(text);
        break;
    case PersonLine::showAs:
        m_company = m_company || equalsIgnoringAsciiCase(trimAsciiSpace(text), "COMPANY");
        break;
    case PersonLine::kind: {
        const std::string_view kind = trimAsciiSpace(text);
        m_company = m_company || equalsIgnoringAsciiCase(kind, "org") ||
                    equalsIgnoringAsciiCase(kind, "organization");
        m_group = m_group || equalsIgnoringAsciiCase(kind, "group");
        break;
    }
    case PersonLine::abKind:
        m_group = m_group || equalsIgnoringAsciiCase(trimAsciiSpace(text), "group");
        break;
    case PersonLine::uid:
        m_uid = std::string(text);
        break;
    case PersonLine::tel:
    case PersonLine::email: {
        const std::string_view value = trimAsciiSpace(text);
        if (!value.empty()) {
            (line == PersonLine::tel ? m_lists->phones : m_lists->emails).emplace_back(value);
        }
        m_filledEntries += isFilledValue(value) ? 1 : 0;
        break;
    }
    case PersonLine::url: {
        const std::string_view value = trimAsciiSpace(text);
        if (KinID::isAnchorURL(value)) {
            m_lists->anchors.emplace_back(value);
        } else if (m_details) {
            m_filledEntries += isFilledValue(value) ? 1 : 0;
        }
        break;
    }
    case PersonLine::bday:
        m_birthday = !isBlank(text, " \t\r\n");
        break;
    case PersonLine::entry:
        m_filledEntries += isFilledValue(text) ? 1 : 0;
        break;
    default:
        break;
    }
}

void RawPersonBuilder::addPhoto(bool hasInlineData) {
    m_image = m_image || hasInlineData;
}

RawPersonBuilder::RawPersonBuilder(bool details, Lists& reused) : m_details(details), m_lists(&reused) {
    for (auto* list :
         {&reused.phones, &reused.emails, &reused.postalCodes, &reused.places, &reused.anchors}) {
        list->clear();
    }
}

Person RawPersonBuilder::finish(std::string_view cardID, std::string_view accountID) && {
    Person person;
    std::move(*this).finishInto(person, cardID, accountID);
    return person;
}

void RawPersonBuilder::finishInto(Person& person, std::string_view cardID, std::string_view accountID) && {
    // Everything the builder holds moves into the person: this runs once
    // for every card of every full read.
    person.id = std::string(cardID);
    CardNames names =
        completeCardNames(std::move(m_names), m_fn ? std::string_view(*m_fn) : std::string_view(), m_company);
    if (!m_company) {
        // A company card is listed, sorted and found by its organisation.
        person.givenName = std::move(names.givenName);
        person.middleName = std::move(names.middleName);
        person.familyName = std::move(names.familyName);
    }
    if (m_nickname) {
        person.nickname = std::move(*m_nickname);
    }
    person.organization = std::move(names.organization);
    if (m_title) {
        person.jobTitle = std::move(*m_title);
    }
    person.department = std::move(names.department);
    person.accountIDs = {accountID};
    person.memberIDs = {person.id};
    person.detailed = m_details;
    Lists& lists = *m_lists;
    if (!lists.anchors.empty()) {
        // The first anchor URL, when its id reads, is both the KinID and the
        // anchor; only a damaged first anchor sends readID further.
        if (auto anchor = KinID::Anchor::read(lists.anchors)) {
            person.kinID = std::move(anchor->id);
            person.hidden = anchor->hidden;
            person.circle = anchor->circle;
            person.isPrimaryCard = anchor->primary;
        } else {
            person.kinID = KinID::readID(lists.anchors);
        }
    }
    if (m_details) {
        person.phoneNumbers = lists.phones;
        person.emailAddresses = lists.emails;
        person.postalCodes = lists.postalCodes;
        person.places = lists.places;
        person.hasImage = m_image;
        int filled = m_filledEntries + (m_birthday ? 1 : 0) + (m_image ? 1 : 0);
        for (const auto* text : {&person.givenName, &person.middleName, &person.familyName, &person.nickname,
                                 &person.organization, &person.jobTitle, &person.department}) {
            filled += text->empty() ? 0 : 1;
        }
        person.filledCount = filled;
    }
    person.derive();
}

} // namespace kinbook
