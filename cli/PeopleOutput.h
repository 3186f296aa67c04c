#pragma once

#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/Person.h"
#include "cli/Terminal.h"

#include <nlohmann/json.hpp>

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// What the tool prints: every listing as text for people and as JSON for
// programs. Pure formatting, no I/O.
#include "cli/Terminal.h"

namespace kinbook::cli {

// The shortest start of an id that `list` shows on a terminal.
inline constexpr std::size_t kShortIDLength = 8;

// Account id to the name the user knows it by.
using AccountNames = std::map<std::string, std::string>;
AccountNames accountNames(std::span<const Account> accounts);

// One card of a person as the tool shows it, with the account that holds it.
struct ShownCard {
    ContactCard card;
    std::string accountID;
    bool primary = false;
    std::string note; // empty when the card has none, or it was not read
};

// The card with its phones, e-mail addresses and postal addresses in the
// order the person's page lists them: current entries first, former ones last.
ContactCard withFormerLast(ContactCard card);

// {"person": Person, "cards": [ContactCard, …]}, former entries last, each
// card with its "note" when it has one.
nlohmann::json personJson(const Person& person, std::span<const ShownCard> cards);
// [{"id", "name", "count"}]
nlohmann::json accountsJson(std::span<const Account> accounts, const std::map<std::string, int>& counts);

// The list as the window shows it: each section's title as a heading, then
// one line per person (name, first e-mail, first phone, circle, hidden, id),
// in aligned columns. `what` names the people in the closing count line
// ("people", "hidden people").
//
// On a terminal the lines fit its width: ids are cut to their shortest
// unique start (at least kShortIDLength characters, which the commands
// take), and the e-mail, name and phone columns are narrowed, or left out,
// until they fit; colour marks titles, circles and ids where welcome. To a
// pipe or file every value is written whole.
std::string sectionsText(std::span<const Section> sections, int matchCount, std::string_view what,
                         const Terminal& terminal = {});

// The whole person: names and work, circle, accounts and ids, then each card
// with its labelled entries, former ones last, links, dates and the rest.
std::string personText(const Person& person, std::span<const ShownCard> cards, const AccountNames& names);

// One line per account: name, id and how many people it holds.
std::string accountsText(std::span<const Account> accounts, const std::map<std::string, int>& counts);

// One line of address completion for a mail client: the address (an e-mail
// or a phone number), the person's name, and the entry's label.
struct Completion {
    std::string address;
    std::string name;
    std::string label;
    std::string personID;

    bool operator==(const Completion&) const = default;
};

// The completions of one person's e-mail addresses or phone numbers, current
// entries first and former ones after, from its cards (each value once).
enum class CompletionKind { email, phone };
std::vector<Completion> completions(const Person& person, std::span<const ShownCard> cards,
                                    CompletionKind kind);

// The format of a mail client's query command: a first line that the client
// shows as a message, then "address<TAB>name<TAB>label" per line. Tabs and
// line breaks inside values are replaced by blanks so that every entry stays
// one line of three fields.
std::string completionText(std::span<const Completion> lines, std::string_view statusLine);
// The same lines without the status line.
std::string completionLines(std::span<const Completion> lines);
nlohmann::json completionJson(std::span<const Completion> lines);

// How many columns the text takes on a terminal: East Asian wide characters
// count two, combining marks none.
std::size_t displayWidth(std::string_view text);

// Pretty-printed JSON; text that is not valid UTF-8 is shown replaced.
std::string jsonText(const nlohmann::json& document);

} // namespace kinbook::cli
