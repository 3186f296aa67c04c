#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/records/AddressBookError.h"
#include "KinbookKit/vcard/CardWriter.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"

#include <functional>
#include <string>
#include <string_view>

namespace kinbook {

// What a scripting host that plays the Contacts application needs of the
// store it writes to, and nothing more: the store's own reading, writing and
// deleting of one card, past the lock on notes. Writes keep every rule of a
// save (only changed lines are rewritten, a card changed on disk meanwhile is
// retried once, entry identities move with their lines, the change journal
// hears of it).
//
// The store runs its scripts through the host, and the host writes through
// this: the one who wires them makes the host first, hands it to the store,
// then gives the store to the host (see VdirScriptHost::attach).
//
// Thread-safe.
class ScriptedCards {
public:
    // Changes one card in memory and says which identity each entry carries.
    using Edit = std::function<ApplyResult(VCard&, const std::string& cardID, EntryRegistry&)>;

    virtual Result<VCard, AddressBookError> scriptedRead(std::string_view cardID) = 0;
    virtual Result<void, AddressBookError> scriptedEdit(std::string_view cardID, const Edit& edit) = 0;
    virtual Result<void, AddressBookError> scriptedRemove(std::string_view cardID) = 0;

protected:
    // Not owned through this interface.
    ~ScriptedCards() = default;
};

} // namespace kinbook
