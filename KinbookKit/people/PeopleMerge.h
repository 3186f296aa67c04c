#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/Duplicates.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleOperations.h"
#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/text/KinLog.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kinbook {

// Why a merge could not start.
struct MergeError {
    enum class Case { lastAccount, notFound };
    Case error = Case::notFound;

    static MergeError lastAccount() { return {Case::lastAccount}; }
    static MergeError notFound() { return {Case::notFound}; }
    std::string description() const;
    bool operator==(const MergeError&) const = default;
};

// What a merge made of the cards.
struct MergeResult {
    std::string id;                    // the merged person's id: the primary card's
    std::string kinID;                 // shared by every kept card
    std::vector<std::string> absorbed; // ids that no longer stand on their own
    std::vector<std::string> kept;     // the kept cards, primary first
    std::vector<std::string> removed;  // the cards deleted (their details went into the kept ones)
    bool operator==(const MergeResult&) const = default;
};

// A merge that failed: before it began (MergeError), or at one of its steps
// (StepError, naming the step; what earlier steps wrote stays written).
struct MergeFailure {
    std::variant<MergeError, StepError, AddressBookError> error;
    std::string description() const;
};

// The sidecar's part of a merge: keeps every card's picture among the merged
// person's photos (one copy of each) and brings the photos of the people
// whose KinIDs are given over to the person. None: there is no sidecar.
using MergePhotoKeeper = std::function<Result<void, std::string>(
    const std::string& kinID, const std::string& displayName, const std::vector<std::string>& absorbedKinIDs,
    const std::vector<std::vector<std::uint8_t>>& pictures)>;

// What the user chose on the merge sheet (or the tool took from its prefill).
struct MergeChoices {
    ContactDraft result; // names, work and the entries in the chosen order; unticked ones left out
    std::string note;    // every kept card gets it
    std::map<std::string, std::string> cardNotes; // each card's note as read, by card id
    std::optional<std::string> photoCardID;       // whose picture becomes the contact photo
    MergePhotoKeeper keepPhotos;
};

// The step names a StepError of a merge carries.
namespace MergeStep {
inline constexpr std::string_view read = "read the cards";
inline constexpr std::string_view write = "write the merged card";
inline constexpr std::string_view note = "write the note";
inline constexpr std::string_view link = "link the cards with one KinID";
inline constexpr std::string_view photos = "keep the photos";
inline constexpr std::string_view remove = "delete the extra cards";
} // namespace MergeStep

// Carries out a merge of the cards, in merge order (primary first), on the
// calling thread; every call blocks on the store, so the list runs it in the
// background. Kept cards stay in their accounts and share one KinID; an
// account holding two of the cards keeps one. A card with a note is written
// through `runScript` (none: the store's own scripting path).
//
// A failed step ends the merge with a StepError. No card is left half
// written (each write is atomic) and running the same merge again over the
// cards that are left finishes it: the kept cards are written to the same
// result and keep the KinID they already share.
Result<MergeResult, MergeFailure> runMerge(AddressBook& book, std::span<const Duplicates::MergeCard> cards,
                                           const MergeChoices& choices, const KinLog& log,
                                           const ScriptRunner& runScript = {});

// One card's draft with the merge result applied: names and work from the
// result, and its entries as the result orders them. An entry that came from
// this card, or has the same value on it, keeps the card's identity; the others
// are new. Web addresses, birthday and anchor stay the card's own.
ContactDraft applyMergeResult(const ContactDraft& card, const ContactDraft& result);

} // namespace kinbook
