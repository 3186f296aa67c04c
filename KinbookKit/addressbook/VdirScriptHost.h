#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/addressbook/ScriptHost.h"
#include "KinbookKit/addressbook/ScriptedCards.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The Contacts application's part, played on a vdir: runs the scripts
// ContactsAppScript builds against the address book's card files.
//
// It reads exactly the statement forms the builders write, with their
// indentation, laid out as one of the three scripts they make (update,
// delete, note reading), and nothing else: any other text, an escape other
// than \\ and \" in a string, or a line out of place is a compile error,
// and a script that does not compile changes nothing. Card ids are string
// literals like every other text.
//
// Running follows the application's rules: "set p to person id" fails at
// once for a card that doesn't exist; changes are made to the cards only at
// "save", each card through the address book's own lossless writing (only
// the lines a change is about are rewritten, entries whose label and value
// are still there keep their bytes and identities, notes may be changed);
// "delete person id" deletes at "save"; dates follow AppleScript, so setting
// a month on the 31st overflows into the next month; the note-reading
// script's result is its list `out`. A statement that fails stops the script
// with a message; what was saved before it stays saved.
//
// Automation is always permitted. Thread-safe: each run keeps its own state.
class VdirScriptHost final : public ScriptHost {
public:
    // A host for a store not made yet: the store is handed this host, then
    // the host the store (attach), before the first script runs. `clock`
    // gives AppleScript's "current date" (read in local time) and the
    // revision time of the cards a script changes; it must outlive the host.
    explicit VdirScriptHost(const Clock& clock = Clock::system());
    // A host on a store that exists already. `cards` must outlive the host.
    explicit VdirScriptHost(ScriptedCards& cards, const Clock& clock = Clock::system());

    // Gives the host the store whose cards its scripts change. Call once,
    // before the first script runs; `cards` must outlive every run. Until
    // then a script that reaches a card fails.
    void attach(ScriptedCards& cards) { m_cards = &cards; }

    AutomationPermission automationPermission() override { return AutomationPermission::granted; }
    Result<std::vector<std::string>, ScriptError> run(std::string_view source) override;

private:
    ScriptedCards* m_cards = nullptr;
    const Clock& m_clock;
};

} // namespace kinbook
