#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/Result.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The content of one Trash file: everything needed to bring a deleted person
// back. Dates are seconds since 2001-01-01 UTC and vCards Base64, so that a
// Trash folder synced from another machine reads the same.
struct TrashFile {
    struct Card {
        std::string accountID;   // the account the card lived in
        std::string accountName; // its name at the time, for display
        std::string vcard;       // the card's own vCard bytes, unchanged
        std::optional<std::string> note;
        bool operator==(const Card&) const = default;
    };

    int version = 1;
    std::string name; // the person's display name
    std::chrono::system_clock::time_point deletedAt;
    std::vector<Card> cards;

    bool operator==(const TrashFile&) const = default;
    std::string toJSON() const;
    // The decoded file; a message for JSON that is not a Trash file.
    static Result<TrashFile, std::string> fromJSON(std::string_view json);
};

// One entry of the Trash list.
struct TrashItem {
    std::string id; // the Trash file's name: the entry's identity
    std::string name;
    std::chrono::system_clock::time_point deletedAt;
    std::vector<std::string> accounts; // distinct account names of its cards, in card order
    bool operator==(const TrashItem&) const = default;
};

// The Trash folder of the sidecar ("Documents/Trash"): one LZFSE-compressed
// JSON file per deleted person, named "yyyy-MM-dd HHmmss <name>.kincontact"
// in local time. Its operations never overlap (a lock serializes them), so
// the window's list, its background work and the tool may share one.
//
// A file is written atomically and synced to disk before write() returns:
// the caller deletes cards only after that. Files that can't be read are
// skipped by list() and logged, never deleted: they may be a sync client's
// half-arrived copy. Errors are messages for the user.
class ContactTrash {
public:
    static constexpr std::string_view extension = ".kincontact";
    // No Trash file holds more than this once decompressed: a larger claim is
    // a damaged file or a decompression bomb, not a person.
    static constexpr std::size_t maxContentSize = 64u << 20;

    explicit ContactTrash(std::filesystem::path documents);

    const std::filesystem::path& root() const { return m_root; }

    // Writes the file under a free name and returns that name.
    Result<std::string, std::string> write(const TrashFile& file);
    // Every readable entry, newest first.
    std::vector<TrashItem> list();
    Result<TrashFile, std::string> read(std::string_view id);
    Result<void, std::string> remove(std::string_view id);
    // Deletes every Trash file; returns how many.
    Result<std::size_t, std::string> empty();

    // The name a file for `file` wants before " 2", " 3"… are tried: the time
    // in the local time zone, a space, the name made safe, the extension.
    static std::string baseName(const TrashFile& file);
    // The file's bytes, and the file decoded from them (for tests and the tool).
    static std::string encode(const TrashFile& file);
    static Result<TrashFile, std::string> decode(std::string_view bytes);

private:
    // An id naming a file directly in the folder; none for anything else.
    std::optional<std::filesystem::path> pathOf(std::string_view id) const;
    Result<TrashFile, std::string> readLocked(const std::filesystem::path& path);

    std::filesystem::path m_root;
    std::mutex m_mutex;
};

} // namespace kinbook
