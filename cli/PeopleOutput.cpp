#include "cli/PeopleOutput.h"

#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/records/StockLabel.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <utf8proc.h>

#include <algorithm>
#include <set>

namespace kinbook::cli {

using nlohmann::json;

namespace {

// Pads to `width` display columns.
std::string padded(std::string_view text, std::size_t width) {
    std::string out(text);
    const std::size_t shown = displayWidth(text);
    if (shown < width) {
        out.append(width - shown, ' ');
    }
    return out;
}

// Cuts text to at most `width` columns, marking the cut with an ellipsis.
std::string clipped(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) {
        return std::string(text);
    }
    std::string out;
    std::size_t used = 0;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    utf8proc_ssize_t offset = 0;
    const auto length = static_cast<utf8proc_ssize_t>(text.size());
    while (offset < length) {
        utf8proc_int32_t codePoint = 0;
        const utf8proc_ssize_t step = utf8proc_iterate(bytes + offset, length - offset, &codePoint);
        if (step <= 0) {
            break;
        }
        const int columns = std::max(0, utf8proc_charwidth(codePoint));
        if (used + static_cast<std::size_t>(columns) + 1 > width) {
            break;
        }
        out.append(text.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(step)));
        used += static_cast<std::size_t>(columns);
        offset += step;
    }
    return out + "…";
}

// Tabs and line breaks would split a completion line.
std::string oneLine(std::string_view text) {
    return terminalText(text, TextLines::one);
}

std::string circleMark(const Person& person) {
    return person.circle ? std::string(circleBadge(*person.circle)) : std::string();
}

std::string shownLabel(std::string_view label) {
    const std::string name = localizedLabel(label);
    return name.empty() ? std::string("—") : name;
}

std::string workLine(const ContactCard& card) {
    std::vector<std::string> parts;
    for (const std::string* part : {&card.jobTitle, &card.department, &card.organization}) {
        if (!part->empty()) {
            parts.push_back(*part);
        }
    }
    return fmt::format("{}", fmt::join(parts, ", "));
}

std::string fullName(const ContactCard& card) {
    std::vector<std::string> parts;
    for (const std::string* part :
         {&card.namePrefix, &card.givenName, &card.middleName, &card.familyName, &card.nameSuffix}) {
        if (!part->empty()) {
            parts.push_back(*part);
        }
    }
    return fmt::format("{}", fmt::join(parts, " "));
}

} // namespace

AccountNames accountNames(std::span<const Account> accounts) {
    AccountNames names;
    for (const auto& account : accounts) {
        names[account.id] = account.name;
    }
    return names;
}

ContactCard withFormerLast(ContactCard card) {
    card.phones = ExLabel::formerLast(std::move(card.phones));
    card.emails = ExLabel::formerLast(std::move(card.emails));
    card.addresses = ExLabel::formerLast(std::move(card.addresses));
    return card;
}

json personJson(const Person& person, std::span<const ShownCard> cards) {
    json list = json::array();
    for (const auto& shown : cards) {
        json card = withFormerLast(shown.card).toJSON();
        if (!shown.note.empty()) {
            card["note"] = shown.note;
        }
        list.push_back(std::move(card));
    }
    return {{"person", person.toJSON()}, {"cards", std::move(list)}};
}

json accountsJson(std::span<const Account> accounts, const std::map<std::string, int>& counts) {
    json list = json::array();
    for (const auto& account : accounts) {
        const auto count = counts.find(account.id);
        list.push_back({{"id", account.id},
                        {"name", account.name},
                        {"count", count != counts.end() ? count->second : 0}});
    }
    return list;
}

namespace {

// Each id cut to its shortest start that no other shown id shares, and to
// no fewer than kShortIDLength characters.
std::map<std::string_view, std::string_view> shortIDs(std::span<const Section> sections) {
    std::vector<std::string_view> ids;
    for (const auto& section : sections) {
        for (const auto& person : section.people) {
            ids.push_back(person->id);
        }
    }
    std::sort(ids.begin(), ids.end());
    const auto common = [](std::string_view left, std::string_view right) {
        std::size_t length = 0;
        while (length < left.size() && length < right.size() && left[length] == right[length]) {
            ++length;
        }
        return length;
    };
    std::map<std::string_view, std::string_view> shortened;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        std::size_t needed = kShortIDLength;
        if (i > 0) {
            needed = std::max(needed, common(ids[i - 1], ids[i]) + 1);
        }
        if (i + 1 < ids.size()) {
            needed = std::max(needed, common(ids[i], ids[i + 1]) + 1);
        }
        shortened[ids[i]] = ids[i].substr(0, std::min(needed, ids[i].size()));
    }
    return shortened;
}

std::string coloured(std::string_view text, const char* code, bool colour) {
    if (!colour || text.empty()) {
        return std::string(text);
    }
    return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

} // namespace

