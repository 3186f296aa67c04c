#include "KinbookKit/people/PeopleLoader.h"

#include "KinbookKit/Version.h"

#include <fmt/core.h>

#include <algorithm>
#include <span>
#include <unordered_map>
#include <unordered_set>

namespace kinbook {
namespace {

// Past this age the list reads everything again, whatever the change history
// says, so that whatever the history missed is caught at least daily.
constexpr std::chrono::seconds kChangesWindow{86'400};

} // namespace

// What one read changes in the list's cards.
struct PeopleLoader::RawUpdate {
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
    std::optional<std::chrono::system_clock::time_point> fullReadAt;
    std::optional<std::vector<Account>> accounts;
};

// An update joined in the background, ready to be put in place.
struct PeopleLoader::Prepared {
    std::shared_ptr<const JoinedPeople> joined;
    SortOrder order = SortOrder::lastName;
    SectionList sections; // of `order`, ascending
    std::vector<std::pair<std::string, std::string>> aliases;
};

PeopleLoader::Prepared PeopleLoader::prepare(const JoinedPeople& base, const RawUpdate& update,
                                             SortOrder order) {
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
    std::vector<Section> sections;
    auto joined = std::make_shared<JoinedPeople>(joinPeople(
        std::move(raw), [&](std::span<const PersonPtr> people) { sections = buildSections(order, people); }));
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
    prepared.sections = SectionList(std::move(sections), joined);
    prepared.joined = std::move(joined);
    return prepared;
}

PeopleLoader::PeopleLoader(PeopleListContext& context, ShownPeople& shown)
    : m_context(context), m_shown(shown), m_joined(std::make_shared<const JoinedPeople>()) {}

PeopleLoader::~PeopleLoader() {
    if (m_observer) {
        m_context.book()->stopObserving(*m_observer);
    }
}

// --- Loading -----------------------------------------------------------------

void PeopleLoader::load(std::function<void()> done) {
    if (m_loading) {
        m_reloadRequested = true;
        m_waiters.push_back(std::move(done));
        m_context.log().info(
            fmt::format("load: queued behind a running refresh ({} waiting)", m_waiters.size()));
        return;
    }
    m_loading = true;
    m_reloadRequested = false;
    m_runners.push_back(std::move(done));
    runBody();
}

void PeopleLoader::finishBody() {
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

void PeopleLoader::runBody() {
    m_context.runOn(
        m_context.background(), [book = m_context.book()] { return book->access(); },
        [this](AddressBookAccess access) {
            const bool changed = access != m_access;
            m_access = access;
            m_context.log().info(fmt::format("start: access={}", accessName(access)));
            m_context.log().info(fmt::format("—— launch: version {} build {}", kVersion, kVersion));
            if (changed) {
                m_context.notify(PeopleChange::access);
            }
            afterAccess();
        });
}

void PeopleLoader::afterAccess() {
    if (!m_context.options().cache || m_applied) {
        afterCache();
        return;
    }
    struct CacheRead {
        std::shared_ptr<const SnapshotCache::Parts> parts;
        long long milliseconds = 0;
    };
    m_context.runOn(
        m_context.cacheQueue(),
        [cache = m_context.options().cache, clock = &m_context.clock()] {
            const auto start = clock->monotonicNow();
            auto parts = cache->readParts();
            CacheRead read;
            read.milliseconds = clock->millisecondsSince(start);
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
                m_context.log().info(
                    fmt::format("cache: {} people in {} ms", m_joined->people.size(), milliseconds));
                m_context.notify(PeopleChange::timings);
                afterCache();
            });
        });
}

void PeopleLoader::afterCache() {
    if (!m_observer) {
        auto watching = m_context.book()->observeChanges(m_context.main(), [this, alive = m_context.life()] {
            if (alive.lock()) {
                noticeArrived();
            }
        });
        if (watching.ok()) {
            m_observer = watching.value();
        } else if (!m_watchFailureLogged) {
            m_watchFailureLogged = true;
            m_context.log().info("not watching the store: " + watching.error());
        }
    }

    const auto& people = m_joined->people;
    const bool recent = m_fullReadAt && m_context.clock().now() - *m_fullReadAt < kChangesWindow;
    if (m_historyToken && recent && !people.empty() && people.front()->detailed) {
        readChanges();
    } else {
        fullRead();
    }
}

void PeopleLoader::fullRead() {
    m_isLoading = true;
    m_context.notify(PeopleChange::loading);
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
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), clock = &m_context.clock()] {
            const auto start = clock->monotonicNow();
            auto read = book->readAll({.details = false, .takeToken = false, .membership = false});
            NamesRead names;
            names.milliseconds = clock->millisecondsSince(start);
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
            m_context.log().info(
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

void PeopleLoader::fullReadDetails() {
    struct DetailsRead {
        std::optional<AddressBookError> error;
        std::shared_ptr<const AddressBookSnapshot> snapshot;
        Membership membership;
        long long milliseconds = 0;
    };
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), clock = &m_context.clock()] {
            const auto start = clock->monotonicNow();
            auto read = book->readAll({.details = true, .takeToken = true, .membership = true});
            DetailsRead details;
            details.milliseconds = clock->millisecondsSince(start);
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
                m_context.log().info("fetch failed: " + read.error->description());
                if (m_joined->people.empty()) {
                    m_errorMessage = read.error->description();
                }
                m_isLoading = false;
                m_context.notify(PeopleChange::loading);
                finishBody();
                return;
            }
            m_context.log().info(fmt::format("fetch: {} people, {} accounts in {} ms",
                                             read.snapshot->people.size(), read.snapshot->accounts.size(),
                                             read.milliseconds));
            m_timings.fetchMs = read.milliseconds;
            m_timings.refreshedAt = m_context.clock().now();
            m_timings.refreshKind = "full";
            auto update = std::make_shared<RawUpdate>();
            update->allCardsOwner = read.snapshot;
            update->allCards = {read.snapshot->people};
            update->membership = std::move(read.membership);
            update->token = read.snapshot->historyToken;
            update->fullReadAt = read.snapshot->fullReadAt;
            update->accounts = read.snapshot->accounts;
            applyUpdate(update, [this, snapshot = read.snapshot] {
                if (m_context.options().cache) {
                    // The next start shows this read at once. Written on the
                    // cache's own queue: one file operation at a time.
                    m_context.cacheQueue().post(
                        [cache = m_context.options().cache, snapshot] { cache->write(*snapshot); });
                }
                m_isLoading = false;
                m_context.notify(PeopleChange::loading | PeopleChange::timings);
                finishBody();
            });
        });
}

