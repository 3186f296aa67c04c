#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/CardCache.h"
#include "KinbookKit/people/PastJobSource.h"
#include "KinbookKit/people/PersonJoin.h"
#include "KinbookKit/people/SearchIndex.h"
#include "KinbookKit/people/SearchQuery.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/people/SnapshotCache.h"
#include "KinbookKit/people/SortOrder.h"
#include "KinbookKit/people/ThumbnailCache.h"
#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/text/KinLog.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace kinbook {

// Sections are shared, never copied, between the index, the shown list and
// the last search: switching the sort order is then a look-up.
//
// The lists the filters and the search make lend their people instead of
// sharing them: a person taken out of such a list stays alive as long as
// the list does. Keep the list, or look the person up with person(), to
// keep a person longer.
using SectionList = std::shared_ptr<const std::vector<Section>>;

// Why a user action failed: the address book's refusal, or a full circle.
// Shown to the user as an alert.
struct ActionError {
    std::variant<AddressBookError, CircleError> error;

    std::string description() const;
    bool operator==(const ActionError&) const = default;
};

using ActionResult = Result<void, ActionError>;

// Runs a change the address book could not make itself because the card
// carries a note (the scripting path). None: the address book's own
// writeThroughContactsApp.
using ScriptRunner = std::function<Result<void, AddressBookError>(const SaveOutcome&)>;

struct PeopleListOptions {
    // The last full read, shown at start before the store is read; none
    // runs without one.
    std::shared_ptr<SnapshotCache> cache;
    // Everyone's past jobs, for search; none: nobody has any until
    // setPastJobs() says so.
    std::shared_ptr<PastJobSource> pastJobs;
    // The list's log (category "list"); none: the app log.
    std::shared_ptr<KinLog> log;
    // What time it is, for the one-day rule and the refresh time shown.
    std::function<std::chrono::system_clock::time_point()> wallClock;
    // What every logged duration is measured with. Called from any thread.
    std::function<std::chrono::steady_clock::time_point()> monotonicClock;
    // How long typing settles before the list is searched.
    std::chrono::milliseconds searchDelay{60};
    // How long store notices are gathered into one refresh.
    std::chrono::milliseconds noticeDelay{500};
    ScriptRunner runScript;
};

// The people list: the one model every view and the command-line tool read.
// It loads the people from the address book (the cached snapshot first, then
// the store), joins the cards of one human into one person, keeps them
// current from the store's change history, and serves the shown sections,
// headings, counts, search and look-ups. It also hosts the operations that
// change people, each ending by reading the touched cards again.
//
// Threads. Every member is called on the main executor, and every state
// below is owned by it: reading it needs no lock. Store reads, joining, the
// index and the cache run on the background executor (the cache on its own
// serial queue over it) and hand their results back to the main executor.
// Results that arrive after the list is gone are dropped. Both executors
// must outlive the list and every task it posted; the address book, the
// cache and the past-job source are shared with those tasks and so may be
// dropped by the caller at any time.
//
// Asynchronous operations take a completion called on the main executor.
// Views are told of changes through observe(); they never touch the store.
class PeopleList {
public:
    // What changed, for observers; one call may carry several.
    enum class Change : std::uint32_t {
        access = 1u << 0,
        people = 1u << 1,   // people(), person(), counts and accounts may differ
        sections = 1u << 2, // sections(), headings(), matchCount(), flat order
        loading = 1u << 3,  // isLoading(), errorMessage()
        actionError = 1u << 4,
        timings = 1u << 5,
        filters = 1u << 6,    // sort order, direction, account, circle, hidden, heading filters
        search = 1u << 7,     // searchInput(), searchText()
        cards = 1u << 8,      // cachedCard(), cardsVersion()
        thumbnails = 1u << 9, // thumbnail() has new answers
        pastJobs = 1u << 10,
        index = 1u << 11,
    };
    class Changes {
    public:
        constexpr Changes() = default;
        constexpr Changes(Change change) : m_bits(static_cast<std::uint32_t>(change)) {}
        constexpr Changes operator|(Changes other) const { return Changes(m_bits | other.m_bits); }
        constexpr Changes& operator|=(Changes other) {
            m_bits |= other.m_bits;
            return *this;
        }
        constexpr bool contains(Change change) const {
            return (m_bits & static_cast<std::uint32_t>(change)) != 0;
        }
        constexpr bool empty() const { return m_bits == 0; }
        constexpr bool operator==(const Changes&) const = default;

    private:
        constexpr explicit Changes(std::uint32_t bits) : m_bits(bits) {}
        std::uint32_t m_bits = 0;
    };
    friend constexpr Changes operator|(Change left, Change right) { return Changes(left) | Changes(right); }
    using Observer = std::function<void(Changes)>;

