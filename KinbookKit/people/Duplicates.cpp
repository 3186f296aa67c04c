#include "KinbookKit/people/Duplicates.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/Fold.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace kinbook {
namespace {

// A key shared by more people than this is a shared office line or a family
// address: following it would chain whole companies into one group.
constexpr std::size_t kMostPeoplePerKey = 6;
constexpr std::size_t kPhoneDigits = 10;
constexpr std::size_t kFewestPhoneDigits = 7;
constexpr std::size_t kFewestNameCharacters = 4;

enum Reason : std::uint8_t { email = 1, phone = 2, name = 4 };

std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

// The last ten digits: "+1 (415) 555-0100" and "415.555.0100" are one number.
std::string phoneKey(std::string_view number) {
    std::string digits;
    for (const char c : number) {
        if (c >= '0' && c <= '9') {
            digits.push_back(c);
        }
    }
    return digits.size() > kPhoneDigits ? digits.substr(digits.size() - kPhoneDigits) : digits;
}

std::string emailKey(std::string_view address) {
    std::string key(trimAsciiSpace(address));
    std::transform(key.begin(), key.end(), key.begin(), [](char c) { return asciiLower(c); });
    return key;
}

// Calls `add` with each key of the person ("n:", "p:" or "e:" and the text),
// written into one reused buffer so that a pass over everyone allocates
// next to nothing; a key may come more than once.
template <typename Add>
void forEachKey(const Person& person, std::string& joined, std::string& key, Add add) {
    if (!person.givenName.empty() && !person.familyName.empty()) {
        joined.assign(person.givenName);
        joined += ' ';
        joined += person.familyName;
        key.assign("n:");
        foldInto(key, joined);
        const auto name = trimAsciiSpace(std::string_view(key).substr(2));
        if (characterCount(name) >= kFewestNameCharacters) {
            key.replace(2, std::string::npos, std::string(name));
            add(std::string_view(key));
        }
    }
    for (const std::string_view number : person.phoneNumbers) {
        key.assign("p:");
        for (const char c : number) {
            if (c >= '0' && c <= '9') {
                key.push_back(c);
            }
        }
        if (key.size() - 2 > kPhoneDigits) {
            key.erase(2, key.size() - 2 - kPhoneDigits);
        }
        if (key.size() - 2 >= kFewestPhoneDigits) {
            add(std::string_view(key));
        }
    }
    for (const std::string_view address : person.emailAddresses) {
        key.assign("e:");
        for (const char c : trimAsciiSpace(address)) {
            key.push_back(asciiLower(c));
        }
        if (key.find('@', 2) != std::string::npos) {
            add(std::string_view(key));
        }
    }
}

std::uint8_t reasonOf(std::string_view key) {
    switch (key.front()) {
    case 'e':
        return Reason::email;
    case 'p':
        return Reason::phone;
    default:
        return Reason::name;
    }
}

struct UnionFind {
    std::vector<std::uint32_t> parent;

