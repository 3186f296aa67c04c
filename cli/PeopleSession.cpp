#include "cli/PeopleSession.h"

#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/Fold.h"
#include "cli/CommandSuggestion.h"
#include "cli/Failure.h"
#include "cli/Terminal.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace kinbook::cli {

namespace {

std::string digitsOf(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
            digits += c;
        }
    }
    return digits;
}

// Whether an entry is the one the user named by its value: the value itself
// (any case and accents), the same digits for a phone number, or one line of
// a postal address.
bool valueNames(const ContactCard::Item& item, const std::string& argument, bool phone) {
    const std::string wanted = fold(argument);
    if (fold(item.value) == wanted) {
        return true;
    }
    if (phone) {
        // By its digits, as people type a number: "5550188" for
        // "+1 505-555-0188", with or without the country or area code.
        const std::string digits = digitsOf(argument);
        const std::string stored = digitsOf(item.value);
        if (digits.size() < 3 || stored.empty()) {
            return false;
        }
        const auto& shorter = digits.size() < stored.size() ? digits : stored;
        const auto& longer = digits.size() < stored.size() ? stored : digits;
        return shorter == longer || (shorter.size() >= 7 && longer.ends_with(shorter));
    }
    std::size_t start = 0;
    while (start <= item.value.size()) {
        const auto end = item.value.find('\n', start);
        const auto line = std::string_view(item.value).substr(start, end - start);
        if (!line.empty() && fold(line) == wanted) {
            return true;
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return false;
}

} // namespace

PeopleSession::PeopleSession(const ToolOptions& options)
    : m_pool(std::make_unique<ThreadPool>()), m_cached(!options.noCache) {
    KinbookSession::Options sessionOptions;
    sessionOptions.contacts = options.contacts;
    sessionOptions.snapshotCache = !options.noCache;
    // A new user's first run shows what Kinbook does at once; but a mail
    // client asking for addresses is no new user, and must not be answered
    // with made-up people: the demo is made only for a person at a terminal.
    const bool atTerminal = Terminal::ofStandardOutput().isTerminal();
    sessionOptions.seedDemoAddressBook = atTerminal;
    sessionOptions.warning = [](const std::string& warning) { warn(warning); };
    sessionOptions.noteRecovery = [](const std::string& notice) { warn(notice); };
    auto session = KinbookSession::open(m_loop, *m_pool, std::move(sessionOptions));
    if (!session) {
        fail(session.error());
    }
    m_session = std::move(session).value();
    m_list = m_session->list();

    const Configuration& configuration = m_session->configuration();
    if (const auto& seeded = m_session->seeded()) {
        warn(fmt::format(
            "made a demo address book of {} people in {}; delete its cards (*.vcf) to start empty, "
            "or set \"contacts\" in {} to use your own",
            seeded->people, configuration.contacts.string(), configuration.configFile.string()));
        for (const auto& warning : seeded->warnings) {
            warn(warning);
        }
    }

    switch (m_session->addressBook()->access()) {
    case AddressBookAccess::notDetermined:
        if (configuration.usesEmbeddedDefault()) {
            fail(
                fmt::format("no address book configured; set \"contacts\" in {} to your vdir, or run kinbook "
                            "in a terminal once for a demo address book",
                            configuration.configFile.string()));
        }
        // A folder the user named that isn't there: a typo, or a share that
        // isn't mounted. Making it would hide either.
        fail(fmt::format("there is no address book at {}", configuration.contacts.string()));
    case AddressBookAccess::denied:
        fail(fmt::format("can't read the address book at {}", configuration.contacts.string()));
    case AddressBookAccess::granted:
    case AddressBookAccess::limited:
        break;
    }
    if (m_session->addressBook()->holdsNoCards()) {
        warn(fmt::format("no cards in {}: looked for *.vcf in it, in each folder in it and one level deeper; "
                         "point Kinbook at your address book with --contacts DIR or \"contacts\" in {}",
                         configuration.contacts.string(), configuration.configFile.string()));
    }
}

PeopleSession::~PeopleSession() {
    // The list first: its last background tasks (the cache write) then run
    // as the pool winds down, and post nothing back that anyone waits for.
    m_session.reset();
    m_pool.reset();
}

void PeopleSession::finish() {
    std::fflush(stdout);
    std::fflush(stderr);
    // After a full read the cache is being written: let it land, and end
    // the ordinary way.
    if (m_cached && m_list->timings().refreshKind == std::optional<std::string>("full")) {
        return;
    }
    // Otherwise nothing the user needs is left to do. Freeing a hundred
    // thousand people one by one, and waiting for the list's index of the
    // sort orders no one asked for, would cost a large address book a
    // noticeable part of the run: the operating system takes the memory back
    // at once.
    AppLog::shared().flush();
    std::_Exit(0);
}

void PeopleSession::waitUntil(const std::function<bool()>& finished) {
    m_loop.runUntil(finished);
}

void PeopleSession::check(const std::optional<std::string>& failure) {
    if (failure) {
        fail(*failure);
    }
}

void PeopleSession::load() {
    bool loaded = false;
    m_list->load([&loaded] { loaded = true; });
    waitUntil([&loaded] { return loaded; });
    if (m_list->errorMessage() && m_list->people().empty()) {
        fail(fmt::format("Couldn't Load Contacts: {}", *m_list->errorMessage()));
    }
    // Past jobs are read beside the load; a search must see them.
    bool jobsRead = false;
    m_list->reloadPastJobs([&jobsRead] { jobsRead = true; });
    waitUntil([&jobsRead] { return jobsRead; });
}

PeopleSession::Shown PeopleSession::show(const ListView& view) {
    m_list->setSortOrder(view.order);
    m_list->setDescending(view.descending);
    m_list->setAccountFilter(view.accountID);
    m_list->setCircleFilter(view.circle);
    m_list->setShowingHidden(view.showingHidden);
    m_list->setSearchText(view.searchText);
    m_loop.runPending();
    return {m_list->sections(), m_list->matchCount(), m_list->sharedSections()};
}

Account accountNamed(const std::vector<Account>& accounts, const std::string& argument) {
    for (const auto& account : accounts) {
        if (account.id == argument) {
            return account;
        }
    }
    for (const auto& account : accounts) {
        if (fold(account.name) == fold(argument)) {
            return account;
        }
    }
    std::vector<std::string> words;
    std::vector<std::string> known;
    for (const auto& account : accounts) {
        words.push_back(account.id);
        words.push_back(fold(account.name));
        known.push_back(fmt::format("{} ({})", terminalText(account.id), terminalText(account.name)));
    }
    if (const auto near = nearestCommand(fold(argument), words)) {
        fail(fmt::format("no account \"{}\"; did you mean \"{}\"?", terminalText(argument),
                         terminalText(*near)));
    }
    fail(fmt::format("no account \"{}\"; the accounts are {}", terminalText(argument),
                     fmt::join(known, ", ")));
}

std::vector<Account> PeopleSession::accounts() {
    return m_list->accounts();
}

std::map<std::string, int> PeopleSession::accountCounts() {
    return m_list->accountCounts();
}

Person PeopleSession::resolve(const std::string& argument) {
    if (auto person = m_list->person(argument)) {
        return *person;
    }
    std::string upper = argument;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    for (const auto& person : m_list->people()) {
        if (person->kinID && *person->kinID == upper) {
            return *person;
        }
    }
    // The start of one person's id, as `list` shows ids on a terminal.
    if (argument.size() >= kShortIDLength) {
        PersonPtr prefixed;
        bool several = false;
        for (const auto& person : m_list->people()) {
            if (std::string_view(person->id).starts_with(argument)) {
                several = several || prefixed != nullptr;
                prefixed = person;
            }
        }
        if (prefixed && !several) {
            return *prefixed;
        }
    }
    // A search that finds one person, among the listed people first, then
    // among the hidden ones.
    std::vector<const Person*> found;
    for (const bool hidden : {false, true}) {
        ListView view;
        view.showingHidden = hidden;
        view.searchText = argument;
        for (const auto& section : show(view).sections) {
            found.insert(found.end(), section.people.begin(), section.people.end());
        }
        if (!found.empty()) {
            break;
        }
    }
    if (found.size() == 1) {
        return *found.front();
    }
    if (found.empty()) {
        fail(fmt::format("no one matches \"{}\"", argument));
    }
    std::vector<std::string> candidates;
    for (std::size_t i = 0; i < found.size() && i < 10; ++i) {
        candidates.push_back(fmt::format("  {}  {}", found[i]->displayName(), found[i]->id));
    }
    if (found.size() > 10) {
        candidates.push_back(fmt::format("  … and {} more", found.size() - 10));
    }
    fail(fmt::format("{} people match \"{}\"; name one by its id:\n{}", found.size(), argument,
                     fmt::join(candidates, "\n")));
}

std::vector<ShownCard> PeopleSession::cards(const Person& person) {
    auto shown = std::move(cards(std::vector<const Person*>{&person}).front());
    // One person's page shows the notes too, read as the Contacts
    // application reads them.
    std::vector<std::string> ids;
    for (const auto& card : shown) {
        ids.push_back(card.card.id);
    }
    bool read = false;
    m_list->notes(ids, [&](std::map<std::string, std::string> notes) {
        for (auto& card : shown) {
            if (const auto note = notes.find(card.card.id); note != notes.end()) {
                card.note = note->second;
            }
        }
        read = true;
    });
    waitUntil([&] { return read; });
    return shown;
}

std::vector<std::vector<ShownCard>> PeopleSession::cards(const std::vector<const Person*>& people) {
    // Every card asked for at once, so the reads run side by side on the pool.
    struct Wanted {
        std::size_t person;
        std::string cardID;
        std::optional<ContactCard> card;
    };
    std::vector<Wanted> wanted;
    for (std::size_t p = 0; p < people.size(); ++p) {
        if (people[p]->memberIDs.empty()) {
            wanted.push_back({p, people[p]->id, std::nullopt});
        }
        for (const auto& id : people[p]->memberIDs) {
            wanted.push_back({p, std::string(id), std::nullopt});
        }
    }
    std::size_t answered = 0;
    for (auto& entry : wanted) {
        m_list->card(entry.cardID, [&entry, &answered](std::optional<ContactCard> card) {
            entry.card = std::move(card);
            ++answered;
        });
    }
    waitUntil([&] { return answered == wanted.size(); });

    // Which account holds each card, and which is primary, as the last read
    // said; worked out once per reading of the address book.
    if (m_rawVersion != m_list->peopleVersion() || m_rawByID.empty()) {
        m_rawByID.clear();
        for (const auto& raw : m_list->raw()) {
            m_rawByID[raw->id] = raw;
        }
        m_rawVersion = m_list->peopleVersion();
    }
    std::vector<std::vector<ShownCard>> shown(people.size());
    for (auto& entry : wanted) {
        if (!entry.card) {
            continue;
        }
        ShownCard card{std::move(*entry.card), {}, false};
        if (const auto raw = m_rawByID.find(entry.cardID); raw != m_rawByID.end()) {
            card.accountID =
                raw->second->accountIDs.empty() ? std::string() : raw->second->accountIDs.front();
            card.primary = raw->second->isPrimaryCard;
        }
        shown[entry.person].push_back(std::move(card));
    }
    return shown;
}

void PeopleSession::setCircle(const Person& person, std::optional<ContactCircle> circle) {
    std::optional<std::string> failure;
    bool finished = false;
    m_list->setCircle(person.id, circle, [&](ActionResult result) {
        if (!result) {
            failure = result.error().description();
        }
        finished = true;
    });
    waitUntil([&finished] { return finished; });
    check(failure);
}

void PeopleSession::setHidden(const Person& person, bool hidden) {
    std::optional<std::string> failure;
    bool finished = false;
    m_list->setHidden(person.id, hidden, [&](ActionResult result) {
        if (!result) {
            failure = result.error().description();
        }
        finished = true;
    });
    waitUntil([&finished] { return finished; });
    check(failure);
}

void PeopleSession::setFormer(const Person& person, const std::string& entry, bool former) {
    struct Candidate {
        std::string cardID;
        ContactCard::Item item;
    };
    std::vector<Candidate> byID;
    std::vector<Candidate> byValue;
    for (const auto& shown : cards(person)) {
        const std::pair<const std::vector<ContactCard::Item>*, bool> lists[] = {
            {&shown.card.phones, true}, {&shown.card.emails, false}, {&shown.card.addresses, false}};
        for (const auto& [items, phone] : lists) {
            for (const auto& item : *items) {
                if (item.id == entry) {
                    byID.push_back({shown.card.id, item});
                } else if (valueNames(item, entry, phone)) {
                    byValue.push_back({shown.card.id, item});
                }
            }
        }
    }
    const auto& found = byID.empty() ? byValue : byID;
    if (found.empty()) {
        fail(fmt::format("{} has no phone, e-mail or address \"{}\"", person.displayName(), entry));
    }
    if (found.size() > 1) {
        std::vector<std::string> candidates;
        for (const auto& candidate : found) {
            candidates.push_back(
                fmt::format("  {}  {}  {}", candidate.item.id, candidate.item.label,
                            candidate.item.value.substr(0, candidate.item.value.find('\n'))));
        }
        fail(fmt::format("{} entries match \"{}\"; name one by its id:\n{}", found.size(), entry,
                         fmt::join(candidates, "\n")));
    }
    std::optional<std::string> failure;
    bool finished = false;
    auto done = [&](ActionResult result) {
        if (!result) {
            failure = result.error().description();
        }
        finished = true;
    };
    if (former) {
        m_list->markFormer(found.front().cardID, found.front().item.id, done);
    } else {
        m_list->markCurrent(found.front().cardID, found.front().item.id, done);
    }
    waitUntil([&finished] { return finished; });
    check(failure);
}

} // namespace kinbook::cli