    struct Timings {
        std::optional<long long> cacheMs; // reading the cache
        std::optional<long long> fetchMs; // the last full read
        std::optional<std::chrono::system_clock::time_point> refreshedAt;
        std::optional<std::string> refreshKind; // "full" or "changes"

        bool operator==(const Timings&) const = default;
    };

    // The last search's result, which the next keystroke narrows when the
    // user typed more under the same order, direction and filters.
    struct LastSearch {
        std::string key;
        std::string query; // folded
        SectionList sections;
        // Where each of those people is in the search index, in order; null
        // when the result was made before the index.
        std::shared_ptr<const std::vector<std::uint32_t>> positions;
    };

    PeopleList(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
               PeopleListOptions options = {});
    ~PeopleList();

    PeopleList(const PeopleList&) = delete;
    PeopleList& operator=(const PeopleList&) = delete;

    // --- Observation ---------------------------------------------------------

    // Calls `observer` on the main executor after every change, until
    // unobserve(). Returns the observer's handle.
    std::uint64_t observe(Observer observer);
    void unobserve(std::uint64_t handle);

    // --- Loading -------------------------------------------------------------

    // Loads the people: the cached snapshot when nothing is shown yet, then
    // the changes since the last read when it is younger than a day, else
    // everything. Calls `done` once a load that began no earlier than this
    // call has finished. Calls made while a load runs wait for it and then
    // share exactly one more run.
    void load(std::function<void()> done = {});
    // Asks for access to the address book (which may create it), then calls
    // `done` with the answer.
    void requestAccess(std::function<void(AddressBookAccess)> done = {});
    // Reads the given cards again after an operation changed them; cards
    // that are gone leave the list.
    void refetch(std::vector<std::string> cardIDs, std::function<void()> done = {});
    // Checks that the list holds the same cards as the store: drops the gone
    // ones and reads the new ones. An empty answer from the store changes
    // nothing, as it is taken for a failed read.
    void reconcile(std::function<void()> done = {});

    AddressBookAccess access() const { return m_access; }
    bool isLoading() const { return m_isLoading; }
    // The reason a load failed while nothing could be shown ("Couldn't Load Contacts").
    const std::optional<std::string>& errorMessage() const { return m_errorMessage; }
    const Timings& timings() const { return m_timings; }
    const std::optional<std::vector<std::uint8_t>>& historyToken() const { return m_historyToken; }
    const std::optional<std::chrono::system_clock::time_point>& fullReadAt() const { return m_fullReadAt; }
    bool isWatching() const { return m_observer.has_value(); }

    // --- People and look-ups -------------------------------------------------

    // The people, one per human, by sortKey.
    const std::vector<PersonPtr>& people() const { return m_joined->people; }
    // The people of the last read, one per card.
    const std::vector<PersonPtr>& raw() const { return m_joined->raw; }
    std::uint64_t peopleVersion() const { return m_peopleVersion; }
    const std::vector<Account>& accounts() const { return m_accounts; }
    const std::map<std::string, int>& accountCounts() const { return m_joined->accountCounts; }
    int hiddenCount() const { return m_joined->hiddenCount; }
    const CircleCounts& circleCounts() const { return m_joined->circleCounts; }

    // The person that any id of theirs names: their id, any card's id, or
    // an id they no longer carry. Null for an unknown id.
    PersonPtr person(std::string_view id) const;
    // The id of the person holding a card.
    std::optional<std::string> groupOf(std::string_view cardID) const;
    // Ids that no longer name a person, each to the id that replaced it.
    const std::map<std::string, std::string, std::less<>>& aliases() const { return m_aliases; }
    // Records that `oldID` now goes by `newID` (a merge retires an id).
    void addAlias(std::string oldID, std::string newID);

    // A card in full for the person's page, from the cache of recent cards
    // or read from the store; none when it no longer exists.
    void card(const std::string& cardID, std::function<void(std::optional<ContactCard>)> done);
    // The card when it is in the cache of recent cards.
    const ContactCard* cachedCard(std::string_view cardID) const { return m_cardCache.find(cardID); }
    const CardCache& cardCache() const { return m_cardCache; }
    std::uint64_t cardsVersion() const { return m_cardsVersion; }

    // The card's thumbnail when known. Null otherwise: the store is then
    // asked, and observers hear `thumbnails` when it answers.
    ThumbnailBytes thumbnail(const std::string& cardID);

    // --- What is shown -------------------------------------------------------

    const std::vector<Section>& sections() const { return *m_sections; }
    const SectionList& sharedSections() const { return m_sections; }
    // One per section before the heading filter, so the column lists them all.
    const std::vector<Heading>& headings() const { return m_headings; }
    // People left by the search and filters (before the heading filter).
    int matchCount() const { return m_matchCount; }
    std::uint64_t listID() const { return m_listID; }
    std::uint64_t scrollToTopToken() const { return m_scrollToTopToken; }

