#include "KinbookKit/vcard/CardWriter.h"

#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/CardReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>

namespace kinbook {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr std::string_view kAppleOmitYear = "X-APPLE-OMIT-YEAR";
constexpr int kAppleNoYear = 1604;

std::string trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(kWhiteSpace);
    if (begin == std::string_view::npos) {
        return {};
    }
    const auto end = text.find_last_not_of(kWhiteSpace);
    return std::string(text.substr(begin, end - begin + 1));
}

bool isBlankText(std::string_view text) {
    return text.find_first_not_of(kWhiteSpace) == std::string_view::npos;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string result;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            result += separator;
        }
        result += parts[i];
    }
    return result;
}

// Words joined by single spaces, empty ones left out.
std::string joinWords(std::initializer_list<std::string_view> words) {
    std::string result;
    for (const auto word : words) {
        const std::string part = trimmed(word);
        if (part.empty()) {
            continue;
        }
        if (!result.empty()) {
            result += ' ';
        }
        result += part;
    }
    return result;
}

// ---------------------------------------------------------------------------
// Labels

// The TYPE values Apple writes for a stock label on this kind of entry, or
// none when that label is written as a token in X-ABLabel instead.
std::optional<std::vector<std::string_view>> typeForm(EntryKind kind, StockLabel label) {
    using Values = std::vector<std::string_view>;
    switch (kind) {
    case EntryKind::phone:
        switch (label) {
        case StockLabel::mobile:
            return Values{"CELL", "VOICE"};
        case StockLabel::iPhone:
            return Values{"IPHONE", "CELL", "VOICE"};
        case StockLabel::home:
            return Values{"HOME", "VOICE"};
        case StockLabel::work:
            return Values{"WORK", "VOICE"};
        case StockLabel::other:
            return Values{"OTHER", "VOICE"};
        case StockLabel::main:
            return Values{"MAIN"};
        case StockLabel::pager:
            return Values{"PAGER"};
        case StockLabel::homeFax:
            return Values{"HOME", "FAX"};
        case StockLabel::workFax:
            return Values{"WORK", "FAX"};
        default:
            return std::nullopt;
        }
    case EntryKind::email:
    case EntryKind::address:
        switch (label) {
        case StockLabel::home:
            return Values{"HOME"};
        case StockLabel::work:
            return Values{"WORK"};
        case StockLabel::other:
            return Values{"OTHER"};
        default:
            return std::nullopt;
        }
    case EntryKind::url:
        switch (label) {
        case StockLabel::home:
            return Values{"HOME"};
        case StockLabel::work:
            return Values{"WORK"};
        default:
            return std::nullopt;
        }
    default:
        return std::nullopt;
    }
}

// Whether another member of the property's group is an entry of its own (a
// group that only says "display these together"); its companions then
// belong to both, and neither may take them away.
bool groupIsShared(const VCard& card, const VCardProperty& property) {
    if (property.group().empty()) {
        return false;
    }
    for (const VCardProperty* member : card.groupMembers(property.group())) {
        if (member != &property &&
            (entryKind(*member) || !startsWithIgnoringAsciiCase(member->name(), "X-"))) {
            return true;
        }
    }
    return false;
}

// The label constant or custom text written in an X-ABLabel line.
void setLabelLine(VCard& card, VCardProperty& property, std::string_view label) {
    VCardProperty* line = card.companion(property, "X-ABLabel");
    if (line == nullptr) {
        card.add("X-ABLabel", property.group()).setText(label);
    } else if (line->text() != label) {
        line->setText(label);
    }
}

// Takes the property out of its group when nothing else is left in it.
void leaveEmptyGroup(VCard& card, VCardProperty& property) {
    if (property.group().empty()) {
        return;
    }
    if (card.groupMembers(property.group()).size() == 1) {
        property.setGroup({});
    }
}

// ---------------------------------------------------------------------------
// Placing lines

// The last line of the property's group (the property itself when it has
// none): where a line meant to follow the entry goes.
const VCardProperty* lastLineOfGroup(VCard& card, const VCardProperty& property) {
    if (property.group().empty()) {
        return &property;
    }
    const VCardProperty* last = &property;
    for (const VCardProperty* member : card.groupMembers(property.group())) {
        last = member;
    }
    return last;
}

