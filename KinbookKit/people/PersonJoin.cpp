#include "KinbookKit/people/PersonJoin.h"

#include "KinbookKit/SideBySide.h"

#include <algorithm>
#include <cstdint>

namespace kinbook {
namespace {

// Eight bytes of a key from `offset` on as one number, zero past its end, so
// that most comparisons of a sort look at a flat array instead of following
// each person's pointers.
std::uint64_t prefixOf(std::string_view key, std::size_t offset) {
    std::uint64_t prefix = 0;
    for (std::size_t i = offset; i < offset + 8; ++i) {
        prefix = (prefix << 8) | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0u);
    }
    return prefix;
}

// A stable sort that makes no room for short runs, which are most of them:
// the people of one family name, or a few cards of one KinID.
template <typename Iterator, typename Less>
void stableSort(Iterator first, Iterator last, const Less& less) {
    if (last - first > 16) {
        std::stable_sort(first, last, less);
        return;
    }
    for (auto next = first + 1; next < last; ++next) {
        auto value = std::move(*next);
        auto hole = next;
        for (; hole != first && less(value, *(hole - 1)); --hole) {
            *hole = std::move(*(hole - 1));
        }
        *hole = std::move(value);
    }
}

// Below this many cards one thread joins them all: a second would cost more
// to start than it saves.
constexpr std::size_t kCardsForTwoThreads = 4096;

// The people in sortKey order, keeping the order of people with equal keys.
std::vector<PersonPtr> sortedBySortKey(const std::vector<PersonPtr>& people) {
    // The first sixteen bytes of each key are sorted as numbers in a flat
    // array. Only people whose keys agree that far are then compared by the
    // whole key, a few at a time: a large book holds many people of one
    // family name, and comparing them across the whole sort would fetch
    // their keys from memory again and again.
    struct Entry {
        std::uint64_t head;
        std::uint64_t next;
        std::string_view key;
        std::uint32_t index;
    };
    std::vector<Entry> entries;
    entries.reserve(people.size());
    // Each key is two fetches from memory away (the person, then its keys);
    // both are asked for some people ahead so that the fetches overlap.
    constexpr std::size_t kAhead = 16;
    for (std::uint32_t i = 0; i < people.size(); ++i) {
        if (i + 2 * kAhead < people.size()) {
            __builtin_prefetch(&people[i + 2 * kAhead]->memberIDs); // beside the keys' address
        }
        if (i + kAhead < people.size()) {
            __builtin_prefetch(people[i + kAhead]->keysAddress());
        }
        const std::string_view key = people[i]->sortKey();
        entries.push_back({prefixOf(key, 0), prefixOf(key, 8), key, i});
    }
    const auto samePrefix = [](const Entry& left, const Entry& right) {
        return left.head == right.head && left.next == right.next;
    };
    std::sort(entries.begin(), entries.end(), [](const Entry& left, const Entry& right) {
        if (left.head != right.head) {
            return left.head < right.head;
        }
        if (left.next != right.next) {
            return left.next < right.next;
        }
        return left.index < right.index;
    });
    for (auto run = entries.begin(); run != entries.end();) {
        auto runEnd = run + 1;
        bool longKeys = run->key.size() > 16;
        while (runEnd != entries.end() && samePrefix(*run, *runEnd)) {
            longKeys = longKeys || runEnd->key.size() > 16;
            ++runEnd;
        }
        // Keys of up to sixteen bytes that agree that far differ at most in
        // length; stable, so that equal keys keep the read order.
        if (runEnd - run > 1) {
            stableSort(run, runEnd, [longKeys](const Entry& left, const Entry& right) {
                return longKeys ? left.key < right.key : left.key.size() < right.key.size();
            });
        }
        run = runEnd;
    }
    std::vector<PersonPtr> sorted;
    sorted.reserve(people.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i + kAhead < entries.size()) {
            __builtin_prefetch(&people[entries[i + kAhead].index]);
        }
        sorted.push_back(people[entries[i].index]);
    }
    return sorted;
}

// What the id tables ask of the people they number: whether the person at
// that place has the id, or holds a card with it.
struct HasID {
    const std::vector<PersonPtr>& people;
    bool operator()(std::uint32_t index, std::string_view id) const { return people[index]->id == id; }
};

struct HoldsCard {
    const std::vector<PersonPtr>& people;
    bool operator()(std::uint32_t index, std::string_view cardID) const {
        const auto& members = people[index]->memberIDs;
        return std::find(members.begin(), members.end(), cardID) != members.end();
    }
};

// The cards of a read that share a KinID with another card.
struct KinGroups {
    // The cards of every group of two or more, by index, each group's cards
    // together and in the order read.
    std::vector<std::uint32_t> cards;
    // Each group as [begin, end) in `cards`.
    std::vector<std::pair<std::size_t, std::size_t>> groups;
    // Per card: read after another card of its group.
    std::vector<std::uint8_t> follows;
};

