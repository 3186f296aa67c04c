#include "KinbookKit/people/PeopleList.h"

#include "KinbookKit/Version.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/text/Fold.h"
#include "KinbookKit/text/LogMessage.h"

#include <fmt/core.h>

#include <algorithm>
#include <span>
#include <unordered_set>

namespace kinbook {
namespace {

using SteadyClock = std::chrono::steady_clock;
using WallClock = std::chrono::system_clock;

// Past this age the list reads everything again, whatever the change history
// says, so that whatever the history missed is caught at least daily.
constexpr std::chrono::seconds kChangesWindow{86'400};
// A rebuild of the shown list at least this slow is logged.
constexpr long long kSlowRebuildMs = 8;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\n\r\f\v";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

SectionList share(std::vector<Section> sections) {
    return std::make_shared<const std::vector<Section>>(std::move(sections));
}

// Sections whose people are lent by `people` (see lent()): the list holds
// the joined people itself, so whoever holds the list holds everyone in it.
SectionList share(std::vector<Section> sections, std::shared_ptr<const JoinedPeople> people) {
    struct Held {
        std::shared_ptr<const JoinedPeople> people;
        std::vector<Section> sections;
    };
    auto held = std::make_shared<const Held>(Held{std::move(people), std::move(sections)});
    return SectionList(held, &held->sections);
}

// A person as the lists made by the filters and the search carry them: the
// address alone, without a share of the person. Taking a share is an atomic
// write to a count beside each person, far apart in memory; at 100,000
// people those writes cost a keystroke more than its search does. Copies of
// a lent person are plain copies.
PersonPtr lent(const PersonPtr& person) {
    return PersonPtr(PersonPtr(), person.get());
}

// The people of a shown list that `keep(person, position)` accepts, in the
// same sections and order, with their positions when the list has them,
// lent by `people`, which holds everyone in the list. Each person is asked
// once; the kept ones are counted before they are copied, so that every
// section is allocated once at its size.
template <typename List, typename Keep>
List keepOnly(const List& list, const std::shared_ptr<const JoinedPeople>& people, Keep&& keep) {
    const auto* from = list.positions.get();
    std::vector<std::uint8_t> kept;
    kept.reserve(from ? from->size() : 0);
    std::vector<std::uint32_t> counts;
    counts.reserve(list.sections->size());
    std::size_t flat = 0;
    std::size_t total = 0;
    for (const auto& section : *list.sections) {
        std::uint32_t count = 0;
        for (const auto& person : section.people) {
            const bool keepIt = keep(*person, from ? (*from)[flat] : 0u);
            kept.push_back(keepIt ? 1 : 0);
            count += keepIt ? 1 : 0;
            ++flat;
        }
        counts.push_back(count);
        total += count;
    }
    std::vector<Section> sections;
    std::vector<std::uint32_t> positions;
    if (from) {
        positions.reserve(total);
    }
    flat = 0;
    for (std::size_t index = 0; index < list.sections->size(); ++index) {
        const auto& section = (*list.sections)[index];
        if (counts[index] == 0) {
            flat += section.people.size();
            continue;
        }
        Section narrowed{section.letter, {}};
        narrowed.people.reserve(counts[index]);
        for (const auto& person : section.people) {
            if (kept[flat] != 0) {
                narrowed.people.push_back(lent(person));
                if (from) {
                    positions.push_back((*from)[flat]);
                }
            }
            ++flat;
        }
        sections.push_back(std::move(narrowed));
    }
    List result{share(std::move(sections), people), nullptr};
    if (from) {
        result.positions = std::make_shared<const std::vector<std::uint32_t>>(std::move(positions));
    }
    return result;
}

std::vector<std::string> cardIDsOf(const Person& person) {
    return person.memberIDs.empty() ? std::vector<std::string>{person.id} : person.memberIDs.strings();
}

// The entry with this identity gets the label `relabel` makes of its own.
template <typename Entries>
bool relabelEntry(Entries& entries, const std::string& entryID,
                  const std::function<std::string(std::string_view)>& relabel) {
    for (auto& entry : entries) {
        if (entry.id == entryID) {
            entry.label = relabel(entry.label);
            return true;
        }
    }
    return false;
}

} // namespace

std::string ActionError::description() const {
    return std::visit([](const auto& underlying) { return underlying.description(); }, error);
}

// What one read changes in the list's cards.
struct PeopleList::RawUpdate {
    // Every card, when the read was of all of them (a full read, the names
    // pass or the cache): runs of cards that `allCardsOwner` keeps. The
    // people point into them, and the cache writer may hold them too: a
    // large read is never copied. Null when only some cards changed.
    std::shared_ptr<const void> allCardsOwner;
    std::vector<std::span<const Person>> allCards;
    std::vector<PersonPtr> changed; // replaced or added cards
    std::set<std::string> deleted;  // cards that are gone
    Membership membership;          // card id -> accounts, where the store says it separately
    std::optional<std::vector<std::uint8_t>> token;
    std::optional<WallClock::time_point> fullReadAt;
    std::optional<std::vector<Account>> accounts;
};

// An update joined in the background, ready to be put in place.
struct PeopleList::Prepared {
    std::shared_ptr<const JoinedPeople> joined;
    SortOrder order = SortOrder::lastName;
    SectionList sections; // of `order`, ascending
    std::vector<std::pair<std::string, std::string>> aliases;
};

struct PeopleList::FilterFacts {
    std::vector<std::uint8_t> hidden;
    std::vector<std::uint8_t> circle;                    // the raw value; 0 for none
    std::vector<std::uint64_t> accounts;                 // one bit per account of accountBits
    std::map<std::string, int, std::less<>> accountBits; // the first 64 accounts met