// The line just before the property and the group lines that lead up to it;
// null when it is the first line.
const VCardProperty* lineBefore(VCard& card, const VCardProperty& property) {
    const auto lines = card.properties();
    auto it = std::find(lines.begin(), lines.end(), &property);
    if (it == lines.end()) {
        return nullptr;
    }
    while (it != lines.begin()) {
        --it;
        if (property.group().empty() || !(*it)->isInGroup(property.group())) {
            return *it;
        }
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// Values as the draft shows them

bool startsWithTelScheme(std::string_view value) {
    return startsWithIgnoringAsciiCase(value, "tel:");
}

// Whether one structured field, as the draft shows it, is `wanted`. A field
// of several components may be shown joined in more than one way.
bool fieldMatches(const std::vector<std::string>& components, std::string_view wanted) {
    const std::string want = trimmed(wanted);
    for (const std::string_view separator : {",", ", ", " ", "\n"}) {
        if (trimmed(join(components, separator)) == want) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> fieldAt(const std::vector<std::vector<std::string>>& fields, std::size_t index) {
    return index < fields.size() ? fields[index] : std::vector<std::string>{};
}

// Sets the structured field at `index` to one component, growing the value
// to hold it.
void setField(std::vector<std::vector<std::string>>& fields, std::size_t index, std::string value) {
    if (fields.size() <= index) {
        fields.resize(index + 1);
    }
    fields[index] = {std::move(value)};
}

bool allFieldsBlank(const std::vector<std::vector<std::string>>& fields) {
    return std::all_of(fields.begin(), fields.end(), [](const auto& field) {
        return std::all_of(field.begin(), field.end(), [](const std::string& c) { return isBlankText(c); });
    });
}

// The service and user name a social profile stores.
struct Profile {
    std::string service;
    std::string user;
    std::string url;
};

std::string firstNonPref(const std::vector<std::string>& values) {
    for (const auto& value : values) {
        if (!equalsIgnoringAsciiCase(value, "pref")) {
            return value;
        }
    }
    return {};
}

Profile socialProfile(const VCardProperty& property) {
    Profile profile;
    for (const std::string_view name : {"TYPE", "SERVICE-TYPE", "X-SERVICE-TYPE"}) {
        profile.service = firstNonPref(property.parameterValues(name));
        if (!profile.service.empty()) {
            break;
        }
    }
    profile.user = property.parameter("X-USER").value_or(std::string());
    if (profile.user.empty()) {
        profile.user = property.parameter("USERNAME").value_or(std::string());
    }
    profile.url = property.text();
    return profile;
}

// A URI scheme at the start of a value ("x-apple:", "skype:"), or empty.
std::string_view uriScheme(std::string_view value) {
    const auto colon = value.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return {};
    }
    for (char c : value.substr(0, colon)) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isAsciiDigit(c) || c == '+' ||
                        c == '-' || c == '.';
        if (!ok) {
            return {};
        }
    }
    return value.substr(0, colon + 1);
}

Profile messagingAddress(const VCardProperty& property) {
    Profile profile;
    profile.service = property.parameter("X-SERVICE-TYPE").value_or(std::string());
    if (profile.service.empty()) {
        profile.service = firstNonPref(property.parameterValues("TYPE"));
    }
    if (profile.service.empty() && startsWithIgnoringAsciiCase(property.name(), "X-")) {
        profile.service = property.name().substr(2);
    }
    const std::string value = property.text();
    profile.user = value.substr(uriScheme(value).size());
    return profile;
}

bool sameLink(const std::optional<LinkedAccount>& current, const LinkedAccount& wanted,
              std::string_view handle) {
    return current && current->service == wanted.service && current->handle == handle;
}

// Whether an entry that reads as `read` is one of the draft's links: the
// reader shows one link for every entry that names the same account (one
// service, one handle whatever its case), so a profile and a web address of
// one account, or the same profile twice, stand behind a single link. Those
// other entries stay as long as the draft keeps that link.
bool draftKeepsLink(const ContactDraft& draft, const std::optional<LinkedAccount>& read) {
    if (!read) {
        return false;
    }
    return std::any_of(draft.links.begin(), draft.links.end(), [&](const LinkedAccount& link) {
        return link.service == read->service && equalsIgnoringAsciiCase(trimmed(link.handle), read->handle);
    });
}

std::optional<DateComponents> parseDate(const VCardProperty& property) {
    std::string text = trimmed(property.text());
    if (const auto t = text.find('T'); t != std::string::npos) {
        text.erase(t);
    }
    auto number = [](std::string_view digits) -> std::optional<int> {
        if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isAsciiDigit)) {
            return std::nullopt;
        }
        int value = 0;
        for (char c : digits) {
            value = value * 10 + (c - '0');
        }
        return value;
    };
    std::string digits;
    bool yearless = false;
    if (text.rfind("--", 0) == 0) {
        yearless = true;
        text.erase(0, 2);
    }
    for (char c : text) {
        if (c != '-') {
            digits += c;
        }
    }
    if (yearless) {
        if (digits.size() != 4) {
            return std::nullopt;
        }
        return DateComponents::make(std::nullopt, number(digits.substr(0, 2)), number(digits.substr(2, 2)));
    }
    if (digits.size() != 8) {
        return std::nullopt;
    }
    std::optional<int> year = number(digits.substr(0, 4));
    if (!year) {
        return std::nullopt;
    }
    const auto omitted = property.parameter(kAppleOmitYear);
    if (*year == kAppleNoYear || (omitted && number(*omitted) == year)) {
        year.reset();
    }
    return DateComponents::make(year, number(digits.substr(4, 2)), number(digits.substr(6, 2)));
}

std::string dateValue(const DateComponents& date, VCardVersion version) {
    if (version == VCardVersion::v4_0) {
        return date.year ? fmt::format("{:04}{:02}{:02}", *date.year, date.month, date.day)
                         : fmt::format("--{:02}{:02}", date.month, date.day);
    }
    return fmt::format("{:04}-{:02}-{:02}", date.year.value_or(kAppleNoYear), date.month, date.day);
}

// ---------------------------------------------------------------------------
// The edit of one card, with the identities of its entries.

class CardEdit {
public:
    CardEdit(VCard& card, std::string_view cardID, EntryRegistry& registry)
        : m_card(card), m_entries(cardEntries(card, cardID, registry)) {
        for (const auto& entry : m_entries) {
            m_oldIDs.emplace(entry.property, entry.id);
        }
    }

    // Without identities: for edits that need none.
    explicit CardEdit(VCard& card) : m_card(card) {
        for (VCardProperty* property : card.properties()) {
            if (const auto kind = entryKind(*property)) {
                m_entries.push_back({*kind, property, {}});
                m_oldIDs.emplace(property, std::string());
            }
        }
    }

    VCard& card() { return m_card; }

    // The card's entries of one kind as first read, still in the card.
    std::vector<CardEntry> entries(EntryKind kind) const {
        std::vector<CardEntry> result;
        for (const auto& entry : m_entries) {
            if (entry.kind == kind && m_oldIDs.count(entry.property) != 0) {
                result.push_back(entry);
            }
        }
        return result;
    }

    void carries(const VCardProperty* property, std::string id) {
        m_ids.emplace_back(property, std::move(id));
    }

    // Removes an entry with the companions that only describe it.
    void removeEntry(VCardProperty& property) {
        std::vector<const VCardProperty*> gone{&property};
        VCardRemoval scope = VCardRemoval::propertyOnly;
        if (!property.group().empty() && !groupIsShared(m_card, property)) {
            scope = VCardRemoval::wholeGroup;
            for (const VCardProperty* member : m_card.groupMembers(property.group())) {
                gone.push_back(member);
            }
        }
        for (const VCardProperty* line : gone) {
            m_oldIDs.erase(line);
            std::erase_if(m_ids, [&](const auto& pair) { return pair.first == line; });
        }
        m_card.remove(property, scope);
    }

