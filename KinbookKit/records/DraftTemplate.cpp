#include "KinbookKit/records/DraftTemplate.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/AddressParser.h"
#include "KinbookKit/text/Ascii.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace kinbook::DraftTemplate {
namespace {

// The draft's single texts, in the order the template lists them.
struct TextField {
    std::string_view key;
    std::string ContactDraft::*member;
};

constexpr std::array kTextFields{
    TextField{"prefix", &ContactDraft::namePrefix},
    TextField{"given", &ContactDraft::givenName},
    TextField{"middle", &ContactDraft::middleName},
    TextField{"family", &ContactDraft::familyName},
    TextField{"suffix", &ContactDraft::nameSuffix},
    TextField{"phonetic-given", &ContactDraft::phoneticGivenName},
    TextField{"phonetic-family", &ContactDraft::phoneticFamilyName},
    TextField{"nickname", &ContactDraft::nickname},
    TextField{"company", &ContactDraft::organization},
    TextField{"department", &ContactDraft::department},
    TextField{"title", &ContactDraft::jobTitle},
};

// Other names scripts reach for.
constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kAliases{{
    {"organization", "company"},
    {"job-title", "title"},
    {"given-name", "given"},
    {"family-name", "family"},
    {"middle-name", "middle"},
    {"web", "url"},
}};

constexpr std::string_view kBirthday = "birthday";
constexpr std::string_view kNote = "note";

// Address books write an anniversary's label as this token; a new date
// labelled "anniversary" gets it too, so other programs show it as one.
constexpr std::string_view kAnniversaryToken = "_$!<Anniversary>!$_";

// The entry lists, in the order the template lists them (and numbers their tags).
enum class ListKind { phone, email, url, address, date, link };

struct ListField {
    std::string_view key;
    ListKind kind;
    std::vector<ContactDraft::Field> ContactDraft::*fields; // null for addresses and links
};

constexpr std::array kListFields{
    ListField{"phone", ListKind::phone, &ContactDraft::phones},
    ListField{"email", ListKind::email, &ContactDraft::emails},
    ListField{"url", ListKind::url, &ContactDraft::urls},
    ListField{"address", ListKind::address, nullptr},
    ListField{"date", ListKind::date, nullptr},
    ListField{"link", ListKind::link, nullptr},
};

const ListField& listField(ListKind kind) {
    return kListFields[static_cast<std::size_t>(kind)];
}

// The tags of a draft: tag n (from 1) is the n-th entry in template order.
struct TagTarget {
    ListKind kind;
    std::size_t index;
};

std::size_t entryCount(const ContactDraft& draft, const ListField& field) {
    switch (field.kind) {
    case ListKind::address:
        return draft.addresses.size();
    case ListKind::date:
        return draft.dates.size();
    case ListKind::link:
        return draft.links.size();
    case ListKind::phone:
    case ListKind::email:
    case ListKind::url:
        break;
    }
    return (draft.*field.fields).size();
}

std::vector<TagTarget> tagsOf(const ContactDraft& draft) {
    std::vector<TagTarget> tags;
    for (const auto& field : kListFields) {
        for (std::size_t i = 0; i < entryCount(draft, field); ++i) {
            tags.push_back({field.kind, i});
        }
    }
    return tags;
}

// --- Writing ------------------------------------------------------------------

// A value on one line: a line break is "\n" and a backslash "\\", so that
// every value reads back as it was; in an address part "|" is "\|".
std::string escaped(std::string_view value, bool inAddress = false) {
    std::string out;
    out.reserve(value.size());
    for (const char c : value) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '|' && inAddress) {
            out += "\\|";
        } else {
            out += c;
        }
    }
    return out;
}

std::string unescaped(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            out += value[i];
            continue;
        }
        const char next = value[i + 1];
        if (next == 'n') {
            out += '\n';
        } else if (next == 'r') {
            out += '\r';
        } else if (next == '\\' || next == '|') {
            out += next;
        } else {
            // Any other backslash is the user's own text.
            out += '\\';
            continue;
        }
        ++i;
    }
    return out;
}