void PeopleLoader::readChanges() {
    struct ChangesRead {
        std::optional<AddressBookError> error;
        bool startOver = false;
        std::shared_ptr<RawUpdate> update;
    };
    const auto start = m_context.clock().monotonicNow();
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), token = *m_historyToken] {
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
            // An account folder made or removed since the last read changes
            // the accounts, and the sidebar and the counts follow at once
            // rather than at the next full read. Listing them is cheap.
            if (auto accounts = book->accounts(); accounts.ok()) {
                read.update->accounts = std::move(accounts.value());
            }
            return read;
        },
        [this, start](ChangesRead read) {
            if (read.error) {
                m_context.log().info("fetch failed: " + read.error->description());
                finishBody();
                return;
            }
            if (read.startOver) {
                m_context.log().info("changes: start over");
                fullRead();
                return;
            }
            const auto changed = read.update->changed.size();
            const auto deleted = read.update->deleted.size();
            const auto finish = [this, start, changed, deleted, update = read.update] {
                forgetCards(*update);
                if (changed > 0 || deleted > 0) {
                    absorbIntoCache();
                }
                m_timings.refreshedAt = m_context.clock().now();
                m_timings.refreshKind = "changes";
                const auto milliseconds = m_context.clock().millisecondsSince(start);
                if (changed == 0 && deleted == 0) {
                    m_context.log().info(fmt::format("changes: 0 changed, 0 deleted in {} ms", milliseconds));
                } else {
                    m_context.log().info(fmt::format("refresh from changes: {} changed, {} deleted in {} ms",
                                                     changed, deleted, milliseconds));
                }
                m_context.notify(PeopleChange::timings);
                finishBody();
            };
            if (changed == 0 && deleted == 0) {
                if (read.update->token) {
                    m_historyToken = std::move(read.update->token);
                }
                if (read.update->accounts && *read.update->accounts != m_accounts) {
                    applyUpdate(read.update, finish);
                    return;
                }
                finish();
                return;
            }
            applyUpdate(read.update, finish);
        });
}