    // Moves an entry, with its group, to just after `after` (or to the
    // default place for its name when null). The moved lines are new lines;
    // the entry keeps its identity.
    VCardProperty& moveEntry(VCardProperty& property, const VCardProperty* after) {
        struct Line {
            std::string name;
            std::vector<VCardParameter> parameters;
            std::string rawValue;
        };
        auto copy = [](const VCardProperty& line) {
            return Line{line.name(), line.parameters(), std::string(line.rawValue())};
        };
        const std::string group = property.group();
        const Line main = copy(property);
        std::vector<Line> companions;
        if (!group.empty() && !groupIsShared(m_card, property)) {
            for (const VCardProperty* member : m_card.groupMembers(group)) {
                if (member != &property) {
                    companions.push_back(copy(*member));
                }
            }
        }
        std::string id;
        if (const auto it = m_oldIDs.find(&property); it != m_oldIDs.end()) {
            id = it->second;
        }
        for (const auto& [line, lineID] : m_ids) {
            if (line == &property) {
                id = lineID;
            }
        }
        removeEntry(property);
        auto write = [](VCardProperty& target, const Line& line) {
            // Repeated parameters ("type=WORK;type=pref") are set together.
            std::vector<std::pair<std::string, std::vector<std::string>>> byName;
            for (const auto& parameter : line.parameters) {
                auto it = std::find_if(byName.begin(), byName.end(), [&](const auto& entry) {
                    return equalsIgnoringAsciiCase(entry.first, parameter.name);
                });
                if (it == byName.end()) {
                    byName.emplace_back(parameter.name, parameter.values);
                } else {
                    it->second.insert(it->second.end(), parameter.values.begin(), parameter.values.end());
                }
            }
            for (const auto& [name, values] : byName) {
                target.setParameter(name, values);
            }
            target.setRawValue(line.rawValue);
        };
        VCardProperty& moved = m_card.add(main.name, group, after);
        write(moved, main);
        const VCardProperty* previous = &moved;
        for (const auto& companion : companions) {
            VCardProperty& line = m_card.add(companion.name, group, previous);
            write(line, companion);
            previous = &line;
        }
        if (!id.empty()) {
            carries(&moved, id);
        }
        return moved;
    }

    ApplyResult result() const {
        ApplyResult result;
        std::set<const VCardProperty*> named;
        for (const auto& pair : m_ids) {
            if (named.insert(pair.first).second) {
                result.entryIDs.push_back(pair);
            }
        }
        for (const VCardProperty* property : m_card.properties()) {
            if (named.count(property) != 0) {
                continue;
            }
            if (const auto it = m_oldIDs.find(property); it != m_oldIDs.end() && !it->second.empty()) {
                result.entryIDs.emplace_back(property, it->second);
            }
        }
        return result;
    }

private:
    VCard& m_card;
    std::vector<CardEntry> m_entries;
    std::map<const VCardProperty*, std::string> m_oldIDs; // entries still in the card, as first read
    std::vector<std::pair<const VCardProperty*, std::string>> m_ids;
};

// The first web address in file order, or null.
VCardProperty* firstURL(VCard& card) {
    for (VCardProperty* property : card.properties()) {
        if (entryKind(*property) == EntryKind::url) {
            return property;
        }
    }
    return nullptr;
}

bool isAnchorEntry(const VCardProperty& property) {
    return KinID::isAnchorURL(trimmed(property.text()));
}

// Makes `anchor` the one anchor entry of the card, holding `url`, first among
// its web addresses. `anchors` are the card's anchor entries in file order.
void writeAnchor(CardEdit& edit, const std::vector<VCardProperty*>& anchors, std::string_view url) {
    VCard& card = edit.card();
    VCardProperty* anchor = anchors.empty() ? nullptr : anchors.front();
    for (std::size_t i = 1; i < anchors.size(); ++i) {
        edit.removeEntry(*anchors[i]);
    }
    if (anchor == nullptr) {
        VCardProperty* first = firstURL(card);
        const VCardProperty* after = first != nullptr ? lineBefore(card, *first) : nullptr;
        anchor = &card.add("URL", {}, after);
        anchor->setRawValue(url);
    } else {
        if (anchor->text() != url) {
            anchor->setRawValue(url);
        }
        VCardProperty* first = firstURL(card);
        if (first != anchor && first != nullptr) {
            anchor = &edit.moveEntry(*anchor, lineBefore(card, *first));
        }
    }
    writeLabel(card, *anchor, EntryKind::url, KinID::anchorLabel);
}

// ---------------------------------------------------------------------------
// Names

struct NameTexts {
    std::string prefix, given, middle, family, suffix, organization;

    // The forms a display name derived from these texts takes. The first
    // and the last are the display name itself; the others are styles a
    // card may keep.
    std::vector<std::string> displayForms() const {
        return {joinWords({given, family}), joinWords({prefix, given, middle, family, suffix}),
                joinWords({family, given}), trimmed(organization)};
    }
};

NameTexts namesOf(const ContactDraft& draft) {
    return {trimmed(draft.namePrefix), trimmed(draft.givenName),  trimmed(draft.middleName),
            trimmed(draft.familyName), trimmed(draft.nameSuffix), trimmed(draft.organization)};
}

std::string displayNameOf(const NameTexts& names, std::string_view nickname) {
    for (std::string candidate :
         {joinWords({names.given, names.family}), names.organization, trimmed(nickname)}) {
        if (!candidate.empty()) {
            return candidate;
        }
    }
    return {};
}

// Where a new name or work line goes: after the first of these lines the
// card has.
const VCardProperty* nameLineAnchor(VCard& card, std::initializer_list<std::string_view> names) {
    for (const auto name : names) {
        if (const VCardProperty* line = card.first(name)) {
            return lastLineOfGroup(card, *line);
        }
    }
    return nullptr;
}

// Sets a structured value's fields at the given indices; false when the card
// already says that. Removes the line when it would be left blank and
// `removeWhenBlank`.
bool writeStructured(VCard& card, std::string_view name,
                     const std::vector<std::pair<std::size_t, std::string>>& wanted,
                     std::size_t newFieldCount, bool removeWhenBlank,
                     std::initializer_list<std::string_view> placeAfter) {
    VCardProperty* line = card.first(name);
    auto fields = line != nullptr ? line->components() : std::vector<std::vector<std::string>>{};
    bool changed = false;
    for (const auto& [index, value] : wanted) {
        if (!fieldMatches(fieldAt(fields, index), value)) {
            setField(fields, index, value);
            changed = true;
        }
    }
    if (!changed) {
        return false;
    }
    if (removeWhenBlank && allFieldsBlank(fields)) {
        // Every line of that name: a second ORG would otherwise show once
        // the first is gone.
        for (VCardProperty* other : card.find(name)) {
            card.remove(*other);
        }
        return true;
    }
    if (line == nullptr) {
        line = &card.add(name, {}, nameLineAnchor(card, placeAfter));
        if (fields.size() < newFieldCount) {
            fields.resize(newFieldCount);
        }
    }
    line->setComponents(fields);
    return true;
}

// Sets a plain text line (TITLE, NICKNAME); an empty text removes it.
void writeTextLine(VCard& card, std::string_view name, std::string_view value, bool isList,
                   std::initializer_list<std::string_view> placeAfter) {
    const std::string wanted = trimmed(value);
    VCardProperty* line = card.first(name);
    if (line != nullptr) {
        const std::string current = trimmed(line->text());
        const bool same = current == wanted || (isList && fieldMatches(line->listValues(), wanted));
        if (same) {
            return;
        }
        if (wanted.empty()) {
            // A second TITLE would otherwise show once the first is gone.
            for (VCardProperty* other : card.find(name)) {
                card.remove(*other);
            }
            return;
        }
    } else {
        if (wanted.empty()) {
            return;
        }
        line = &card.add(name, {}, nameLineAnchor(card, placeAfter));
    }
    if (isList) {
        line->setListValues({wanted});
    } else {
        line->setText(wanted);
    }
}

