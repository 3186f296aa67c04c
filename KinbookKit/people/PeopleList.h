#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PeopleAccounts.h"
#include "KinbookKit/people/PeopleEditing.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleLoader.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "KinbookKit/people/PeopleOperations.h"
#include "KinbookKit/people/PeopleTrash.h"
#include "KinbookKit/people/ShownPeople.h"

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

// The people list: the one model every view and the command-line tool read.
// It loads the people from the address book (the cached snapshot first, then
// the store), joins the cards of one human into one person, keeps them
// current from the store's change history, and serves the shown sections,
// headings, counts, search and look-ups. It also hosts the operations that
// change people, each ending by reading the touched cards again.
//
// Three parts do the work: the loader (PeopleLoader) reads and joins, the
// shown people (ShownPeople) index, filter and search, the operations
// (PeopleOperations) write. The list owns them and is what views hold.
//
// Threads. Every member is called on the main executor, and every state is
// owned by it: reading it needs no lock. Store reads, joining, the index and
// the cache run on the background executor (the cache on its own serial
// queue over it) and hand their results back to the main executor. Results
// that arrive after the list is gone are dropped. Both executors and the
// clock must outlive the list and every task it posted; the address book,
// the cache and the past-job source are shared with those tasks and so may
// be dropped by the caller at any time.
//
// Asynchronous operations take a completion called on the main executor.
// Views are told of changes through observe(); they never touch the store.
class PeopleList {
public:
    using Change = PeopleChange;
    using Changes = PeopleChanges;
    using Observer = PeopleListContext::Observer;
    using Timings = PeopleLoader::Timings;
    using LastSearch = ShownPeople::LastSearch;

    PeopleList(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
               PeopleListOptions options = {});
    ~PeopleList();

    PeopleList(const PeopleList&) = delete;
    PeopleList& operator=(const PeopleList&) = delete;

    // --- Observation ---------------------------------------------------------

    // Calls `observer` on the main executor after every change, until
    // unobserve(). Returns the observer's handle.
    std::uint64_t observe(Observer observer) { return m_context.observe(std::move(observer)); }
    void unobserve(std::uint64_t handle) { m_context.unobserve(handle); }

    // --- Loading -------------------------------------------------------------

    // Loads the people: the cached snapshot when nothing is shown yet, then
    // the changes since the last read when it is younger than a day, else
    // everything. Calls `done` once a load that began no earlier than this
    // call has finished. Calls made while a load runs wait for it and then
    // share exactly one more run.
    void load(std::function<void()> done = {}) { m_loader.load(std::move(done)); }
    // Asks for access to the address book (which may create it), then calls
    // `done` with the answer.
    void requestAccess(std::function<void(AddressBookAccess)> done = {}) {
        m_loader.requestAccess(std::move(done));
    }
    // Reads the given cards again after an operation changed them; cards
    // that are gone leave the list.
    void refetch(std::vector<std::string> cardIDs, std::function<void()> done = {}) {
        m_loader.refetch(std::move(cardIDs), std::move(done));
    }
    // Checks that the list holds the same cards as the store: drops the gone
    // ones and reads the new ones. An empty answer from the store changes
    // nothing, as it is taken for a failed read.
    void reconcile(std::function<void()> done = {}) { m_loader.reconcile(std::move(done)); }

    AddressBookAccess access() const { return m_loader.access(); }
    bool isLoading() const { return m_loader.isLoading(); }
    // The reason a load failed while nothing could be shown ("Couldn't Load Contacts").
    const std::optional<std::string>& errorMessage() const { return m_loader.errorMessage(); }
    const Timings& timings() const { return m_loader.timings(); }
    const std::optional<std::vector<std::uint8_t>>& historyToken() const { return m_loader.historyToken(); }
    const std::optional<std::chrono::system_clock::time_point>& fullReadAt() const {
        return m_loader.fullReadAt();
    }
    bool isWatching() const { return m_loader.isWatching(); }

