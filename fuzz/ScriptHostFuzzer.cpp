// The scripting host takes only scripts Kinbook builds, and text from a card
// never becomes a statement. Each input is used twice:
//
// - as hostile values: its first line a card id, the rest a note, built into
//   the update, delete and note-reading scripts. Running them may reach that
//   one card and no other (a quote or line break in the id must not name a
//   second card or add a statement);
// - as a script of its own: whatever it does, every card it reaches must be
//   named in it as a quoted literal, the only way a built script names one.
//
//   build/fuzz/fuzz/ScriptHostFuzzer -max_total_time=60 fuzz/corpus/ScriptHostFuzzer

#include "KinbookKit/Clock.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/ScriptedCards.h"
#include "KinbookKit/addressbook/VdirScriptHost.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

using namespace kinbook;

namespace {

class FixedClock final : public Clock {
public:
    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::time_point(std::chrono::seconds(1'750'000'000));
    }
    std::chrono::steady_clock::time_point monotonicNow() const override { return {}; }
};

// Two cards in memory, and the ids every call reached.
class Cards final : public ScriptedCards {
public:
    Cards() {
        for (const std::string id : {"A", "B"}) {
            m_cards.emplace(id, "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Doe;" + id + ";;;\r\nFN:" + id +
                                    " Doe\r\nNOTE:old\r\nUID:" + id + "\r\nEND:VCARD\r\n");
        }
    }

    Result<VCard, AddressBookError> scriptedRead(std::string_view cardID) override {
        reached.emplace(cardID);
        const auto found = m_cards.find(std::string(cardID));
        if (found == m_cards.end()) {
            return failure(AddressBookError::notFound());
        }
        auto card = VCard::parse(found->second);
        if (!card.ok()) {
            std::abort();
        }
        return std::move(card.value());
    }

    Result<void, AddressBookError> scriptedEdit(std::string_view cardID, const Edit& edit) override {
        auto card = scriptedRead(cardID);
        if (!card.ok()) {
            return failure(card.error());
        }
        (void)edit(card.value(), std::string(cardID), m_registry);
        m_cards[std::string(cardID)] = card.value().serialize();
        return {};
    }

    Result<void, AddressBookError> scriptedRemove(std::string_view cardID) override {
        reached.emplace(cardID);
        if (m_cards.erase(std::string(cardID)) == 0) {
            return failure(AddressBookError::notFound());
        }
        return {};
    }

    std::set<std::string> reached;

private:
    std::map<std::string, std::string> m_cards;
    EntryRegistry m_registry;
};

// Runs `script` on fresh cards; the ids it reached.
std::set<std::string> reachedBy(std::string_view script) {
    static const FixedClock clock;
    Cards cards;
    VdirScriptHost host(cards, clock);
    (void)host.run(script);
    return cards.reached;
}

void expectOnly(const std::set<std::string>& reached, const std::set<std::string>& allowed) {
    for (const auto& id : reached) {
        if (!allowed.contains(id)) {
            std::abort();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const std::size_t newline = text.find('\n');
    const std::string id(text.substr(0, newline));
    const std::string note(newline == std::string_view::npos ? std::string_view{} : text.substr(newline + 1));
    expectOnly(reachedBy(ContactsAppScript::updateScript(ContactsAppScript::noteLines(id, note))), {id});
    expectOnly(reachedBy(ContactsAppScript::updateScript(ContactsAppScript::noteLines(id, std::nullopt))),
               {id});
    expectOnly(reachedBy(ContactsAppScript::deleteScript(id)), {id});
    const std::vector<std::string> ids{id, "A"};
    expectOnly(reachedBy(ContactsAppScript::readNotesScript(ids)), {id, "A"});

    for (const auto& reached : reachedBy(text)) {
        if (text.find(ContactsAppScript::quote(reached)) == std::string_view::npos) {
            std::abort();
        }
    }
    return 0;
}
