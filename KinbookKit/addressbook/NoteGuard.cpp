#include "KinbookKit/addressbook/NoteGuard.h"

#include "KinbookKit/AtomicFile.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

using HeldNotes = std::map<std::string, std::string>;
using NoteChange = std::pair<std::string, std::optional<std::string>>;

// One lock for the whole process: two address books on the same data folder
// (the application's and a self-test's) must not interleave their
// read-modify-writes of the one file.
std::mutex& heldNotesLock() {
    static std::mutex lock;
    return lock;
}

// The whole file: an object of address books, each an object of card id to
// note text. A missing, empty or damaged file, or one that isn't an object,
// holds nothing.
nlohmann::json readHeldFile(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) {
        return nlohmann::json::object();
    }
    std::string text;
    try {
        std::ifstream in(file, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } catch (const std::exception&) {
        return nlohmann::json::object(); // a read error (the stream library reports some by throwing)
    }
    auto document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        return nlohmann::json::object();
    }
    return document;
}

// One address book's notes in the file; entries that aren't texts are
// skipped. Entries of other books (and of the older file that had no books,
// whose cards can't be told apart) are never this book's.
HeldNotes notesOf(const nlohmann::json& document, const std::string& book) {
    HeldNotes notes;
    const auto found = document.find(book);
    if (found == document.end() || !found->is_object()) {
        return notes;
    }
    for (const auto& [id, note] : found->items()) {
        if (note.is_string()) {
            notes.emplace(id, note.get<std::string>());
        }
    }
    return notes;
}

bool writeHeldFile(const std::filesystem::path& file, nlohmann::json& document, const std::string& book,
                   const HeldNotes& notes) {
    if (notes.empty()) {
        document.erase(book);
    } else {
        document[book] = nlohmann::json(notes);
    }
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    return writeFileAtomically(
        file, document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n", 0600);
}

std::vector<NoteChange> noteChanges(const HeldNotes& notes, bool clear) {
    std::vector<NoteChange> changes;
    for (const auto& [id, note] : notes) {
        changes.emplace_back(id, clear ? std::nullopt : std::optional<std::string>(note));
    }
    return changes;
}

std::vector<std::string> idsOf(const HeldNotes& notes) {
    std::vector<std::string> ids;
    for (const auto& [id, note] : notes) {
        ids.push_back(id);
    }
    return ids;
}

} // namespace

std::filesystem::path NoteGuard::defaultFile() {
    const char* data = std::getenv("XDG_DATA_HOME");
    std::filesystem::path folder;
    if (data != nullptr && data[0] == '/') {
        folder = std::filesystem::path(data) / "kinbook";
    } else {
        const char* home = std::getenv("HOME");
        folder = std::filesystem::path(home != nullptr ? home : "/tmp") / ".local" / "share" / "kinbook";
    }
    return folder / fileName;
}

std::string NoteGuard::bookKey(const std::filesystem::path& root) {
    return std::filesystem::absolute(root).lexically_normal().string();
}

NoteGuard::NoteGuard(std::filesystem::path file, std::shared_ptr<KinLog> log,
                     std::function<bool(Step)> stepHook, std::string book)
    : m_file(std::move(file)), m_log(log ? std::move(log) : std::make_shared<KinLog>("store")),
      m_stepHook(std::move(stepHook)), m_book(std::move(book)) {}

HeldNotes NoteGuard::held() const {
    std::lock_guard lock(heldNotesLock());
    return notesOf(readHeldFile(m_file), m_book);
}

bool NoteGuard::change(const std::function<void(HeldNotes&)>& edit) {
    std::lock_guard lock(heldNotesLock());
    nlohmann::json document = readHeldFile(m_file);
    HeldNotes notes = notesOf(document, m_book);
    const HeldNotes before = notes;
    edit(notes);
    if (notes == before && std::filesystem::exists(m_file)) {
        return true;
    }
    return writeHeldFile(m_file, document, m_book, notes);
}

bool NoteGuard::hold(const HeldNotes& notes) {
    return change([&](HeldNotes& held) {
        for (const auto& [id, note] : notes) {
            held[id] = note;
        }
    });
}

bool NoteGuard::release(std::span<const std::string> cardIDs) {
    return change([&](HeldNotes& held) {
        for (const auto& id : cardIDs) {
            held.erase(id);
        }
    });
}