// The label as the user reads it: a stock label by its name ("mobile"),
// anything else as its text; quoted when it would not read back as one word
// group before the colon.
std::string labelText(std::string_view label) {
    return localizedLabel(label);
}

std::string writtenLabel(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    const bool plain = text.find_first_of(":\"\\\n\r") == std::string_view::npos &&
                       !isAsciiSpace(text.front()) && !isAsciiSpace(text.back());
    if (plain) {
        return " " + std::string(text);
    }
    std::string quoted = " \"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c == '\n' || c == '\r' ? ' ' : c;
    }
    return quoted + "\"";
}

std::string dateText(const DateComponents& date) {
    char text[32];
    if (date.year) {
        std::snprintf(text, sizeof text, "%04d-%02d-%02d", *date.year, date.month, date.day);
    } else {
        std::snprintf(text, sizeof text, "--%02d-%02d", date.month, date.day);
    }
    return text;
}

std::string addressText(const ContactDraft::Address& address) {
    std::string text = escaped(address.street, true);
    for (const auto* part : {&address.city, &address.state, &address.postalCode, &address.country}) {
        text += " | " + escaped(*part, true);
    }
    return text;
}

std::string serviceList() {
    std::string names;
    for (const auto service : allLinkServices()) {
        names += (names.empty() ? "" : ", ") + std::string(caseName(service));
    }
    return names;
}

constexpr std::string_view kExplanation =
    R"(# Change what you like, then save and close the editor to apply it. Leave
# the file as it was, or empty it, to save nothing.
#
# One field per line, "field: value"; a field left empty or taken out is
# cleared. Phones, e-mails, web addresses (url), postal addresses and links
# take a label between the field and the colon, written as a word:
#   phone mobile: +1 555 0100
#   email work: ann@acme.example
# A label is a stock one (mobile, iPhone, home, work, other, main, pager,
# home fax, work fax, school, homepage, iCloud) or any text of your own; "ex-"
# marks an entry no longer in use (ex-work). Put a label holding a colon in
# double quotes. Leave the label out for none ("phone: 555 0100").
#
# The [n] at the end of an entry is how the card knows it: keep it on its
# line. Lines may move (entries are saved in the new order), taking out a
# line removes its entry, and a line without a tag is a new entry.
#
# An address is "street | city | state | postal code | country"; an address
# pasted whole on one line is split into its parts. \n in a value is a line
# break. A birthday or other date is 1987-03-14, or --03-14 without a year
# ("date anniversary: 2001-06-02"). The note is one line; \n starts another.
)";

// --- Reading ------------------------------------------------------------------

// One field line, split.
struct Line {
    std::string key; // lower case
    std::optional<std::string> label;
    std::string value;    // unescaped, trimmed
    std::string rawValue; // as written, less the tag: an address splits at its bars first
    std::optional<std::size_t> tag;
};

// The " [n]" at the end of a list line, taken off the value.
std::optional<std::size_t> takeTag(std::string_view& value) {
    if (value.empty() || value.back() != ']') {
        return std::nullopt;
    }
    const auto open = value.rfind('[');
    if (open == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = value.substr(open + 1, value.size() - open - 2);
    if (digits.empty() || digits.size() > 6 ||
        digits.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    if (open > 0 && !isAsciiSpace(value[open - 1])) {
        return std::nullopt; // part of the value ("a[1]")
    }
    std::size_t tag = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), tag);
    value = trimAsciiSpace(value.substr(0, open));
    return tag;
}

bool isListKey(std::string_view key) {
    for (const auto& field : kListFields) {
        if (field.key == key) {
            return true;
        }
    }
    return false;
}

std::string canonicalKey(std::string_view key) {
    std::string lowered = asciiLowered(key);
    for (const auto& [alias, name] : kAliases) {
        if (lowered == alias) {
            return std::string(name);
        }
    }
    return lowered;
}