    explicit UnionFind(std::size_t count) : parent(count) {
        for (std::size_t i = 0; i < count; ++i) {
            parent[i] = static_cast<std::uint32_t>(i);
        }
    }
    std::uint32_t find(std::uint32_t at) {
        while (parent[at] != at) {
            parent[at] = parent[parent[at]]; // path halving
            at = parent[at];
        }
        return at;
    }
};

// One key of one person. Keys are compared by a 64-bit hash of their text:
// among the few hundred thousand keys of the largest address book a false
// match is about as likely as a disk error, and it would only suggest a
// group, never merge one.
struct KeyEntry {
    std::uint64_t hash;
    std::uint32_t index;
    std::uint8_t reason;
};

// The entries in order of hash, then index. One counting pass on the top 16
// bits of the hash spreads them into buckets of a few entries each, which are
// then sorted on their own: near linear, where one sort of everything was a
// good part of the time at 100,000 people.
std::vector<KeyEntry> sortedByKey(std::vector<KeyEntry> entries) {
    constexpr int kBucketBits = 16;
    std::vector<std::uint32_t> starts((1U << kBucketBits) + 1, 0);
    const auto bucketOf = [](const KeyEntry& entry) { return entry.hash >> (64 - kBucketBits); };
    for (const auto& entry : entries) {
        ++starts[bucketOf(entry) + 1];
    }
    for (std::size_t i = 1; i < starts.size(); ++i) {
        starts[i] += starts[i - 1];
    }
    std::vector<KeyEntry> sorted(entries.size());
    auto next = starts;
    for (const auto& entry : entries) {
        sorted[next[bucketOf(entry)]++] = entry;
    }
    for (std::size_t bucket = 0; bucket + 1 < starts.size(); ++bucket) {
        std::sort(sorted.begin() + starts[bucket], sorted.begin() + starts[bucket + 1],
                  [](const KeyEntry& a, const KeyEntry& b) {
                      return a.hash != b.hash ? a.hash < b.hash : a.index < b.index;
                  });
    }
    return sorted;
}

template <typename At>
std::vector<DuplicateGroup> findGroupsOf(std::size_t count, At at) {
    std::vector<KeyEntry> entries;
    entries.reserve(count * 3);
    std::string joined;
    std::string key;
    for (std::size_t index = 0; index < count; ++index) {
        forEachKey(at(index), joined, key, [&](std::string_view text) {
            entries.push_back(
                {std::hash<std::string_view>{}(text), static_cast<std::uint32_t>(index), reasonOf(text)});
        });
    }
    entries = sortedByKey(std::move(entries));

    UnionFind sets(count);
    std::vector<std::uint8_t> reasons(count, 0);
    std::vector<std::uint32_t> holders;
    for (std::size_t start = 0; start < entries.size();) {
        std::size_t end = start;
        holders.clear();
        while (end < entries.size() && entries[end].hash == entries[start].hash) {
            // A person adds each key once, however many entries give it.
            if (holders.empty() || holders.back() != entries[end].index) {
                holders.push_back(entries[end].index);
            }
            ++end;
        }
        if (holders.size() >= 2 && holders.size() <= kMostPeoplePerKey) {
            for (const auto index : holders) {
                const auto first = sets.find(holders.front());
                const auto root = sets.find(index);
                if (root != first) {
                    sets.parent[root] = first;
                }
                reasons[index] |= entries[start].reason;
            }
        }
        start = end;
    }

    // Only people who shared a key can be in a group: collect those alone,
    // in index order.
    std::vector<std::vector<std::uint32_t>> members;
    std::unordered_map<std::uint32_t, std::size_t> slotOfRoot;
    for (std::uint32_t index = 0; index < count; ++index) {
        if (reasons[index] == 0) {
            continue;
        }
        const auto [slot, added] = slotOfRoot.try_emplace(sets.find(index), members.size());
        if (added) {
            members.emplace_back();
        }
        members[slot->second].push_back(index);
    }

    std::vector<DuplicateGroup> groups;
    for (const auto& indexes : members) {
        if (indexes.size() < 2) {
            continue;
        }
        DuplicateGroup group;
        std::uint8_t all = 0;
        std::vector<std::string> memberKeys;
        for (const auto index : indexes) {
            group.people.push_back(at(index));
            all |= reasons[index];
            for (auto& text : Duplicates::keysOf(at(index))) {
                memberKeys.push_back(std::move(text));
            }
        }
        for (const auto& [reason, text] : {std::pair{Reason::email, DuplicateGroup::sameEmail},
                                           std::pair{Reason::phone, DuplicateGroup::samePhone},
                                           std::pair{Reason::name, DuplicateGroup::sameName}}) {
            if ((all & reason) != 0) {
                group.reasons.emplace_back(text);
            }
        }
        // The keys two or more of them hold, each once, sorted.
        std::sort(memberKeys.begin(), memberKeys.end());
        for (std::size_t i = 1; i < memberKeys.size(); ++i) {
            if (memberKeys[i] == memberKeys[i - 1] &&
                (group.keys.empty() || group.keys.back() != memberKeys[i])) {
                group.keys.push_back(memberKeys[i]);
            }
        }
        groups.push_back(std::move(group));
    }

    std::stable_sort(groups.begin(), groups.end(), [](const DuplicateGroup& a, const DuplicateGroup& b) {
        if (a.isStrong() != b.isStrong()) {
            return a.isStrong();
        }
        if (a.people.size() != b.people.size()) {
            return a.people.size() > b.people.size();
        }
        return a.people.front().sortKey() < b.people.front().sortKey();
    });
    return groups;
}

// The same entry on two cards, as the merge sheet lists it once.
std::string addressKey(const ContactDraft::Address& address) {
    return fold(address.street) + '\n' + fold(address.city) + '\n' + fold(address.state) + '\n' +
           fold(address.postalCode) + '\n' + fold(address.country);
}

std::string fieldKey(const ContactDraft::Field& field, bool isPhone) {
    if (isPhone) {
        auto digits = phoneKey(field.value);
        return digits.empty() ? fold(field.value) : digits;
    }
    return emailKey(field.value);
}

} // namespace