void writeNames(VCard& card, const ContactDraft& draft) {
    // The names as the editor showed them (FN standing in for a missing N):
    // a draft that still says that leaves N and ORG as they are.
    const CardNames shown = readCardNames(card);
    const NameTexts before{trimmed(shown.namePrefix), trimmed(shown.givenName),  trimmed(shown.middleName),
                           trimmed(shown.familyName), trimmed(shown.nameSuffix), trimmed(shown.organization)};
    const NameTexts after = namesOf(draft);
    const bool nameAsShown = before.prefix == after.prefix && before.given == after.given &&
                             before.middle == after.middle && before.family == after.family &&
                             before.suffix == after.suffix;
    const bool orgAsShown =
        before.organization == after.organization && trimmed(shown.department) == trimmed(draft.department);
    const bool nameChanged =
        !nameAsShown &&
        writeStructured(
            card, "N",
            {{0, after.family}, {1, after.given}, {2, after.middle}, {3, after.prefix}, {4, after.suffix}}, 5,
            false, {"FN", "VERSION"});
    const bool orgChanged =
        !orgAsShown && writeStructured(card, "ORG", {{0, after.organization}, {1, trimmed(draft.department)}},
                                       2, true, {"N", "FN"});
    writeTextLine(card, "NICKNAME", draft.nickname, true, {"N", "FN"});
    writeTextLine(card, "TITLE", draft.jobTitle, false, {"ORG", "N", "FN"});
    if (!nameChanged && !orgChanged) {
        return;
    }

    // FN is what most programs show; it follows the name only where it was
    // the name's own display form, so a name the user wrote out differently
    // in another program survives.
    VCardProperty* fn = card.first("FN");
    if (fn == nullptr) {
        const std::string display = displayNameOf(after, draft.nickname);
        if (!display.empty()) {
            card.add("FN", {}, nameLineAnchor(card, {"VERSION"})).setText(display);
        }
        return;
    }
    const std::string current = trimmed(fn->text());
    const auto oldForms = before.displayForms();
    const auto newForms = after.displayForms();
    for (std::size_t form = 0; form < oldForms.size(); ++form) {
        if (oldForms[form] != current) {
            continue;
        }
        const bool isDisplayName = form == 0 || form + 1 == oldForms.size();
        std::string display = isDisplayName ? std::string() : newForms[form];
        if (display.empty()) {
            display = displayNameOf(after, draft.nickname);
        }
        if (!display.empty() && display != current) {
            fn->setText(display);
        }
        return;
    }
}

// ---------------------------------------------------------------------------
// Entries

// How one kind of entry holds its value.
struct ValueStyle {
    std::string_view propertyName;
    std::string (*read)(const VCardProperty&);
    void (*write)(VCard&, VCardProperty&, std::string_view);
};

std::string readText(const VCardProperty& property) {
    return property.text();
}

void writePhone(VCard& card, VCardProperty& property, std::string_view value) {
    // A number pasted as a URI is still one number, never "tel:tel:".
    if (startsWithTelScheme(value)) {
        value = trimAsciiSpace(value.substr(4));
    }
    bool asURI = startsWithTelScheme(property.rawValue());
    if (property.rawValue().empty() && card.writtenVersion() == VCardVersion::v4_0) {
        // A new 4.0 number follows the form the card's other numbers use.
        for (const VCardProperty* other : card.find("TEL")) {
            if (other != &property && !other->rawValue().empty()) {
                asURI = startsWithTelScheme(other->rawValue());
                break;
            }
        }
        if (asURI) {
            property.setParameter("VALUE", {"uri"});
        }
    }
    if (asURI) {
        std::string uri = "tel:";
        for (char c : value) {
            uri += c == ' ' ? '-' : c;
        }
        property.setRawValue(uri);
    } else {
        property.setRawValue(value);
    }
}

void writeEmail(VCard&, VCardProperty& property, std::string_view value) {
    property.setText(value);
}

void writeURL(VCard&, VCardProperty& property, std::string_view value) {
    property.setRawValue(value);
}

constexpr ValueStyle kPhoneStyle{"TEL", phoneNumberOf, writePhone};
constexpr ValueStyle kEmailStyle{"EMAIL", readText, writeEmail};
constexpr ValueStyle kURLStyle{"URL", readText, writeURL};

// Where a new entry goes: after the entry before it in the draft, else before
// the card's first entry of that kind, else where the card's own rules put it.
const VCardProperty* newEntryPlace(VCard& card, const VCardProperty* previous,
                                   const std::vector<CardEntry>& existing) {
    if (previous != nullptr) {
        return lastLineOfGroup(card, *previous);
    }
    if (!existing.empty()) {
        return lineBefore(card, *existing.front().property);
    }
    return nullptr;
}

// Walks the draft's fields of one kind onto the card's entries of that kind.
// `protectedIDs` name entries that stand for something else in the draft
// (web addresses shown as links) and so are not removed here.
template <typename Field, typename Write>
void mergeEntries(CardEdit& edit, const std::vector<CardEntry>& existing, const std::vector<Field>& fields,
                  const std::set<std::string>& protectedIDs, Write&& write) {
    VCard& card = edit.card();
    std::map<std::string, VCardProperty*> byID;
    for (const auto& entry : existing) {
        byID.emplace(entry.id, entry.property);
    }
    std::set<VCardProperty*> used;
    std::vector<const VCardProperty*> order;
    const VCardProperty* previous = nullptr;
    for (const Field& field : fields) {
        VCardProperty* property = nullptr;
        if (const auto it = byID.find(field.id); it != byID.end() && used.count(it->second) == 0) {
            property = it->second;
        }
        const VCardProperty* place = newEntryPlace(card, previous, existing);
        VCardProperty* written = write(field, property, place);
        if (written != nullptr && used.insert(written).second) {
            edit.carries(written, field.id);
            order.push_back(written);
            previous = written;
        }
    }
    for (const auto& entry : existing) {
        if (used.count(entry.property) == 0 && protectedIDs.count(entry.id) == 0) {
            edit.removeEntry(*entry.property);
        }
    }
    // The draft's order is the order the user arranged: the entries take
    // the places they hold between them in that order, each line moved
    // whole with its label, its bytes kept.
    card.reorder(order);
}