    explicit FilterFacts(const std::vector<PersonPtr>& people) {
        hidden.reserve(people.size());
        circle.reserve(people.size());
        accounts.reserve(people.size());
        for (const auto& person : people) {
            hidden.push_back(person->hidden ? 1 : 0);
            circle.push_back(person->circle ? static_cast<std::uint8_t>(rawValue(*person->circle)) : 0);
            std::uint64_t mask = 0;
            for (const auto& account : person->accountIDs) {
                auto bit = accountBits.find(account);
                if (bit == accountBits.end() && accountBits.size() < 64) {
                    bit = accountBits.emplace(account, static_cast<int>(accountBits.size())).first;
                }
                if (bit != accountBits.end()) {
                    mask |= std::uint64_t{1} << bit->second;
                }
            }
            accounts.push_back(mask);
        }
    }
};

PeopleList::Prepared PeopleList::prepare(const JoinedPeople& base, const RawUpdate& update, SortOrder order) {
    std::vector<PersonPtr> raw;
    const auto withMembership = [&](PersonPtr card) {
        const auto found = update.membership.find(card->id);
        if (found != update.membership.end() && found->second != card->accountIDs) {
            return std::make_shared<const Person>(card->with({.accountIDs = found->second}));
        }
        return card;
    };
    if (update.allCardsOwner) {
        std::size_t count = 0;
        for (const auto run : update.allCards) {
            count += run.size();
        }
        raw.reserve(count);
        for (const auto run : update.allCards) {
            for (const auto& card : run) {
                raw.push_back(withMembership(PersonPtr(update.allCardsOwner, &card)));
            }
        }
    } else {
        std::unordered_map<std::string_view, PersonPtr> changed;
        for (const auto& card : update.changed) {
            changed.emplace(card->id, card);
        }
        raw.reserve(base.raw.size() + changed.size());
        for (const auto& card : base.raw) {
            if (update.deleted.contains(card->id)) {
                continue;
            }
            if (const auto found = changed.find(card->id); found != changed.end()) {
                raw.push_back(withMembership(found->second));
                changed.erase(found);
            } else {
                raw.push_back(withMembership(card));
            }
        }
        for (const auto& card : update.changed) {
            if (changed.contains(card->id) && !update.deleted.contains(card->id)) {
                raw.push_back(withMembership(card));
            }
        }
    }

    Prepared prepared;
    prepared.order = order;
    auto joined =
        std::make_shared<JoinedPeople>(joinPeople(std::move(raw), [&](std::span<const PersonPtr> people) {
            prepared.sections = share(buildSections(order, people));
        }));
    // A person whose id is no longer a person's id (another card of theirs
    // leads now) is still found by it.
    base.forEachPersonID([&](std::string_view id) {
        if (joined->isPersonID(id)) {
            return;
        }
        if (const auto personID = joined->personIDOf(id)) {
            prepared.aliases.emplace_back(std::string(id), std::string(*personID));
        }
    });
    prepared.joined = std::move(joined);
    return prepared;
}

PeopleList::PeopleList(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
                       PeopleListOptions options)
    : m_main(main), m_background(background), m_cacheQueue(background), m_book(std::move(addressBook)),
      m_options(std::move(options)), m_log(m_options.log ? m_options.log : std::make_shared<KinLog>("list")),
      m_joined(std::make_shared<const JoinedPeople>()), m_sections(share({})) {
    if (!m_options.wallClock) {
        m_options.wallClock = [] { return WallClock::now(); };
    }
    if (!m_options.monotonicClock) {
        m_options.monotonicClock = [] { return SteadyClock::now(); };
    }
}

PeopleList::~PeopleList() {
    if (m_indexCancel) {
        *m_indexCancel = true;
    }
    if (m_observer) {
        m_book->stopObserving(*m_observer);
    }
}

// --- Plumbing ----------------------------------------------------------------

template <typename Work, typename Then>
void PeopleList::runOn(Executor& where, Work work, Then then) {
    where.post([main = &m_main, alive = std::weak_ptr<int>(m_alive), work = std::move(work),
                then = std::move(then)]() mutable {
        auto result = std::make_shared<decltype(work())>(work());
        main->post([alive, result, then = std::move(then)]() mutable {
            if (alive.lock()) {
                then(std::move(*result));
            }
        });
    });
}

template <typename Task>
void PeopleList::onMain(Task task, std::chrono::milliseconds delay) {
    m_main.postAfter(delay, [alive = std::weak_ptr<int>(m_alive), task = std::move(task)]() mutable {
        if (alive.lock()) {
            task();
        }
    });
}

std::uint64_t PeopleList::observe(Observer observer) {
    const auto handle = m_nextObserver++;
    m_observers.emplace(handle, std::move(observer));
    return handle;
}

void PeopleList::unobserve(std::uint64_t handle) {
    m_observers.erase(handle);
}

void PeopleList::notify(Changes changes) {
    if (changes.empty()) {
        return;
    }
    // An observer may remove itself, or another, while being told.
    std::vector<std::uint64_t> handles;
    for (const auto& [handle, observer] : m_observers) {
        handles.push_back(handle);
    }
    for (const auto handle : handles) {
        const auto found = m_observers.find(handle);
        if (found != m_observers.end()) {
            auto observer = found->second;
            observer(changes);
        }
    }
}

long long PeopleList::millisecondsSince(SteadyClock::time_point start) const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(m_options.monotonicClock() - start).count();
}

// --- Loading -----------------------------------------------------------------

void PeopleList::load(std::function<void()> done) {
    if (m_loading) {
        m_reloadRequested = true;
        m_waiters.push_back(std::move(done));
        m_log->info(fmt::format("load: queued behind a running refresh ({} waiting)", m_waiters.size()));
        return;
    }
    m_loading = true;
    m_reloadRequested = false;
    m_runners.push_back(std::move(done));
    runBody();
}

void PeopleList::finishBody() {
    if (m_reloadRequested) {
        m_reloadRequested = false;
        runBody();
        return;
    }
    m_loading = false;
    auto waiters = std::move(m_waiters);
    auto runners = std::move(m_runners);
    m_waiters.clear();
    m_runners.clear();
    for (auto& waiter : waiters) {
        if (waiter) {
            waiter();
        }
    }
    for (auto& runner : runners) {
        if (runner) {
            runner();
        }
    }
}

void PeopleList::runBody() {
    runOn(
        m_background, [book = m_book] { return book->access(); },
        [this](AddressBookAccess access) {
            const bool changed = access != m_access;
            m_access = access;
            m_log->info(fmt::format("start: access={}", accessName(access)));
            m_log->info(fmt::format("—— launch: version {} build {}", kVersion, kVersion));
            if (changed) {
                notify(Change::access);
            }
            afterAccess();
        });
}

void PeopleList::afterAccess() {
    if (!m_options.cache || m_applied) {
        afterCache();
        return;
    }
    struct CacheRead {
        std::shared_ptr<const SnapshotCache::Parts> parts;
        long long milliseconds = 0;
    };
    runOn(
        m_cacheQueue,
        [cache = m_options.cache, clock = m_options.monotonicClock] {
            const auto start = clock();
            auto parts = cache->readParts();
            CacheRead read;
            read.milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(clock() - start).count();
            if (parts) {
                read.parts = std::make_shared<const SnapshotCache::Parts>(std::move(*parts));
            }
            return read;
        },
        [this](CacheRead read) {
            if (!read.parts || m_applied) {
                afterCache();
                return;
            }
            const auto& snapshot = read.parts->snapshot;
            auto update = std::make_shared<RawUpdate>();
            update->allCardsOwner = read.parts;
            update->allCards.assign(read.parts->people.begin(), read.parts->people.end());
            update->token = snapshot.historyToken;
            update->fullReadAt = snapshot.fullReadAt;
            update->accounts = snapshot.accounts;
            applyUpdate(update, [this, milliseconds = read.milliseconds] {
                m_timings.cacheMs = milliseconds;
                m_log->info(fmt::format("cache: {} people in {} ms", m_joined->people.size(), milliseconds));
                notify(Change::timings);
                afterCache();
            });
        });
}

void PeopleList::afterCache() {
    if (!m_observer) {
        auto watching = m_book->observeChanges(m_main, [this, alive = std::weak_ptr<int>(m_alive)] {
            if (alive.lock()) {
                noticeArrived();
            }
        });
        if (watching.ok()) {
            m_observer = watching.value();
        } else if (!m_watchFailureLogged) {
            m_watchFailureLogged = true;
            m_log->info("not watching the store: " + watching.error());
        }
    }

    const auto& people = m_joined->people;
    const bool recent = m_fullReadAt && m_options.wallClock() - *m_fullReadAt < kChangesWindow;
    if (m_historyToken && recent && !people.empty() && people.front()->detailed) {
        readChanges();
    } else {
        fullRead();
    }
}

void PeopleList::fullRead() {
    m_isLoading = true;
    notify(Change::loading);
    if (m_applied) {
        fullReadDetails();
        return;
    }
    // Names first, so that a large address book shows its people at once;
    // the full read then fills in what search and the other orders need.
    struct NamesRead {
        std::optional<AddressBookSnapshot> snapshot;
        long long milliseconds = 0;
    };
    runOn(
        m_background,
        [book = m_book, clock = m_options.monotonicClock] {
            const auto start = clock();
            auto read = book->readAll({.details = false, .takeToken = false, .membership = false});
            NamesRead names;
            names.milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(clock() - start).count();
            if (read.ok()) {
                names.snapshot = std::move(read.value().snapshot);
            }
            return names;
        },
        [this](NamesRead names) {
            if (!names.snapshot) {
                fullReadDetails();
                return;
            }
            m_log->info(
                fmt::format("names pass: {} in {} ms", names.snapshot->people.size(), names.milliseconds));
            if (m_applied) {
                fullReadDetails();
                return;
            }
            auto update = std::make_shared<RawUpdate>();
            update->accounts = names.snapshot->accounts;
            const auto snapshot = std::make_shared<const AddressBookSnapshot>(std::move(*names.snapshot));
            update->allCardsOwner = snapshot;
            update->allCards = {snapshot->people};
            applyUpdate(update, [this] { fullReadDetails(); });
        });
}

void PeopleList::fullReadDetails() {
    struct DetailsRead {
        std::optional<AddressBookError> error;
        std::shared_ptr<const AddressBookSnapshot> snapshot;
        Membership membership;
        long long milliseconds = 0;
    };
    runOn(
        m_background,
        [book = m_book, clock = m_options.monotonicClock] {
            const auto start = clock();
            auto read = book->readAll({.details = true, .takeToken = true, .membership = true});
            DetailsRead details;
            details.milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(clock() - start).count();
            if (!read.ok()) {
                details.error = read.error();
                return details;
            }
            details.snapshot = std::make_shared<const AddressBookSnapshot>(std::move(read.value().snapshot));
            details.membership = std::move(read.value().membership);
            return details;
        },
        [this](DetailsRead read) {
            if (read.error) {
                m_log->info("fetch failed: " + read.error->description());
                if (m_joined->people.empty()) {
                    m_errorMessage = read.error->description();
                }
                m_isLoading = false;
                notify(Change::loading);
                finishBody();
                return;
            }
            m_log->info(fmt::format("fetch: {} people, {} accounts in {} ms", read.snapshot->people.size(),
                                    read.snapshot->accounts.size(), read.milliseconds));
            m_timings.fetchMs = read.milliseconds;
            m_timings.refreshedAt = m_options.wallClock();
            m_timings.refreshKind = "full";
            auto update = std::make_shared<RawUpdate>();
            update->allCardsOwner = read.snapshot;
            update->allCards = {read.snapshot->people};
            update->membership = std::move(read.membership);
            update->token = read.snapshot->historyToken;
            update->fullReadAt = read.snapshot->fullReadAt;
            update->accounts = read.snapshot->accounts;
            applyUpdate(update, [this, snapshot = read.snapshot] {
                if (m_options.cache) {
                    // The next start shows this read at once. Written on the
                    // cache's own queue: one file operation at a time.
                    m_cacheQueue.post([cache = m_options.cache, snapshot] { cache->write(*snapshot); });
                }
                m_isLoading = false;
                notify(Change::loading | Change::timings);
                finishBody();
            });
        });
}

void PeopleList::readChanges() {
    struct ChangesRead {
        std::optional<AddressBookError> error;
        bool startOver = false;
        std::shared_ptr<RawUpdate> update;
    };
    const auto start = m_options.monotonicClock();
    runOn(
        m_background,
        [book = m_book, token = *m_historyToken] {
            auto changes = book->changesSince(token);
            ChangesRead read;
            if (!changes.ok()) {
                read.error = changes.error();
                return read;
            }
            read.startOver = changes->startOver;
            read.update = std::make_shared<RawUpdate>();
            for (auto& person : changes.value().changed) {
                read.update->changed.push_back(std::make_shared<const Person>(std::move(person)));
            }
            read.update->deleted = std::move(changes.value().deleted);
            read.update->membership = std::move(changes.value().membership);
            read.update->token = std::move(changes.value().token);
            return read;
        },
        [this, start](ChangesRead read) {
            if (read.error) {
                m_log->info("fetch failed: " + read.error->description());
                finishBody();
                return;
            }
            if (read.startOver) {
                m_log->info("changes: start over");
                fullRead();
                return;
            }
            const auto changed = read.update->changed.size();
            const auto deleted = read.update->deleted.size();
            const auto finish = [this, start, changed, deleted] {
                m_timings.refreshedAt = m_options.wallClock();
                m_timings.refreshKind = "changes";
                const auto milliseconds = millisecondsSince(start);
                if (changed == 0 && deleted == 0) {
                    m_log->info(fmt::format("changes: 0 changed, 0 deleted in {} ms", milliseconds));
                } else {
                    m_log->info(fmt::format("refresh from changes: {} changed, {} deleted in {} ms", changed,
                                            deleted, milliseconds));
                }
                notify(Change::timings);
                finishBody();
            };
            if (changed == 0 && deleted == 0) {
                if (read.update->token) {
                    m_historyToken = std::move(read.update->token);
                }
                finish();
                return;
            }
            applyUpdate(read.update, finish);
        });
}

void PeopleList::noticeArrived() {
    ++m_notices;
    if (m_gatheringNotices) {
        return;
    }
    // A sync run writes many files in a burst: their notices become one load.
    m_gatheringNotices = true;
    onMain(
        [this] {
            m_gatheringNotices = false;
            const int notices = std::exchange(m_notices, 0);
            m_log->info(fmt::format("store changed: {} notices", notices));
            load();
        },
        m_options.noticeDelay);
}

void PeopleList::requestAccess(std::function<void(AddressBookAccess)> done) {
    runOn(
        m_background, [book = m_book] { return book->requestAccess(); },
        [this, done = std::move(done)](AddressBookAccess access) {
            if (access != m_access) {
                m_access = access;
                notify(Change::access);
            }
            if (done) {
                done(access);
            }
        });
}

void PeopleList::refetch(std::vector<std::string> cardIDs, std::function<void()> done) {
    m_log->info(fmt::format("refetch: {} ids", cardIDs.size()));
    std::vector<std::string> cached;
    for (const auto& id : cardIDs) {
        if (m_cardCache.contains(id)) {
            cached.push_back(id);
        }
    }
    struct Refetched {
        std::optional<AddressBookError> error;
        std::shared_ptr<RawUpdate> update;
        std::map<std::string, std::optional<ContactCard>> cards;
    };
    runOn(
        m_background,
        [book = m_book, cardIDs, cached] {
            Refetched refetched;
            auto people = book->readPeople(cardIDs);
            if (!people.ok()) {
                refetched.error = people.error();
                return refetched;
            }
            refetched.update = std::make_shared<RawUpdate>();
            std::set<std::string> returned;
            for (auto& person : people.value()) {
                returned.insert(person.id);
                refetched.update->changed.push_back(std::make_shared<const Person>(std::move(person)));
            }
            for (const auto& id : cardIDs) {
                if (!returned.contains(id)) {
                    refetched.update->deleted.insert(id);
                }
            }
            for (const auto& id : cached) {
                auto card = book->card(id);
                refetched.cards[id] = card.ok() ? std::optional(std::move(card.value())) : std::nullopt;
            }
            return refetched;
        },
        [this, done = std::move(done), cardIDs](Refetched refetched) mutable {
            if (refetched.error) {
                m_log->info("refetch failed: " + refetched.error->description());
                if (done) {
                    done();
                }
                return;
            }
            const auto fetched = refetched.update->changed.size();
            applyUpdate(refetched.update, [this, fetched, cardIDs, cards = std::move(refetched.cards),
                                           done = std::move(done)]() mutable {
                m_log->info(fmt::format("refetch: fetched {}", fetched));
                for (auto& [id, card] : cards) {
                    if (card) {
                        m_cardCache.insert(id, std::move(*card));
                    } else {
                        m_cardCache.erase(id);
                    }
                }
                for (const auto& id : cardIDs) {
                    m_thumbnails.erase(id);
                }
                Changes changes = Change::thumbnails;
                if (!cards.empty()) {
                    ++m_cardsVersion;
                    changes |= Change::cards;
                }
                notify(changes);
                if (done) {
                    done();
                }
            });
        });
}

void PeopleList::reconcile(std::function<void()> done) {
    m_log->info("reconcile: start");
    struct Comparison {
        bool read = false;
        std::size_t count = 0;
        long long milliseconds = 0;
        std::set<std::string> gone;
        std::vector<std::string> added;
    };
    runOn(
        m_background,
        [book = m_book, base = m_joined, clock = m_options.monotonicClock] {
            Comparison comparison;
            const auto start = clock();
            auto ids = book->allCardIDs();
            comparison.milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(clock() - start).count();
            if (!ids.ok() || ids->empty()) {
                return comparison;
            }
            comparison.read = true;
            comparison.count = ids->size();
            std::unordered_set<std::string_view> inStore(ids->begin(), ids->end());
            std::unordered_set<std::string_view> listed;
            for (const auto& card : base->raw) {
                listed.insert(card->id);
                if (!inStore.contains(card->id)) {
                    comparison.gone.insert(card->id);
                }
            }
            for (const auto& id : ids.value()) {
                if (!listed.contains(id)) {
                    comparison.added.push_back(id);
                }
            }
            return comparison;
        },
        [this, done = std::move(done)](Comparison comparison) mutable {
            if (!comparison.read) {
                // An empty answer is a failed read, never an empty address book.
                m_log->info("reconcile: no IDs read");
                if (done) {
                    done();
                }
                return;
            }
            m_log->info(fmt::format("reconcile: {} IDs in {} ms", comparison.count, comparison.milliseconds));
            m_log->info(
                fmt::format("reconcile: {} gone, {} new", comparison.gone.size(), comparison.added.size()));
            auto readNew = [this, added = std::move(comparison.added), done = std::move(done)]() mutable {
                if (added.empty()) {
                    if (done) {
                        done();
                    }
                    return;
                }
                refetch(std::move(added), std::move(done));
            };
            if (comparison.gone.empty()) {
                readNew();
                return;
            }
            auto update = std::make_shared<RawUpdate>();
            update->deleted = std::move(comparison.gone);
            applyUpdate(update, std::move(readNew));
        });
}

// --- Joining and applying ----------------------------------------------------

void PeopleList::applyUpdate(std::shared_ptr<const RawUpdate> update, std::function<void()> then) {
    auto base = m_joined;
    runOn(
        m_background, [base, update, order = m_sortOrder] { return prepare(*base, *update, order); },
        [this, base, update, then = std::move(then)](Prepared prepared) mutable {
            if (m_joined != base) {
                // Another read was put in place while this one was joined
                // against the old cards: join it again on top of the new ones.
                applyUpdate(update, std::move(then));
                return;
            }
            install(*update, std::move(prepared));
            // The people just replaced may be the last hold on a whole read:
            // freeing 100,000 people is not the main thread's work.
            m_background.post([replaced = std::move(base), read = std::move(update)] {});
            if (then) {
                then();
            }
        });
}

void PeopleList::install(const RawUpdate& update, Prepared prepared) {
    const auto start = m_options.monotonicClock();
    Changes changes = Change::people | Change::sections;
    if (update.token) {
        m_historyToken = update.token;
    }
    if (update.fullReadAt && update.fullReadAt != m_fullReadAt) {
        m_fullReadAt = update.fullReadAt;
    }
    if (update.accounts) {
        m_accounts = *update.accounts;
        if (m_accountFilter &&
            std::none_of(m_accounts.begin(), m_accounts.end(),
                         [&](const Account& account) { return account.id == *m_accountFilter; })) {
            m_accountFilter.reset();
            changes |= Change::filters;
        }
    }

    m_joined = std::move(prepared.joined);
    m_applied = true;
    ++m_peopleVersion;
    for (auto& [oldID, newID] : prepared.aliases) {
        m_aliases.insert_or_assign(std::move(oldID), std::move(newID));
    }
    // An id that leads a person again is no longer an alias.
    std::erase_if(m_aliases, [&](const auto& alias) { return m_joined->isPersonID(alias.first); });
    if (m_errorMessage) {
        m_errorMessage.reset();
        changes |= Change::loading;
    }

    m_index.clear();
    m_descendingIndex.clear();
    m_visibleIndex.clear();
    m_filtered.clear();
    m_searchIndex.reset();
    m_facts.reset();
    m_index[prepared.order] = ShownList{std::move(prepared.sections), nullptr};
    m_lastSearch.reset();
    if (recomputePastJobText()) {
        changes |= Change::pastJobs;
    }
    rebuild();
    m_log->info(
        fmt::format("apply: {} people, {} ms on main", m_joined->people.size(), millisecondsSince(start)));
    startIndex();
    notify(changes);
    if (m_options.pastJobs && !m_pastJobsRead) {
        reloadPastJobs();
    }
}

void PeopleList::startIndex() {
    if (m_indexCancel) {
        *m_indexCancel = true;
    }
    auto cancel = std::make_shared<std::atomic<bool>>(false);
    m_indexCancel = cancel;
    struct Built {
        std::map<SortOrder, ShownList> index;
        std::map<SortOrder, ShownList> visible;
        std::shared_ptr<const SearchIndex> searchIndex;
        std::shared_ptr<const FilterFacts> facts;
        long long milliseconds = 0;
        bool complete = false;
    };
    std::map<SortOrder, SectionList> ready;
    for (const auto& [order, list] : m_index) {
        ready.emplace(order, list.sections);
    }
    runOn(
        m_background,
        [joined = m_joined, ready, cancel, clock = m_options.monotonicClock]() mutable {
            Built built;
            const auto start = clock();
            auto searchIndex = std::make_shared<const SearchIndex>(joined->people);
            auto orders = buildIndex(joined->people, [&] { return cancel->load(); });
            if (*cancel || orders.size() != allSortOrders().size()) {
                return built;
            }
            for (auto& [order, sections] : orders) {
                auto& list = built.index[order];
                // The order already shown keeps its sections, so that the
                // view's list stays the same one.
                list.sections = ready.contains(order) ? ready[order] : share(std::move(sections));
                if (auto positions = searchIndex->positionsOf(*list.sections)) {
                    list.positions =
                        std::make_shared<const std::vector<std::uint32_t>>(std::move(*positions));
                }
                if (joined->hiddenCount > 0) {
                    // Hidden people are left out unless asked for: have that
                    // list ready too, so that switching orders stays a look-up.
                    built.visible[order] = keepOnly(
                        list, joined, [](const Person& person, std::uint32_t) { return !person.hidden; });
                }
            }
            built.searchIndex = std::move(searchIndex);
            built.facts = std::make_shared<const FilterFacts>(joined->people);
            built.milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(clock() - start).count();
            built.complete = true;
            return built;
        },
        [this, cancel, joined = m_joined](Built built) {
            if (!built.complete || *cancel || m_joined != joined) {
                return;
            }
            m_indexCancel.reset();
            m_searchIndex = std::move(built.searchIndex);
            m_facts = std::move(built.facts);
            m_matched.assign(m_searchIndex->size(), 0);
            m_index = std::move(built.index);
            m_visibleIndex = std::move(built.visible);
            // Lists made before the index lack positions; they are made again on demand.
            // So is the last result: a search narrowing it would pass the index by.
            m_descendingIndex.clear();
            m_filtered.clear();
            if (m_lastSearch && !m_lastSearch->positions) {
                m_lastSearch.reset();
            }
            placePastJobs();
            m_log->info(fmt::format("index: {} sorts in {} ms", m_index.size(), built.milliseconds));
            notify(Change::index);
        });
}

// --- Look-ups ----------------------------------------------------------------

PersonPtr PeopleList::person(std::string_view id) const {
    if (const auto alias = m_aliases.find(id); alias != m_aliases.end()) {
        id = alias->second;
    }
    return m_joined->find(id);
}

std::optional<std::string> PeopleList::groupOf(std::string_view cardID) const {
    if (const auto personID = m_joined->personIDOf(cardID)) {
        return std::string(*personID);
    }
    return std::nullopt;
}

void PeopleList::addAlias(std::string oldID, std::string newID) {
    if (oldID != newID) {
        m_aliases.insert_or_assign(std::move(oldID), std::move(newID));
    }
}

void PeopleList::card(const std::string& cardID, std::function<void(std::optional<ContactCard>)> done) {
    if (const auto* cached = m_cardCache.find(cardID)) {
        onMain([card = *cached, done = std::move(done)] { done(card); });
        return;
    }
    auto& waiting = m_cardLoads[cardID];
    waiting.push_back(std::move(done));
    if (waiting.size() > 1) {
        return; // one read per card at a time; this caller shares it
    }
    runOn(
        m_background, [book = m_book, cardID] { return book->card(cardID); },
        [this, cardID](Result<ContactCard, AddressBookError> card) {
            auto callers = std::move(m_cardLoads[cardID]);
            m_cardLoads.erase(cardID);
            std::optional<ContactCard> answer;
            if (card.ok()) {
                answer = std::move(card.value());
                m_cardCache.insert(cardID, *answer);
                ++m_cardsVersion;
                notify(Change::cards);
            }
            for (auto& caller : callers) {
                if (caller) {
                    caller(answer);
                }
            }
        });
}

ThumbnailBytes PeopleList::thumbnail(const std::string& cardID) {
    const auto entry = m_thumbnails.find(cardID);
    if (entry.known) {
        return entry.bytes;
    }
    if (m_thumbnailLoads.insert(cardID).second) {
        // The rows a view draws in one pass ask together: one store call.
        m_thumbnailBatch.push_back(cardID);
        if (m_thumbnailBatch.size() == 1) {
            onMain([this] { requestThumbnails(); });
        }
    }
    return nullptr;
}

void PeopleList::requestThumbnails() {
    auto batch = std::exchange(m_thumbnailBatch, {});
    runOn(
        m_background, [book = m_book, batch] { return book->thumbnails(batch); },
        [this, batch](std::map<std::string, std::vector<std::uint8_t>> thumbnails) {
            for (const auto& id : batch) {
                m_thumbnailLoads.erase(id);
                const auto found = thumbnails.find(id);
                m_thumbnails.insert(
                    id, found == thumbnails.end()
                            ? nullptr
                            : std::make_shared<const std::vector<std::uint8_t>>(std::move(found->second)));
            }
            notify(Change::thumbnails);
        });
}

// --- The shown list ----------------------------------------------------------

SectionList PeopleList::indexed(SortOrder order) const {
    const auto found = m_index.find(order);
    return found == m_index.end() ? nullptr : found->second.sections;
}

std::shared_ptr<const std::vector<std::uint32_t>>
PeopleList::positionsFor(const std::vector<Section>& sections) const {
    if (!m_searchIndex) {
        return nullptr;
    }
    auto positions = m_searchIndex->positionsOf(sections);
    return positions ? std::make_shared<const std::vector<std::uint32_t>>(std::move(*positions)) : nullptr;
}

PeopleList::ShownList PeopleList::directedList(SortOrder order) {
    auto& ascending = m_index[order];
    if (!ascending.sections) {
        // A cold order (the index is still being built): build just this one.
        ascending.sections = share(buildSections(order, m_joined->people));
        ascending.positions = positionsFor(*ascending.sections);
    }
    if (!m_descending) {
        return ascending;
    }
    auto& descending = m_descendingIndex[order];
    if (!descending.sections) {
        // Lent like the filtered lists: the first turn to descending then
        // takes no share of each person.
        std::vector<Section> copy;
        copy.reserve(ascending.sections->size());
        for (const auto& section : *ascending.sections) {
            Section lentSection{section.letter, {}};
            lentSection.people.reserve(section.people.size());
            for (const auto& person : section.people) {
                lentSection.people.push_back(lent(person));
            }
            copy.push_back(std::move(lentSection));
        }
        descending.sections = share(inDirection(std::move(copy), true), m_joined);
        descending.positions = positionsFor(*descending.sections);
    }
    return descending;
}

std::string PeopleList::filterKey() const {
    return fmt::format("{} descending={} hidden={} account={}:{} circle={}:{} trash={}",
                       rawValue(m_sortOrder), m_descending, m_showingHidden, m_accountFilter.has_value(),
                       m_accountFilter.value_or(""), m_circleFilter.has_value(),
                       m_circleFilter ? rawValue(*m_circleFilter) : 0, m_pendingTrashVersion);
}

PeopleList::ShownList PeopleList::filteredList() {
    const bool onlyHidden = !m_accountFilter && !m_circleFilter && m_pendingTrash.empty();
    if (onlyHidden && m_joined->hiddenCount == 0 && !m_showingHidden) {
        return directedList(m_sortOrder);
    }
    if (onlyHidden && !m_showingHidden && !m_descending) {
        if (const auto found = m_visibleIndex.find(m_sortOrder); found != m_visibleIndex.end()) {
            return found->second;
        }
    }
    auto key = filterKey();
    if (const auto found = m_filtered.find(key); found != m_filtered.end()) {
        return found->second;
    }
    // The tests in the order of their cost; the search comes after, on
    // whoever is left.
    const auto source = directedList(m_sortOrder);
    ShownList list;
    if (m_facts && source.positions) {
        const auto& facts = *m_facts;
        std::vector<std::uint8_t> trashed;
        if (!m_pendingTrash.empty()) {
            trashed.assign(facts.hidden.size(), 0);
            for (const auto& id : m_pendingTrash) {
                if (const auto person = m_joined->personWithID(id)) {
                    if (const auto position = m_searchIndex->positionOf(person.get())) {
                        trashed[*position] = 1;
                    }
                }
            }
        }
        const std::uint8_t circle = m_circleFilter ? static_cast<std::uint8_t>(rawValue(*m_circleFilter)) : 0;
        std::optional<std::uint64_t> accountMask;
        if (m_accountFilter) {
            const auto bit = facts.accountBits.find(*m_accountFilter);
            // An account beyond the first 64 is tested on the person itself.
            accountMask = bit == facts.accountBits.end() ? 0 : std::uint64_t{1} << bit->second;
        }
        list = keepOnly(source, m_joined, [&](const Person& person, std::uint32_t position) {
            if ((facts.hidden[position] != 0) != m_showingHidden) {
                return false;
            }
            if (!trashed.empty() && trashed[position] != 0) {
                return false;
            }
            if (m_circleFilter && facts.circle[position] != circle) {
                return false;
            }
            if (!accountMask) {
                return true;
            }
            if (*accountMask != 0) {
                return (facts.accounts[position] & *accountMask) != 0;
            }
            return std::find(person.accountIDs.begin(), person.accountIDs.end(), *m_accountFilter) !=
                   person.accountIDs.end();
        });
    } else {
        list = keepOnly(source, m_joined, [this](const Person& person, std::uint32_t) {
            if (person.hidden != m_showingHidden) {
                return false;
            }
            if (!m_pendingTrash.empty() && m_pendingTrash.contains(person.id)) {
                return false;
            }
            if (m_circleFilter && person.circle != m_circleFilter) {
                return false;
            }
            return !m_accountFilter || std::find(person.accountIDs.begin(), person.accountIDs.end(),
                                                 *m_accountFilter) != person.accountIDs.end();
        });
    }
    if (m_filtered.size() >= 16) {
        m_filtered.clear(); // a handful of filter states are ever in use at once
    }
    m_filtered.emplace(std::move(key), list);
    return list;
}

PeopleList::ShownList PeopleList::searched(const ShownList& source, const SearchQuery& query) {
    if (!m_searchIndex || !source.positions) {
        return keepOnly(source, m_joined, [&](const Person& person, std::uint32_t) {
            return query.matches(person, pastJobsOf(person));
        });
    }
    std::fill(m_matched.begin(), m_matched.end(), std::uint8_t{0});
    // Over most people, one pass over everyone's text beats visiting each.
    const bool everyone = source.positions->size() * 4 > m_searchIndex->size();
    m_searchIndex->match(query, *source.positions, everyone, m_pastJobsByPosition, m_matched);
    return keepOnly(source, m_joined,
                    [&](const Person&, std::uint32_t position) { return m_matched[position] != 0; });
}

std::string PeopleList::lastSearchKey() const {
    return fmt::format("{} people={} jobs={}", filterKey(), m_peopleVersion, m_pastJobsVersion);
}

const std::string* PeopleList::pastJobsOf(const Person& person) const {
    if (m_pastJobLookup.empty()) {
        return nullptr;
    }
    const auto found = m_pastJobLookup.find(&person);
    return found == m_pastJobLookup.end() ? nullptr : found->second;
}

void PeopleList::rebuild() {
    const auto start = m_options.monotonicClock();
    const auto text = trimmed(m_searchText);
    const auto query = SearchQuery::parse(text);

    SectionList shown;
    const bool filtering = !query.isEmpty() || m_accountFilter || m_circleFilter ||
                           m_joined->hiddenCount > 0 || m_showingHidden || !m_pendingTrash.empty();
    if (!filtering) {
        shown = directedList(m_sortOrder).sections;
    } else {
        auto key = lastSearchKey();
        ShownList result;
        if (query.isEmpty()) {
            result = filteredList();
        } else if (m_lastSearch && m_lastSearch->key == key && query.whole.starts_with(m_lastSearch->query)) {
            // Typing more under the same order and filters can only narrow
            // the last result: search just that.
            result = searched(ShownList{m_lastSearch->sections, m_lastSearch->positions}, query);
        } else {
            result = searched(filteredList(), query);
        }
        shown = result.sections;
        if (m_lastSearch) {
            releaseLater(std::move(m_lastSearch->sections));
        }
        m_lastSearch = LastSearch{std::move(key), query.whole, result.sections, result.positions};
    }

    m_matchCount = peopleCount(*shown);
    m_headings = headingsOf(*shown);
    if (m_headingFilter) {
        std::vector<Section> chosen;
        for (const auto& section : *shown) {
            if (section.letter == *m_headingFilter) {
                chosen.push_back(section);
            }
        }
        shown = share(std::move(chosen), m_joined);
    }
    releaseLater(std::exchange(m_sections, std::move(shown)));
    ++m_listID;

    const auto milliseconds = millisecondsSince(start);
    if (!query.isEmpty()) {
        m_log->info(LogMessage("search \"")
                        .privateText(text)
                        .publicText(fmt::format("\": {} ms, {} matches", milliseconds, m_matchCount)));
    } else if (milliseconds >= kSlowRebuildMs) {
        m_log->info(fmt::format("slow rebuild ({}){} ms for {} people", rawValue(m_sortOrder), milliseconds,
                                m_joined->people.size()));
    }
}

void PeopleList::releaseLater(SectionList list) {
    if (list && list.use_count() == 1) {
        m_background.post([list = std::move(list)] {});
    }
}

const std::vector<std::string>& PeopleList::flatIDs() {
    if (m_flatListID != static_cast<std::int64_t>(m_listID)) {
        m_flatPos.clear();
        m_flatIDs.clear();
        for (const auto& section : *m_sections) {
            for (const auto& person : section.people) {
                m_flatIDs.push_back(person->id);
            }
        }
        // Filled only now that the ids no longer move.
        m_flatPos.reserve(m_flatIDs.size());
        for (std::size_t i = 0; i < m_flatIDs.size(); ++i) {
            m_flatPos.try_emplace(m_flatIDs[i], i);
        }
        m_flatListID = static_cast<std::int64_t>(m_listID);
    }
    return m_flatIDs;
}

std::optional<std::size_t> PeopleList::flatPosition(std::string_view id) {
    flatIDs();
    const auto found = m_flatPos.find(id);
    if (found == m_flatPos.end()) {
        return std::nullopt;
    }
    return found->second;
}

// --- Search ------------------------------------------------------------------

void PeopleList::setSearchInput(std::string text) {
    if (text == m_searchInput) {
        return;
    }
    m_searchInput = std::move(text);
    notify(Change::search);
    if (m_searchTaskPending) {
        return; // the pending search carries the latest input when it runs
    }
    m_searchTaskPending = true;
    onMain(
        [this] {
            m_searchTaskPending = false;
            if (m_searchText == m_searchInput) {
                return;
            }
            m_searchText = m_searchInput;
            ++m_scrollToTopToken;
            rebuild();
            notify(Change::search | Change::sections);
        },
        m_options.searchDelay);
}

void PeopleList::setSearchText(std::string text) {
    m_searchInput = text;
    m_searchText = std::move(text);
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::search | Change::sections);
}

