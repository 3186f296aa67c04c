#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace kinbook {

// Ids of people or cards to small numbers: where the person with the id sits
// in a list of people its owner keeps. One flat array probed in a line rather
// than a map of nodes: the list's start fills two of these with every person
// of the address book, and an allocation per person was most of that time.
//
// The table keeps no ids, only each one's number and 32 bits of its hash, so
// that a look-up rarely has to fetch a person to compare ids. The caller
// answers for the ids, through `holds(value, id)`: whether `id` is one of the
// ids it added as `value` (a person's own id, or one of their cards'). It is
// asked only when the hashes agree. Nothing is ever taken out, and an id
// added twice keeps the number it was first added as.
class IdTable {
public:
    IdTable() = default;
    // Room for `expected` ids before the table has to grow.
    explicit IdTable(std::size_t expected);

    // The number `id` was first added as.
    template <typename Holds>
    std::optional<std::uint32_t> find(std::string_view id, const Holds& holds) const;

    // Adds `id` as `value`; false, changing nothing, when it was added
    // before. `value` may be anything but UINT32_MAX.
    template <typename Holds>
    bool insert(std::string_view id, std::uint32_t value, const Holds& holds);

    // Calls `visit(value)` for every entry, in no particular order.
    template <typename Visit>
    void forEach(const Visit& visit) const;

private:
    struct Slot {
        std::uint32_t hash;
        std::uint32_t value;
    };
    static constexpr std::uint32_t kEmpty = UINT32_MAX;

    static std::uint32_t hashOf(std::string_view id) {
        return static_cast<std::uint32_t>(std::hash<std::string_view>{}(id));
    }
    std::size_t mask() const { return m_slots.size() - 1; }
    void place(Slot slot);
    void grow();

    // A power of two in size, never more than half full, so that every probe
    // ends at an empty slot.
    std::vector<Slot> m_slots;
    std::size_t m_size = 0;
};

template <typename Holds>
std::optional<std::uint32_t> IdTable::find(std::string_view id, const Holds& holds) const {
    if (m_slots.empty()) {
        return std::nullopt;
    }
    const std::uint32_t hash = hashOf(id);
    for (std::size_t at = hash & mask();; at = (at + 1) & mask()) {
        const Slot slot = m_slots[at];
        if (slot.value == kEmpty) {
            return std::nullopt;
        }
        if (slot.hash == hash && holds(slot.value, id)) {
            return slot.value;
        }
    }
}

template <typename Holds>
bool IdTable::insert(std::string_view id, std::uint32_t value, const Holds& holds) {
    if ((m_size + 1) * 2 > m_slots.size()) {
        grow();
    }
    const std::uint32_t hash = hashOf(id);
    for (std::size_t at = hash & mask();; at = (at + 1) & mask()) {
        Slot& slot = m_slots[at];
        if (slot.value == kEmpty) {
            slot = {hash, value};
            ++m_size;
            return true;
        }
        if (slot.hash == hash && holds(slot.value, id)) {
            return false;
        }
    }
}

template <typename Visit>
void IdTable::forEach(const Visit& visit) const {
    for (const Slot& slot : m_slots) {
        if (slot.value != kEmpty) {
            visit(slot.value);
        }
    }
}

} // namespace kinbook
