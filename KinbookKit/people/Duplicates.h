#pragma once

#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/Person.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kinbook {

// People who look like the same human: they share a name, a phone number or
// an e-mail address.
struct DuplicateGroup {
    static constexpr std::string_view sameEmail = "same email";
    static constexpr std::string_view samePhone = "same phone";
    static constexpr std::string_view sameName = "same name";

    std::vector<Person> people;       // at least two, in the order of the searched list
    std::vector<std::string> reasons; // "same email", "same phone", "same name", in that order
    // The keys that linked them ("n:…", "p:…", "e:…"), sorted; what a "Not
    // Duplicates" answer remembers. Not part of the group's identity.
    std::vector<std::string> keys;

    // The members' ids, sorted, joined with "+": the same for the same people.
    std::string id() const;
    // A phone or e-mail match, not only a name.
    bool isStrong() const;

    bool operator==(const DuplicateGroup& other) const {
        return people == other.people && reasons == other.reasons;
    }
};

namespace Duplicates {

// The groups of people who share a key, strongest first (see the .cpp for the
// rules). Pure and thread-safe: the duplicates list runs it off the main thread.
std::vector<DuplicateGroup> findGroups(std::span<const Person> people);
std::vector<DuplicateGroup> findGroups(std::span<const PersonPtr> people);

// The keys a person is found by, each once.
std::vector<std::string> keysOf(const Person& person);

// The cards' notes as one: trimmed, empty ones and repeats dropped (also a
// note every paragraph of which is already there), joined by a blank line,
// in card order (primary first).
std::string combineNotes(std::span<const std::string> notes);

// One card of a merge: its id and the accounts that hold it.
struct MergeCard {
    std::string id;
    std::vector<std::string> accountIDs;
    bool operator==(const MergeCard&) const = default;
};

// The cards a merge keeps and the ones it deletes: an account keeps one card
// of the merged person; a card in no account or in several is always kept.
struct MergePlan {
    std::vector<MergeCard> kept;
    std::vector<MergeCard> removed;
    bool operator==(const MergePlan&) const = default;
};
MergePlan mergePlan(std::span<const MergeCard> ordered);

// The result a merge sheet opens with, from the cards' drafts in merge order
// (primary first): names and work from the primary card (another card's where
// it has none), every phone, e-mail, address and linked account of every card
// once, in card order. The result carries no card id.
ContactDraft mergePrefill(std::span<const ContactDraft> cards);

} // namespace Duplicates
} // namespace kinbook
