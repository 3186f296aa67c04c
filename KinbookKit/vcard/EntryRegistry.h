#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Stable identities for the entries of cards (each phone, e-mail, address,
// web address, messaging and social entry), so that an edit made in the
// editor lands on the same entry of the current file.
//
// vCard 3.0 has no per-entry identifier, and writing one into every card
// would upload the whole address book once and be dropped by servers that
// rebuild cards. So Kinbook writes nothing into cards for this. An entry's
// identity is derived from the card, the property, a fingerprint of its raw
// line (the group left out, since other programs renumber groups) and its
// occurrence among identical lines: an untouched line keeps its identity
// forever without anything being stored. Only when Kinbook itself rewrites a
// line (a changed value, a new label) does the identity have to move with it;
// those cards' entries are remembered and persisted. When a remembered card
// changes outside Kinbook, entries are matched again by their 4.0 PID, then
// by fingerprint, then by normalised value, then by position where exactly
// one entry of a property changed; anything left gets its derived identity.
//
// Not thread-safe: owned by the address book's serial executor.
class EntryRegistry {
public:
    struct Entry {
        std::string property;        // upper-case property name: "TEL", "EMAIL", "ADR", …
        std::string fingerprint;     // fingerprintOf(raw line without its group)
        std::string normalizedValue; // digits for phones, lower-case for e-mail, trimmed text otherwise
        std::optional<std::string> pid;

        bool operator==(const Entry&) const = default;
    };

    // Gives the remembered cards as encoded() wrote them, asked once, when
    // the registry is first used. Empty or damaged text means nothing is
    // remembered: identities fall back to their derived form.
    using Loader = std::function<std::string()>;

    // Without a loader the registry starts empty and lives in memory only.
    explicit EntryRegistry(Loader loader = {});
    virtual ~EntryRegistry() = default;
    EntryRegistry(const EntryRegistry&) = delete;
    EntryRegistry& operator=(const EntryRegistry&) = delete;

    // The identities of a card's entries, in the order given.
    std::vector<std::string> identify(std::string_view cardID, std::span<const Entry> entries);

    // After Kinbook wrote a card: the entries as now written and the
    // identities they must carry (a changed phone keeps its identity; a new
    // one takes the editor's). `ids` has one element per entry.
    void record(std::string_view cardID, std::span<const Entry> entries, std::span<const std::string> ids);

    // The card is gone (or its file was replaced wholesale).
    void forget(std::string_view cardID);

    // Whether anything changed since the registry was loaded or last kept.
    bool hasChanges() const { return m_dirty; }
    // The remembered cards as one JSON document, for whoever keeps them.
    std::string encoded() const;
    // The encoded state has been kept safely.
    void markKept() { m_dirty = false; }

    // A stable fingerprint of raw bytes (64-bit FNV-1a, as 16 hex digits).
    static std::string fingerprintOf(std::string_view bytes);

    // The identity an entry has when nothing is remembered about its card.
    static std::string derivedID(std::string_view cardID, const Entry& entry, int occurrence);

    // An entry as last seen, with the identity it carries.
    struct Known {
        Entry entry;
        std::string id;
    };

private:
    void load();
    static std::vector<std::string> derivedIDs(std::string_view cardID, std::span<const Entry> entries);

    Loader m_loader;
    bool m_loaded = false;
    bool m_dirty = false;
    std::map<std::string, std::vector<Known>, std::less<>> m_cards; // cards whose identities moved
};

// The value an entry is matched by when its line changed: phone digits (a
// leading "+" kept), e-mail lower-cased, other text trimmed.
std::string normalizedEntryValue(std::string_view property, std::string_view value);

} // namespace kinbook