// Phones, e-mails and web addresses.
void mergeFields(CardEdit& edit, EntryKind kind, const ValueStyle& style, std::vector<CardEntry> existing,
                 const std::vector<ContactDraft::Field>& fields, const std::set<std::string>& protectedIDs) {
    VCard& card = edit.card();
    mergeEntries(edit, existing, fields, protectedIDs,
                 [&](const ContactDraft::Field& field, VCardProperty* property,
                     const VCardProperty* place) -> VCardProperty* {
                     const std::string value = trimmed(field.value);
                     if (value.empty()) {
                         // Clearing a value deletes the entry; one that was
                         // blank all along is left as it is.
                         if (property != nullptr && isBlankText(style.read(*property))) {
                             return property;
                         }
                         return nullptr;
                     }
                     if (property == nullptr) {
                         property = &card.add(style.propertyName, {}, place);
                         if (kind == EntryKind::email && card.writtenVersion() != VCardVersion::v4_0) {
                             property->setParameter("TYPE", {"INTERNET"});
                         }
                         style.write(card, *property, value);
                     } else if (trimmed(style.read(*property)) != value) {
                         style.write(card, *property, value);
                     }
                     writeLabel(card, *property, kind, field.label);
                     return property;
                 });
}

constexpr std::size_t kPostOfficeBox = 0;
constexpr std::size_t kExtended = 1;
constexpr std::size_t kStreet = 2;
constexpr std::size_t kAddressFields = 7;

void mergeAddresses(CardEdit& edit, const std::vector<ContactDraft::Address>& addresses) {
    VCard& card = edit.card();
    mergeEntries(edit, edit.entries(EntryKind::address), addresses, {},
                 [&](const ContactDraft::Address& address, VCardProperty* property,
                     const VCardProperty* place) -> VCardProperty* {
                     const std::array<std::string, 5> wanted{
                         trimmed(address.street), trimmed(address.city), trimmed(address.state),
                         trimmed(address.postalCode), trimmed(address.country)};
                     // What the editor showed for this address: a part that
                     // still says that is left as the card writes it.
                     const ContactDraft::Address shown =
                         property != nullptr ? addressPartsOf(*property) : ContactDraft::Address{};
                     const std::array<std::string, 5> current{trimmed(shown.street), trimmed(shown.city),
                                                              trimmed(shown.state), trimmed(shown.postalCode),
                                                              trimmed(shown.country)};
                     const bool blank =
                         std::all_of(wanted.begin(), wanted.end(), [](const auto& p) { return p.empty(); });
                     if (blank) {
                         const bool wasBlank = std::all_of(current.begin(), current.end(),
                                                           [](const auto& p) { return p.empty(); });
                         return property != nullptr && wasBlank ? property : nullptr;
                     }
                     auto fields = property != nullptr ? property->components()
                                                       : std::vector<std::vector<std::string>>{};
                     bool changed = property == nullptr;
                     for (std::size_t i = 0; i < wanted.size(); ++i) {
                         if (property != nullptr && wanted[i] == current[i]) {
                             continue;
                         }
                         setField(fields, kStreet + i, wanted[i]);
                         if (i == 0) {
                             // The editor showed the PO box and extended
                             // address as lines of the street; the new street
                             // says what is left of them.
                             setField(fields, kPostOfficeBox, {});
                             setField(fields, kExtended, {});
                         }
                         changed = true;
                     }
                     if (property == nullptr) {
                         property = &card.add("ADR", {}, place);
                     }
                     if (changed) {
                         if (fields.size() < kAddressFields) {
                             fields.resize(kAddressFields);
                         }
                         property->setComponents(fields);
                         // A 4.0 LABEL is the old address formatted for
                         // mail: it would contradict the new one.
                         if (property->parameter("LABEL")) {
                             property->removeParameter("LABEL");
                         }
                     }
                     writeLabel(card, *property, EntryKind::address, address.label);
                     return property;
                 });
}

void writeURLs(CardEdit& edit, const ContactDraft& draft) {
    std::vector<VCardProperty*> anchors;
    std::vector<CardEntry> webAddresses;
    for (const auto& entry : edit.entries(EntryKind::url)) {
        if (isAnchorEntry(*entry.property)) {
            anchors.push_back(entry.property);
        } else {
            webAddresses.push_back(entry);
        }
    }
    if (draft.anchorURL) {
        const std::string url = trimmed(*draft.anchorURL);
        writeAnchor(edit, anchors, url);
    }
    // Web addresses shown as links are the links' to keep or remove; a link
    // whose handle was cleared is gone.
    std::set<std::string> linkIDs;
    for (const auto& link : draft.links) {
        if (!isBlankText(link.handle)) {
            linkIDs.insert(link.id);
        }
    }
    for (const auto& entry : webAddresses) {
        if (draftKeepsLink(draft, linkFromWebAddress(entry.id, entry.property->text()))) {
            linkIDs.insert(entry.id);
        }
    }
    mergeFields(edit, EntryKind::url, kURLStyle, webAddresses, draft.urls, linkIDs);
}

// Writes a date in the card's written version's form: 3.0 "1987-03-14",
// year-less "X-APPLE-OMIT-YEAR=1604:1604-03-14"; 4.0 "19870314" or "--0314".
void setDateLine(VCard& card, VCardProperty& line, const DateComponents& date) {
    const VCardVersion version = card.writtenVersion();
    if (const auto type = line.parameter("VALUE"); type && !equalsIgnoringAsciiCase(*type, "date")) {
        line.removeParameter("VALUE");
    }
    const bool omitYear = version != VCardVersion::v4_0 && !date.year;
    if (omitYear) {
        line.setParameter(kAppleOmitYear, {std::to_string(kAppleNoYear)});
    } else if (line.parameter(kAppleOmitYear)) {
        line.removeParameter(kAppleOmitYear);
    }
    line.setRawValue(dateValue(date, version));
}

void writeNote(VCard& card, const std::optional<std::string>& note);

void writeBirthday(VCard& card, const std::optional<DateComponents>& birthday) {
    const auto lines = card.find("BDAY");
    VCardProperty* line = lines.empty() ? nullptr : lines.front();
    const auto current = line != nullptr ? parseDate(*line) : std::nullopt;
    if (current == birthday) {
        return;
    }
    if (!birthday) {
        // A BDAY that is no date never reached the editor, so the draft
        // could not have removed it.
        if (current) {
            for (VCardProperty* other : lines) {
                card.remove(*other);
            }
        }
        return;
    }
    // One birthday: alternative forms of the old one would contradict it.
    for (std::size_t i = 1; i < lines.size(); ++i) {
        card.remove(*lines[i]);
    }
    if (line == nullptr) {
        line = &card.add("BDAY", {}, nameLineAnchor(card, {"TITLE", "ORG", "NICKNAME", "N", "FN"}));
    }
    setDateLine(card, *line, *birthday);
}

