#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kinbook {

// Collects the events of one change-history fetch, in journal order, into the
// cards to read again and the cards that are gone. The last event for a card
// wins: a card added and then deleted is only deleted, a card deleted and then
// written again (an id reused) is only changed.
//
// Used by one thread during one fetch; the sets returned by changed() and
// deleted() are copies and may be passed on freely.
class ChangeSet {
public:
    // Everything the caller knows is stale; it must read the address book anew.
    void visitDropEverything() { m_dropEverything = true; }
    void visitAdd(const std::string& cardID) { markChanged(cardID); }
    void visitUpdate(const std::string& cardID) { markChanged(cardID); }
    void visitDelete(const std::string& cardID);

    bool dropEverything() const { return m_dropEverything; }
    std::set<std::string> changed() const { return m_changedIDs; }
    std::set<std::string> deleted() const { return m_deletedIDs; }

    // The history position after the visited events; absent until set.
    const std::optional<std::vector<std::uint8_t>>& token() const { return m_token; }
    void setToken(std::vector<std::uint8_t> token) { m_token = std::move(token); }

private:
    void markChanged(const std::string& cardID);

    bool m_dropEverything = false;
    std::optional<std::vector<std::uint8_t>> m_token;
    std::set<std::string> m_changedIDs;
    std::set<std::string> m_deletedIDs;
};

} // namespace kinbook
