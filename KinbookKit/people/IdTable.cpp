#include "KinbookKit/people/IdTable.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace kinbook {
namespace {

constexpr std::size_t kFewestSlots = 16;

} // namespace

IdTable::IdTable(std::size_t expected)
    : m_slots(std::bit_ceil(std::max(kFewestSlots, expected * 2)), Slot{0, kEmpty}) {}

void IdTable::place(Slot slot) {
    std::size_t at = slot.hash & mask();
    while (m_slots[at].value != kEmpty) {
        at = (at + 1) & mask();
    }
    m_slots[at] = slot;
}

void IdTable::grow() {
    const std::vector<Slot> old = std::exchange(m_slots, {});
    m_slots.assign(std::max(kFewestSlots, old.size() * 2), Slot{0, kEmpty});
    // Entries of one hash sit in one run of slots in the order they were
    // added, and a look-up takes the first of them that holds its id. Each
    // run is moved from its start, beginning after an empty slot, so that
    // they keep that order.
    std::size_t start = 0;
    while (start < old.size() && old[start].value != kEmpty) {
        ++start;
    }
    for (std::size_t k = 1; k <= old.size(); ++k) {
        const Slot slot = old[(start + k) & (old.size() - 1)];
        if (slot.value != kEmpty) {
            place(slot);
        }
    }
}

} // namespace kinbook