// Other dates: each draft date names its entry by id; a date that reads the
// same is left as written. Entries that hold no date (free text) never
// reached the editor and stay.
void mergeDates(CardEdit& edit, const std::vector<ContactDraft::Date>& dates) {
    VCard& card = edit.card();
    const auto existing = edit.entries(EntryKind::date);
    std::set<std::string> textDates;
    for (const auto& entry : existing) {
        if (!readCardDate(*entry.property)) {
            textDates.insert(entry.id);
        }
    }
    mergeEntries(edit, existing, dates, textDates,
                 [&](const ContactDraft::Date& date, VCardProperty* property,
                     const VCardProperty* place) -> VCardProperty* {
                     if (property == nullptr) {
                         property = &card.add("X-ABDATE", {}, place);
                         setDateLine(card, *property, date.date);
                     } else if (readCardDate(*property) != date.date) {
                         setDateLine(card, *property, date.date);
                     }
                     writeLabel(card, *property, EntryKind::date, date.label);
                     return property;
                 });
}

// The note, when the draft edits it: a blank text removes it.
void writeDraftNote(VCard& card, const std::optional<std::string>& note) {
    if (!note || cardNote(card) == wantedNote(*note)) {
        return;
    }
    writeNote(card, isBlankText(*note) ? std::nullopt : note);
}

// ---------------------------------------------------------------------------
// Links

void writeSocialProfile(VCardProperty& property, const LinkedAccount& link, std::string_view handle) {
    LinkedAccount cleaned = link;
    cleaned.handle = std::string(handle);
    std::string url = socialProfileURL(cleaned);
    if (url.empty()) {
        url = "x-apple:" + std::string(handle);
    }
    property.setParameter("TYPE", {std::string(serviceName(link.service))});
    property.setParameter("x-user", {std::string(handle)});
    property.setRawValue(url);
}

void writeMessagingAddress(VCardProperty& property, const LinkedAccount& link, std::string_view handle) {
    const Profile current = messagingAddress(property);
    const auto service = serviceNamed(current.service);
    if (!service || *service != link.service) {
        property.setParameter("X-SERVICE-TYPE", {std::string(displayName(link.service))});
    }
    if (property.is("IMPP")) {
        const std::string value = property.text();
        std::string scheme(uriScheme(value));
        if (scheme.empty()) {
            scheme = "x-apple:";
        }
        property.setRawValue(scheme + std::string(handle));
    } else {
        property.setText(handle);
    }
}

void writeLinks(CardEdit& edit, const ContactDraft& draft) {
    VCard& card = edit.card();
    std::map<std::string, VCardProperty*> social;
    std::map<std::string, VCardProperty*> messaging;
    std::map<std::string, VCardProperty*> web;
    for (const auto& entry : edit.entries(EntryKind::social)) {
        social.emplace(entry.id, entry.property);
    }
    for (const auto& entry : edit.entries(EntryKind::messaging)) {
        messaging.emplace(entry.id, entry.property);
    }
    std::set<std::string> urlFieldIDs;
    for (const auto& field : draft.urls) {
        urlFieldIDs.insert(field.id);
    }
    for (const auto& entry : edit.entries(EntryKind::url)) {
        if (!isAnchorEntry(*entry.property) && urlFieldIDs.count(entry.id) == 0) {
            web.emplace(entry.id, entry.property);
        }
    }

    std::set<const VCardProperty*> used;
    const VCardProperty* previous = nullptr;
    for (const auto& link : draft.links) {
        const std::string handle = trimmed(link.handle);
        if (handle.empty()) {
            continue;
        }
        VCardProperty* property = nullptr;
        if (auto it = social.find(link.id); it != social.end() && used.count(it->second) == 0) {
            property = it->second;
            const Profile profile = socialProfile(*property);
            if (!sameLink(linkFromSocialProfile(link.id, profile.service, profile.user, profile.url), link,
                          handle)) {
                writeSocialProfile(*property, link, handle);
            }
        } else if (auto im = messaging.find(link.id); im != messaging.end() && used.count(im->second) == 0) {
            property = im->second;
            const Profile address = messagingAddress(*property);
            if (!sameLink(linkFromMessagingAddress(link.id, address.service, address.user), link, handle)) {
                writeMessagingAddress(*property, link, handle);
            }
        } else if (auto url = web.find(link.id); url != web.end() && used.count(url->second) == 0) {
            property = url->second;
            if (!sameLink(linkFromWebAddress(link.id, property->text()), link, handle)) {
                LinkedAccount cleaned = link;
                cleaned.handle = handle;
                const std::string address = socialProfileURL(cleaned);
                if (!address.empty()) {
                    property->setRawValue(address);
                } else {
                    // No web address for this handle: the link lives on as
                    // a social profile instead.
                    edit.removeEntry(*property);
                    property = nullptr;
                }
            }
        }
        if (property == nullptr) {
            const VCardProperty* place = previous != nullptr && previous->is("X-SOCIALPROFILE")
                                             ? lastLineOfGroup(card, *previous)
                                             : nullptr;
            property = &card.add("X-SOCIALPROFILE", {}, place);
            writeSocialProfile(*property, link, handle);
        }
        used.insert(property);
        edit.carries(property, link.id);
        previous = property;
    }

    // Removed links: only entries the draft showed as links go.
    for (const auto& [id, property] : social) {
        const Profile profile = socialProfile(*property);
        const auto read = linkFromSocialProfile(id, profile.service, profile.user, profile.url);
        if (used.count(property) == 0 && read && !draftKeepsLink(draft, read)) {
            edit.removeEntry(*property);
        }
    }
    for (const auto& [id, property] : messaging) {
        if (used.count(property) == 0 && draft.messageLinkIDs.count(id) != 0) {
            edit.removeEntry(*property);
        }
    }
}

