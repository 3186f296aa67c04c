#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/text/KinLog.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Keeps notes safe while they are lifted off cards for a change the store
// refuses on a card with a note (a new contact photo).
//
// A lifted note lives in the held-notes file, "notes-in-flight.json" (one
// JSON object: address book to an object of card id to note text), from
// just before it is cleared until just after it is set back. A crash in
// between leaves it there, and restoreHeld() puts it back at the next start,
// into the address book it was lifted from and no other. Every read-modify-write of
// the file happens under one process-wide lock and replaces the file
// atomically; a missing, empty or damaged file holds nothing.
//
// Thread-safe. The scripts run on the ContactsAppScript's queue, so the
// caller must not hold a lock that the scripting host's changes take.
class NoteGuard {
public:
    // The steps of lifting notes, in order, for the fault-injection hook.
    enum class Step {
        read,     // the notes were read
        held,     // they are in the held-notes file
        lifted,   // they were cleared from the cards
        changed,  // the store took the change
        restored, // they were set back
        released, // they left the held-notes file
    };

    static constexpr std::string_view fileName = "notes-in-flight.json";
    // What the application tells the user when held notes were put back.
    static constexpr std::string_view restoredMessage = "Restored after a crash";
    // ... and when a card's note changed while its old one was held.
    static constexpr std::string_view bothKeptMessage =
        "A note held after a crash differs from the card's note now; both were kept, the newer first";

    // "$XDG_DATA_HOME/kinbook/notes-in-flight.json", else
    // "~/.local/share/kinbook/notes-in-flight.json".
    static std::filesystem::path defaultFile();

    // `log` gets the lines of lifting and recovery; `stepHook`, for tests,
    // runs after each step and stops the sequence right there (as a crash
    // would, with no clean-up) when it returns false. `book` names the
    // address book (its folder) whose notes this guard holds.
    NoteGuard(std::filesystem::path file, std::shared_ptr<KinLog> log,
              std::function<bool(Step)> stepHook = {}, std::string book = {});

    // The name the held-notes file knows the address book at `root` by.
    static std::string bookKey(const std::filesystem::path& root);

    const std::filesystem::path& file() const { return m_file; }

    // The held notes; nothing when the file is missing or unreadable.
    std::map<std::string, std::string> held() const;
    // Adds the notes (a card held again takes its new note); false when the
    // file could not be written, which leaves it as it was.
    bool hold(const std::map<std::string, std::string>& notes);
    // Removes the cards' entries; false when the file could not be written.
    bool release(std::span<const std::string> cardIDs);

    // Runs `change` on cards that carry notes: reads their notes, holds them,
    // clears them through `script`, runs the change, sets the notes back and
    // releases them. A note is never cleared unless it is held. When the
    // change or the clearing fails the notes are put back all the same and
    // the failure is returned; when setting them back fails they stay held
    // for restoreHeld() and the failure is returned. Returns the number of
    // notes lifted and restored.
    Result<std::size_t, std::string> liftWhile(std::span<const std::string> cardIDs,
                                               ContactsAppScript& script,
                                               const std::function<Result<void, std::string>()>& change);

    // Sets every held note back on its card, one card at a time, releasing
    // each one restored; a note that can't be restored stays held for a later
    // attempt. A card whose note is no longer the lifted one (it has one
    // again) keeps it and takes the held note below it; its id goes to
    // `keptBoth`. Returns the number restored.
    std::size_t restoreHeld(ContactsAppScript& script, std::vector<std::string>* keptBoth = nullptr);

private:
    bool reached(Step step) const { return !m_stepHook || m_stepHook(step); }
    bool change(const std::function<void(std::map<std::string, std::string>&)>& edit);

    std::filesystem::path m_file;
    std::shared_ptr<KinLog> m_log;
    std::function<bool(Step)> m_stepHook;
    std::string m_book;
};

} // namespace kinbook