// "field[ label]: value[ [n]]", or just "field[ label]" when the value is
// given apart (`set`).
Result<Line, std::string> splitLine(std::string_view text, bool withValue) {
    text = trimAsciiSpace(text);
    Line line;
    std::size_t keyEnd = 0;
    while (keyEnd < text.size() && !isAsciiSpace(text[keyEnd]) && text[keyEnd] != ':') {
        ++keyEnd;
    }
    line.key = canonicalKey(text.substr(0, keyEnd));
    std::string_view rest = text.substr(keyEnd);
    while (!rest.empty() && isAsciiSpace(rest.front())) {
        rest.remove_prefix(1);
    }
    if (!rest.empty() && rest.front() == '"') {
        std::string label;
        std::size_t i = 1;
        for (; i < rest.size() && rest[i] != '"'; ++i) {
            if (rest[i] == '\\' && i + 1 < rest.size()) {
                ++i;
            }
            label += rest[i];
        }
        if (i == rest.size()) {
            return failure(std::string("the label's closing quote is missing"));
        }
        line.label = std::move(label);
        rest = trimAsciiSpace(rest.substr(i + 1));
        if (withValue && (rest.empty() || rest.front() != ':')) {
            return failure(std::string("a colon belongs after the quoted label"));
        }
    } else if (withValue) {
        const auto colon = rest.find(':');
        if (colon == std::string_view::npos) {
            return failure("a colon belongs after \"" + line.key + "\", as in \"" + line.key + ": ...\"");
        }
        const auto label = trimAsciiSpace(rest.substr(0, colon));
        if (!label.empty()) {
            line.label = std::string(label);
        }
        rest = rest.substr(colon);
    } else if (!rest.empty()) {
        line.label = std::string(trimAsciiSpace(rest));
        rest = {};
    }
    if (withValue) {
        rest.remove_prefix(1); // the colon
        rest = trimAsciiSpace(rest);
        if (isListKey(line.key)) {
            line.tag = takeTag(rest);
        }
        line.rawValue = std::string(rest);
        line.value = unescaped(rest);
    }
    return line;
}

std::optional<DateComponents> parseDate(std::string_view text) {
    const auto number = [](std::string_view digits) -> std::optional<int> {
        int value = 0;
        if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) {
            return std::nullopt;
        }
        std::from_chars(digits.data(), digits.data() + digits.size(), value);
        return value;
    };
    if (text.size() == 7 && text.substr(0, 2) == "--" && text[4] == '-') {
        return DateComponents::make(std::nullopt, number(text.substr(2, 2)), number(text.substr(5, 2)));
    }
    if (text.size() == 10 && text[4] == '-' && text[7] == '-') {
        const auto year = number(text.substr(0, 4));
        if (!year || *year < 1) {
            return std::nullopt;
        }
        return DateComponents::make(year, number(text.substr(5, 2)), number(text.substr(8, 2)));
    }
    return std::nullopt;
}

// The value the user wrote, or the original's own bytes when they read the same.
std::string keptOr(std::string_view written, const std::string* original) {
    if (original != nullptr && trimAsciiSpace(*original) == written) {
        return *original;
    }
    return std::string(written);
}

// Builds a draft line by line.
class Reader {
public:
    Reader(ContactDraft& draft, const ContactDraft& original, bool tagged)
        : m_draft(draft), m_original(original), m_tagged(tagged) {
        if (tagged) {
            m_tags = tagsOf(original);
        }
    }