    // --- People and look-ups -------------------------------------------------

    // The people, one per human, by sortKey.
    const std::vector<PersonPtr>& people() const { return m_loader.joined().people; }
    // The people of the last read, one per card.
    const std::vector<PersonPtr>& raw() const { return m_loader.joined().raw; }
    std::uint64_t peopleVersion() const { return m_loader.peopleVersion(); }
    const std::vector<Account>& accounts() const { return m_loader.accounts(); }
    const std::map<std::string, int>& accountCounts() const { return m_loader.joined().accountCounts; }
    int hiddenCount() const { return m_loader.joined().hiddenCount; }
    const CircleCounts& circleCounts() const { return m_loader.joined().circleCounts; }

    // The person that any id of theirs names: their id, any card's id, or
    // an id they no longer carry. Null for an unknown id.
    PersonPtr person(std::string_view id) const { return m_loader.person(id); }
    // The id of the person holding a card.
    std::optional<std::string> groupOf(std::string_view cardID) const { return m_loader.groupOf(cardID); }
    // Ids that no longer name a person, each to the id that replaced it.
    const std::map<std::string, std::string, std::less<>>& aliases() const { return m_loader.aliases(); }
    // Records that `oldID` now goes by `newID` (a merge retires an id).
    void addAlias(std::string oldID, std::string newID) {
        m_loader.addAlias(std::move(oldID), std::move(newID));
    }

    // A card in full for the person's page, from the cache of recent cards
    // or read from the store; none when it no longer exists.
    void card(const std::string& cardID, std::function<void(std::optional<ContactCard>)> done) {
        m_loader.card(cardID, std::move(done));
    }
    // The card when it is in the cache of recent cards.
    const ContactCard* cachedCard(std::string_view cardID) const { return m_loader.cardCache().find(cardID); }
    const CardCache& cardCache() const { return m_loader.cardCache(); }
    std::uint64_t cardsVersion() const { return m_loader.cardsVersion(); }

    // The notes of cards, by card id, read in the background; cards without
    // one are left out, and so is everything when the list reads no notes.
    void notes(std::vector<std::string> cardIDs,
               std::function<void(std::map<std::string, std::string>)> done);
    // The account holding each of a person's cards, by card id.
    std::map<std::string, std::string> cardAccounts(const Person& person) const;

    // The card's thumbnail when known. Null otherwise: the store is then
    // asked, and observers hear `thumbnails` when it answers.
    ThumbnailBytes thumbnail(const std::string& cardID) { return m_loader.thumbnail(cardID); }

    // --- What is shown -------------------------------------------------------

    const std::vector<Section>& sections() const { return *m_shown.sections(); }
    // The shown sections with the people they name: hold it to keep them.
    const SectionList& sharedSections() const { return m_shown.sections(); }
    // One per section before the heading filter, so the column lists them all.
    const std::vector<Heading>& headings() const { return m_shown.headings(); }
    // People left by the search and filters (before the heading filter).
    int matchCount() const { return m_shown.matchCount(); }
    std::uint64_t listID() const { return m_shown.listID(); }
    std::uint64_t scrollToTopToken() const { return m_shown.scrollToTopToken(); }

    // The ids of the shown people in display order, and where each is, for
    // moving the selection across section borders.
    const std::vector<std::string>& flatIDs() { return m_shown.flatIDs(); }
    std::optional<std::size_t> flatPosition(std::string_view id) { return m_shown.flatPosition(id); }

    // The sections of an order as the index holds them (ascending); null
    // until built.
    SectionList indexed(SortOrder order) const { return m_shown.indexed(order); }
    bool isIndexing() const { return m_shown.isIndexing(); }

    // --- The view: order, filters and search ---------------------------------

    // Everything the view shows at once, rebuilt once (see ShownPeople::setView).
    const ViewSettings& view() const { return m_shown.view(); }
    void setView(ViewSettings view) { m_shown.setView(std::move(view)); }