std::string sectionsText(std::span<const Section> sections, int matchCount, std::string_view what,
                         const Terminal& terminal) {
    const bool fitted = terminal.isTerminal();
    const auto ids = fitted ? shortIDs(sections) : std::map<std::string_view, std::string_view>();
    const auto idOf = [&](const Person& person) -> std::string_view {
        const auto found = ids.find(person.id);
        return found != ids.end() ? found->second : std::string_view(person.id);
    };
    // Columns sized to what is shown: within reason on a terminal, whole
    // for a program.
    const auto capped = [&](std::size_t width, std::size_t cap) {
        return fitted ? std::min(width, cap) : width;
    };
    std::size_t nameWidth = 4;
    std::size_t mailWidth = 0;
    std::size_t phoneWidth = 0;
    std::size_t idWidth = 0;
    for (const auto& section : sections) {
        for (const auto& person : section.people) {
            nameWidth = std::max(nameWidth, capped(displayWidth(oneLine(person->displayName())), 32));
            if (!person->emailAddresses.empty()) {
                mailWidth = std::max(mailWidth, capped(displayWidth(oneLine(person->emailAddresses[0])), 36));
            }
            if (!person->phoneNumbers.empty()) {
                phoneWidth = std::max(phoneWidth, capped(displayWidth(oneLine(person->phoneNumbers[0])), 20));
            }
            idWidth = std::max(idWidth, displayWidth(oneLine(idOf(*person))));
        }
    }
    if (fitted) {
        // Two columns of indent, then each column after two blanks: the
        // e-mail gives way first, then the name, then the phone; a column
        // that would be too narrow to read is left out.
        const auto total = [&] {
            return 2 + nameWidth + (mailWidth > 0 ? 2 + mailWidth : 0) +
                   (phoneWidth > 0 ? 2 + phoneWidth : 0) + 2 + 3 + 2 + idWidth;
        };
        const std::size_t width = *terminal.width;
        const auto shrink = [&](std::size_t& column, std::size_t least) {
            const std::size_t over = total() > width ? total() - width : 0;
            if (over > 0 && column > least) {
                column -= std::min(over, column - least);
            }
        };
        shrink(mailWidth, 12);
        shrink(nameWidth, 12);
        shrink(phoneWidth, 10);
        if (total() > width) {
            mailWidth = 0;
        }
        if (total() > width) {
            phoneWidth = 0;
        }
        shrink(nameWidth, 4);
    }
    std::string out;
    for (const auto& section : sections) {
        out += coloured(oneLine(section.letter), "1", terminal.colour) + "\n";
        for (const auto& person : section.people) {
            std::string line = "  " + padded(clipped(oneLine(person->displayName()), nameWidth), nameWidth);
            if (mailWidth > 0) {
                const std::string_view mail = person->emailAddresses.empty() ? "" : person->emailAddresses[0];
                line += "  " + padded(clipped(oneLine(mail), mailWidth), mailWidth);
            }
            if (phoneWidth > 0) {
                const std::string_view phone = person->phoneNumbers.empty() ? "" : person->phoneNumbers[0];
                line += "  " + padded(clipped(oneLine(phone), phoneWidth), phoneWidth);
            }
            line += "  " + coloured(padded(circleMark(*person), 3), "36", terminal.colour);
            line += "  " + coloured(oneLine(idOf(*person)), "2", terminal.colour);
            out += line + "\n";
        }
    }
    if (!out.empty()) {
        out += "\n";
    }
    out += fmt::format("{} {}\n", matchCount,
                       matchCount == 1 && what == "people" ? "person" : std::string(what));
    return out;
}

