#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/addressbook/ScriptHost.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

class VdirAddressBook;

// The Contacts application's part, played on a vdir: runs the scripts
// ContactsAppScript builds against the address book's card files.
//
// It reads exactly the statement forms the builders write, with their
// indentation, and nothing else: any other text, an escape other than \\ and
// \" in a string, or a line out of place is a compile error, and a script
// that does not compile changes nothing. Card ids are read between their
// quotes as they are, as the builders write them.
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
    // `book` and `clock` must outlive the host. The clock gives
    // AppleScript's "current date" (read in local time) and the revision
    // time of the cards a script changes.
    explicit VdirScriptHost(VdirAddressBook& book, const Clock& clock = Clock::system());

    AutomationPermission automationPermission() override { return AutomationPermission::granted; }
    Result<std::vector<std::string>, ScriptError> run(std::string_view source) override;

private:
    VdirAddressBook& m_book;
    const Clock& m_clock;
};

} // namespace kinbook
