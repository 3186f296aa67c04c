#include "KinbookKit/people/ThumbnailCache.h"

namespace kinbook {
namespace {

std::size_t costOf(const ThumbnailBytes& bytes) {
    return bytes ? bytes->size() : 0;
}

} // namespace

ThumbnailCache::Entry ThumbnailCache::find(std::string_view id) {
    const auto found = m_slots.find(std::string(id));
    if (found == m_slots.end()) {
        return {};
    }
    m_uses.splice(m_uses.end(), m_uses, found->second.use);
    return {true, found->second.bytes};
}

void ThumbnailCache::insert(const std::string& id, ThumbnailBytes bytes) {
    erase(id);
    if (costOf(bytes) > m_costLimit) {
        return; // keeping it would push out everything else
    }
    m_cost += costOf(bytes);
    m_uses.push_back(id);
    m_slots.emplace(id, Slot{std::move(bytes), std::prev(m_uses.end())});
    trim();
}

void ThumbnailCache::erase(const std::string& id) {
    const auto found = m_slots.find(id);
    if (found == m_slots.end()) {
        return;
    }
    m_cost -= costOf(found->second.bytes);
    m_uses.erase(found->second.use);
    m_slots.erase(found);
}

void ThumbnailCache::clear() {
    m_slots.clear();
    m_uses.clear();
    m_cost = 0;
}

void ThumbnailCache::trim() {
    while (m_cost > m_costLimit && !m_uses.empty()) {
        erase(std::string(m_uses.front()));
    }
}

} // namespace kinbook
