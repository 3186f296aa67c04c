#include "KinbookKit/addressbook/VdirScriptHost.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/CardWriter.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <variant>

namespace kinbook {
namespace {

using Card = ContactsAppScript::Card;
using Fields = ContactsAppScript::Fields;

// Apple's stand-in year for a date without one.
constexpr std::int64_t kNoYear = 1604;

// ---------------------------------------------------------------------------
// The statements a script is made of: one per form the builders write.

constexpr std::array<std::string_view, 9> kNameProperties{"title",        "first name", "middle name",
                                                          "last name",    "suffix",     "nickname",
                                                          "organization", "department", "job title"};

enum class Group { phone, email, url };

struct SetPerson {
    std::string id;
};
struct SetName {
    std::size_t property; // index into kNameProperties
    std::string value;    // missing value is empty
};
struct DeleteEvery {
    std::uint8_t group; // a Fields bit
};
struct MakeLabeled {
    Group group;
    ContactsAppScript::LabeledValue value; // the label as scripts write it
};
struct MakeAddress {
    ContactsAppScript::PostalAddress address;
};
struct CountProfiles {};
enum class ProfilePart { serviceName, userName, url };
struct SetProfilePart {
    ProfilePart part;
    std::int64_t index; // from 1; 0 stands for the loop variable i
    std::string value;
};
struct ProfileIf {
    std::int64_t greaterThan;
    std::vector<SetProfilePart> then;
    std::vector<ContactsAppScript::SocialProfile> otherwise;
};
struct EmptyProfiles {
    std::int64_t from;
    std::vector<SetProfilePart> body;
};
struct DateIsNow {};
enum class DatePart { day, month, year, time };
struct SetDatePart {
    DatePart part;
    std::int64_t value;
};
struct SetBirthDate {
    bool fromDate; // false: missing value
};
struct SetNote {
    std::optional<std::string> note;
};
struct Save {};
struct DeletePerson {
    std::string id;
};
struct StartList {};
struct TryReadNote {
    std::string id;
};
struct AppendNote {};

using Statement = std::variant<SetPerson, SetName, DeleteEvery, MakeLabeled, MakeAddress, CountProfiles,
                               ProfileIf, EmptyProfiles, DateIsNow, SetDatePart, SetBirthDate, SetNote, Save,
                               DeletePerson, StartList, TryReadNote, AppendNote>;

// Whether statements are laid out as one of the three scripts the builders
// make, and only those: a note-reading script (10 seconds: the list, then a
// read and an append per card); a delete (30 seconds: one delete, then save);
// an update (30 seconds: cards' lines, each card's starting with "set p to
// person id", and one save at the end). Anything else, even made of the
// right statements, was not written by Kinbook and does not run.
bool isGeneratedShape(std::int64_t seconds, const std::vector<Statement>& statements) {
    const auto is = [&](std::size_t i, auto tag) {
        return i < statements.size() && std::holds_alternative<decltype(tag)>(statements[i]);
    };
    if (seconds == 10) {
        if (!is(0, StartList{}) || statements.size() % 2 != 1) {
            return false;
        }
        for (std::size_t i = 1; i < statements.size(); i += 2) {
            if (!is(i, TryReadNote{}) || !is(i + 1, AppendNote{})) {
                return false;
            }
        }
        return true;
    }
    if (seconds != 30 || statements.size() < 2 || !is(statements.size() - 1, Save{})) {
        return false;
    }
    if (is(0, DeletePerson{})) {
        return statements.size() == 2;
    }
    if (!is(0, SetPerson{})) {
        return false;
    }
    for (std::size_t i = 1; i + 1 < statements.size(); ++i) {
        if (is(i, Save{}) || is(i, DeletePerson{}) || is(i, StartList{}) || is(i, TryReadNote{}) ||
            is(i, AppendNote{})) {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// The parser: exact text, with backtracking between the forms.

class Parser {
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    std::optional<std::vector<Statement>> parse() {
        std::int64_t seconds = 0;
        if (!take("with timeout of ") || !integer(seconds) || !take(" seconds\n") ||
            !take("tell application \"Contacts\"\n")) {
            return std::nullopt;
        }
        std::vector<Statement> statements;
        while (!attempt([&] { return take("end tell\nend timeout") && m_position == m_text.size(); })) {
            auto next = statement();
            if (!next) {
                return std::nullopt;
            }
            statements.push_back(std::move(*next));
        }
        if (!isGeneratedShape(seconds, statements)) {
            return std::nullopt;
        }
        return statements;
    }

private:
    template <typename Step>
    bool attempt(Step&& step) {
        const std::size_t saved = m_position;
        if (step()) {
            return true;
        }
        m_position = saved;
        return false;
    }

    bool take(std::string_view expected) {
        if (m_text.substr(m_position, expected.size()) != expected) {
            return false;
        }
        m_position += expected.size();
        return true;
    }

    bool endOfLine() { return take("\n"); }

    // A string literal: backslash and quote are the only escapes.
    bool string(std::string& value) {
        if (!take("\"")) {
            return false;
        }
        value.clear();
        while (m_position < m_text.size()) {
            const char c = m_text[m_position++];
            if (c == '"') {
                return true;
            }
            if (c == '\\') {
                if (m_position >= m_text.size()) {
                    return false;
                }
                const char escaped = m_text[m_position++];
                if (escaped != '\\' && escaped != '"') {
                    return false;
                }
                value += escaped;
            } else {
                value += c;
            }
        }
        return false; // no closing quote
    }

    // A card id: a string literal like any other text.
    bool identifier(std::string& id) { return string(id) && !id.empty(); }

    bool integer(std::int64_t& value) {
        std::size_t digits = 0;
        value = 0;
        while (m_position < m_text.size() && isAsciiDigit(m_text[m_position]) && digits < 12) {
            value = value * 10 + (m_text[m_position++] - '0');
            ++digits;
        }
        return digits > 0 && (m_position >= m_text.size() || !isAsciiDigit(m_text[m_position]));
    }

    bool stringOrMissing(std::optional<std::string>& value) {
        if (take("missing value")) {
            value.reset();
            return true;
        }
        std::string text;
        if (!string(text)) {
            return false;
        }
        value = std::move(text);
        return true;
    }

    template <typename Form>
    std::optional<Statement> form(Form&& parse) {
        std::optional<Statement> result;
        attempt([&] {
            result = parse();
            return result.has_value();
        });
        return result;
    }

    std::optional<Statement> statement() {
        using Parsed = std::optional<Statement>;
        const std::array<std::function<Parsed()>, 19> forms{
            [&]() -> Parsed {
                SetPerson set;
                if (take("  set p to person id ") && identifier(set.id) && endOfLine()) {
                    return set;
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                for (std::size_t i = 0; i < kNameProperties.size(); ++i) {
                    std::optional<std::string> value;
                    if (attempt([&] {
                            return take("  set ") && take(kNameProperties[i]) && take(" of p to ") &&
                                   stringOrMissing(value) && endOfLine();
                        })) {
                        return SetName{i, value.value_or(std::string())};
                    }
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (!take("  delete every ")) {
                    return std::nullopt;
                }
                for (const auto& [word, group] : std::array<std::pair<std::string_view, std::uint8_t>, 4>{
                         {{"phone", Fields::phones},
                          {"email", Fields::emails},
                          {"url", Fields::urls},
                          {"address", Fields::postalAddresses}}}) {
                    // Named captures: clang before 16 cannot capture structured bindings.
                    if (attempt([&, &name = word] { return take(name) && take(" of p") && endOfLine(); })) {
                        return DeleteEvery{group};
                    }
                }
                return std::nullopt;
            },
            [&]() -> Parsed { return labeled("phone", "phones", Group::phone); },
            [&]() -> Parsed { return labeled("email", "emails", Group::email); },
            [&]() -> Parsed { return labeled("url", "urls", Group::url); },
            [&]() -> Parsed {
                MakeAddress make;
                auto& a = make.address;
                if (take("  make new address at end of addresses of p with properties {label:") &&
                    string(a.label) && take(", street:") && string(a.street) && take(", city:") &&
                    string(a.city) && take(", state:") && string(a.state) && take(", zip:") &&
                    string(a.postalCode) && take(", country:") && string(a.country) && take("}") &&
                    endOfLine()) {
                    return make;
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (take("  set n to count social profiles of p") && endOfLine()) {
                    return CountProfiles{};
                }
                return std::nullopt;
            },
            [&]() -> Parsed { return profileIf(); },
            [&]() -> Parsed { return emptyProfiles(); },
            [&]() -> Parsed {
                if (take("set bd to current date") && endOfLine()) {
                    return DateIsNow{};
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                for (const auto& [word, part] :
                     std::array<std::pair<std::string_view, DatePart>, 4>{{{"day", DatePart::day},
                                                                           {"month", DatePart::month},
                                                                           {"year", DatePart::year},
                                                                           {"time", DatePart::time}}}) {
                    SetDatePart set{part, 0};
                    if (attempt([&, &name = word] {
                            return take("set ") && take(name) && take(" of bd to ") && integer(set.value) &&
                                   endOfLine();
                        })) {
                        return set;
                    }
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (!take("set birth date of p to ")) {
                    return std::nullopt;
                }
                if (take("bd") && endOfLine()) {
                    return SetBirthDate{true};
                }
                if (take("missing value") && endOfLine()) {
                    return SetBirthDate{false};
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                SetNote set;
                if (take("  set note of p to ") && stringOrMissing(set.note) && endOfLine()) {
                    return set;
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (take("  save") && endOfLine()) {
                    return Save{};
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                DeletePerson remove;
                if (take("  delete person id ") && identifier(remove.id) && endOfLine()) {
                    return remove;
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (take("  set out to {}") && endOfLine()) {
                    return StartList{};
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                TryReadNote read;
                if (take("  try\n    set n to note of person id ") && identifier(read.id) && endOfLine() &&
                    take("    if n is missing value then set n to \"\"\n  on error\n    set n to \"\"\n  end "
                         "try\n")) {
                    return read;
                }
                return std::nullopt;
            },
            [&]() -> Parsed {
                if (take("  set end of out to n") && endOfLine()) {
                    return AppendNote{};
                }
                return std::nullopt;
            },
        };
        for (const auto& parse : forms) {
            if (auto parsed = form(parse)) {
                return parsed;
            }
        }
        return std::nullopt;
    }

    std::optional<Statement> labeled(std::string_view element, std::string_view plural, Group group) {
        MakeLabeled make{group, {}};
        if (take("  make new ") && take(element) && take(" at end of ") && take(plural) &&
            take(" of p with properties {label:") && string(make.value.label) && take(", value:") &&
            string(make.value.value) && take("}") && endOfLine()) {
            return make;
        }
        return std::nullopt;
    }

    // "set <part> of social profile <index or i> of p to <text>"
    bool profilePart(SetProfilePart& set, bool loopVariable) {
        for (const auto& [word, part] : std::array<std::pair<std::string_view, ProfilePart>, 3>{
                 {{"service name", ProfilePart::serviceName},
                  {"user name", ProfilePart::userName},
                  {"url", ProfilePart::url}}}) {
            if (attempt([&, &name = word, &which = part] {
                    set.part = which;
                    if (!take("set ") || !take(name) || !take(" of social profile ")) {
                        return false;
                    }
                    if (loopVariable) {
                        set.index = 0;
                        if (!take("i")) {
                            return false;
                        }
                    } else if (!integer(set.index) || set.index < 1) {
                        return false;
                    }
                    return take(" of p to ") && string(set.value) && endOfLine();
                })) {
                return true;
            }
        }
        return false;
    }

    std::optional<Statement> profileIf() {
        ProfileIf block;
        if (!take("  if n > ") || !integer(block.greaterThan) || !take(" then") || !endOfLine()) {
            return std::nullopt;
        }
        SetProfilePart set;
        while (attempt([&] { return profilePart(set, false); })) {
            block.then.push_back(set);
        }
        if (block.then.empty() || !take("  else") || !endOfLine()) {
            return std::nullopt;
        }
        for (;;) {
            ContactsAppScript::SocialProfile profile;
            const bool made = attempt([&] {
                return take("make new social profile at end of social profiles of p with properties {service "
                            "name:") &&
                       string(profile.service) && take(", user name:") && string(profile.userName) &&
                       take(", url:") && string(profile.url) && take("}") && endOfLine();
            });
            if (!made) {
                break;
            }
            block.otherwise.push_back(std::move(profile));
        }
        if (block.otherwise.empty() || !take("  end if") || !endOfLine()) {
            return std::nullopt;
        }
        return block;
    }

    std::optional<Statement> emptyProfiles() {
        EmptyProfiles loop;
        if (!take("repeat with i from ") || !integer(loop.from) || !take(" to n") || !endOfLine()) {
            return std::nullopt;
        }
        SetProfilePart set;
        while (attempt([&] { return profilePart(set, true); })) {
            loop.body.push_back(set);
        }
        if (loop.body.empty() || !take("  end repeat") || !endOfLine()) {
            return std::nullopt;
        }
        return loop;
    }

    std::string_view m_text;
    std::size_t m_position = 0;
};

// ---------------------------------------------------------------------------
// AppleScript dates, as far as the birthday lines use them.

struct ScriptDate {
    std::int64_t year = 2001;
    std::int64_t month = 1;
    std::int64_t day = 1;
    std::int64_t seconds = 0;
};

bool isLeapYear(std::int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

std::int64_t daysIn(std::int64_t year, std::int64_t month) {
    static constexpr std::array<std::int64_t, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : days[static_cast<std::size_t>(month - 1)];
}

// A day past the month's end runs on into the next month, as AppleScript
// dates do: 31 January with the month set to February is 2 March.
void normalise(ScriptDate& date) {
    while (date.day > daysIn(date.year, date.month)) {
        date.day -= daysIn(date.year, date.month);
        if (++date.month > 12) {
            date.month = 1;
            ++date.year;
        }
    }
}

ScriptDate localDate(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
            local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec};
}

// ---------------------------------------------------------------------------
// Running.

// One card as the script sees it, with what the script changed.
struct Person {
    std::string id;
    Card values;              // labels as scripts write them
    std::uint8_t changed = 0; // Fields bits
    std::optional<std::optional<std::string>> note;
    bool deleted = false;
    bool gone = false; // deleted and saved
};

std::string personError(std::string_view id) {
    return fmt::format("Can't get person id \"{}\".", id);
}

// The note as the Contacts application shows it: the card's NOTE lines, one
// note. "" when there is none.
std::string noteOf(const VCard& card) {
    std::string note;
    for (const VCardProperty* line : card.find("NOTE")) {
        const std::string text = line->text();
        if (trimAsciiSpace(text).empty()) {
            continue;
        }
        if (!note.empty()) {
            note += '\n';
        }
        note += text;
    }
    return note;
}

// Draft fields for the labelled values a script wants, naming the card's
// entries they stand for: an entry whose value and label are both still
// wanted is kept as it is; then one whose value is; then the card's other
// entries, in order, take the remaining values (an edited entry); any value
// left over is a new entry.
std::vector<ContactDraft::Field> matchFields(const std::vector<ContactsAppScript::LabeledValue>& wanted,
                                             const std::vector<ContactDraft::Field>& existing) {
    std::vector<std::optional<ContactDraft::Field>> result(wanted.size());
    std::vector<bool> used(existing.size(), false);
    auto pass = [&](auto&& matches, bool keepLabel) {
        for (std::size_t w = 0; w < wanted.size(); ++w) {
            if (result[w]) {
                continue;
            }
            for (std::size_t e = 0; e < existing.size(); ++e) {
                if (used[e] || !matches(wanted[w], existing[e])) {
                    continue;
                }
                used[e] = true;
                result[w] = ContactDraft::Field{
                    existing[e].id, keepLabel ? existing[e].label : labelFromDisplayName(wanted[w].label),
                    keepLabel ? existing[e].value : wanted[w].value, false};
                break;
            }
        }
    };
    pass([](const auto& w,
            const auto& e) { return e.value == w.value && ContactsAppScript::labelText(e.label) == w.label; },
         true);
    pass([](const auto& w, const auto& e) { return e.value == w.value; }, false);
    pass([](const auto&, const auto&) { return true; }, false);
    std::vector<ContactDraft::Field> fields;
    for (std::size_t w = 0; w < wanted.size(); ++w) {
        fields.push_back(result[w] ? *result[w]
                                   : ContactDraft::Field{makeUUID(), labelFromDisplayName(wanted[w].label),
                                                         wanted[w].value, true});
    }
    return fields;
}

bool sameParts(const ContactsAppScript::PostalAddress& wanted, const ContactDraft::Address& address) {
    return wanted.street == address.street && wanted.city == address.city && wanted.state == address.state &&
           wanted.postalCode == address.postalCode && wanted.country == address.country;
}

std::vector<ContactDraft::Address> matchAddresses(const std::vector<ContactsAppScript::PostalAddress>& wanted,
                                                  const std::vector<ContactDraft::Address>& existing) {
    std::vector<std::optional<ContactDraft::Address>> result(wanted.size());
    std::vector<bool> used(existing.size(), false);
    auto take = [&](const ContactsAppScript::PostalAddress& w, const ContactDraft::Address& e,
                    bool keepLabel) {
        return ContactDraft::Address{e.id,      keepLabel ? e.label : labelFromDisplayName(w.label),
                                     w.street,  w.city,
                                     w.state,   w.postalCode,
                                     w.country, false};
    };
    auto pass = [&](auto&& matches, bool keepLabel) {
        for (std::size_t w = 0; w < wanted.size(); ++w) {
            for (std::size_t e = 0; !result[w] && e < existing.size(); ++e) {
                if (!used[e] && matches(wanted[w], existing[e])) {
                    used[e] = true;
                    result[w] = take(wanted[w], existing[e], keepLabel);
                }
            }
        }
    };
    pass([](const auto& w,
            const auto& e) { return sameParts(w, e) && ContactsAppScript::labelText(e.label) == w.label; },
         true);
    pass([](const auto& w, const auto& e) { return sameParts(w, e); }, false);
    pass([](const auto&, const auto&) { return true; }, false);
    std::vector<ContactDraft::Address> addresses;
    for (std::size_t w = 0; w < wanted.size(); ++w) {
        const auto& a = wanted[w];
        addresses.push_back(result[w]
                                ? *result[w]
                                : ContactDraft::Address{makeUUID(), labelFromDisplayName(a.label), a.street,
                                                        a.city, a.state, a.postalCode, a.country, true});
    }
    return addresses;
}

// The script's changes to one card, written onto the card as it is now.
ApplyResult writePerson(VCard& card, const std::string& id, EntryRegistry& registry, const Person& person,
                        std::chrono::system_clock::time_point now) {
    const Card& values = person.values;
    const Fields changed{person.changed};
    const ContactDraft current = readDraft(card, id, registry);
    WholeGroups groups;
    if (changed.contains(Fields::name)) {
        ContactDraft names = ContactDraft::empty();
        names.namePrefix = values.title;
        names.givenName = values.firstName;
        names.middleName = values.middleName;
        names.familyName = values.lastName;
        names.nameSuffix = values.suffix;
        names.nickname = values.nickname;
        names.organization = values.organization;
        names.department = values.department;
        names.jobTitle = values.jobTitle;
        groups.names = std::move(names);
    }
    if (changed.contains(Fields::phones)) {
        groups.phones = matchFields(values.phones, current.phones);
    }
    if (changed.contains(Fields::emails)) {
        groups.emails = matchFields(values.emails, current.emails);
    }
    if (changed.contains(Fields::urls)) {
        // Every web address: the draft holds the anchor and links aside.
        std::vector<ContactDraft::Field> urls;
        for (const auto& entry : cardEntries(card, id, registry)) {
            if (entry.kind == EntryKind::url) {
                urls.push_back({entry.id, readLabel(card, *entry.property),
                                std::string(trimAsciiSpace(entry.property->text())), false});
            }
        }
        groups.urls = matchFields(values.urls, urls);
    }
    if (changed.contains(Fields::postalAddresses)) {
        groups.addresses = matchAddresses(values.addresses, current.addresses);
    }
    if (changed.contains(Fields::socialProfiles)) {
        std::vector<SocialProfileValue> profiles;
        for (const auto& profile : values.socialProfiles) {
            profiles.push_back({profile.service, profile.userName, profile.url});
        }
        groups.socialProfiles = std::move(profiles);
    }
    if (changed.contains(Fields::birthday)) {
        groups.birthday = values.birthday;
    }
    if (person.note) {
        groups.note = *person.note;
    }
    return applyWholeGroups(card, id, registry, groups, now);
}

class ScriptRun {
public:
    ScriptRun(ScriptedCards& cards, const Clock& clock) : m_cards(cards), m_clock(clock) {}

    Result<std::vector<std::string>, ScriptError> run(const std::vector<Statement>& statements) {
        for (const Statement& statement : statements) {
            if (auto error = std::visit([&](const auto& s) { return execute(s); }, statement)) {
                return failure(ScriptError{ScriptError::Kind::runtime, std::move(*error)});
            }
        }
        return m_out.value_or(std::vector<std::string>{});
    }

private:
    using Outcome = std::optional<std::string>; // the error, if any

    Outcome current(Person*& person) {
        if (!m_person) {
            return "The variable p is not defined.";
        }
        person = &m_people[*m_person];
        if (person->gone || person->deleted) {
            return personError(person->id);
        }
        return std::nullopt;
    }

    Outcome execute(const SetPerson& set) {
        for (std::size_t i = 0; i < m_people.size(); ++i) {
            if (m_people[i].id == set.id) {
                if (m_people[i].gone) {
                    return personError(set.id);
                }
                m_person = i;
                return std::nullopt;
            }
        }
        auto card = m_cards.scriptedRead(set.id);
        if (!card.ok()) {
            return card.error().code == AddressBookError::Code::notFound ? personError(set.id)
                                                                         : card.error().description();
        }
        Person person;
        person.id = set.id;
        person.values = Card::read(card.value(), set.id);
        // The script speaks in label names; so does the model it changes.
        for (auto* list : {&person.values.phones, &person.values.emails, &person.values.urls}) {
            for (auto& item : *list) {
                item.label = ContactsAppScript::labelText(item.label);
            }
        }
        for (auto& address : person.values.addresses) {
            address.label = ContactsAppScript::labelText(address.label);
        }
        m_people.push_back(std::move(person));
        m_person = m_people.size() - 1;
        return std::nullopt;
    }

    Outcome execute(const SetName& set) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        Card& v = person->values;
        const std::array<std::string*, 9> fields{&v.title,        &v.firstName,  &v.middleName,
                                                 &v.lastName,     &v.suffix,     &v.nickname,
                                                 &v.organization, &v.department, &v.jobTitle};
        *fields[set.property] = set.value;
        person->changed |= Fields::name;
        return std::nullopt;
    }

    Outcome execute(const DeleteEvery& remove) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        switch (remove.group) {
        case Fields::phones:
            person->values.phones.clear();
            break;
        case Fields::emails:
            person->values.emails.clear();
            break;
        case Fields::urls:
            person->values.urls.clear();
            break;
        default:
            person->values.addresses.clear();
            break;
        }
        person->changed |= remove.group;
        return std::nullopt;
    }

    Outcome execute(const MakeLabeled& make) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        switch (make.group) {
        case Group::phone:
            person->values.phones.push_back(make.value);
            person->changed |= Fields::phones;
            break;
        case Group::email:
            person->values.emails.push_back(make.value);
            person->changed |= Fields::emails;
            break;
        case Group::url:
            person->values.urls.push_back(make.value);
            person->changed |= Fields::urls;
            break;
        }
        return std::nullopt;
    }

    Outcome execute(const MakeAddress& make) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        person->values.addresses.push_back(make.address);
        person->changed |= Fields::postalAddresses;
        return std::nullopt;
    }

    Outcome execute(const CountProfiles&) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        m_n = static_cast<std::int64_t>(person->values.socialProfiles.size());
        return std::nullopt;
    }

    Outcome setProfilePart(Person& person, const SetProfilePart& set, std::int64_t index) {
        auto& profiles = person.values.socialProfiles;
        if (index < 1 || static_cast<std::size_t>(index) > profiles.size()) {
            return fmt::format("Can't get social profile {} of person id \"{}\".", index, person.id);
        }
        auto& profile = profiles[static_cast<std::size_t>(index - 1)];
        switch (set.part) {
        case ProfilePart::serviceName:
            profile.service = set.value;
            break;
        case ProfilePart::userName:
            profile.userName = set.value;
            break;
        case ProfilePart::url:
            profile.url = set.value;
            break;
        }
        person.changed |= Fields::socialProfiles;
        return std::nullopt;
    }

    Outcome count(std::int64_t& n) const {
        if (const auto* value = std::get_if<std::int64_t>(&m_n)) {
            n = *value;
            return std::nullopt;
        }
        return std::holds_alternative<std::monostate>(m_n) ? "The variable n is not defined."
                                                           : "Can't make n into type number.";
    }

    Outcome execute(const ProfileIf& block) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        std::int64_t n = 0;
        if (auto error = count(n)) {
            return error;
        }
        if (n > block.greaterThan) {
            for (const auto& set : block.then) {
                if (auto error = setProfilePart(*person, set, set.index)) {
                    return error;
                }
            }
        } else {
            for (const auto& profile : block.otherwise) {
                person->values.socialProfiles.push_back(profile);
            }
            person->changed |= Fields::socialProfiles;
        }
        return std::nullopt;
    }

    Outcome execute(const EmptyProfiles& loop) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        std::int64_t n = 0;
        if (auto error = count(n)) {
            return error;
        }
        for (std::int64_t i = loop.from; i <= n; ++i) {
            for (const auto& set : loop.body) {
                if (auto error = setProfilePart(*person, set, i)) {
                    return error;
                }
            }
        }
        return std::nullopt;
    }

    Outcome execute(const DateIsNow&) {
        m_date = localDate(m_clock.now());
        return std::nullopt;
    }

    Outcome execute(const SetDatePart& set) {
        if (!m_date) {
            return "The variable bd is not defined.";
        }
        ScriptDate& date = *m_date;
        const std::int64_t v = set.value;
        switch (set.part) {
        case DatePart::day:
            if (v < 1 || v > 31) {
                return fmt::format("Can't set day of date to {}.", v);
            }
            date.day = v;
            break;
        case DatePart::month:
            if (v < 1 || v > 12) {
                return fmt::format("Can't set month of date to {}.", v);
            }
            date.month = v;
            break;
        case DatePart::year:
            if (v < 1 || v > 9999) {
                return fmt::format("Can't set year of date to {}.", v);
            }
            date.year = v;
            break;
        case DatePart::time:
            if (v >= 86400) {
                return fmt::format("Can't set time of date to {}.", v);
            }
            date.seconds = v;
            return std::nullopt;
        }
        normalise(date);
        return std::nullopt;
    }

    Outcome execute(const SetBirthDate& set) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        if (!set.fromDate) {
            person->values.birthday.reset();
        } else {
            if (!m_date) {
                return "The variable bd is not defined.";
            }
            const ScriptDate& date = *m_date;
            person->values.birthday = DateComponents::make(
                date.year == kNoYear ? std::nullopt : std::optional<int>(static_cast<int>(date.year)),
                static_cast<int>(date.month), static_cast<int>(date.day));
        }
        person->changed |= Fields::birthday;
        return std::nullopt;
    }

    Outcome execute(const SetNote& set) {
        Person* person = nullptr;
        if (auto error = current(person)) {
            return error;
        }
        person->note = set.note;
        return std::nullopt;
    }

    Outcome execute(const DeletePerson& remove) {
        if (auto error = execute(SetPerson{remove.id})) {
            return error;
        }
        m_people[*m_person].deleted = true;
        return std::nullopt;
    }

    Outcome execute(const Save&) {
        for (Person& person : m_people) {
            if (person.gone) {
                continue;
            }
            if (person.deleted) {
                const auto removed = m_cards.scriptedRemove(person.id);
                if (!removed.ok()) {
                    return removed.error().code == AddressBookError::Code::notFound
                               ? personError(person.id)
                               : removed.error().description();
                }
                person.gone = true;
                continue;
            }
            if (person.changed == 0 && !person.note) {
                continue;
            }
            const auto written = m_cards.scriptedEdit(
                person.id, [&](VCard& card, const std::string& id, EntryRegistry& registry) {
                    return writePerson(card, id, registry, person, m_clock.now());
                });
            if (!written.ok()) {
                return written.error().code == AddressBookError::Code::notFound
                           ? personError(person.id)
                           : written.error().description();
            }
            person.changed = 0;
            person.note.reset();
        }
        return std::nullopt;
    }

    Outcome execute(const StartList&) {
        m_out.emplace();
        return std::nullopt;
    }

    Outcome execute(const TryReadNote& read) {
        // Any failure to read is caught by the script's own "on error".
        auto card = m_cards.scriptedRead(read.id);
        m_n = card.ok() ? noteOf(card.value()) : std::string();
        return std::nullopt;
    }

    Outcome execute(const AppendNote&) {
        if (!m_out) {
            return "The variable out is not defined.";
        }
        if (const auto* text = std::get_if<std::string>(&m_n)) {
            m_out->push_back(*text);
        } else if (const auto* number = std::get_if<std::int64_t>(&m_n)) {
            m_out->push_back(std::to_string(*number));
        } else {
            return "The variable n is not defined.";
        }
        return std::nullopt;
    }

    ScriptedCards& m_cards;
    const Clock& m_clock;
    std::vector<Person> m_people;
    std::optional<std::size_t> m_person;
    std::variant<std::monostate, std::int64_t, std::string> m_n;
    std::optional<ScriptDate> m_date;
    std::optional<std::vector<std::string>> m_out;
};

} // namespace

VdirScriptHost::VdirScriptHost(const Clock& clock) : m_clock(clock) {}

VdirScriptHost::VdirScriptHost(ScriptedCards& cards, const Clock& clock) : m_cards(&cards), m_clock(clock) {}

Result<std::vector<std::string>, ScriptError> VdirScriptHost::run(std::string_view source) {
    auto statements = Parser(source).parse();
    if (!statements) {
        return failure(ScriptError{ScriptError::Kind::compile, "the script didn't compile"});
    }
    if (!m_cards) {
        return failure(ScriptError{ScriptError::Kind::runtime, "no address book to run the script on"});
    }
    return ScriptRun(*m_cards, m_clock).run(*statements);
}

} // namespace kinbook
