#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBookChanges.h"
#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/AddressBookError.h"
#include "KinbookKit/records/AddressBookSnapshot.h"
#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/Person.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// How a save went.
struct SaveOutcome {
    enum class Kind {
        saved,              // the store took the change
        viaContactsApp,     // the card carries a note: the change goes through the scripting host
        nameViaContactsApp, // a new card was made under a placeholder name; its name goes through the host
    };

    Kind kind = Kind::saved;
    std::string id;   // the card's id
    std::string body; // the script lines for the host, for the two scripting outcomes

    bool operator==(const SaveOutcome&) const = default;
};

// A person's (a card's) id to the ids of the accounts that hold one of its cards.
using Membership = std::map<std::string, Texts>;

// Who asked to hear of changes to an address book.
using ChangeObserverID = std::uint64_t;

struct ReadOptions {
    bool details = true; // everything the list shows and searches; false: names and anchors only
    bool takeToken =
        true; // take the change-history position first, so no change made during the read is lost
    bool membership = true; // work out which accounts hold each person
};

struct FullRead {
    AddressBookSnapshot snapshot; // raw per-card people, accounts, the token when asked, the time of the read
    Membership membership;
};

// The one way into the user's address book. The people list holds one; the
// store behind it may be a vdir, or a fake in tests.
//
// Every call blocks on the disk and must run off the main thread (the list
// posts them to its background pool). Implementations are safe to call from
// several threads at once. Errors are values: a card that vanished is
// `notFound`, an account the user cannot change `readOnly`, a card with a note
// in a store that protects notes `hasNote`, and anything else the store's own
// failure with its message.
class AddressBook {
public:
    virtual ~AddressBook() = default;

    // The user's permission, and the request for it (which may create the
    // address book where none exists yet).
    virtual AddressBookAccess access() = 0;
    virtual AddressBookAccess requestAccess() = 0;

    virtual Result<std::vector<Account>, AddressBookError> accounts() = 0;
    // The account new cards go to when none is named.
    virtual std::optional<std::string> defaultAccountID() = 0;

    // Every card as a raw person (group cards left out).
    virtual Result<FullRead, AddressBookError> readAll(const ReadOptions& options) = 0;
    // What changed since a token: the changed cards read in full, the deleted
    // ids, the changed cards' membership and the next token; `startOver` when
    // the token can't be served.
    virtual Result<AddressBookChanges, AddressBookError>
    changesSince(std::span<const std::uint8_t> token) = 0;
    // The given cards as raw people with details; ids that no longer exist are left out.
    virtual Result<std::vector<Person>, AddressBookError>
    readPeople(std::span<const std::string> cardIDs) = 0;
    // The id of every card.
    virtual Result<std::vector<std::string>, AddressBookError> allCardIDs() = 0;

    // One card in full, for the person's page.
    virtual Result<ContactCard, AddressBookError> card(std::string_view cardID) = 0;
    // The editable draft of one card, with its structured addresses and birthday.
    virtual Result<ContactDraft, AddressBookError> draft(std::string_view cardID) = 0;
    // The cards behind one person as the store groups them.
    virtual Result<std::vector<CardRef>, AddressBookError> cardsOf(std::string_view personID) = 0;

    // Saves a draft: applied entry by entry onto the card as it is now, or a
    // new card in the draft's account (the default one when none).
    //
    // A store that refuses to change a card with a note makes the change
    // through the Contacts application instead: saving such a card returns
    // `viaContactsApp` with the script lines for it, unwritten; a new card
    // whose name would link it to a card with a note is made under the name
    // "Pending " plus 8 characters and returns `nameViaContactsApp` with the
    // lines that give it its name. The caller then hands the outcome to
    // writeThroughContactsApp.
    virtual Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) = 0;
    // Puts a card's file back to `bytes` (undoing a save), but only while it
    // holds exactly `expected`, what that save left: a card changed since by
    // anyone else is refused with a message saying so, never overwritten.
    // Stores that can't do this refuse every time.
    virtual Result<void, AddressBookError> restoreCard(std::string_view cardID, std::string_view expected,
                                                       std::string_view bytes) {
        (void)cardID, (void)expected, (void)bytes;
        return failure(AddressBookError::store("This address book can't undo changes."));
    }
    // Runs a scripting outcome of save(): its lines, wrapped in the update
    // script, through the Contacts application. A `saved` outcome does nothing.
    virtual Result<void, AddressBookError> writeThroughContactsApp(const SaveOutcome& outcome) = 0;
    // Deletes the cards; one with a note, where the store refuses, through
    // the Contacts application.
    virtual Result<void, AddressBookError> remove(std::span<const std::string> cardIDs) = 0;

    // The cards' own vCard text, unchanged, for the Trash; and the cards of
    // such a text added to an account (the default one when none), giving
    // their new ids.
    virtual Result<std::string, AddressBookError> exportVCards(std::span<const std::string> cardIDs) = 0;
    virtual Result<std::vector<std::string>, AddressBookError>
    importVCards(std::string_view vcards, std::optional<std::string> accountID) = 0;

    // Changes the card's KinID anchor in place (a new KinID when it has none)
    // and returns the anchor as written.
    virtual Result<KinID::Anchor, AddressBookError>
    changeAnchor(std::string_view cardID, const std::function<void(KinID::Anchor&)>& change) = 0;

    // Sets the contact photo of the cards. Where the store refuses a card
    // with a note, the note is lifted and held in the held-notes file while
    // the photo is saved, then set back (see NoteGuard).
    virtual Result<void, AddressBookError> setPhoto(std::span<const std::string> cardIDs,
                                                    std::span<const std::uint8_t> jpeg) = 0;
    // Copies one card's photo to another; false when the target carries a note and was left alone.
    virtual Result<bool, AddressBookError> copyPhoto(std::string_view fromCardID,
                                                     std::string_view toCardID) = 0;
    // Small JPEG thumbnails (at most 256 pixels) of the cards that have a photo.
    virtual std::map<std::string, std::vector<std::uint8_t>>
    thumbnails(std::span<const std::string> cardIDs) = 0;
    // The full photo as stored; none when the card has no photo.
    virtual Result<std::optional<std::vector<std::uint8_t>>, AddressBookError>
    image(std::string_view cardID) = 0;

    // Sets back every note a crash left lifted and held, before anything
    // else lifts one; the people list calls it when it first reads the
    // address book. Returns how many were put back; when some were, the
    // application tells the user "Restored after a crash".
    virtual std::size_t restoreHeldNotes() = 0;

    // Calls `onChange` on `executor` whenever the address book may have
    // changed, by Kinbook or any other program, until stopObserving() with
    // the id this returns. Any number may observe one address book at once
    // (two windows' lists, say), each hearing of every change.
    virtual Result<ChangeObserverID, std::string> observeChanges(Executor& executor,
                                                                 std::function<void()> onChange) = 0;
    // Once it returns, that observer's `onChange` is not called again. Call
    // it on the observer's executor.
    virtual void stopObserving(ChangeObserverID observer) = 0;
};

} // namespace kinbook
