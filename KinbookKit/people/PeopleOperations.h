#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/KinID.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kinbook {

class PeopleLoader;

// The failure of one step of an action that takes several (merge, moving
// between accounts, the Trash): the user learns how far it got, e.g. "put
// the note back (the Trash copy is kept)", and what the store said.
struct StepError {
    std::string step;
    AddressBookError underlying;

    std::string description() const;
    bool operator==(const StepError&) const = default;
};

// Why a user action failed: the address book's refusal, a full circle, or a
// failed step of a longer action. Shown to the user as an alert.
struct ActionError {
    std::variant<AddressBookError, CircleError, StepError> error;

    std::string description() const;
    bool operator==(const ActionError&) const = default;
};

using ActionResult = Result<void, ActionError>;

// The changes the user makes to people through the list: each is written
// to the store in the background and ends by reading the touched cards
// again, so that the list shows what the store now holds. A failure is
// kept as the action error, shown as an alert until cleared.
//
// Threads. As the people list: every member on the main executor; the
// writes run on the background executor.
class PeopleOperations {
public:
    PeopleOperations(PeopleListContext& context, PeopleLoader& loader);

    PeopleOperations(const PeopleOperations&) = delete;
    PeopleOperations& operator=(const PeopleOperations&) = delete;

    // See PeopleList.
    void markFormer(const std::string& cardID, const std::string& entryID,
                    std::function<void(ActionResult)> done);
    void markCurrent(const std::string& cardID, const std::string& entryID,
                     std::function<void(ActionResult)> done);
    void setCircle(std::string_view personID, std::optional<ContactCircle> circle,
                   std::function<void(ActionResult)> done);
    void setHidden(std::string_view personID, bool hidden, std::function<void(ActionResult)> done);

    const std::optional<std::string>& actionError() const { return m_actionError; }
    void clearActionError();

private:
    void changeAnchors(std::vector<std::string> cardIDs, std::function<void(KinID::Anchor&)> change,
                       std::function<void(ActionResult)> done);
    void changeLabel(const std::string& cardID, const std::string& entryID, bool former,
                     std::function<void(ActionResult)> done);
    void finishAction(Result<void, AddressBookError> result, std::vector<std::string> cardIDs,
                      std::function<void(ActionResult)> done);
    void failAction(ActionError error, const std::function<void(ActionResult)>& done);

    PeopleListContext& m_context;
    PeopleLoader& m_loader;
    std::optional<std::string> m_actionError; // belongs to the main executor
};

} // namespace kinbook