    SortOrder sortOrder() const { return m_shown.view().order; }
    void setSortOrder(SortOrder order) { m_shown.setSortOrder(order); }
    bool descending() const { return m_shown.view().descending; }
    void setDescending(bool descending) { m_shown.setDescending(descending); }
    const std::optional<std::string>& accountFilter() const { return m_shown.view().accountID; }
    void setAccountFilter(std::optional<std::string> accountID) {
        m_shown.setAccountFilter(std::move(accountID));
    }
    std::optional<ContactCircle> circleFilter() const { return m_shown.view().circle; }
    void setCircleFilter(std::optional<ContactCircle> circle) { m_shown.setCircleFilter(circle); }
    bool showingHidden() const { return m_shown.view().showingHidden; }
    void setShowingHidden(bool showing) { m_shown.setShowingHidden(showing); }
    const std::optional<std::string>& headingFilter() const { return m_shown.view().heading; }
    void setHeadingFilter(std::optional<std::string> title) { m_shown.setHeadingFilter(std::move(title)); }
    // People on their way to the Trash, left out of the list at once.
    const std::set<std::string>& pendingTrash() const { return m_shown.pendingTrash(); }
    void setPendingTrash(std::set<std::string> personIDs) { m_shown.setPendingTrash(std::move(personIDs)); }

    const std::string& searchInput() const { return m_shown.searchInput(); }
    const std::string& searchText() const { return m_shown.searchText(); }
    // What the search field holds; the list is searched once typing settles.
    void setSearchInput(std::string text) { m_shown.setSearchInput(std::move(text)); }
    // Searches at once (the tool).
    void setSearchText(std::string text) { m_shown.setSearchText(std::move(text)); }
    const std::optional<LastSearch>& lastSearch() const { return m_shown.lastSearch(); }

    // Person id to the folded text of their past jobs.
    const std::map<std::string, std::string>& pastJobText() const { return m_shown.pastJobText(); }
    std::uint64_t pastJobsVersion() const { return m_shown.pastJobsVersion(); }
    // Reads everyone's past jobs from the source again.
    void reloadPastJobs(std::function<void()> done = {}) { m_shown.reloadPastJobs(std::move(done)); }
    // A person's past jobs changed (the page saved "jobs.json").
    void setPastJobs(std::string_view personID, const std::vector<PastJob>& jobs);

    // --- Operations ----------------------------------------------------------

    // Marks an entry (a phone, e-mail or address, by its identity) of a card
    // former ("ex-work"), or current again. Only the label changes.
    void markFormer(const std::string& cardID, const std::string& entryID,
                    std::function<void(ActionResult)> done) {
        m_operations.markFormer(cardID, entryID, std::move(done));
    }
    void markCurrent(const std::string& cardID, const std::string& entryID,
                     std::function<void(ActionResult)> done) {
        m_operations.markCurrent(cardID, entryID, std::move(done));
    }
    // Places a person in a circle (none: out of every circle), written into
    // every card of theirs. Refused with CircleError when the circle, or one
    // outside it, is full; clearing is never refused.
    void setCircle(std::string_view personID, std::optional<ContactCircle> circle,
                   std::function<void(ActionResult)> done) {
        m_operations.setCircle(personID, circle, std::move(done));
    }
    // Hides a person from the list (archives them), or shows them again.
    void setHidden(std::string_view personID, bool hidden, std::function<void(ActionResult)> done) {
        m_operations.setHidden(personID, hidden, std::move(done));
    }

    // --- Duplicates and merge (PeopleMerge.cpp) -------------------------------

