#pragma once

#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleOperations.h"
#include "KinbookKit/sidecar/ContactTrash.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kinbook {

class PeopleLoader;
class ShownPeople;

// How a batch sent to the Trash went.
struct TrashOutcome {
    std::size_t trashed = 0;
    std::size_t failed = 0; // each logged "trash failed for one person: "
};

// How a restore went: the cards whose account is gone went to the default
// account, and the user is told which.
struct RestoreOutcome {
    std::vector<std::string> cardIDs;        // the restored cards' new ids
    std::vector<std::string> movedToDefault; // account names no longer there
};

// The people list's Trash: moving people to it, bringing them back, and the
// entries it shows. People whose trashing is under way leave the shown list
// at once; a person's cards are deleted only once their Trash file is
// written and on disk, one card at a time, so that at every moment each card
// is in the store or in a Trash file that restores it.
//
// Threads. As the people list: every member on the main executor; the file
// and store work on the background executor, one person at a time.
class PeopleTrash {
public:
    // The points where a crash is simulated in tests: the hook is asked
    // before going on past each, and work stops there when it says no.
    enum class Step {
        fileWritten, // a person's Trash file is on disk, no card deleted yet
        cardDeleted, // one of a person's cards is deleted (asked after each)
        imported,    // the restored cards are in the store, notes not yet back
        notesBack,   // the notes are back, the Trash file not yet removed
    };
    using FaultHook = std::function<bool(Step)>;

    PeopleTrash(PeopleListContext& context, PeopleLoader& loader, ShownPeople& shown);

    PeopleTrash(const PeopleTrash&) = delete;
    PeopleTrash& operator=(const PeopleTrash&) = delete;

    // The Trash folder, whose entries are then read; none without a sidecar
    // folder, when nothing can be trashed.
    void setTrash(std::shared_ptr<ContactTrash> trash);
    const std::shared_ptr<ContactTrash>& trash() const { return m_trash; }
    void setFaultHook(FaultHook hook) { m_faultHook = std::move(hook); }

    // See PeopleList.
    void trashPeople(std::vector<std::string> personIDs, std::function<void(TrashOutcome)> done);
    void restore(std::string itemID, std::function<void(Result<RestoreOutcome, ActionError>)> done);
    void remove(std::string itemID, std::function<void(Result<void, std::string>)> done);
    void emptyTrash(std::function<void(Result<std::size_t, std::string>)> done);
    void reloadItems(std::function<void()> done = {});

    const std::vector<TrashItem>& items() const { return m_items; }
    bool showing() const { return m_showing; }
    void setShowing(bool showing);
    // People done and in the batch; none when no batch runs.
    const std::optional<std::pair<std::size_t, std::size_t>>& progress() const { return m_progress; }

private:
    struct Job; // one person of a batch, as read on the main executor
    void trashNext(std::shared_ptr<std::vector<Job>> jobs, std::size_t next,
                   std::shared_ptr<TrashOutcome> outcome, std::shared_ptr<std::vector<std::string>> touched,
                   std::function<void(TrashOutcome)> done);
    bool goOn(Step step) const { return !m_faultHook || m_faultHook(step); }

    PeopleListContext& m_context;
    PeopleLoader& m_loader;
    ShownPeople& m_shown;
    std::shared_ptr<ContactTrash> m_trash;
    FaultHook m_faultHook;
    std::vector<TrashItem> m_items;
    bool m_showing = false;
    std::optional<std::pair<std::size_t, std::size_t>> m_progress;
};

} // namespace kinbook
