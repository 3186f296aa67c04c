#include "KinbookKit/addressbook/ContactsAppScript.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/CardWriter.h"
#include "KinbookKit/vcard/EntryRegistry.h"

#include <fmt/format.h>

#include <future>

namespace kinbook {
namespace {

// Apple's stand-in year for a date without one; scripts always set a year.
constexpr int kNoYear = 1604;

std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) {
            text += '\n';
        }
        text += lines[i];
    }
    return text;
}

std::string setLine(std::string_view property, std::string_view value) {
    if (value.empty()) {
        return fmt::format("  set {} of p to missing value", property);
    }
    return fmt::format("  set {} of p to {}", property, ContactsAppScript::quote(value));
}

void addLabeled(std::vector<std::string>& lines, std::string_view element, std::string_view plural,
                const std::vector<ContactsAppScript::LabeledValue>& values) {
    lines.push_back(fmt::format("  delete every {} of p", element));
    for (const auto& value : values) {
        lines.push_back(fmt::format("  make new {} at end of {} of p with properties {{label:{}, value:{}}}",
                                    element, plural,
                                    ContactsAppScript::quote(ContactsAppScript::labelText(value.label)),
                                    ContactsAppScript::quote(value.value)));
    }
}

std::string personLine(std::string_view cardID) {
    // An id comes from a card's UID, which anyone who sends a vCard writes:
    // it is text like any other and goes in quoted.
    return "  set p to person id " + ContactsAppScript::quote(cardID);
}

std::string trimmedText(const VCardProperty& property) {
    return std::string(trimAsciiSpace(property.text()));
}

} // namespace

std::string ContactsAppScript::quote(std::string_view text) {
    std::string quoted = "\"";
    quoted.reserve(text.size() + 2);
    // Backslashes first: escaping the quotes first would double the
    // backslashes that escape them.
    std::string doubled;
    for (char c : text) {
        if (c == '\\') {
            doubled += "\\\\";
        } else {
            doubled += c;
        }
    }
    for (char c : doubled) {
        if (c == '"') {
            quoted += "\\\"";
        } else {
            quoted += c;
        }
    }
    quoted += '"';
    return quoted;
}

std::string ContactsAppScript::labelText(std::string_view label) {
    return label.empty() ? std::string("other") : labelDisplayText(label);
}

std::string ContactsAppScript::lines(const Card& card, Fields fields) {
    std::vector<std::string> lines{personLine(card.id)};
    if (fields.contains(Fields::name)) {
        lines.push_back(setLine("title", card.title));
        lines.push_back(setLine("first name", card.firstName));
        lines.push_back(setLine("middle name", card.middleName));
        lines.push_back(setLine("last name", card.lastName));
        lines.push_back(setLine("suffix", card.suffix));
        lines.push_back(setLine("nickname", card.nickname));
        lines.push_back(setLine("organization", card.organization));
        lines.push_back(setLine("department", card.department));
        lines.push_back(setLine("job title", card.jobTitle));
    }
    if (fields.contains(Fields::phones)) {
        addLabeled(lines, "phone", "phones", card.phones);
    }
    if (fields.contains(Fields::emails)) {
        addLabeled(lines, "email", "emails", card.emails);
    }
    if (fields.contains(Fields::urls)) {
        addLabeled(lines, "url", "urls", card.urls);
    }
    if (fields.contains(Fields::postalAddresses)) {
        lines.push_back("  delete every address of p");
        for (const auto& address : card.addresses) {
            lines.push_back(fmt::format("  make new address at end of addresses of p with properties "
                                        "{{label:{}, street:{}, city:{}, state:{}, zip:{}, country:{}}}",
                                        quote(labelText(address.label)), quote(address.street),
                                        quote(address.city), quote(address.state), quote(address.postalCode),
                                        quote(address.country)));
        }
    }
    if (fields.contains(Fields::socialProfiles)) {
        // Social profiles can't be deleted by script: the card's own are
        // overwritten in place, new ones added, and those left over emptied.
        lines.push_back("  set n to count social profiles of p");
        const auto& profiles = card.socialProfiles;
        for (std::size_t i = 1; i <= profiles.size(); ++i) {
            const SocialProfile& profile = profiles[i - 1];
            lines.push_back(fmt::format("  if n > {} then", i - 1));
            lines.push_back(
                fmt::format("set service name of social profile {} of p to {}", i, quote(profile.service)));
            lines.push_back(
                fmt::format("set user name of social profile {} of p to {}", i, quote(profile.userName)));
            lines.push_back(fmt::format("set url of social profile {} of p to {}", i, quote(profile.url)));
            lines.push_back("  else");
            lines.push_back(fmt::format("make new social profile at end of social profiles of p with "
                                        "properties {{service name:{}, user name:{}, url:{}}}",
                                        quote(profile.service), quote(profile.userName), quote(profile.url)));
            lines.push_back("  end if");
        }
        lines.push_back(fmt::format("repeat with i from {} to n", profiles.size() + 1));
        lines.push_back("set user name of social profile i of p to \"\"");
        lines.push_back("set url of social profile i of p to \"\"");
        lines.push_back("  end repeat");
    }
    if (fields.contains(Fields::birthday)) {
        if (const auto& birthday = card.birthday) {
            lines.push_back("set bd to current date");
            // The day goes to 1 first, so that setting the month can never
            // overflow into the next one (31 January today, 14 February wanted).
            lines.push_back("set day of bd to 1");
            lines.push_back(fmt::format("set year of bd to {}", birthday->year.value_or(kNoYear)));
            lines.push_back(fmt::format("set month of bd to {}", birthday->month));
            lines.push_back(fmt::format("set day of bd to {}", birthday->day));
            // Noon, so that no time-zone shift moves the date.
            lines.push_back("set time of bd to 43200");
            lines.push_back("set birth date of p to bd");
        } else {
            lines.push_back("set birth date of p to missing value");
        }
    }
    return joinLines(lines);
}