// Social profiles by position, as a script overwrites them: a part is
// written only where it differs, so an untouched profile keeps its bytes.
void writeSocialProfiles(CardEdit& edit, const std::vector<SocialProfileValue>& profiles) {
    VCard& card = edit.card();
    const auto existing = edit.entries(EntryKind::social);
    const VCardProperty* previous = existing.empty() ? nullptr : existing.back().property;
    for (std::size_t i = 0; i < profiles.size(); ++i) {
        const SocialProfileValue& wanted = profiles[i];
        VCardProperty* property = nullptr;
        if (i < existing.size()) {
            property = existing[i].property;
        } else {
            property = &card.add("X-SOCIALPROFILE", {},
                                 previous != nullptr ? lastLineOfGroup(card, *previous) : nullptr);
            previous = property;
        }
        if (property->isMalformed()) {
            continue;
        }
        const Profile current = socialProfile(*property);
        if (current.service != wanted.service) {
            // The service goes into TYPE; the other spellings would contradict it.
            property->removeParameter("SERVICE-TYPE");
            property->removeParameter("X-SERVICE-TYPE");
            if (wanted.service.empty()) {
                property->removeParameter("TYPE");
            } else {
                property->setParameter("TYPE", {wanted.service});
            }
        }
        if (current.user != wanted.userName) {
            property->removeParameter("USERNAME");
            if (wanted.userName.empty()) {
                property->removeParameter("X-USER");
            } else {
                property->setParameter("x-user", {wanted.userName});
            }
        }
        if (current.url != wanted.url) {
            property->setRawValue(wanted.url);
        }
    }
}

void writeNote(VCard& card, const std::optional<std::string>& note) {
    const auto lines = card.find("NOTE");
    if (!note) {
        for (VCardProperty* line : lines) {
            card.remove(*line);
        }
        return;
    }
    VCardProperty* first = lines.empty() ? &card.add("NOTE") : lines.front();
    for (std::size_t i = 1; i < lines.size(); ++i) {
        card.remove(*lines[i]);
    }
    if (lines.empty() || first->text() != *note) {
        first->setText(*note);
    }
}

std::vector<std::string> urlValues(const VCard& card) {
    std::vector<std::string> values;
    for (const VCardProperty* property : card.find("URL")) {
        values.push_back(trimmed(property->text()));
    }
    return values;
}

KinID::Anchor changeAnchorIn(CardEdit& edit, const std::function<void(KinID::Anchor&)>& change) {
    VCard& card = edit.card();
    const auto values = urlValues(card);
    KinID::Anchor anchor = KinID::Anchor::read(values).value_or(KinID::Anchor{KinID::makeID()});
    if (change) {
        change(anchor);
    }
    std::vector<VCardProperty*> anchors;
    for (VCardProperty* property : card.find("URL")) {
        if (isAnchorEntry(*property)) {
            anchors.push_back(property);
        }
    }
    writeAnchor(edit, anchors, anchor.url());
    return anchor;
}

std::string revisionValue(std::chrono::system_clock::time_point time, bool extended) {
    std::string value = formatIso8601(time);
    if (!extended) {
        std::erase_if(value, [](char c) { return c == '-' || c == ':'; });
    }
    return value;
}

} // namespace

// ---------------------------------------------------------------------------

void writeLabel(VCard& card, VCardProperty& property, EntryKind kind, std::string_view label) {
    if (property.isMalformed()) {
        return;
    }
    // The label the editor was shown: when the draft still says it, the
    // entry's lines stay as they are, whatever form the card gives it.
    if (readLabel(card, property) == label) {
        return;
    }
    const auto stock = stockLabelForConstant(label);
    const auto form = stock ? typeForm(kind, *stock) : std::nullopt;
    const bool lowerCase = card.writtenVersion() == VCardVersion::v4_0;

    // TYPE: the label-bearing values go; the label's own come in where the
    // first of them stood (for e-mail after INTERNET, else in front).
    const std::vector<std::string> types = property.parameterValues("TYPE");
    std::vector<std::string> kept;
    std::optional<std::size_t> insertAt;
    for (const auto& type : types) {
        if (isLabelType(kind, type)) {
            insertAt = insertAt.value_or(kept.size());
        } else {
            kept.push_back(type);
        }
    }
    std::vector<std::string> written = kept;
    if (form) {
        if (!insertAt) {
            insertAt = 0;
            if (kind == EntryKind::email) {
                for (std::size_t i = 0; i < kept.size(); ++i) {
                    if (equalsIgnoringAsciiCase(kept[i], "INTERNET")) {
                        insertAt = i + 1;
                    }
                }
            }
        }
        std::vector<std::string> labelTypes;
        for (const auto value : *form) {
            labelTypes.push_back(lowerCase ? asciiLowered(value) : std::string(value));
        }
        written.insert(written.begin() + static_cast<std::ptrdiff_t>(*insertAt), labelTypes.begin(),
                       labelTypes.end());
        std::vector<std::string> unique;
        for (auto& value : written) {
            const bool seen = std::any_of(unique.begin(), unique.end(), [&](const std::string& other) {
                return equalsIgnoringAsciiCase(other, value);
            });
            if (!seen) {
                unique.push_back(std::move(value));
            }
        }
        written = std::move(unique);
    }
    if (written != types) {
        const auto& parameters = property.parameters();
        const auto typeParameters = std::count_if(parameters.begin(), parameters.end(), [](const auto& p) {
            return equalsIgnoringAsciiCase(p.name, "TYPE");
        });
        if (typeParameters == 1) {
            // A lone TYPE parameter says nothing about how the card writes
            // several values; the card's own habit does.
            property.removeParameter("TYPE");
        }
        property.setParameter("TYPE", written);
    }

    const bool shared = groupIsShared(card, property);
    if (form || label.empty()) {
        // No label line: the TYPE values say it all, or there is no label.
        if (shared) {
            property.setGroup({});
            return;
        }
        if (VCardProperty* line = card.companion(property, "X-ABLabel")) {
            card.remove(*line);
        }
        leaveEmptyGroup(card, property);
        return;
    }
    if (property.group().empty() || shared) {
        property.setGroup(card.newGroupName());
    }
    setLabelLine(card, property, label);
}

std::optional<DateComponents> cardBirthday(const VCard& card) {
    if (const VCardProperty* line = card.first("BDAY")) {
        return parseDate(*line);
    }
    return std::nullopt;
}

void recordWrittenEntries(const VCard& edited, const ApplyResult& result, const VCard& written,
                          std::string_view cardID, EntryRegistry& registry) {
    auto entryLines = [](const VCard& card) {
        std::vector<const VCardProperty*> lines;
        for (const VCardProperty* property : card.properties()) {
            if (entryKind(*property)) {
                lines.push_back(property);
            }
        }
        return lines;
    };
    const auto before = entryLines(edited);
    const auto after = entryLines(written);
    if (before.size() != after.size()) {
        // Not the card these identities were made for: let the registry
        // match it as it would any outside change.
        recordCardEntries(written, cardID, registry, {});
        return;
    }
    std::vector<std::pair<const VCardProperty*, std::string>> wanted;
    for (const auto& [property, id] : result.entryIDs) {
        const auto it = std::find(before.begin(), before.end(), property);
        if (it != before.end()) {
            wanted.emplace_back(after[static_cast<std::size_t>(it - before.begin())], id);
        }
    }
    recordCardEntries(written, cardID, registry, wanted);
}