    Result<void, std::string> apply(const Line& line) {
        for (const auto& field : kTextFields) {
            if (line.key == field.key) {
                if (line.label) {
                    return failure(std::string(field.key) + " takes no label");
                }
                if (auto once = firstTime(line.key); !once.ok()) {
                    return once;
                }
                m_draft.*field.member = keptOr(line.value, &(m_original.*field.member));
                return {};
            }
        }
        if (line.key == kBirthday) {
            if (line.label) {
                return failure(std::string("birthday takes no label"));
            }
            std::optional<DateComponents> date;
            if (!line.value.empty()) {
                date = parseDate(line.value);
                if (!date) {
                    return failure("\"" + line.value +
                                   "\" is no date: write 1987-03-14, or --03-14 without a year");
                }
            }
            if (auto once = firstTime(line.key); !once.ok()) {
                return once;
            }
            m_draft.birthday = date;
            return {};
        }
        if (line.key == kNote) {
            if (line.label) {
                return failure(std::string("note takes no label"));
            }
            if (auto once = firstTime(line.key); !once.ok()) {
                return once;
            }
            // A note read the same stays as it was, and no note stays none.
            if (line.value != trimAsciiSpace(m_original.note.value_or(""))) {
                m_draft.note = line.value;
            } else {
                m_draft.note = m_original.note;
            }
            return {};
        }
        for (const auto& field : kListFields) {
            if (line.key == field.key) {
                return addEntry(field, line);
            }
        }
        return failure("unknown field \"" + line.key + "\" (the fields are " + fieldNames() + ")");
    }

private:
    Result<void, std::string> firstTime(const std::string& key) {
        if (!m_seen.insert(key).second) {
            return failure(key + " is written twice: keep one line");
        }
        return {};
    }

    // The original entry a tag names, checked against the line's field.
    Result<std::optional<std::size_t>, std::string> target(const ListField& field, const Line& line) {
        if (!line.tag) {
            return std::optional<std::size_t>();
        }
        if (!m_tagged || *line.tag == 0 || *line.tag > m_tags.size()) {
            return failure("there is no entry [" + std::to_string(*line.tag) +
                           "]: take the tag off for a new entry");
        }
        const TagTarget& found = m_tags[*line.tag - 1];
        if (found.kind != field.kind) {
            return failure("[" + std::to_string(*line.tag) + "] is the tag of a " +
                           std::string(listField(found.kind).key) + ", so it can't go on a " +
                           std::string(field.key) + " line: take it off for a new entry");
        }
        if (!m_usedTags.insert(*line.tag).second) {
            return failure("[" + std::to_string(*line.tag) +
                           "] is on two lines: take it off the copy to make a new entry");
        }
        return std::optional<std::size_t>(found.index);
    }

    Result<std::string, std::string> label(const Line& line, const std::string* original) {
        if (!line.label) {
            return std::string();
        }
        const std::string& written = *line.label;
        if (ExLabel::isFormer(written) && trimAsciiSpace(written.substr(ExLabel::prefix.size())).empty()) {
            return failure("\"" + written + "\" is no label: write ex- before one, as in ex-work");
        }
        if (original != nullptr && labelText(*original) == written) {
            return *original;
        }
        return labelFromDisplayName(written);
    }

    Result<void, std::string> addEntry(const ListField& field, const Line& line) {
        auto index = target(field, line);
        if (!index.ok()) {
            return failure(index.error());
        }
        const std::optional<std::size_t> from = index.value();
        if (field.kind == ListKind::address) {
            return addAddress(line, from ? &m_original.addresses[*from] : nullptr);
        }
        if (field.kind == ListKind::link) {
            return addLink(line, from ? &m_original.links[*from] : nullptr);
        }
        if (field.kind == ListKind::date) {
            return addDate(line, from ? &m_original.dates[*from] : nullptr);
        }
        const ContactDraft::Field* original = from ? &(m_original.*field.fields)[*from] : nullptr;
        auto written = label(line, original ? &original->label : nullptr);
        if (!written.ok()) {
            return failure(written.error());
        }
        if (isBlank(line.value, " \t")) {
            return {}; // clearing a value removes the entry
        }
        ContactDraft::Field entry;
        entry.id = original ? original->id : makeUUID();
        entry.isNew = original ? original->isNew : true;
        entry.label = std::move(written.value());
        entry.value = keptOr(line.value, original ? &original->value : nullptr);
        (m_draft.*field.fields).push_back(std::move(entry));
        return {};
    }

