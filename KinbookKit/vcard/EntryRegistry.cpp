#include "KinbookKit/vcard/EntryRegistry.h"

#include "KinbookKit/text/Ascii.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

namespace kinbook {
namespace {

constexpr std::uint64_t kFnvOffset = 0xcbf29ce484222325ULL;
constexpr std::uint64_t kFnvPrime = 0x100000001b3ULL;

std::uint64_t fnv1a(std::uint64_t hash, std::string_view bytes) {
    for (char c : bytes) {
        hash ^= static_cast<unsigned char>(c);
        hash *= kFnvPrime;
    }
    return hash;
}

// Matches the entries of one card against what was remembered about it,
// one key at a time, each known entry used at most once.
class Matcher {
public:
    Matcher(std::span<const EntryRegistry::Entry> entries, const std::vector<EntryRegistry::Known>& known)
        : m_entries(entries), m_known(known), m_ids(entries.size()), m_entryMatched(entries.size(), false),
          m_knownUsed(known.size(), false) {}

    template <typename Same>
    void matchBy(Same same) {
        for (std::size_t i = 0; i < m_entries.size(); ++i) {
            if (m_entryMatched[i]) {
                continue;
            }
            for (std::size_t k = 0; k < m_known.size(); ++k) {
                if (!m_knownUsed[k] && m_known[k].entry.property == m_entries[i].property &&
                    same(m_known[k].entry, m_entries[i])) {
                    take(i, k);
                    break;
                }
            }
        }
    }

    // Where exactly one entry of a property is unmatched on each side, the
    // line was edited in place: it is the same entry.
    void matchLoneChanges() {
        std::map<std::string, std::pair<std::vector<std::size_t>, std::vector<std::size_t>>> open;
        for (std::size_t i = 0; i < m_entries.size(); ++i) {
            if (!m_entryMatched[i]) {
                open[m_entries[i].property].first.push_back(i);
            }
        }
        for (std::size_t k = 0; k < m_known.size(); ++k) {
            if (!m_knownUsed[k]) {
                open[m_known[k].entry.property].second.push_back(k);
            }
        }
        for (const auto& [property, sides] : open) {
            if (sides.first.size() == 1 && sides.second.size() == 1) {
                take(sides.first.front(), sides.second.front());
            }
        }
    }

    std::vector<std::string> finish(std::vector<std::string> derived) {
        for (std::size_t i = 0; i < m_ids.size(); ++i) {
            if (!m_entryMatched[i]) {
                m_ids[i] = std::move(derived[i]);
            }
        }
        return m_ids;
    }

private:
    void take(std::size_t entry, std::size_t known) {
        m_ids[entry] = m_known[known].id;
        m_entryMatched[entry] = true;
        m_knownUsed[known] = true;
    }

    std::span<const EntryRegistry::Entry> m_entries;
    const std::vector<EntryRegistry::Known>& m_known;
    std::vector<std::string> m_ids;
    std::vector<bool> m_entryMatched;
    std::vector<bool> m_knownUsed;
};

} // namespace

EntryRegistry::EntryRegistry(Loader loader) : m_loader(std::move(loader)) {}

std::string EntryRegistry::fingerprintOf(std::string_view bytes) {
    return fmt::format("{:016x}", fnv1a(kFnvOffset, bytes));
}

std::string EntryRegistry::derivedID(std::string_view cardID, const Entry& entry, int occurrence) {
    std::uint64_t hash = fnv1a(kFnvOffset, cardID);
    hash = fnv1a(hash, std::string_view("\x1f", 1));
    hash = fnv1a(hash, entry.property);
    hash = fnv1a(hash, std::string_view("\x1f", 1));
    hash = fnv1a(hash, entry.fingerprint);
    hash = fnv1a(hash, std::string_view("\x1f", 1));
    hash = fnv1a(hash, std::to_string(occurrence));
    return fmt::format("{:016X}", hash);
}

std::vector<std::string> EntryRegistry::derivedIDs(std::string_view cardID, std::span<const Entry> entries) {
    std::vector<std::string> ids;
    ids.reserve(entries.size());
    std::map<std::pair<std::string, std::string>, int> occurrences;
    for (const auto& entry : entries) {
        const int occurrence = occurrences[{entry.property, entry.fingerprint}]++;
        ids.push_back(derivedID(cardID, entry, occurrence));
    }
    return ids;
}

std::vector<std::string> EntryRegistry::identify(std::string_view cardID, std::span<const Entry> entries) {
    load();
    auto derived = derivedIDs(cardID, entries);
    const auto found = m_cards.find(cardID);
    if (found == m_cards.end()) {
        return derived;
    }
    Matcher matcher(entries, found->second);
    matcher.matchBy(
        [](const Entry& known, const Entry& entry) { return known.pid && known.pid == entry.pid; });
    matcher.matchBy(
        [](const Entry& known, const Entry& entry) { return known.fingerprint == entry.fingerprint; });
    matcher.matchBy([](const Entry& known, const Entry& entry) {
        return known.normalizedValue == entry.normalizedValue;
    });
    matcher.matchLoneChanges();
    auto ids = matcher.finish(std::move(derived));
    // Remember the card as it is now, so the next outside change is matched
    // against this state rather than an older one.
    std::vector<Known> now;
    now.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        now.push_back({entries[i], ids[i]});
    }
    if (now.size() != found->second.size() ||
        !std::equal(now.begin(), now.end(), found->second.begin(),
                    [](const Known& a, const Known& b) { return a.entry == b.entry && a.id == b.id; })) {
        found->second = std::move(now);
        m_dirty = true;
    }
    return ids;
}

