#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/RunLoop.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/people/SortOrder.h"
#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/Person.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "cli/PeopleOutput.h"
#include "cli/ToolOptions.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kinbook {
class PeopleList;
} // namespace kinbook

namespace kinbook::cli {

// What the list shows, as the window's sidebar, sort menu and search field set it.
struct ListView {
    SortOrder order = SortOrder::lastName;
    bool descending = false;
    std::optional<std::string> accountID;
    std::optional<ContactCircle> circle;
    bool showingHidden = false;
    std::string searchText;
};

// One run of the tool on the people list: the same wiring and PeopleList the
// application runs, with its main actor on this thread (a RunLoop) and its
// background work on a thread pool. Every method blocks, pumping the run loop
// until the list has answered, so that the commands read as straight-line
// code.
//
// Failures the user must see (no address book, a read that failed, a refused
// change) end the command through fail(), with the product's message.
// The account an argument names: its id (the folder), else its name in any
// case. Fails with a near miss suggested, or the accounts listed.
Account accountNamed(const std::vector<Account>& accounts, const std::string& argument);

class PeopleSession {
public:
    // Opens the session (configuration warnings to stderr), seeding the
    // embedded default address book on its first run; fails when there is no
    // address book to read.
    explicit PeopleSession(const ToolOptions& options);
    ~PeopleSession();

    PeopleSession(const PeopleSession&) = delete;
    PeopleSession& operator=(const PeopleSession&) = delete;

    const Configuration& configuration() const { return m_session->configuration(); }
    // The wiring underneath: the sidecar's photo store and the head crop.
    KinbookSession& kit() const { return *m_session; }

    // Loads the list: from the snapshot cache when there is one, then
    // brought up to date with the address book (the changes since the
    // cache, or a full read), and the cache refreshed.
    void load();

    // The sections and match count for a view of the list.
    struct Shown {
        std::vector<Section> sections;
        int matchCount = 0;
        // The list's own sections, which hold the people `sections` names
        // even once the session loads again.
        SectionList held;
    };
    Shown show(const ListView& view);

    std::vector<Account> accounts();
    std::map<std::string, int> accountCounts();

    // The person a command-line argument names: any card id of the person or
    // a retired one, else a KinID, else a search that finds exactly one
    // person. Fails with a message listing the candidates otherwise.
    Person resolve(const std::string& argument);

    // The person's cards in full, leading card first, with their accounts
    // and notes.
    std::vector<ShownCard> cards(const Person& person);
    // The same for several people, read side by side, without the notes.
    std::vector<std::vector<ShownCard>> cards(const std::vector<const Person*>& people);

    // Ends a command that succeeded, its output written: when nothing is left
    // to save, the process ends here at once, without taking the list apart.
    void finish();

    // Changes through the list; each ends with the list refreshed.
    void setCircle(const Person& person, std::optional<ContactCircle> circle);
    void setHidden(const Person& person, bool hidden);
    // Marks the entry former (or current again): `entry` is its id or its value.
    void setFormer(const Person& person, const std::string& entry, bool former);

    // Runs the main actor until `finished` holds (a command driving the list itself).
    void waitUntil(const std::function<bool()>& finished);

private:
    // Fails with the action's message when it was refused.
    void check(const std::optional<std::string>& failure);

    // The loop outlives the pool, whose last tasks may still post to it, and
    // both outlive the session.
    RunLoop m_loop;
    std::unique_ptr<ThreadPool> m_pool;
    bool m_cached = true; // whether the list reads and writes the snapshot cache
    std::unique_ptr<KinbookSession> m_session;
    PeopleList* m_list = nullptr; // the session's
    // Card id to its raw person, for the account each card is in.
    std::unordered_map<std::string, PersonPtr> m_rawByID;
    std::uint64_t m_rawVersion = 0;
};

} // namespace kinbook::cli
