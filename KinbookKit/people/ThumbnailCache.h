#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kinbook {

using ThumbnailBytes = std::shared_ptr<const std::vector<std::uint8_t>>;

// Small JPEG thumbnails by card id, for the rows of the list. The total size
// of the bytes held stays within a cost limit; past it the thumbnails used
// longest ago go first. A card known to have no thumbnail is remembered too
// (at no cost), so that scrolling past it doesn't ask the store again.
// Not thread-safe: the list keeps it on its main executor.
class ThumbnailCache {
public:
    static constexpr std::size_t kCostLimit = 33'554'432; // 32 MiB

    explicit ThumbnailCache(std::size_t costLimit = kCostLimit) : m_costLimit(costLimit) {}

    struct Entry {
        bool known = false;   // the store has been asked about this card
        ThumbnailBytes bytes; // null when the card has none
    };

    // What is known about the card's thumbnail; counts as a use.
    Entry find(std::string_view id);
    // Keeps a thumbnail, or the fact that the card has none (null bytes).
    void insert(const std::string& id, ThumbnailBytes bytes);
    // Forgets a card's thumbnail, so that the next look-up asks the store.
    void erase(const std::string& id);
    void clear();

    std::size_t cost() const { return m_cost; }

private:
    struct Slot {
        ThumbnailBytes bytes;
        std::list<std::string>::iterator use;
    };
    void trim();

    std::size_t m_costLimit;
    std::size_t m_cost = 0;
    std::unordered_map<std::string, Slot> m_slots;
    std::list<std::string> m_uses; // least recently used first
};

} // namespace kinbook
