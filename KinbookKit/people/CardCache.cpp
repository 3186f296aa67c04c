#include "KinbookKit/people/CardCache.h"

#include <algorithm>

namespace kinbook {

const ContactCard* CardCache::find(std::string_view id) const {
    const auto found = m_cards.find(std::string(id));
    return found == m_cards.end() ? nullptr : &found->second;
}

void CardCache::insert(const std::string& id, ContactCard card) {
    const auto [slot, inserted] = m_cards.insert_or_assign(id, std::move(card));
    (void)slot;
    if (inserted) {
        m_order.push_back(id);
    }
    while (m_order.size() > m_capacity) {
        m_cards.erase(m_order.front());
        m_order.pop_front();
    }
}

void CardCache::erase(const std::string& id) {
    if (m_cards.erase(id) > 0) {
        m_order.erase(std::find(m_order.begin(), m_order.end(), id));
    }
}

} // namespace kinbook