    // The ids of the shown people in display order, and where each is, for
    // moving the selection across section borders.
    const std::vector<std::string>& flatIDs();
    std::optional<std::size_t> flatPosition(std::string_view id);

    // The sections of an order as the index holds them (ascending); null
    // until built.
    SectionList indexed(SortOrder order) const;
    bool isIndexing() const { return m_indexCancel != nullptr; }

    // --- Search --------------------------------------------------------------

    const std::string& searchInput() const { return m_searchInput; }
    const std::string& searchText() const { return m_searchText; }
    // What the search field holds; the list is searched once typing settles.
    void setSearchInput(std::string text);
    // Searches at once (the tool).
    void setSearchText(std::string text);
    const std::optional<LastSearch>& lastSearch() const { return m_lastSearch; }

    // Person id to the folded text of their past jobs.
    const std::map<std::string, std::string>& pastJobText() const { return m_pastJobText; }
    std::uint64_t pastJobsVersion() const { return m_pastJobsVersion; }
    // Reads everyone's past jobs from the source again.
    void reloadPastJobs(std::function<void()> done = {});
    // A person's past jobs changed (the page saved "jobs.json").
    void setPastJobs(std::string_view personID, const std::vector<PastJob>& jobs);

    // --- Order and filters ---------------------------------------------------

    SortOrder sortOrder() const { return m_sortOrder; }
    void setSortOrder(SortOrder order);
    bool descending() const { return m_descending; }
    void setDescending(bool descending);
    const std::optional<std::string>& accountFilter() const { return m_accountFilter; }
    void setAccountFilter(std::optional<std::string> accountID);
    std::optional<ContactCircle> circleFilter() const { return m_circleFilter; }
    void setCircleFilter(std::optional<ContactCircle> circle);
    bool showingHidden() const { return m_showingHidden; }
    void setShowingHidden(bool showing);
    const std::optional<std::string>& headingFilter() const { return m_headingFilter; }
    void setHeadingFilter(std::optional<std::string> title);
    // People on their way to the Trash, left out of the list at once.
    const std::set<std::string>& pendingTrash() const { return m_pendingTrash; }
    void setPendingTrash(std::set<std::string> personIDs);

    // --- Operations ----------------------------------------------------------

    // Marks an entry (a phone, e-mail or address, by its identity) of a card
    // former ("ex-work"), or current again. Only the label changes.
    void markFormer(const std::string& cardID, const std::string& entryID,
                    std::function<void(ActionResult)> done);
    void markCurrent(const std::string& cardID, const std::string& entryID,
                     std::function<void(ActionResult)> done);
    // Places a person in a circle (none: out of every circle), written into
    // every card of theirs. Refused with CircleError when the circle, or one
    // outside it, is full; clearing is never refused.
    void setCircle(std::string_view personID, std::optional<ContactCircle> circle,
                   std::function<void(ActionResult)> done);
    // Hides a person from the list (archives them), or shows them again.
    void setHidden(std::string_view personID, bool hidden, std::function<void(ActionResult)> done);

    // The last user action's failure, shown as an alert until cleared.
    const std::optional<std::string>& actionError() const { return m_actionError; }
    void clearActionError();

private:
    struct RawUpdate;
    struct Prepared;

    // Runs `work` on `where` and hands its result to `then` on the main
    // executor, unless the list is gone by then.
    template <typename Work, typename Then>
    void runOn(Executor& where, Work work, Then then);
    template <typename Task>
    void onMain(Task task, std::chrono::milliseconds delay = {});

    void notify(Changes changes);
    long long millisecondsSince(std::chrono::steady_clock::time_point start) const;

    // The load body, step by step.
    void runBody();
    void afterAccess();
    void afterCache();
    void fullRead();
    void fullReadDetails();
    void readChanges();
    void finishBody();
    void noticeArrived();

    // Joining a read in the background and putting the result in place.
    static Prepared prepare(const JoinedPeople& base, const RawUpdate& update, SortOrder order);
    void applyUpdate(std::shared_ptr<const RawUpdate> update, std::function<void()> then);
    void install(const RawUpdate& update, Prepared prepared);
    void startIndex();

    // Sections with each person's position in the search index, in display
    // order; positions are null until the index is built.
    struct ShownList {
        SectionList sections;
        std::shared_ptr<const std::vector<std::uint32_t>> positions;
    };
    // What the filters test of each person, by search-index position, so
    // that filtering reads a few flat arrays instead of every person.
    struct FilterFacts;

    // The shown list.
    std::shared_ptr<const std::vector<std::uint32_t>>
    positionsFor(const std::vector<Section>& sections) const;
    ShownList directedList(SortOrder order);
    ShownList filteredList();
    ShownList searched(const ShownList& source, const SearchQuery& query);
    std::string filterKey() const;
    std::string lastSearchKey() const;
    void rebuild();
    // Lets a list go on the background executor when this was its last
    // holder: freeing 100,000 shared people is not the keystroke's work.
    void releaseLater(SectionList list);
    bool recomputePastJobText(); // true when the text changed
    void placePastJobs();
    const std::string* pastJobsOf(const Person& person) const;