std::string ContactsAppScript::noteLines(std::string_view cardID, const std::optional<std::string>& note) {
    return personLine(cardID) + "\n" +
           (note ? "  set note of p to " + quote(*note) : std::string("  set note of p to missing value"));
}

std::string ContactsAppScript::updateScript(std::string_view body) {
    return fmt::format("with timeout of 30 seconds\ntell application \"Contacts\"\n{}\n  save\nend tell\nend "
                       "timeout",
                       body);
}

std::string ContactsAppScript::deleteScript(std::string_view cardID) {
    return fmt::format("with timeout of 30 seconds\ntell application \"Contacts\"\n  delete person id "
                       "{}\n  save\nend tell\nend timeout",
                       quote(cardID));
}

std::string ContactsAppScript::readNotesScript(std::span<const std::string> cardIDs) {
    std::vector<std::string> lines{"with timeout of 10 seconds", "tell application \"Contacts\"",
                                   "  set out to {}"};
    for (const auto& id : cardIDs) {
        lines.push_back("  try");
        lines.push_back("    set n to note of person id " + quote(id));
        lines.push_back("    if n is missing value then set n to \"\"");
        lines.push_back("  on error");
        lines.push_back("    set n to \"\"");
        lines.push_back("  end try");
        lines.push_back("  set end of out to n");
    }
    lines.push_back("end tell");
    lines.push_back("end timeout");
    return joinLines(lines);
}

ContactsAppScript::Card ContactsAppScript::Card::read(const VCard& vcard, std::string_view cardID) {
    // Identities play no part in a script; a throwaway registry serves.
    EntryRegistry registry;
    const ContactDraft draft = readDraft(vcard, cardID, registry);
    Card card;
    card.id = std::string(cardID);
    card.title = draft.namePrefix;
    card.firstName = draft.givenName;
    card.middleName = draft.middleName;
    card.lastName = draft.familyName;
    card.suffix = draft.nameSuffix;
    card.nickname = draft.nickname;
    card.organization = draft.organization;
    card.department = draft.department;
    card.jobTitle = draft.jobTitle;
    for (const auto& phone : draft.phones) {
        card.phones.push_back({phone.label, phone.value});
    }
    for (const auto& email : draft.emails) {
        card.emails.push_back({email.label, email.value});
    }
    for (const auto& address : draft.addresses) {
        card.addresses.push_back({address.label, address.street, address.city, address.state,
                                  address.postalCode, address.country});
    }
    // The draft holds the anchor and the web addresses shown as links
    // aside; a script writes every web address, so they are read here.
    for (const VCardProperty* property : vcard.properties()) {
        const auto kind = entryKind(*property);
        if (kind == EntryKind::url) {
            card.urls.push_back({readLabel(vcard, *property), trimmedText(*property)});
        } else if (kind == EntryKind::social) {
            const SocialProfileValue profile = readSocialProfile(*property);
            card.socialProfiles.push_back({profile.service, profile.userName, profile.url});
        }
    }
    card.birthday = draft.birthday;
    return card;
}

ContactsAppScript::ContactsAppScript(std::shared_ptr<ScriptHost> host) : m_host(std::move(host)) {}

ContactsAppScript::~ContactsAppScript() {
    m_queue.waitUntilIdle();
}

Result<std::vector<std::string>, ContactsAppScript::Failure> ContactsAppScript::run(std::string script) {
    using Outcome = Result<std::vector<std::string>, Failure>;
    // Shared with the task, so that the answer stays valid until the task
    // is done with it, whenever the caller wakes.
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto done = promise->get_future();
    m_queue.post([this, promise, script = std::move(script)] {
        if (m_host->automationPermission() != AutomationPermission::granted) {
            promise->set_value(failure(Failure{std::string(notPermittedMessage)}));
            return;
        }
        auto result = m_host->run(script);
        if (result.ok()) {
            promise->set_value(std::move(result.value()));
            return;
        }
        const ScriptError& error = result.error();
        promise->set_value(failure(Failure{
            error.kind == ScriptError::Kind::compile ? std::string(didNotCompileMessage) : error.message}));
    });
    return done.get();
}

Result<void, ContactsAppScript::Failure> ContactsAppScript::update(std::string_view body) {
    auto result = run(updateScript(body));
    if (!result.ok()) {
        return failure(result.error());
    }
    return {};
}

Result<void, ContactsAppScript::Failure>
ContactsAppScript::setNotes(std::span<const std::pair<std::string, std::optional<std::string>>> notes) {
    std::vector<std::string> bodies;
    for (const auto& [id, note] : notes) {
        bodies.push_back(noteLines(id, note));
    }
    return update(joinLines(bodies));
}

Result<std::vector<std::string>, ContactsAppScript::Failure>
ContactsAppScript::readNotes(std::span<const std::string> cardIDs) {
    auto result = run(readNotesScript(cardIDs));
    if (!result.ok()) {
        return result;
    }
    // One text per card whatever the host answered: a card without an
    // answer reads as having no note.
    std::vector<std::string> notes = std::move(result.value());
    notes.resize(cardIDs.size());
    return notes;
}

Result<void, ContactsAppScript::Failure> ContactsAppScript::deleteCard(std::string_view cardID) {
    auto result = run(deleteScript(cardID));
    if (!result.ok()) {
        return failure(result.error());
    }
    return {};
}

} // namespace kinbook