bool PeopleList::recomputePastJobText() {
    std::map<std::string, std::string> text;
    m_pastJobLookup.clear();
    if (!m_pastJobsByKey.empty()) {
        for (const auto& person : m_joined->people) {
            const auto found = m_pastJobsByKey.find(person->kinID.value_or(person->id));
            if (found != m_pastJobsByKey.end()) {
                text.emplace(person->id, found->second);
            }
        }
    }
    const bool changed = text != m_pastJobText;
    if (changed) {
        m_pastJobText = std::move(text);
        ++m_pastJobsVersion;
        m_lastSearch.reset();
    }
    for (const auto& person : m_joined->people) {
        if (m_pastJobText.empty()) {
            break;
        }
        if (const auto found = m_pastJobText.find(person->id); found != m_pastJobText.end()) {
            m_pastJobLookup.emplace(person.get(), &found->second);
        }
    }
    placePastJobs();
    return changed;
}

void PeopleList::placePastJobs() {
    m_pastJobsByPosition.clear();
    if (!m_searchIndex || m_pastJobLookup.empty()) {
        return;
    }
    m_pastJobsByPosition.assign(m_searchIndex->size(), nullptr);
    for (const auto& [person, text] : m_pastJobLookup) {
        if (const auto position = m_searchIndex->positionOf(person)) {
            m_pastJobsByPosition[*position] = text;
        }
    }
}

