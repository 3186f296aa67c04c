#pragma once

#include "KinbookKit/people/IdTable.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/Person.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

struct JoinedPeople;

// Joins the raw per-card people of a read into people. Cards without a KinID
// stay people of their own; cards sharing a KinID become one person, led by
// the primary card (else the lowest sortKey, else the lowest id), holding the
// union of the cards' accounts, hidden only when every card is, and in the
// closest of the cards' circles. Everything else is the leading card's, but
// for search: a joined person's search text and phone digits are those of
// every card, leading card first.
//
// A large read is joined on two threads. `whileSorted`, when given, is called
// with the people in their final order as soon as they are sorted, on the
// thread that sorted them, while the look-ups are still being made: what
// depends on the order alone (the shown sections) is made beside them.
JoinedPeople joinPeople(std::vector<PersonPtr> raw,
                        const std::function<void(std::span<const PersonPtr>)>& whileSorted = {});

// The cards of one read joined into the people the list shows, with every
// look-up the list answers from them. Immutable once made: the list swaps a
// whole new one in, so that background work (the index, a search) can keep
// reading the old one safely.
struct JoinedPeople {
    std::vector<PersonPtr> raw;               // one per card, in the order read
    std::vector<PersonPtr> people;            // one per human, by sortKey (stable)
    std::map<std::string, int> accountCounts; // account id -> people with a card in it
    int hiddenCount = 0;
    CircleCounts circleCounts;

    // The person with this id, or the person holding the card with this id.
    PersonPtr find(std::string_view id) const;
    // The id of the person holding a card; none for an unknown card.
    std::optional<std::string_view> personIDOf(std::string_view cardID) const;

    // Whether some person has this id (not just a card of theirs).
    bool isPersonID(std::string_view id) const { return indexOfPerson(id).has_value(); }
    // The person with this id; null when it is no person's id, even if a
    // card of someone has it.
    PersonPtr personWithID(std::string_view id) const;
    // Calls `visit(id)` with every person's id, once each, in no particular
    // order.
    template <typename Visit>
    void forEachPersonID(const Visit& visit) const;

private:
    friend JoinedPeople joinPeople(std::vector<PersonPtr>,
                                   const std::function<void(std::span<const PersonPtr>)>&);

    // Fills the look-ups and the counts from `m_inReadOrder`, in one pass.
    // Room is made for the ids of `cardsInGroups` cards: a card of no group
    // names only itself.
    void makeLookUps(std::size_t cardsInGroups);
    std::optional<std::uint32_t> indexOfPerson(std::string_view id) const;
    std::optional<std::uint32_t> indexOfCard(std::string_view cardID) const;

    // The people in the order their first cards were read. The look-ups
    // hold places in it rather than people: copying a person pointer counts
    // a reference, and in a start from the cache every person shares the
    // one count that the thread sorting them is counting on too.
    std::vector<PersonPtr> m_inReadOrder;
    // Person id -> that person. Two cards can't share an id, but a damaged
    // store might still say so; the first one read keeps it.
    IdTable m_personIDs;
    // Card id -> the person holding it, for the cards of people with more
    // than one; a lone card's person has the card's own id. Again the first
    // one read keeps an id.
    IdTable m_cardIDs;
};

template <typename Visit>
void JoinedPeople::forEachPersonID(const Visit& visit) const {
    m_personIDs.forEach([&](std::uint32_t index) { visit(std::string_view(m_inReadOrder[index]->id)); });
}

// The people of a group of cards sharing one KinID, joined as above.
// `members` must not be empty.
Person joinGroup(std::vector<PersonPtr> members);

} // namespace kinbook