    Result<void, std::string> addAddress(const Line& line, const ContactDraft::Address* original) {
        auto written = label(line, original ? &original->label : nullptr);
        if (!written.ok()) {
            return failure(written.error());
        }
        // Split at the unescaped bars, unescaping each part.
        std::vector<std::string> parts(1);
        const std::string_view raw = line.rawValue;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] == '\\' && i + 1 < raw.size()) {
                parts.back() += raw.substr(i, 2);
                ++i;
            } else if (raw[i] == '|') {
                parts.emplace_back();
            } else {
                parts.back() += raw[i];
            }
        }
        if (parts.size() > 5) {
            return failure(std::string(
                "an address has five parts at most: street | city | state | postal code | country"));
        }
        ContactDraft::Address address;
        address.id = original ? original->id : makeUUID();
        address.isNew = original ? original->isNew : true;
        address.label = std::move(written.value());
        if (parts.size() == 1) {
            // One piece: a whole address pasted in, split the way the
            // window's street field splits it; a street alone stays a street.
            if (auto parsed = AddressParser::parse(unescaped(raw))) {
                address.street = parsed->street;
                address.city = parsed->city;
                address.state = parsed->state;
                address.postalCode = parsed->postalCode;
                address.country = parsed->country;
            } else {
                address.street = unescaped(trimAsciiSpace(raw));
            }
        } else {
            std::string ContactDraft::Address::*const members[] = {
                &ContactDraft::Address::street, &ContactDraft::Address::city, &ContactDraft::Address::state,
                &ContactDraft::Address::postalCode, &ContactDraft::Address::country};
            for (std::size_t i = 0; i < parts.size(); ++i) {
                const std::string part = unescaped(trimAsciiSpace(parts[i]));
                address.*members[i] = keptOr(part, original ? &(original->*members[i]) : nullptr);
            }
        }
        if (address.isEmpty()) {
            return {};
        }
        m_draft.addresses.push_back(std::move(address));
        return {};
    }

    Result<void, std::string> addDate(const Line& line, const ContactDraft::Date* original) {
        auto written = label(line, original ? &original->label : nullptr);
        if (!written.ok()) {
            return failure(written.error());
        }
        if (line.value.empty()) {
            return {};
        }
        const auto date = parseDate(line.value);
        if (!date) {
            return failure("\"" + line.value + "\" is no date: write 2001-06-02, or --06-02 without a year");
        }
        ContactDraft::Date entry;
        entry.id = original ? original->id : makeUUID();
        entry.isNew = original ? original->isNew : true;
        entry.label = equalsIgnoringAsciiCase(written.value(), "anniversary") ? std::string(kAnniversaryToken)
                                                                              : std::move(written.value());
        entry.date = *date;
        m_draft.dates.push_back(std::move(entry));
        return {};
    }

    Result<void, std::string> addLink(const Line& line, const LinkedAccount* original) {
        std::optional<LinkService> service;
        std::string handle = line.value;
        if (line.label) {
            service = linkServiceFromCaseName(asciiLowered(*line.label));
            if (!service) {
                service = serviceNamed(*line.label);
            }
            if (!service) {
                return failure("\"" + *line.label + "\" is no service a link knows (" + serviceList() + ")");
            }
        } else if (auto recognised = recognise(line.value)) {
            service = recognised->service;
            handle = recognised->handle;
        } else if (!line.value.empty()) {
            return failure("say which service the link is on, as in \"link instagram: ann\" (" +
                           serviceList() + ")");
        }
        if (isBlank(handle, " \t")) {
            return {};
        }
        LinkedAccount link;
        link.id = original ? original->id : makeUUID();
        link.isNew = original ? original->isNew : true;
        link.service = *service;
        link.handle = original && original->service == *service && original->handle == handle
                          ? original->handle
                          : cleanHandle(handle, *service);
        m_draft.links.push_back(std::move(link));
        return {};
    }

    ContactDraft& m_draft;
    const ContactDraft& m_original;
    bool m_tagged;
    std::vector<TagTarget> m_tags;
    std::set<std::size_t> m_usedTags;
    std::set<std::string> m_seen;
};

} // namespace