    // The groups of people who look like the same human, among the shown
    // (not hidden) people read in detail, strongest first.
    std::vector<DuplicateGroup> duplicateGroups() const;
    // The cards of a merge with their accounts: the primary card (a person's
    // first card), then every card of the selected people in the order
    // given, each once; ids no longer in the list are dropped.
    std::vector<Duplicates::MergeCard> mergeOrder(std::string_view primaryID,
                                                  const std::vector<std::string>& selectedIDs) const;
    // Merges the selected people into one, with the primary card leading (see
    // runMerge), then reads the cards again so that they show as one person
    // and the absorbed ids lead to them.
    void merge(const std::vector<std::string>& selectedIDs, const std::string& primaryID,
               MergeChoices choices, std::function<void(Result<MergeResult, MergeFailure>)> done);

    // The last user action's failure, shown as an alert until cleared.
    const std::optional<std::string>& actionError() const { return m_operations.actionError(); }
    void clearActionError() { m_operations.clearActionError(); }

    // --- The Trash -----------------------------------------------------------

    // Moves people to the Trash one by one (each leaves the list at once), brings
    // one entry back, deletes entries for good; the entries, whether the Trash
    // shows, and a batch's progress. See PeopleTrash.
    PeopleTrash& trash() { return m_trash; }
    const PeopleTrash& trash() const { return m_trash; }
    void trash(std::vector<std::string> personIDs, std::function<void(TrashOutcome)> done) {
        m_trash.trashPeople(std::move(personIDs), std::move(done));
    }
    void restore(std::string itemID, std::function<void(Result<RestoreOutcome, ActionError>)> done) {
        m_trash.restore(std::move(itemID), std::move(done));
    }
    void emptyTrash(std::function<void(Result<std::size_t, std::string>)> done) {
        m_trash.emptyTrash(std::move(done));
    }

    // --- Accounts (PeopleAccounts) -------------------------------------------------

    // Adds a person to a further account: a copy of everything their cards
    // hold, linked to them by their KinID, with the photo and the notes.
    // Fails with a StepError naming the step ("save copy", "mark primary",
    // "copy photo", "copy note"); a saved copy stays.
    void addToAccount(std::string_view personID, const std::string& accountID,
                      std::function<void(Result<AddedCopy, AccountError>)> done) {
        m_accounts.addToAccount(personID, accountID, std::move(done));
    }
    // Deletes the person's card in that account; refused (lastAccount) when
    // it is their only one.
    void removeFromAccount(std::string_view personID, const std::string& accountID,
                           std::function<void(Result<void, AccountError>)> done) {
        m_accounts.removeFromAccount(personID, accountID, std::move(done));
    }
    // Moves (or, with `copyOnly`, copies) people to one account, one at a
    // time: each ends with a card there holding everything; a move sends
    // their other cards to the Trash. A person that fails is logged and
    // skipped. The list is read again once, at the end.
    void moveToAccount(const std::vector<std::string>& personIDs, const std::string& accountID, bool copyOnly,
                       std::function<void(MoveOutcome)> done) {
        m_accounts.moveToAccount(personIDs, accountID, copyOnly, std::move(done));
    }
    // Copies the primary card's details over the person's other cards;
    // gives how many changed.
    void syncFromPrimary(std::string_view personID,
                         std::function<void(Result<std::size_t, AccountError>)> done) {
        m_accounts.syncFromPrimary(personID, std::move(done));
    }
    // The running move's progress; none when no batch runs.
    const std::optional<BulkProgress>& bulkProgress() const { return m_accounts.progress(); }
    PeopleAccounts& membership() { return m_accounts; }
    const PeopleAccounts& membership() const { return m_accounts; }

    // --- Editing and undo ------------------------------------------------------

    // Saving the editor's drafts, and undo and redo of the user's changes.
    PeopleEditing& editing() { return m_editing; }

private:
    // Declared in the order they are made; the parts hold the context, the
    // loader holds the shown people, the operations hold the loader.
    PeopleListContext m_context;
    ShownPeople m_shown;
    PeopleLoader m_loader;
    PeopleOperations m_operations;
    PeopleTrash m_trash;
    PeopleAccounts m_accounts;
    PeopleEditing m_editing;
};

} // namespace kinbook