    void changeAnchors(std::vector<std::string> cardIDs, std::function<void(KinID::Anchor&)> change,
                       std::function<void(ActionResult)> done);
    void changeLabel(const std::string& cardID, const std::string& entryID, bool former,
                     std::function<void(ActionResult)> done);
    void finishAction(Result<void, AddressBookError> result, std::vector<std::string> cardIDs,
                      std::function<void(ActionResult)> done);
    void failAction(ActionError error, const std::function<void(ActionResult)>& done);
    void requestThumbnails();

    Executor& m_main;
    Executor& m_background;
    SerialQueue m_cacheQueue; // the snapshot cache's own queue over the background executor
    std::shared_ptr<AddressBook> m_book;
    PeopleListOptions m_options;
    std::shared_ptr<KinLog> m_log;
    // Held only by the list; background work holds a weak reference and
    // drops its result once the list is gone.
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);

    // Everything below belongs to the main executor.
    AddressBookAccess m_access = AddressBookAccess::notDetermined;
    std::shared_ptr<const JoinedPeople> m_joined;
    bool m_applied = false; // some people have been shown (from the cache or a read)
    std::uint64_t m_peopleVersion = 0;
    std::map<std::string, std::string, std::less<>> m_aliases;
    std::vector<Account> m_accounts;

    std::map<std::string, std::string> m_pastJobText;
    std::map<std::string, std::string> m_pastJobsByKey; // KinID (else person id) -> folded text
    std::unordered_map<const Person*, const std::string*> m_pastJobLookup;
    std::vector<const std::string*> m_pastJobsByPosition; // by search-index position, when anyone has some
    std::uint64_t m_pastJobsVersion = 0;
    bool m_pastJobsRead = false;

    SectionList m_sections;
    std::vector<Heading> m_headings;
    int m_matchCount = 0;
    std::uint64_t m_listID = 0;
    std::uint64_t m_scrollToTopToken = 0;
    std::optional<LastSearch> m_lastSearch;

    bool m_isLoading = false;
    std::optional<std::string> m_errorMessage;
    std::optional<std::string> m_actionError;
    Timings m_timings;

    std::string m_searchInput;
    std::string m_searchText;
    bool m_searchTaskPending = false;

    SortOrder m_sortOrder = SortOrder::lastName;
    bool m_descending = false;
    std::optional<std::string> m_accountFilter;
    std::optional<ContactCircle> m_circleFilter;
    bool m_showingHidden = false;
    std::optional<std::string> m_headingFilter;
    std::set<std::string> m_pendingTrash;
    std::uint64_t m_pendingTrashVersion = 0;

    std::map<SortOrder, ShownList> m_index;           // ascending, per order
    std::map<SortOrder, ShownList> m_descendingIndex; // made on first use
    std::map<SortOrder, ShownList> m_visibleIndex;    // ascending, hidden people left out
    std::map<std::string, ShownList> m_filtered;      // by filterKey(), made on first use
    std::shared_ptr<const SearchIndex> m_searchIndex;
    std::shared_ptr<const FilterFacts> m_facts; // with the search index
    std::vector<std::uint8_t> m_matched;        // one flag per search-index position, reused by each search
    std::shared_ptr<std::atomic<bool>> m_indexCancel; // the running index task's

    std::optional<std::vector<std::uint8_t>> m_historyToken;
    std::optional<std::chrono::system_clock::time_point> m_fullReadAt;
    std::optional<ChangeObserverID> m_observer; // none: not hearing of the store's changes
    bool m_watchFailureLogged = false;
    int m_notices = 0;
    bool m_gatheringNotices = false;

    ThumbnailCache m_thumbnails;
    std::set<std::string> m_thumbnailLoads;    // asked of the store
    std::vector<std::string> m_thumbnailBatch; // to be asked on the next turn

    CardCache m_cardCache;
    std::map<std::string, std::vector<std::function<void(std::optional<ContactCard>)>>> m_cardLoads;
    std::uint64_t m_cardsVersion = 0;

    std::vector<std::string> m_flatIDs;
    std::unordered_map<std::string_view, std::size_t> m_flatPos;
    std::int64_t m_flatListID = -1;

    bool m_loading = false;
    bool m_reloadRequested = false;
    std::vector<std::function<void()>> m_waiters; // callers waiting for a further run
    std::vector<std::function<void()>> m_runners; // the callers that started the running load

    std::map<std::uint64_t, Observer> m_observers;
    std::uint64_t m_nextObserver = 1;
};

} // namespace kinbook
