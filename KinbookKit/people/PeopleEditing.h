#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleOperations.h"
#include "KinbookKit/records/ContactDraft.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

class PeopleLoader;
class PeopleTrash;

// One change the user can take back: the bytes of each card it touched, as
// they were before and as the change left them, or the Trash entries it
// wrote.
struct UndoStep {
    struct Card {
        std::string id;
        std::optional<std::string> accountID; // where a card the change made goes back on redo
        std::optional<std::string> before;    // none: the change made the card
        std::string after;

        bool operator==(const Card&) const = default;
    };

    std::string name; // what the menu says after "Undo " and "Redo ": "Edit Contact"
    std::vector<Card> cards;
    std::vector<std::string> trashItems;    // the Trash entries a Move to Trash wrote
    std::vector<std::string> restoredCards; // the cards undoing it brought back, for redo
    std::uint64_t serial = 0;               // given by the history

    bool operator==(const UndoStep&) const = default;
};

// The last changes, newest last, and those undone, for redo. A new change
// forgets what was undone; the oldest change goes when there are more than
// `limit`.
class UndoHistory {
public:
    static constexpr std::size_t limit = 20;

    void push(UndoStep step);
    const UndoStep* nextUndo() const { return m_done.empty() ? nullptr : &m_done.back(); }
    const UndoStep* nextRedo() const { return m_undone.empty() ? nullptr : &m_undone.back(); }
    // Moves the newest change to the undone ones (it was undone), with what
    // undoing made of it; and back.
    void undid(UndoStep step);
    void redid(UndoStep step);
    std::size_t size() const { return m_done.size(); }

private:
    void moveStep(std::deque<UndoStep>& from, std::deque<UndoStep>& to, UndoStep step);

    std::deque<UndoStep> m_done;
    std::deque<UndoStep> m_undone;
    std::uint64_t m_lastSerial = 0;
};

// What saving a draft gave: the card's id (a new card's new id) and the
// person now holding it, for selecting them. None of either when there was
// nothing to save.
struct SavedContact {
    std::optional<std::string> cardID;
    std::optional<std::string> personID;
};

// The editor's saving and the window's undo and redo. A save writes the
// draft (through the Contacts application where the store says so) and then
// reads only the touched card again, so the list and the page show it at
// once. Every change the user made here, or through the list's operations
// it is told of, can be undone: the card is put back byte for byte, unless
// something else changed it since, which is refused rather than lost.
//
// Threads. As the people list: every member on the main executor; the
// store's work on the background executor.
class PeopleEditing {
public:
    PeopleEditing(PeopleListContext& context, PeopleLoader& loader, PeopleTrash& trash);

    PeopleEditing(const PeopleEditing&) = delete;
    PeopleEditing& operator=(const PeopleEditing&) = delete;

    // The editable draft of a card, read from the store in the background.
    void draft(std::string cardID, std::function<void(Result<ContactDraft, ActionError>)> done);

    // Saves the draft: an edit of draft.id, or a new card in the draft's
    // account. An empty new draft is not saved; nor is an undo step kept for
    // an edit that changed nothing.
    void save(ContactDraft draft, std::function<void(Result<SavedContact, ActionError>)> done);

    // Runs one of the list's own changes to these cards (a former mark, a
    // circle, hiding) and keeps it as a step named `name`.
    void record(std::string name, std::vector<std::string> cardIDs,
                std::function<void(std::function<void(ActionResult)>)> change,
                std::function<void(ActionResult)> done = {});
    // Keeps a Move to Trash that wrote these Trash entries.
    void recordTrash(std::vector<std::string> trashItems);

    // "Undo Edit Contact", "Redo Mark as Former"; none when there is nothing.
    std::optional<std::string> undoTitle() const;
    std::optional<std::string> redoTitle() const;
    void undo(std::function<void(ActionResult)> done = {});
    void redo(std::function<void(ActionResult)> done = {});
    bool isBusy() const { return m_busy; }

    // Told on the main executor whenever the titles may have changed.
    void setOnHistoryChange(std::function<void()> onChange) { m_onChange = std::move(onChange); }

private:
    using StepResult = Result<UndoStep, ActionError>;
    // Undo (`undoing`) or redo of the next step, one at a time.
    void travel(bool undoing, std::function<void(ActionResult)> done);
    void runStep(UndoStep step, bool undoing, std::function<void(ActionResult)> done);
    void runTrashStep(UndoStep step, bool undoing, std::function<void(ActionResult)> done);
    void finishStep(StepResult result, bool undoing, std::vector<std::string> touched,
                    std::function<void(ActionResult)> done);
    void changed();

    PeopleListContext& m_context;
    PeopleLoader& m_loader;
    PeopleTrash& m_trash;
    UndoHistory m_history;
    bool m_busy = false;
    std::function<void()> m_onChange;
};

} // namespace kinbook