void PeopleList::reloadPastJobs(std::function<void()> done) {
    if (!m_options.pastJobs) {
        if (done) {
            onMain(std::move(done));
        }
        return;
    }
    m_pastJobsRead = true;
    runOn(
        m_background,
        [source = m_options.pastJobs] {
            std::map<std::string, std::string> texts;
            for (const auto& [key, jobs] : source->allJobs()) {
                auto text = fold(pastJobsSearchText(jobs));
                if (!text.empty()) {
                    texts.emplace(key, std::move(text));
                }
            }
            return texts;
        },
        [this, done = std::move(done)](std::map<std::string, std::string> texts) {
            m_pastJobsByKey = std::move(texts);
            if (recomputePastJobText()) {
                rebuild();
                notify(Change::pastJobs | Change::sections);
            }
            if (done) {
                done();
            }
        });
}

void PeopleList::setPastJobs(std::string_view personID, const std::vector<PastJob>& jobs) {
    const auto found = person(personID);
    if (!found) {
        return;
    }
    const auto key = found->kinID.value_or(found->id);
    auto text = fold(pastJobsSearchText(jobs));
    if (text.empty()) {
        m_pastJobsByKey.erase(key);
    } else {
        m_pastJobsByKey.insert_or_assign(key, std::move(text));
    }
    if (recomputePastJobText()) {
        rebuild();
        notify(Change::pastJobs | Change::sections);
    }
}