// Groups are found by sorting the cards by a hash of their KinID, not through
// a map of lists: at 120,000 cards, an allocation per group was most of the
// time. Cards whose hashes agree are told apart by the KinID itself.
KinGroups findKinGroups(const std::vector<PersonPtr>& cards) {
    struct Keyed {
        std::uint64_t hash;
        std::uint32_t index;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(cards.size());
    for (std::uint32_t i = 0; i < cards.size(); ++i) {
        if (i + 16 < cards.size()) {
            __builtin_prefetch(&cards[i + 16]->kinID);
        }
        if (cards[i]->kinID) {
            keyed.push_back({std::hash<std::string_view>{}(*cards[i]->kinID), i});
        }
    }
    std::sort(keyed.begin(), keyed.end(), [](const Keyed& left, const Keyed& right) {
        return left.hash != right.hash ? left.hash < right.hash : left.index < right.index;
    });
    const auto kinIDOf = [&](const Keyed& card) -> const std::string& { return *cards[card.index]->kinID; };

    KinGroups found;
    found.follows.assign(cards.size(), 0);
    for (std::size_t run = 0; run < keyed.size();) {
        std::size_t runEnd = run + 1;
        while (runEnd < keyed.size() && keyed[runEnd].hash == keyed[run].hash) {
            ++runEnd;
        }
        if (runEnd - run > 1) {
            const auto first = keyed.begin() + static_cast<std::ptrdiff_t>(run);
            const auto last = keyed.begin() + static_cast<std::ptrdiff_t>(runEnd);
            // Cards whose hashes agree almost always share their KinID, and
            // are then one group, in read order already. Two KinIDs with one
            // hash, however unlikely, are two groups.
            if (!std::all_of(first + 1, last,
                             [&](const Keyed& card) { return kinIDOf(card) == kinIDOf(*first); })) {
                stableSort(first, last, [&](const Keyed& left, const Keyed& right) {
                    return kinIDOf(left) < kinIDOf(right);
                });
            }
            for (std::size_t group = run; group < runEnd;) {
                std::size_t groupEnd = group + 1;
                while (groupEnd < runEnd && kinIDOf(keyed[groupEnd]) == kinIDOf(keyed[group])) {
                    found.follows[keyed[groupEnd].index] = 1;
                    ++groupEnd;
                }
                if (groupEnd - group > 1) {
                    found.groups.emplace_back(found.cards.size(), found.cards.size() + (groupEnd - group));
                    for (std::size_t member = group; member < groupEnd; ++member) {
                        found.cards.push_back(keyed[member].index);
                    }
                }
                group = groupEnd;
            }
        }
        run = runEnd;
    }
    return found;
}

} // namespace

void JoinedPeople::makeLookUps(std::size_t cardsInGroups) {
    m_personIDs = IdTable(m_inReadOrder.size());
    m_cardIDs = IdTable(cardsInGroups);
    // Few accounts, many people: count in a short list, not a map per person.
    std::vector<std::pair<std::string_view, int>> counts;
    // What each person's entries read is three fetches from memory away (the
    // person, their lists, the texts): asked for some people ahead, so that
    // the fetches overlap.
    constexpr std::size_t kAhead = 8;
    const std::size_t total = m_inReadOrder.size();
    for (std::uint32_t i = 0; i < total; ++i) {
        if (i + 2 * kAhead < total) {
            const Person* later = m_inReadOrder[i + 2 * kAhead].get();
            __builtin_prefetch(&later->id);
            __builtin_prefetch(&later->accountIDs);
            __builtin_prefetch(&later->memberIDs);
        }
        if (i + kAhead < total) {
            const Person& soon = *m_inReadOrder[i + kAhead];
            __builtin_prefetch(soon.id.data());
            __builtin_prefetch(soon.accountIDs.address());
            __builtin_prefetch(soon.memberIDs.address());
        }
        const Person& person = *m_inReadOrder[i];
        m_personIDs.insert(person.id, i, HasID{m_inReadOrder});
        if (person.memberIDs.size() > 1) {
            for (const auto& member : person.memberIDs) {
                m_cardIDs.insert(member, i, HoldsCard{m_inReadOrder});
            }
        }
        for (const auto& account : person.accountIDs) {
            auto counted = std::find_if(counts.begin(), counts.end(),
                                        [&](const auto& entry) { return entry.first == account; });
            if (counted == counts.end()) {
                counts.emplace_back(account, 1);
            } else {
                ++counted->second;
            }
        }
        if (person.hidden) {
            ++hiddenCount;
        }
        if (person.circle) {
            ++circleCounts[*person.circle];
        }
    }
    for (const auto& [account, count] : counts) {
        accountCounts.emplace(std::string(account), count);
    }
}

std::optional<std::uint32_t> JoinedPeople::indexOfPerson(std::string_view id) const {
    return m_personIDs.find(id, HasID{m_inReadOrder});
}

std::optional<std::uint32_t> JoinedPeople::indexOfCard(std::string_view cardID) const {
    return m_cardIDs.find(cardID, HoldsCard{m_inReadOrder});
}

