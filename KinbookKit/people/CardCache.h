#pragma once

#include "KinbookKit/records/ContactCard.h"

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kinbook {

// The full cards the person's page has read lately, so that going back and
// forth between a few people doesn't read their files again. Holds at most
// `capacity` cards; the oldest to enter leaves first, and reading a card does
// not make it younger. Not thread-safe: the list keeps it on its main executor.
class CardCache {
public:
    static constexpr std::size_t kCapacity = 64;

    explicit CardCache(std::size_t capacity = kCapacity) : m_capacity(capacity) {}

    // Null when the card is not held.
    const ContactCard* find(std::string_view id) const;

    // Keeps the card, replacing a copy already held (which keeps its place
    // in line), and lets the oldest go beyond the capacity.
    void insert(const std::string& id, ContactCard card);

    // Forgets a card that is gone.
    void erase(const std::string& id);

    bool contains(std::string_view id) const { return find(id) != nullptr; }
    std::size_t size() const { return m_order.size(); }
    // Card ids in the order they entered.
    const std::deque<std::string>& order() const { return m_order; }

private:
    std::size_t m_capacity;
    std::unordered_map<std::string, ContactCard> m_cards;
    std::deque<std::string> m_order;
};

} // namespace kinbook