std::string DuplicateGroup::id() const {
    std::vector<std::string_view> ids;
    ids.reserve(people.size());
    for (const auto& person : people) {
        ids.push_back(person.id);
    }
    std::sort(ids.begin(), ids.end());
    std::string joined;
    for (const auto id : ids) {
        if (!joined.empty()) {
            joined += '+';
        }
        joined += id;
    }
    return joined;
}

bool DuplicateGroup::isStrong() const {
    return std::any_of(reasons.begin(), reasons.end(),
                       [](const std::string& reason) { return reason != sameName; });
}

namespace Duplicates {

std::vector<DuplicateGroup> findGroups(std::span<const Person> people) {
    return findGroupsOf(people.size(), [&](std::size_t index) -> const Person& { return people[index]; });
}

std::vector<DuplicateGroup> findGroups(std::span<const PersonPtr> people) {
    return findGroupsOf(people.size(), [&](std::size_t index) -> const Person& { return *people[index]; });
}

std::vector<std::string> keysOf(const Person& person) {
    std::vector<std::string> keys;
    std::string joined;
    std::string key;
    forEachKey(person, joined, key, [&](std::string_view text) {
        if (std::find(keys.begin(), keys.end(), text) == keys.end()) {
            keys.emplace_back(text);
        }
    });
    return keys;
}

std::string combineNotes(std::span<const std::string> notes) {
    // Paragraphs already taken. A note whose every paragraph is among them
    // adds nothing: that is also what a merge run again after it stopped
    // finds, the primary card already holding the combined note.
    std::vector<std::string_view> paragraphs;
    std::string combined;
    for (const auto& note : notes) {
        const auto trimmed = trimAsciiSpace(note);
        std::vector<std::string_view> own;
        for (std::size_t start = 0; start <= trimmed.size();) {
            const auto end = std::min(trimmed.find("\n\n", start), trimmed.size());
            own.push_back(trimmed.substr(start, end - start));
            start = end + 2;
        }
        const bool known = std::all_of(own.begin(), own.end(), [&](std::string_view paragraph) {
            return std::find(paragraphs.begin(), paragraphs.end(), paragraph) != paragraphs.end();
        });
        if (trimmed.empty() || known) {
            continue;
        }
        paragraphs.insert(paragraphs.end(), own.begin(), own.end());
        if (!combined.empty()) {
            combined += "\n\n";
        }
        combined += trimmed;
    }
    return combined;
}

MergePlan mergePlan(std::span<const MergeCard> ordered) {
    MergePlan plan;
    std::unordered_set<std::string> served;
    for (const auto& card : ordered) {
        if (card.accountIDs.size() == 1) {
            if (served.insert(card.accountIDs.front()).second) {
                plan.kept.push_back(card);
            } else {
                plan.removed.push_back(card);
            }
            continue;
        }
        served.insert(card.accountIDs.begin(), card.accountIDs.end());
        plan.kept.push_back(card);
    }
    return plan;
}

ContactDraft mergePrefill(std::span<const ContactDraft> cards) {
    ContactDraft result;
    if (cards.empty()) {
        return result;
    }
    const auto pick = [&](std::string ContactDraft::*field) {
        for (const auto& card : cards) {
            if (!trimAsciiSpace(card.*field).empty()) {
                result.*field = card.*field;
                return;
            }
        }
    };
    for (auto field : {&ContactDraft::namePrefix, &ContactDraft::givenName, &ContactDraft::middleName,
                       &ContactDraft::familyName, &ContactDraft::nameSuffix, &ContactDraft::nickname,
                       &ContactDraft::organization, &ContactDraft::department, &ContactDraft::jobTitle}) {
        pick(field);
    }
    std::unordered_set<std::string> phones;
    std::unordered_set<std::string> emails;
    std::unordered_set<std::string> addresses;
    std::unordered_set<std::string> links;
    for (const auto& card : cards) {
        for (const auto& phone : card.phones) {
            if (phones.insert(fieldKey(phone, true)).second) {
                result.phones.push_back(phone);
            }
        }
        for (const auto& email : card.emails) {
            if (emails.insert(fieldKey(email, false)).second) {
                result.emails.push_back(email);
            }
        }
        for (const auto& address : card.addresses) {
            if (addresses.insert(addressKey(address)).second) {
                result.addresses.push_back(address);
            }
        }
        for (const auto& link : card.links) {
            if (links.insert(std::to_string(static_cast<int>(link.service)) + ':' + fold(link.handle))
                    .second) {
                result.links.push_back(link);
            }
        }
    }
    return result;
}

} // namespace Duplicates
} // namespace kinbook