void EntryRegistry::record(std::string_view cardID, std::span<const Entry> entries,
                           std::span<const std::string> ids) {
    load();
    const auto derived = derivedIDs(cardID, entries);
    if (std::equal(derived.begin(), derived.end(), ids.begin(), ids.end())) {
        // Every identity is the derived one: nothing needs remembering.
        if (m_cards.erase(std::string(cardID)) > 0) {
            m_dirty = true;
        }
        return;
    }
    std::vector<Known> known;
    known.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size() && i < ids.size(); ++i) {
        known.push_back({entries[i], ids[i]});
    }
    m_cards[std::string(cardID)] = std::move(known);
    m_dirty = true;
}

void EntryRegistry::forget(std::string_view cardID) {
    load();
    if (const auto found = m_cards.find(cardID); found != m_cards.end()) {
        m_cards.erase(found);
        m_dirty = true;
    }
}

void EntryRegistry::load() {
    if (m_loaded) {
        return;
    }
    m_loaded = true;
    if (!m_loader) {
        return;
    }
    const auto document = nlohmann::json::parse(m_loader(), nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return;
    }
    try {
        for (const auto& [cardID, list] : document.items()) {
            std::vector<Known> known;
            for (const auto& item : list) {
                Known entry;
                item.at("id").get_to(entry.id);
                item.at("property").get_to(entry.entry.property);
                item.at("fingerprint").get_to(entry.entry.fingerprint);
                item.at("value").get_to(entry.entry.normalizedValue);
                if (const auto pid = item.find("pid"); pid != item.end()) {
                    entry.entry.pid = pid->get<std::string>();
                }
                known.push_back(std::move(entry));
            }
            m_cards[cardID] = std::move(known);
        }
    } catch (const nlohmann::json::exception&) {
        // A damaged file remembers nothing; identities fall back to their
        // derived form, which only matters for lines Kinbook rewrote.
        m_cards.clear();
    }
}

std::string EntryRegistry::encoded() const {
    auto document = nlohmann::json::object();
    for (const auto& [cardID, known] : m_cards) {
        auto list = nlohmann::json::array();
        for (const auto& entry : known) {
            nlohmann::json item = {{"id", entry.id},
                                   {"property", entry.entry.property},
                                   {"fingerprint", entry.entry.fingerprint},
                                   {"value", entry.entry.normalizedValue}};
            if (entry.entry.pid) {
                item["pid"] = *entry.entry.pid;
            }
            list.push_back(std::move(item));
        }
        document[cardID] = std::move(list);
    }
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string normalizedEntryValue(std::string_view property, std::string_view value) {
    const std::string_view trimmed = trimAsciiSpace(value);
    if (equalsIgnoringAsciiCase(property, "TEL")) {
        std::string digits;
        for (char c : trimmed) {
            if (isAsciiDigit(c) || (c == '+' && digits.empty())) {
                digits.push_back(c);
            }
        }
        return digits;
    }
    if (equalsIgnoringAsciiCase(property, "EMAIL")) {
        return asciiLowered(trimmed);
    }
    return std::string(trimmed);
}

} // namespace kinbook
