#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "KinbookKit/people/PeopleOperations.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kinbook {

class PeopleLoader;
class PeopleTrash;

// The step names a StepError of adding a person to an account carries.
namespace AccountStep {
inline constexpr std::string_view saveCopy = "save copy";
inline constexpr std::string_view markPrimary = "mark primary";
inline constexpr std::string_view copyPhoto = "copy photo";
inline constexpr std::string_view copyNote = "copy note";
} // namespace AccountStep

// Why a change of a person's accounts failed: refused before it began
// (MergeError: the last account, or the person is gone), a step of adding
// (StepError), or the store itself.
struct AccountError {
    std::variant<MergeError, StepError, AddressBookError> error;

    std::string description() const;
};

// A copy saved in another account. Some servers refuse some fields (a
// birthday without a year, social links); the copy is then saved without
// them, and `leftOut` says which, for the user.
struct AddedCopy {
    std::string cardID;
    std::vector<std::string> leftOut;
    std::optional<std::string> anchorURL; // the KinID anchor the copy was saved with
};

// How a batch of moves or copies went.
struct MoveOutcome {
    std::size_t moved = 0;             // people now in the target account (moved or copied)
    std::vector<std::string> failures; // "Name: why", one per person that failed
    std::vector<std::string> leftOut;  // "Name: birthday without a year", one per person that lost a field
};

// The running batch's progress: "Moving to Work", 3 of 10.
struct BulkProgress {
    std::string label;
    std::size_t done = 0;
    std::size_t total = 0;

    bool operator==(const BulkProgress&) const = default;
};

// One card of a person and the account that holds it, primary card first.
struct AccountCard {
    std::string cardID;
    std::string accountID;
    std::string accountName;
};

// What the blocking steps need to know of a person, read on the main executor.
struct PersonCards {
    std::string personID;
    std::string displayName;
    std::vector<AccountCard> cards; // the primary card first
};

// Changes which accounts a person is in: adds a copy in a further account,
// takes one account's card away, moves or copies people to one account, and
// copies the primary card's details over the other cards. A person always
// stays in at least one account. Cards with a note are changed through the
// scripting path, and the cards a move takes away go to the Trash first.
//
// Threads. As the people list: every member on the main executor; the store
// work runs on the background executor, one person at a time.
class PeopleAccounts {
public:
    // Fault injection for tests: asked before each step of adding (by its
    // AccountStep name, and "trash" before a move's cards go to the Trash);
    // an error makes that step fail with it.
    using FaultHook = std::function<std::optional<AddressBookError>(std::string_view step)>;

    PeopleAccounts(PeopleListContext& context, PeopleLoader& loader, PeopleTrash& trash);

    PeopleAccounts(const PeopleAccounts&) = delete;
    PeopleAccounts& operator=(const PeopleAccounts&) = delete;

    void setFaultHook(FaultHook hook) { m_faultHook = std::move(hook); }

    // See PeopleList.
    void addToAccount(std::string_view personID, const std::string& accountID,
                      std::function<void(Result<AddedCopy, AccountError>)> done);
    void removeFromAccount(std::string_view personID, const std::string& accountID,
                           std::function<void(Result<void, AccountError>)> done);
    void moveToAccount(const std::vector<std::string>& personIDs, const std::string& accountID, bool copyOnly,
                       std::function<void(MoveOutcome)> done);
    void syncFromPrimary(std::string_view personID,
                         std::function<void(Result<std::size_t, AccountError>)> done);

    // None when no batch runs.
    const std::optional<BulkProgress>& progress() const { return m_progress; }

    // The person's cards with their accounts, primary first; none for an unknown person.
    std::optional<PersonCards> cardsOf(std::string_view personID) const;
    std::string accountName(const std::string& accountID) const;

private:
    struct Batch;
    void runNext(std::shared_ptr<Batch> batch);
    std::optional<PersonCards>
    cardsOf(std::string_view personID,
            const std::map<std::string, std::string, std::less<>>& cardAccounts) const;

    PeopleListContext& m_context;
    PeopleLoader& m_loader;
    PeopleTrash& m_trash;
    FaultHook m_faultHook;
    std::optional<BulkProgress> m_progress;
};

// The label of a batch: "Moving to Work", "Copying to the account" when the
// account's name is not known.
std::string bulkLabel(bool copyOnly, std::string_view accountName);

// The name of the Trash entry a move makes: "Ada Lovelace (from iCloud, Work)".
std::string movedTrashName(std::string_view displayName, const std::vector<std::string>& accountNames);

// The details of several cards of one person as one new card: the first
// draft's names and work (a later card's where the first leaves one empty),
// then every entry of every draft once, in order.
ContactDraft combinedDraft(const std::vector<ContactDraft>& drafts);

// `card` with the primary card's details copied over it: names, company, job
// title, department, nickname, phones, e-mails, web addresses, postal
// addresses, links, birthday and other dates, and the phonetic name. What the primary leaves empty stays as
// the card has it; an entry both hold keeps the card's identity.
ContactDraft syncedDraft(const ContactDraft& card, const ContactDraft& primary);

// Notes of several cards as one: each trimmed, empty and repeated ones
// dropped, joined with a blank line.
std::string combinedNote(const std::vector<std::string>& notes);

} // namespace kinbook