// --- Order and filters -------------------------------------------------------

void PeopleList::setSortOrder(SortOrder order) {
    if (order == m_sortOrder) {
        return;
    }
    m_sortOrder = order;
    // Headings are the titles of one order's sections.
    m_headingFilter.reset();
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setDescending(bool descending) {
    if (descending == m_descending) {
        return;
    }
    m_descending = descending;
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setAccountFilter(std::optional<std::string> accountID) {
    if (accountID == m_accountFilter) {
        return;
    }
    m_accountFilter = std::move(accountID);
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setCircleFilter(std::optional<ContactCircle> circle) {
    if (circle == m_circleFilter) {
        return;
    }
    m_circleFilter = circle;
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setShowingHidden(bool showing) {
    if (showing == m_showingHidden) {
        return;
    }
    m_showingHidden = showing;
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setHeadingFilter(std::optional<std::string> title) {
    if (title == m_headingFilter) {
        return;
    }
    if (title) {
        m_log->info("heading filter: " + *title);
    }
    m_headingFilter = std::move(title);
    ++m_scrollToTopToken;
    rebuild();
    notify(Change::filters | Change::sections);
}

void PeopleList::setPendingTrash(std::set<std::string> personIDs) {
    if (personIDs == m_pendingTrash) {
        return;
    }
    m_pendingTrash = std::move(personIDs);
    ++m_pendingTrashVersion;
    rebuild();
    notify(Change::sections);
}

// --- Operations --------------------------------------------------------------

void PeopleList::clearActionError() {
    if (m_actionError) {
        m_actionError.reset();
        notify(Change::actionError);
    }
}

void PeopleList::failAction(ActionError error, const std::function<void(ActionResult)>& done) {
    m_actionError = error.description();
    notify(Change::actionError);
    if (done) {
        done(failure(std::move(error)));
    }
}

void PeopleList::finishAction(Result<void, AddressBookError> result, std::vector<std::string> cardIDs,
                              std::function<void(ActionResult)> done) {
    refetch(std::move(cardIDs), [this, result, done = std::move(done)] {
        if (!result.ok()) {
            failAction(ActionError{result.error()}, done);
        } else if (done) {
            done(ActionResult());
        }
    });
}

void PeopleList::markFormer(const std::string& cardID, const std::string& entryID,
                            std::function<void(ActionResult)> done) {
    changeLabel(cardID, entryID, true, std::move(done));
}

void PeopleList::markCurrent(const std::string& cardID, const std::string& entryID,
                             std::function<void(ActionResult)> done) {
    changeLabel(cardID, entryID, false, std::move(done));
}

void PeopleList::changeLabel(const std::string& cardID, const std::string& entryID, bool former,
                             std::function<void(ActionResult)> done) {
    struct Outcome {
        Result<void, AddressBookError> result;
        bool changed = false;
    };
    runOn(
        m_background,
        [book = m_book, runScript = m_options.runScript, cardID, entryID, former]() -> Outcome {
            auto draft = book->draft(cardID);
            if (!draft.ok()) {
                return {failure(draft.error())};
            }
            const std::function<std::string(std::string_view)> relabel = [former](std::string_view label) {
                return former ? ExLabel::former(label) : ExLabel::current(label);
            };
            // The entry keeps its value and identity; only its label changes.
            if (!relabelEntry(draft->phones, entryID, relabel) &&
                !relabelEntry(draft->emails, entryID, relabel) &&
                !relabelEntry(draft->addresses, entryID, relabel)) {
                return {failure(AddressBookError::notFound())};
            }
            auto saved = book->save(*draft);
            if (!saved.ok()) {
                return {failure(saved.error())};
            }
            if (saved->kind != SaveOutcome::Kind::saved) {
                // The card carries a note: the change goes through the
                // scripting host, the store's own or the one given.
                return {runScript ? runScript(*saved) : book->writeThroughContactsApp(*saved), true};
            }
            return {Result<void, AddressBookError>(), true};
        },
        [this, cardID, done = std::move(done)](Outcome outcome) mutable {
            if (!outcome.changed) {
                failAction(ActionError{outcome.result.error()}, done);
                return;
            }
            finishAction(std::move(outcome.result), {cardID}, std::move(done));
        });
}

void PeopleList::setCircle(std::string_view personID, std::optional<ContactCircle> circle,
                           std::function<void(ActionResult)> done) {
    const auto found = person(personID);
    if (!found) {
        failAction(ActionError{AddressBookError::notFound()}, done);
        return;
    }
    if (auto allowed = checkCircleCapacity(m_joined->circleCounts, circle, found->circle); !allowed.ok()) {
        failAction(ActionError{allowed.error()}, done);
        return;
    }
    changeAnchors(
        cardIDsOf(*found), [circle](KinID::Anchor& anchor) { anchor.circle = circle; }, std::move(done));
}

void PeopleList::setHidden(std::string_view personID, bool hidden, std::function<void(ActionResult)> done) {
    const auto found = person(personID);
    if (!found) {
        failAction(ActionError{AddressBookError::notFound()}, done);
        return;
    }
    changeAnchors(
        cardIDsOf(*found), [hidden](KinID::Anchor& anchor) { anchor.hidden = hidden; }, std::move(done));
}

void PeopleList::changeAnchors(std::vector<std::string> cardIDs, std::function<void(KinID::Anchor&)> change,
                               std::function<void(ActionResult)> done) {
    runOn(
        m_background,
        [book = m_book, cardIDs, change]() -> Result<void, AddressBookError> {
            // Every card of the person carries the setting, so that it syncs
            // with whichever account the user's other devices read.
            for (const auto& id : cardIDs) {
                auto written = book->changeAnchor(id, change);
                if (!written.ok()) {
                    return failure(written.error());
                }
            }
            return {};
        },
        [this, cardIDs, done = std::move(done)](Result<void, AddressBookError> result) mutable {
            // Some cards may have changed before one failed: read them all again.
            finishAction(std::move(result), std::move(cardIDs), std::move(done));
        });
}

} // namespace kinbook
