#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PastJobSource.h"
#include "KinbookKit/people/SnapshotCache.h"
#include "KinbookKit/text/KinLog.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace kinbook {

// What changed in the people list, for its observers; one call may carry several.
enum class PeopleChange : std::uint32_t {
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
    trash = 1u << 15,    // the Trash's entries, whether it shows, a batch's progress
    accounts = 1u << 20, // a move or copy between accounts: its progress
};

class PeopleChanges {
public:
    constexpr PeopleChanges() = default;
    constexpr PeopleChanges(PeopleChange change) : m_bits(static_cast<std::uint32_t>(change)) {}
    constexpr PeopleChanges operator|(PeopleChanges other) const {
        return PeopleChanges(m_bits | other.m_bits);
    }
    constexpr PeopleChanges& operator|=(PeopleChanges other) {
        m_bits |= other.m_bits;
        return *this;
    }
    constexpr bool contains(PeopleChange change) const {
        return (m_bits & static_cast<std::uint32_t>(change)) != 0;
    }
    constexpr bool empty() const { return m_bits == 0; }
    constexpr bool operator==(const PeopleChanges&) const = default;

private:
    constexpr explicit PeopleChanges(std::uint32_t bits) : m_bits(bits) {}
    std::uint32_t m_bits = 0;
};

constexpr PeopleChanges operator|(PeopleChange left, PeopleChange right) {
    return PeopleChanges(left) | PeopleChanges(right);
}

// Runs a change the address book could not make itself because the card
// carries a note (the scripting path). None: the address book's own
// writeThroughContactsApp.
using ScriptRunner = std::function<Result<void, AddressBookError>(const SaveOutcome&)>;

// Reads the notes of cards, one text per card in order ("" for none), the
// way a card with a note is read where the store locks notes: through the
// Contacts application. Called off the main thread.
using NoteReader = std::function<std::vector<std::string>(const std::vector<std::string>& cardIDs)>;

struct PeopleListOptions {
    // The last full read, shown at start before the store is read; none
    // runs without one.
    std::shared_ptr<SnapshotCache> cache;
    // Everyone's past jobs, for search; none: nobody has any until
    // setPastJobs() says so.
    std::shared_ptr<PastJobSource> pastJobs;
    // The list's log (category "list"); none: the app log.
    std::shared_ptr<KinLog> log;
    // What time it is: the wall clock for the one-day rule and the refresh
    // time shown, the monotonic clock for every logged duration. Read from
    // any thread; must outlive the list and every task it posted. None: the
    // system's.
    const Clock* clock = nullptr;
    // How long typing settles before the list is searched.
    std::chrono::milliseconds searchDelay{60};
    // How long store notices are gathered into one refresh.
    std::chrono::milliseconds noticeDelay{500};
    ScriptRunner runScript;
    // None: the page shows no notes.
    NoteReader readNotes;
};

// What the parts of the people list share: the executors, the address book,
// the options, the log, the clock, the observers and the list's life.
//
// Owned by the list and used on the main executor only. Work posted through
// runOn() or onMain() holds a weak reference to the list's life and drops its
// result once the list is gone, so no part hears of anything after that.
class PeopleListContext {
public:
    using Observer = std::function<void(PeopleChanges)>;

    PeopleListContext(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
                      PeopleListOptions options);

    PeopleListContext(const PeopleListContext&) = delete;
    PeopleListContext& operator=(const PeopleListContext&) = delete;

    Executor& main() const { return m_main; }
    Executor& background() const { return m_background; }
    // The snapshot cache's own queue over the background executor: one file
    // operation at a time.
    SerialQueue& cacheQueue() { return m_cacheQueue; }
    const std::shared_ptr<AddressBook>& book() const { return m_book; }
    const PeopleListOptions& options() const { return m_options; }
    KinLog& log() const { return *m_log; }
    const Clock& clock() const { return *m_clock; }

    // Runs `work` on `where` and hands its result to `then` on the main
    // executor, unless the list is gone by then.
    template <typename Work, typename Then>
    void runOn(Executor& where, Work work, Then then) {
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

    // Runs `task` on the main executor after `delay`, unless the list is gone by then.
    template <typename Task>
    void onMain(Task task, std::chrono::milliseconds delay = {}) {
        m_main.postAfter(delay, [alive = std::weak_ptr<int>(m_alive), task = std::move(task)]() mutable {
            if (alive.lock()) {
                task();
            }
        });
    }

    // The list's life, for callbacks handed to others (the store's change
    // notices): they do nothing once it has expired.
    std::weak_ptr<int> life() const { return m_alive; }

    std::uint64_t observe(Observer observer);
    void unobserve(std::uint64_t handle);
    void notify(PeopleChanges changes);

private:
    Executor& m_main;
    Executor& m_background;
    SerialQueue m_cacheQueue;
    std::shared_ptr<AddressBook> m_book;
    PeopleListOptions m_options;
    std::shared_ptr<KinLog> m_log;
    const Clock* m_clock;
    // Held only by the list; background work holds a weak reference and
    // drops its result once the list is gone.
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);

    std::map<std::uint64_t, Observer> m_observers;
    std::uint64_t m_nextObserver = 1;
};

} // namespace kinbook