Result<std::size_t, std::string>
NoteGuard::liftWhile(std::span<const std::string> cardIDs, ContactsAppScript& script,
                     const std::function<Result<void, std::string>()>& change) {
    const auto read = script.readNotes(cardIDs);
    if (!read.ok()) {
        return failure(read.error().description());
    }
    // A note that reads as empty can't be held, so it isn't lifted either:
    // the store goes on refusing that card rather than losing its note.
    HeldNotes notes;
    for (std::size_t i = 0; i < cardIDs.size(); ++i) {
        if (!read.value()[i].empty()) {
            notes[cardIDs[i]] = read.value()[i];
        }
    }
    const std::string stopped = "stopped";
    if (!reached(Step::read)) {
        return failure(stopped);
    }
    if (notes.empty()) {
        auto changed = change();
        if (!changed.ok()) {
            return failure(changed.error());
        }
        return std::size_t{0};
    }
    if (!hold(notes)) {
        return failure(fmt::format("couldn't hold the notes in {}", m_file.string()));
    }
    if (!reached(Step::held)) {
        return failure(stopped);
    }

    const auto ids = idsOf(notes);
    // Sets the notes back after a failure; they stay held unless that worked.
    auto putBack = [&](std::string why) -> Result<std::size_t, std::string> {
        const auto back = script.setNotes(noteChanges(notes, false));
        if (back.ok()) {
            release(ids);
        } else {
            m_log->error("couldn't restore a held note: " + back.error().description());
        }
        return failure(std::move(why));
    };

    const auto lifted = script.setNotes(noteChanges(notes, true));
    if (!lifted.ok()) {
        return putBack(lifted.error().description());
    }
    if (!reached(Step::lifted)) {
        return failure(stopped);
    }
    const auto changed = change();
    if (!changed.ok()) {
        return putBack(changed.error());
    }
    if (!reached(Step::changed)) {
        return failure(stopped);
    }
    const auto restored = script.setNotes(noteChanges(notes, false));
    if (!restored.ok()) {
        // Held still: the next start puts them back.
        m_log->error("couldn't restore a held note: " + restored.error().description());
        return failure(restored.error().description());
    }
    if (!reached(Step::restored)) {
        return failure(stopped);
    }
    if (!release(ids)) {
        // Harmless: recovery sets the same notes once more.
        m_log->error(fmt::format("couldn't release held notes in {}", m_file.string()));
    }
    if (!reached(Step::released)) {
        return failure(stopped);
    }
    return notes.size();
}

std::size_t NoteGuard::restoreHeld(ContactsAppScript& script, std::vector<std::string>* keptBoth) {
    const HeldNotes notes = held();
    std::size_t restored = 0;
    for (const auto& [id, note] : notes) {
        // One card at a time, so that one card that is gone doesn't keep
        // the others' notes from coming back.
        const std::vector<std::string> ids{id};
        const auto onCard = script.readNotes(ids);
        if (!onCard.ok()) {
            m_log->error("couldn't restore a held note: " + onCard.error().description());
            continue;
        }
        const std::string& now = onCard.value().front();
        // The held note goes back only where the card's note is still the
        // lifted one (none). A note written since is the user's too: both
        // are kept, the newer first, and the user is told.
        std::optional<std::string> restoredNote;
        if (now.empty()) {
            restoredNote = note;
        } else if (now != note) {
            restoredNote = now + "\n\n" + note;
            m_log->info(fmt::format("held note kept beside a newer one ({})", id));
            if (keptBoth != nullptr) {
                keptBoth->push_back(id);
            }
        }
        if (restoredNote) {
            const std::vector<NoteChange> putBack{{id, restoredNote}};
            const auto result = script.setNotes(putBack);
            if (!result.ok()) {
                m_log->error("couldn't restore a held note: " + result.error().description());
                continue;
            }
        }
        // Released only if nothing held the card anew in the meantime.
        // Captured by name: clang before 16 cannot capture structured bindings.
        change([&, &heldID = id, &heldNote = note](HeldNotes& current) {
            if (const auto it = current.find(heldID); it != current.end() && it->second == heldNote) {
                current.erase(it);
            }
        });
        ++restored;
    }
    if (restored > 0) {
        m_log->info(fmt::format("restored {} held notes", restored));
    }
    return restored;
}

} // namespace kinbook