ApplyResult applyDraft(VCard& card, const ContactDraft& draft, std::string_view cardID,
                       EntryRegistry& registry, std::chrono::system_clock::time_point now) {
    CardEdit edit(card, cardID, registry);
    writeNames(card, draft);
    mergeFields(edit, EntryKind::phone, kPhoneStyle, edit.entries(EntryKind::phone), draft.phones, {});
    mergeFields(edit, EntryKind::email, kEmailStyle, edit.entries(EntryKind::email), draft.emails, {});
    writeURLs(edit, draft);
    mergeAddresses(edit, draft.addresses);
    writeBirthday(card, draft.birthday);
    writeLinks(edit, draft);
    writeTextLine(card, "X-PHONETIC-FIRST-NAME", draft.phoneticGivenName, false, {"N", "FN"});
    writeTextLine(card, "X-PHONETIC-LAST-NAME", draft.phoneticFamilyName, false,
                  {"X-PHONETIC-FIRST-NAME", "N", "FN"});
    mergeDates(edit, draft.dates);
    writeDraftNote(card, draft.note);
    if (card.isModified()) {
        touchRevision(card, now);
    }
    return edit.result();
}

SocialProfileValue readSocialProfile(const VCardProperty& property) {
    const Profile profile = socialProfile(property);
    return {profile.service, profile.user, profile.url};
}

ApplyResult applyWholeGroups(VCard& card, std::string_view cardID, EntryRegistry& registry,
                             const WholeGroups& groups, std::chrono::system_clock::time_point now) {
    CardEdit edit(card, cardID, registry);
    if (groups.names) {
        writeNames(card, *groups.names);
    }
    if (groups.phones) {
        mergeFields(edit, EntryKind::phone, kPhoneStyle, edit.entries(EntryKind::phone), *groups.phones, {});
    }
    if (groups.emails) {
        mergeFields(edit, EntryKind::email, kEmailStyle, edit.entries(EntryKind::email), *groups.emails, {});
    }
    if (groups.urls) {
        mergeFields(edit, EntryKind::url, kURLStyle, edit.entries(EntryKind::url), *groups.urls, {});
    }
    if (groups.addresses) {
        mergeAddresses(edit, *groups.addresses);
    }
    if (groups.socialProfiles) {
        writeSocialProfiles(edit, *groups.socialProfiles);
    }
    if (groups.birthday) {
        writeBirthday(card, *groups.birthday);
    }
    if (groups.note) {
        writeNote(card, *groups.note);
    }
    if (card.isModified()) {
        touchRevision(card, now);
    }
    return edit.result();
}

KinID::Anchor changeAnchor(VCard& card, const std::function<void(KinID::Anchor&)>& change,
                           std::chrono::system_clock::time_point now) {
    CardEdit edit(card);
    KinID::Anchor anchor = changeAnchorIn(edit, change);
    if (card.isModified()) {
        touchRevision(card, now);
    }
    return anchor;
}

AnchorChange changeAnchor(VCard& card, std::string_view cardID, EntryRegistry& registry,
                          const std::function<void(KinID::Anchor&)>& change,
                          std::chrono::system_clock::time_point now) {
    CardEdit edit(card, cardID, registry);
    AnchorChange result;
    result.anchor = changeAnchorIn(edit, change);
    if (card.isModified()) {
        touchRevision(card, now);
    }
    result.entries = edit.result();
    return result;
}

void setPhoto(VCard& card, std::span<const std::uint8_t> jpeg, std::chrono::system_clock::time_point now) {
    auto describesPhoto = [](const VCardProperty& line) {
        return line.is("PHOTO") || line.is("X-IMAGEHASH") || line.is("X-IMAGETYPE");
    };
    // The new photo takes the old one's place: after the nearest line before
    // it that stays.
    const VCardProperty* after = nullptr;
    bool hadPhoto = false;
    for (const VCardProperty* line : card.properties()) {
        if (line->is("PHOTO")) {
            hadPhoto = true;
            break;
        }
        if (!describesPhoto(*line)) {
            after = line;
        }
    }
    for (VCardProperty* line : card.properties()) {
        if (describesPhoto(*line)) {
            card.remove(*line);
        }
    }
    VCardProperty& photo = hadPhoto && after != nullptr ? card.add("PHOTO", {}, after) : card.add("PHOTO");
    photo.setBinary(jpeg, "image/jpeg");
    touchRevision(card, now);
}

void removePhoto(VCard& card, std::chrono::system_clock::time_point now) {
    bool removed = false;
    for (VCardProperty* line : card.properties()) {
        if (line->is("PHOTO") || line->is("X-IMAGEHASH") || line->is("X-IMAGETYPE")) {
            card.remove(*line);
            removed = true;
        }
    }
    if (removed) {
        touchRevision(card, now);
    }
}

std::string wantedNote(std::string_view note) {
    return isBlankText(note) ? std::string() : std::string(note);
}

bool draftChangesNote(const VCard& card, const ContactDraft& draft) {
    return draft.note && cardNote(card) != wantedNote(*draft.note);
}

bool hasNote(const VCard& card) {
    const auto notes = card.find("NOTE");
    return std::any_of(notes.begin(), notes.end(),
                       [](const VCardProperty* note) { return !isBlankText(note->text()); });
}

VCard newCardFor(const ContactDraft& draft, std::string_view uid) {
    VCard card = VCard::create(VCardVersion::v3_0);
    card.add("PRODID").setText("-//Tinmarch//Vellumary Contacts//EN");
    const NameTexts names = namesOf(draft);
    card.add("N").setComponents(
        std::vector<std::string>{names.family, names.given, names.middle, names.prefix, names.suffix});
    card.add("FN").setText(displayNameOf(names, draft.nickname));
    card.setUid(uid);
    return card;
}

void touchRevision(VCard& card, std::chrono::system_clock::time_point time) {
    VCardProperty* rev = card.first("REV");
    if (rev == nullptr) {
        return;
    }
    const std::string current(rev->rawValue());
    const bool extended = current.find('-') != std::string::npos || current.find(':') != std::string::npos;
    const std::string value = revisionValue(time, extended);
    if (current != value) {
        rev->setRawValue(value);
    }
}

} // namespace kinbook