void PeopleLoader::absorbIntoCache() {
    // Once a run: what the start replayed is what every later start would
    // replay again. Changes seen while the list is open are few and read
    // alone at the next start, which absorbs them then; rewriting tens of
    // megabytes after every edit would cost more than replaying them.
    if (!m_context.options().cache || !m_historyToken || m_cacheAbsorbed) {
        return;
    }
    m_cacheAbsorbed = true;
    // The cards as they are now shown, with the token after the changes, so
    // that the next start has nothing to replay. The time of the full read
    // stays that of the last real one: replayed changes do not make a cache
    // younger. Copied on the cache's queue, off the main thread.
    m_context.cacheQueue().post([cache = m_context.options().cache, joined = m_joined, accounts = m_accounts,
                                 token = *m_historyToken, fullReadAt = m_fullReadAt] {
        AddressBookSnapshot snapshot;
        snapshot.people.reserve(joined->raw.size());
        for (const auto& card : joined->raw) {
            snapshot.people.push_back(*card);
        }
        snapshot.accounts = accounts;
        snapshot.historyToken = token;
        snapshot.fullReadAt = fullReadAt;
        cache->write(snapshot);
    });
}

void PeopleLoader::forgetCards(const RawUpdate& update) {
    // Another program changed these cards: the page and the rows must not
    // keep showing the copies read before. The next look-up reads them again.
    bool forgot = false;
    const auto forget = [&](const std::string& id) {
        if (m_cardCache.contains(id)) {
            m_cardCache.erase(id);
            forgot = true;
        }
        m_thumbnails.erase(id);
    };
    for (const auto& person : update.changed) {
        forget(person->id);
    }
    for (const auto& id : update.deleted) {
        forget(id);
    }
    // A read begun before the change may answer with the card as it was.
    for (const auto& [cardID, load] : m_cardLoads) {
        const bool changed =
            update.deleted.contains(cardID) ||
            std::any_of(update.changed.begin(), update.changed.end(),
                        [&id = cardID](const PersonPtr& person) { return person->id == id; });
        if (changed) {
            startCardLoad(cardID);
        }
    }
    PeopleChanges changes = PeopleChange::thumbnails;
    if (forgot) {
        ++m_cardsVersion;
        changes |= PeopleChange::cards;
    }
    if (!update.changed.empty() || !update.deleted.empty()) {
        m_context.notify(changes);
    }
}

void PeopleLoader::noticeArrived() {
    ++m_notices;
    if (m_gatheringNotices || m_holdingNotices) {
        return;
    }
    // A sync run writes many files in a burst: their notices become one load.
    m_gatheringNotices = true;
    m_context.onMain(
        [this] {
            m_gatheringNotices = false;
            const int notices = std::exchange(m_notices, 0);
            m_context.log().info(fmt::format("store changed: {} notices", notices));
            load({});
        },
        m_context.options().noticeDelay);
}

void PeopleLoader::requestAccess(std::function<void(AddressBookAccess)> done) {
    m_context.runOn(
        m_context.background(), [book = m_context.book()] { return book->requestAccess(); },
        [this, done = std::move(done)](AddressBookAccess access) {
            if (access != m_access) {
                m_access = access;
                m_context.notify(PeopleChange::access);
            }
            if (done) {
                done(access);
            }
        });
}

void PeopleLoader::refetch(std::vector<std::string> cardIDs, std::function<void()> done) {
    m_context.log().info(fmt::format("refetch: {} ids", cardIDs.size()));
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
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), cardIDs, cached] {
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
                m_context.log().info("refetch failed: " + refetched.error->description());
                if (done) {
                    done();
                }
                return;
            }
            const auto fetched = refetched.update->changed.size();
            applyUpdate(refetched.update, [this, fetched, cardIDs, cards = std::move(refetched.cards),
                                           done = std::move(done)]() mutable {
                m_context.log().info(fmt::format("refetch: fetched {}", fetched));
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
                PeopleChanges changes = PeopleChange::thumbnails;
                if (!cards.empty()) {
                    ++m_cardsVersion;
                    changes |= PeopleChange::cards;
                }
                m_context.notify(changes);
                if (done) {
                    done();
                }
            });
        });
}

void PeopleLoader::reconcile(std::function<void()> done) {
    m_context.log().info("reconcile: start");
    struct Comparison {
        bool read = false;
        std::size_t count = 0;
        long long milliseconds = 0;
        std::set<std::string> gone;
        std::vector<std::string> added;
    };
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), base = m_joined, clock = &m_context.clock()] {
            Comparison comparison;
            const auto start = clock->monotonicNow();
            auto ids = book->allCardIDs();
            comparison.milliseconds = clock->millisecondsSince(start);
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
                m_context.log().info("reconcile: no IDs read");
                if (done) {
                    done();
                }
                return;
            }
            m_context.log().info(
                fmt::format("reconcile: {} IDs in {} ms", comparison.count, comparison.milliseconds));
            m_context.log().info(
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

void PeopleLoader::applyUpdate(std::shared_ptr<const RawUpdate> update, std::function<void()> then) {
    auto base = m_joined;
    m_context.runOn(
        m_context.background(),
        [base, update, order = m_shown.view().order] { return prepare(*base, *update, order); },
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
            m_context.background().post([replaced = std::move(base), read = std::move(update)] {});
            if (then) {
                then();
            }
        });
}

