#pragma once

#include "KinbookKit/people/CardCache.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PersonJoin.h"
#include "KinbookKit/people/ShownPeople.h"
#include "KinbookKit/people/ThumbnailCache.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The people as read from the address book: the cached snapshot first, then
// the names, then everything, later only the changes since the last read;
// each read joined into people in the background and put in place on the
// main executor, where the shown people are rebuilt from it. Also reads the
// cards and thumbnails the views ask for, and keeps the ids that a merge or
// a new leading card retired.
//
// Threads. As the people list: every member on the main executor; reads
// and joins run on the background executor, the cache on its own queue.
class PeopleLoader {
public:
    struct Timings {
        std::optional<long long> cacheMs; // reading the cache
        std::optional<long long> fetchMs; // the last full read
        std::optional<std::chrono::system_clock::time_point> refreshedAt;
        std::optional<std::string> refreshKind; // "full" or "changes"

        bool operator==(const Timings&) const = default;
    };

    PeopleLoader(PeopleListContext& context, ShownPeople& shown);
    ~PeopleLoader();

    PeopleLoader(const PeopleLoader&) = delete;
    PeopleLoader& operator=(const PeopleLoader&) = delete;

    // --- Loading (see PeopleList) -------------------------------------------------

    void load(std::function<void()> done);
    void requestAccess(std::function<void(AddressBookAccess)> done);
    void refetch(std::vector<std::string> cardIDs, std::function<void()> done);
    void reconcile(std::function<void()> done);
    // While a batch of the list's own changes runs, the store's notices of
    // them wait instead of reloading the list again and again. Releasing
    // says whether any came; the batch then ends with one load.
    void holdNotices() { m_holdingNotices = true; }
    bool releaseNotices() {
        m_holdingNotices = false;
        return std::exchange(m_notices, 0) > 0;
    }

    AddressBookAccess access() const { return m_access; }
    bool isLoading() const { return m_isLoading; }
    const std::optional<std::string>& errorMessage() const { return m_errorMessage; }
    const Timings& timings() const { return m_timings; }
    const std::optional<std::vector<std::uint8_t>>& historyToken() const { return m_historyToken; }
    const std::optional<std::chrono::system_clock::time_point>& fullReadAt() const { return m_fullReadAt; }
    bool isWatching() const { return m_observer.has_value(); }

    // --- People and look-ups ------------------------------------------------------

    const JoinedPeople& joined() const { return *m_joined; }
    std::uint64_t peopleVersion() const { return m_peopleVersion; }
    const std::vector<Account>& accounts() const { return m_accounts; }
    PersonPtr person(std::string_view id) const;
    std::optional<std::string> groupOf(std::string_view cardID) const;
    const std::map<std::string, std::string, std::less<>>& aliases() const { return m_aliases; }
    void addAlias(std::string oldID, std::string newID);
    // Lets `id` stand for itself again (a card that took over from the one it led to).
    void removeAlias(std::string_view id) {
        if (const auto found = m_aliases.find(id); found != m_aliases.end()) {
            m_aliases.erase(found);
        }
    }

    // --- Cards and thumbnails -------------------------------------------------------

    void card(const std::string& cardID, std::function<void(std::optional<ContactCard>)> done);
    const CardCache& cardCache() const { return m_cardCache; }
    std::uint64_t cardsVersion() const { return m_cardsVersion; }
    ThumbnailBytes thumbnail(const std::string& cardID);

private:
    struct RawUpdate;
    struct Prepared;

    // The load body, step by step.
    void runBody();
    void afterAccess();
    void afterCache();
    void fullRead();
    void fullReadDetails();
    void readChanges();
    // Drops the cached cards and thumbnails of the cards an update changed
    // or deleted, and tells the views.
    void forgetCards(const RawUpdate& update);
    // Writes the people as now shown to the cache after replayed changes.
    void absorbIntoCache();
    // Reads a card for the callers waiting in m_cardLoads.
    void startCardLoad(const std::string& cardID);
    void finishBody();
    void noticeArrived();

    // Joining a read in the background and putting the result in place.
    static Prepared prepare(const JoinedPeople& base, const RawUpdate& update, SortOrder order);
    void applyUpdate(std::shared_ptr<const RawUpdate> update, std::function<void()> then);
    void install(const RawUpdate& update, Prepared prepared);

    void requestThumbnails();

    PeopleListContext& m_context;
    ShownPeople& m_shown;

    // Everything below belongs to the main executor.
    AddressBookAccess m_access = AddressBookAccess::notDetermined;
    std::shared_ptr<const JoinedPeople> m_joined;
    bool m_applied = false; // some people have been shown (from the cache or a read)
    std::uint64_t m_peopleVersion = 0;
    std::map<std::string, std::string, std::less<>> m_aliases;
    std::vector<Account> m_accounts;

    bool m_isLoading = false;
    std::optional<std::string> m_errorMessage;
    Timings m_timings;

    std::optional<std::vector<std::uint8_t>> m_historyToken;
    std::optional<std::chrono::system_clock::time_point> m_fullReadAt;
    std::optional<ChangeObserverID> m_observer; // none: not hearing of the store's changes
    bool m_cacheAbsorbed = false;               // replayed changes were written to the cache
    bool m_watchFailureLogged = false;
    int m_notices = 0;
    bool m_gatheringNotices = false;
    bool m_holdingNotices = false;

    bool m_loading = false;
    bool m_reloadRequested = false;
    std::vector<std::function<void()>> m_waiters; // callers waiting for a further run
    std::vector<std::function<void()>> m_runners; // the callers that started the running load

    ThumbnailCache m_thumbnails;
    std::set<std::string> m_thumbnailLoads;    // asked of the store
    std::vector<std::string> m_thumbnailBatch; // to be asked on the next turn

    CardCache m_cardCache;
    // A card read in flight and who waits for it. A read another program's
    // change overtook is superseded by a new one (a higher generation), and
    // its answer, which may be the card as it was, is dropped.
    struct CardLoad {
        std::uint64_t generation = 0;
        std::vector<std::function<void(std::optional<ContactCard>)>> callers;
    };
    std::map<std::string, CardLoad> m_cardLoads;
    std::uint64_t m_cardLoadGeneration = 0;
    std::uint64_t m_cardsVersion = 0;
};

} // namespace kinbook