PersonPtr JoinedPeople::personWithID(std::string_view id) const {
    const auto index = indexOfPerson(id);
    return index ? m_inReadOrder[*index] : nullptr;
}

std::optional<std::string_view> JoinedPeople::personIDOf(std::string_view cardID) const {
    if (const auto group = indexOfCard(cardID)) {
        return m_inReadOrder[*group]->id;
    }
    if (const auto person = indexOfPerson(cardID)) {
        return m_inReadOrder[*person]->id;
    }
    return std::nullopt;
}

PersonPtr JoinedPeople::find(std::string_view id) const {
    // Through the person's id, as for anyone else: where a damaged store
    // gave that id to two people, the one read first is found.
    if (const auto group = indexOfCard(id)) {
        id = m_inReadOrder[*group]->id;
    }
    return personWithID(id);
}

Person joinGroup(std::vector<PersonPtr> members) {
    std::sort(members.begin(), members.end(), [](const PersonPtr& left, const PersonPtr& right) {
        if (left->isPrimaryCard != right->isPrimaryCard) {
            return left->isPrimaryCard;
        }
        if (left->sortKey() != right->sortKey()) {
            return left->sortKey() < right->sortKey();
        }
        return left->id < right->id;
    });

    Person::Changes changes;
    std::vector<std::string_view> accountIDs;
    std::vector<std::string_view> memberIDs;
    bool hidden = true;
    std::optional<ContactCircle> circle;
    for (const auto& member : members) {
        for (const auto& account : member->accountIDs) {
            if (std::find(accountIDs.begin(), accountIDs.end(), account) == accountIDs.end()) {
                accountIDs.push_back(account);
            }
        }
        memberIDs.push_back(member->id);
        hidden = hidden && member->hidden;
        if (member->circle && (!circle || *member->circle < *circle)) {
            circle = member->circle;
        }
    }
    changes.accountIDs = std::move(accountIDs);
    changes.hidden = hidden;
    changes.circle = circle;
    changes.memberIDs = std::move(memberIDs);
    Person joined = members.front()->with(std::move(changes));
    if (members.size() > 1) {
        // The list shows the leading card's name, e-mail and phone, but the
        // person is found by any card's: the work card's title and address
        // are as much theirs as the home card's. Sorting and sections stay
        // with the leading card's keys.
        PersonKeys keys = joined.keys();
        for (auto member = members.begin() + 1; member != members.end(); ++member) {
            keys.searchText += '\n';
            keys.searchText += (*member)->searchText();
            for (const auto digits : (*member)->phoneDigits()) {
                keys.phoneDigits.emplace_back(digits);
            }
        }
        joined.adoptKeys(keys);
    }
    return joined;
}

JoinedPeople joinPeople(std::vector<PersonPtr> raw,
                        const std::function<void(std::span<const PersonPtr>)>& whileSorted) {
    JoinedPeople joined;
    joined.raw = std::move(raw);
    const bool twoThreads = joined.raw.size() >= kCardsForTwoThreads;
    const auto inTwo = [&](const std::function<void()>& first, const std::function<void()>& second) {
        if (twoThreads) {
            runSideBySide(first, second);
        } else {
            first();
            second();
        }
    };

    const auto& cards = joined.raw;
    const auto groups = findKinGroups(cards);
    auto& unsorted = joined.m_inReadOrder;
    // One person per card, but one per group for the cards of a group; the
    // list is kept as long as the people, so it is made no longer.
    unsorted.reserve(cards.size() - groups.cards.size() + groups.groups.size());
    std::vector<std::uint32_t> slotOf(cards.size()); // where each card's person goes in `unsorted`
    for (std::uint32_t i = 0; i < cards.size(); ++i) {
        if (!groups.follows[i]) {
            slotOf[i] = static_cast<std::uint32_t>(unsorted.size());
            unsorted.push_back(cards[i]);
        }
    }
    // Each group's person is a copy of its leading card: the copies are made
    // in two halves side by side.
    const auto joinGroups = [&](std::size_t from, std::size_t to) {
        for (std::size_t k = from; k < to; ++k) {
            const auto [begin, end] = groups.groups[k];
            std::vector<PersonPtr> members;
            members.reserve(end - begin);
            for (std::size_t member = begin; member < end; ++member) {
                members.push_back(cards[groups.cards[member]]);
            }
            unsorted[slotOf[groups.cards[begin]]] =
                std::make_shared<const Person>(joinGroup(std::move(members)));
        }
    };
    const std::size_t half = groups.groups.size() / 2;
    inTwo([&] { joinGroups(0, half); }, [&] { joinGroups(half, groups.groups.size()); });

    // The order (and what is made from it) beside the look-ups: both only
    // read the people, and neither writes what the other reads.
    inTwo([&] { joined.makeLookUps(groups.cards.size()); },
          [&] {
              joined.people = sortedBySortKey(unsorted);
              if (whileSorted) {
                  whileSorted(joined.people);
              }
          });
    return joined;
}

} // namespace kinbook