std::string fieldNames() {
    std::string names;
    for (const auto& field : kTextFields) {
        names += std::string(field.key) + ", ";
    }
    names += std::string(kBirthday) + ", " + std::string(kNote);
    for (const auto& field : kListFields) {
        names += ", " + std::string(field.key);
    }
    return names;
}

std::string render(const ContactDraft& draft, std::string_view heading) {
    std::string text;
    if (!heading.empty()) {
        text += "# " + std::string(heading) + "\n";
    }
    text += kExplanation;
    text += "# A link is \"link SERVICE: handle\", SERVICE one of:\n#   " + serviceList() + ".\n\n";
    const auto single = [&text](std::string_view key, const std::string& value) {
        text += std::string(key) + (value.empty() ? ":" : ": ") + value + "\n";
    };
    for (const auto& field : kTextFields) {
        single(field.key, escaped(draft.*field.member));
    }
    single(kBirthday, draft.birthday ? dateText(*draft.birthday) : "");
    single(kNote, escaped(draft.note.value_or("")));

    std::size_t tag = 0;
    const auto entry = [&](std::string_view key, std::string_view label, const std::string& value) {
        text += std::string(key) + writtenLabel(label) + ": " + value + " [" + std::to_string(++tag) + "]\n";
    };
    for (const auto& field : kListFields) {
        if (entryCount(draft, field) > 0) {
            text += "\n";
        }
        if (field.fields != nullptr) {
            for (const auto& item : draft.*field.fields) {
                entry(field.key, labelText(item.label), escaped(item.value));
            }
        } else if (field.kind == ListKind::address) {
            for (const auto& address : draft.addresses) {
                entry(field.key, labelText(address.label), addressText(address));
            }
        } else if (field.kind == ListKind::date) {
            for (const auto& date : draft.dates) {
                entry(field.key, labelText(date.label), dateText(date.date));
            }
        } else {
            for (const auto& link : draft.links) {
                entry(field.key, caseName(link.service), escaped(link.handle));
            }
        }
    }
    return text;
}

Result<ContactDraft, Mistake> parse(std::string_view text, const ContactDraft& original) {
    ContactDraft draft = original;
    for (const auto& field : kTextFields) {
        (draft.*field.member).clear();
    }
    draft.birthday.reset();
    // A note taken out is cleared like any field; a card without one has none to clear.
    draft.note = original.note ? std::optional<std::string>("") : std::nullopt;
    draft.dates.clear();
    draft.phones.clear();
    draft.emails.clear();
    draft.urls.clear();
    draft.addresses.clear();
    draft.links.clear();

    Reader reader(draft, original, true);
    std::size_t number = 0;
    while (!text.empty()) {
        ++number;
        const auto end = text.find('\n');
        const std::string_view raw = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        const std::string_view line = trimAsciiSpace(raw);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        auto split = splitLine(line, true);
        if (!split.ok()) {
            return failure(Mistake{number, split.error()});
        }
        if (auto applied = reader.apply(split.value()); !applied.ok()) {
            return failure(Mistake{number, applied.error()});
        }
    }
    // Links the draft no longer has stand for no messaging entry.
    std::set<std::string> kept;
    for (const auto& link : draft.links) {
        if (original.messageLinkIDs.contains(link.id)) {
            kept.insert(link.id);
        }
    }
    draft.messageLinkIDs = std::move(kept);
    return draft;
}

Result<void, std::string> set(ContactDraft& draft, std::string_view field, std::string_view value) {
    auto split = splitLine(field, false);
    if (!split.ok()) {
        return failure(split.error());
    }
    Line line = std::move(split.value());
    line.rawValue = std::string(trimAsciiSpace(value));
    line.value = std::string(trimAsciiSpace(value));
    ContactDraft changed = draft;
    // The one field named starts over, so that setting a text replaces it.
    Reader reader(changed, draft, false);
    if (auto applied = reader.apply(line); !applied.ok()) {
        return applied;
    }
    draft = std::move(changed);
    return {};
}

} // namespace kinbook::DraftTemplate
