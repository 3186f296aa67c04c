#include "KinbookKit/addressbook/CardIndex.h"

#include <cstring>
#include <functional>
#include <memory_resource>
#include <unordered_map>

namespace kinbook {

namespace {

// An id with its hash worked out once, wherever that was.
struct Key {
    std::string_view id;
    std::size_t hash = 0;
    bool operator==(const Key& other) const { return id == other.id; }
};

struct KeyHash {
    std::size_t operator()(const Key& key) const { return key.hash; }
};

} // namespace

// The map and the arena it and its texts live in; held by pointer, so that
// moving an index never moves the map away from its arena.
struct CardIndex::Entries {
    std::pmr::monotonic_buffer_resource arena;
    std::pmr::unordered_map<Key, Place, KeyHash> map{&arena};

    std::string_view keep(std::string_view text) {
        if (text.empty()) {
            return {};
        }
        auto* bytes = static_cast<char*>(arena.allocate(text.size(), 1));
        std::memcpy(bytes, text.data(), text.size());
        return {bytes, text.size()};
    }

    Place placeOf(std::string_view cardID, std::uint32_t account, std::string_view fileName) {
        const bool usual = fileName.size() == cardID.size() + 4 && fileName.starts_with(cardID) &&
                           fileName.ends_with(".vcf");
        return Place{account, usual ? std::string_view() : keep(fileName)};
    }
};

CardIndex::CardIndex() : m_entries(std::make_unique<Entries>()) {}

CardIndex::CardIndex(std::size_t expected) : CardIndex() {
    m_entries->map.reserve(expected);
}

CardIndex::CardIndex(CardIndex&& other) noexcept = default;
CardIndex& CardIndex::operator=(CardIndex&& other) noexcept = default;
CardIndex::~CardIndex() = default;

std::size_t CardIndex::hashOf(std::string_view cardID) {
    return std::hash<std::string_view>{}(cardID);
}

const CardIndex::Place* CardIndex::find(std::string_view cardID) const {
    if (!m_entries) {
        return nullptr;
    }
    const auto found = m_entries->map.find(Key{cardID, hashOf(cardID)});
    return found == m_entries->map.end() ? nullptr : &found->second;
}

bool CardIndex::insert(std::string_view cardID, std::size_t hash, std::uint32_t account,
                       std::string_view fileName) {
    if (!m_entries) {
        m_entries = std::make_unique<Entries>();
    }
    if (m_entries->map.contains(Key{cardID, hash})) {
        return false;
    }
    m_entries->map.emplace(Key{m_entries->keep(cardID), hash}, m_entries->placeOf(cardID, account, fileName));
    return true;
}

void CardIndex::set(std::string_view cardID, std::uint32_t account, std::string_view fileName) {
    if (!insert(cardID, account, fileName)) {
        m_entries->map.find(Key{cardID, hashOf(cardID)})->second =
            m_entries->placeOf(cardID, account, fileName);
    }
}

void CardIndex::erase(std::string_view cardID) {
    if (m_entries) {
        m_entries->map.erase(Key{cardID, hashOf(cardID)});
    }
}

std::size_t CardIndex::size() const {
    return m_entries ? m_entries->map.size() : 0;
}

} // namespace kinbook