std::string personText(const Person& person, std::span<const ShownCard> cards, const AccountNames& names) {
    std::string out = oneLine(person.displayName()) + "\n";
    // Values of several lines (addresses, notes) line up under their first.
    auto row = [&](std::string_view label, std::string_view value, TextLines lines = TextLines::one) {
        std::string shown = terminalText(value, lines);
        for (std::size_t at = shown.find('\n'); at != std::string::npos; at = shown.find('\n', at + 1)) {
            shown.insert(at + 1, std::string(18, ' '));
        }
        out += fmt::format("  {}  {}\n", padded(oneLine(label), 14), shown);
    };
    if (!person.nickname.empty()) {
        row("nickname", person.nickname);
    }
    if (person.circle) {
        row("circle", fmt::format("{} ({})", circleTitle(*person.circle), circleBadge(*person.circle)));
    } else {
        row("circle", "none");
    }
    if (person.hidden) {
        row("hidden", "yes: left out of the list");
    }
    std::vector<std::string> accountList;
    for (const auto& id : person.accountIDs) {
        const auto name = names.find(std::string(id));
        accountList.push_back(name != names.end() ? name->second : std::string(id));
    }
    row("accounts", fmt::format("{}", fmt::join(accountList, ", ")));
    row("id", person.id);
    if (person.kinID) {
        row("KinID", *person.kinID);
    }

    for (const auto& shown : cards) {
        const ContactCard card = withFormerLast(shown.card);
        const auto name = names.find(shown.accountID);
        out +=
            fmt::format("\n{} · card {}{}\n", oneLine(name != names.end() ? name->second : shown.accountID),
                        oneLine(card.id), shown.primary ? " (primary)" : "");
        const std::string full = fullName(card);
        if (!full.empty()) {
            row("name", full);
        }
        if (!card.phoneticName.empty()) {
            row("phonetic", card.phoneticName);
        }
        if (!card.nickname.empty()) {
            row("nickname", card.nickname);
        }
        if (const std::string work = workLine(card); !work.empty()) {
            row("job", work);
        }
        auto items = [&](const std::vector<ContactCard::Item>& list) {
            for (const auto& item : list) {
                // Addresses are one part per line.
                row(shownLabel(item.label), item.value, TextLines::several);
            }
        };
        items(card.phones);
        items(card.emails);
        items(card.addresses);
        items(card.urls);
        if (card.birthday) {
            row("birthday", *card.birthday);
        }
        items(card.dates);
        items(card.relations);
        for (const auto& link : card.links) {
            row(displayName(link.service), link.handle);
        }
        // Social profiles and messaging entries that are links are shown as links above.
        std::set<std::string> linkIDs;
        for (const auto& link : card.links) {
            linkIDs.insert(link.id);
        }
        if (!shown.note.empty()) {
            row("note", shown.note, TextLines::several);
        }
        for (const auto* list : {&card.social, &card.messaging}) {
            for (const auto& item : *list) {
                if (!linkIDs.contains(item.id)) {
                    row(shownLabel(item.label), item.value);
                }
            }
        }
        if (card.image) {
            row("photo", fmt::format("{} bytes", card.image->size()));
        }
    }
    return out;
}

std::string accountsText(std::span<const Account> accounts, const std::map<std::string, int>& counts) {
    std::size_t nameWidth = 4;
    std::size_t idWidth = 2;
    for (const auto& account : accounts) {
        nameWidth = std::max(nameWidth, displayWidth(oneLine(account.name)));
        idWidth = std::max(idWidth, displayWidth(oneLine(account.id)));
    }
    std::string out;
    for (const auto& account : accounts) {
        const auto count = counts.find(account.id);
        const int people = count != counts.end() ? count->second : 0;
        out += fmt::format("{}  {}  {} {}\n", padded(oneLine(account.name), nameWidth),
                           padded(oneLine(account.id), idWidth), people, people == 1 ? "person" : "people");
    }
    return out;
}

std::vector<Completion> completions(const Person& person, std::span<const ShownCard> cards,
                                    CompletionKind kind) {
    std::vector<Completion> current;
    std::vector<Completion> former;
    std::set<std::string> seen;
    for (const auto& shown : cards) {
        const auto& items = kind == CompletionKind::email ? shown.card.emails : shown.card.phones;
        for (const auto& item : items) {
            if (item.value.empty() || !seen.insert(item.value).second) {
                continue;
            }
            Completion line{oneLine(item.value), oneLine(person.displayName()),
                            oneLine(localizedLabel(item.label)), person.id};
            (ExLabel::isFormer(item.label) ? former : current).push_back(std::move(line));
        }
    }
    // Values the cards no longer hold (the card changed since the list was
    // read) are left out; values only the list knows are kept, unlabelled.
    const auto& values = kind == CompletionKind::email ? person.emailAddresses : person.phoneNumbers;
    if (cards.empty()) {
        for (const auto& value : values) {
            if (!value.empty() && seen.insert(std::string(value)).second) {
                current.push_back({oneLine(value), oneLine(person.displayName()), "", person.id});
            }
        }
    }
    current.insert(current.end(), former.begin(), former.end());
    return current;
}

std::string completionText(std::span<const Completion> lines, std::string_view statusLine) {
    return oneLine(statusLine) + "\n" + completionLines(lines);
}

std::string completionLines(std::span<const Completion> lines) {
    std::string out;
    for (const auto& line : lines) {
        out += line.address + "\t" + line.name + "\t" + line.label + "\n";
    }
    return out;
}

json completionJson(std::span<const Completion> lines) {
    json list = json::array();
    for (const auto& line : lines) {
        list.push_back({{"address", line.address},
                        {"name", line.name},
                        {"label", line.label},
                        {"personID", line.personID}});
    }
    return list;
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    utf8proc_ssize_t offset = 0;
    const auto length = static_cast<utf8proc_ssize_t>(text.size());
    while (offset < length) {
        utf8proc_int32_t codePoint = 0;
        const utf8proc_ssize_t step = utf8proc_iterate(bytes + offset, length - offset, &codePoint);
        if (step <= 0) {
            // A byte that is not UTF-8 shows as one replacement character.
            ++width;
            ++offset;
            continue;
        }
        width += static_cast<std::size_t>(std::max(0, utf8proc_charwidth(codePoint)));
        offset += step;
    }
    return width;
}

std::string jsonText(const json& document) {
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace kinbook::cli