void PeopleLoader::install(const RawUpdate& update, Prepared prepared) {
    const auto start = m_context.clock().monotonicNow();
    PeopleChanges changes = PeopleChange::people | PeopleChange::sections;
    if (update.token) {
        m_historyToken = update.token;
    }
    if (update.fullReadAt && update.fullReadAt != m_fullReadAt) {
        m_fullReadAt = update.fullReadAt;
    }
    if (update.accounts) {
        m_accounts = *update.accounts;
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
        changes |= PeopleChange::loading;
    }

    changes |= m_shown.replacePeople(m_joined, m_peopleVersion, update.accounts ? &m_accounts : nullptr,
                                     prepared.order, std::move(prepared.sections));
    m_context.log().info(fmt::format("apply: {} people, {} ms on main", m_joined->people.size(),
                                     m_context.clock().millisecondsSince(start)));
    m_shown.startIndex();
    m_context.notify(changes);
    if (m_context.options().pastJobs && !m_shown.pastJobsRead()) {
        m_shown.reloadPastJobs({});
    }
}

// --- Look-ups ----------------------------------------------------------------

PersonPtr PeopleLoader::person(std::string_view id) const {
    if (const auto alias = m_aliases.find(id); alias != m_aliases.end()) {
        id = alias->second;
    }
    return m_joined->find(id);
}

std::optional<std::string> PeopleLoader::groupOf(std::string_view cardID) const {
    if (const auto personID = m_joined->personIDOf(cardID)) {
        return std::string(*personID);
    }
    return std::nullopt;
}

void PeopleLoader::addAlias(std::string oldID, std::string newID) {
    if (oldID != newID) {
        m_aliases.insert_or_assign(std::move(oldID), std::move(newID));
    }
}

void PeopleLoader::card(const std::string& cardID, std::function<void(std::optional<ContactCard>)> done) {
    if (const auto* cached = m_cardCache.find(cardID)) {
        m_context.onMain([card = *cached, done = std::move(done)] { done(card); });
        return;
    }
    auto& load = m_cardLoads[cardID];
    load.callers.push_back(std::move(done));
    if (load.callers.size() > 1) {
        return; // one read per card at a time; this caller shares it
    }
    startCardLoad(cardID);
}

void PeopleLoader::startCardLoad(const std::string& cardID) {
    const auto generation = ++m_cardLoadGeneration;
    m_cardLoads[cardID].generation = generation;
    m_context.runOn(
        m_context.background(), [book = m_context.book(), cardID] { return book->card(cardID); },
        [this, cardID, generation](Result<ContactCard, AddressBookError> card) {
            const auto found = m_cardLoads.find(cardID);
            if (found == m_cardLoads.end() || found->second.generation != generation) {
                return; // the card changed on disk meanwhile: a newer read answers
            }
            auto callers = std::move(found->second.callers);
            m_cardLoads.erase(found);
            std::optional<ContactCard> answer;
            if (card.ok()) {
                answer = std::move(card.value());
                m_cardCache.insert(cardID, *answer);
                ++m_cardsVersion;
                m_context.notify(PeopleChange::cards);
            }
            for (auto& caller : callers) {
                if (caller) {
                    caller(answer);
                }
            }
        });
}

ThumbnailBytes PeopleLoader::thumbnail(const std::string& cardID) {
    const auto entry = m_thumbnails.find(cardID);
    if (entry.known) {
        return entry.bytes;
    }
    if (m_thumbnailLoads.insert(cardID).second) {
        // The rows a view draws in one pass ask together: one store call.
        m_thumbnailBatch.push_back(cardID);
        if (m_thumbnailBatch.size() == 1) {
            m_context.onMain([this] { requestThumbnails(); });
        }
    }
    return nullptr;
}

void PeopleLoader::requestThumbnails() {
    auto batch = std::exchange(m_thumbnailBatch, {});
    m_context.runOn(
        m_context.background(), [book = m_context.book(), batch] { return book->thumbnails(batch); },
        [this, batch](std::map<std::string, std::vector<std::uint8_t>> thumbnails) {
            for (const auto& id : batch) {
                m_thumbnailLoads.erase(id);
                const auto found = thumbnails.find(id);
                m_thumbnails.insert(
                    id, found == thumbnails.end()
                            ? nullptr
                            : std::make_shared<const std::vector<std::uint8_t>>(std::move(found->second)));
            }
            m_context.notify(PeopleChange::thumbnails);
        });
}

} // namespace kinbook
