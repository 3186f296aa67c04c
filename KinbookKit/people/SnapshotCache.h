#pragma once

#include "KinbookKit/records/AddressBookSnapshot.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// The last full read of the address book, kept on disk so that the next
// start shows the list before the store has been read. A cache only: every
// failure means "no cache", costing one slower start.
//
// The file is a checksum line ("kinbook-snapshot xxh3 <16 hex digits>")
// and then the snapshot's JSON: a cache that another program, a full disk or
// a bad sector damaged is not believed even when it still reads as JSON. A
// file whose checksum fails is logged and ignored, and the next full read
// writes a new one.
//
// One operation at a time (the methods lock); the people list calls it from
// its own serial queue, off the main thread.
class SnapshotCache {
public:
    static constexpr int kFormat = 10;

    // The cache at "kinbook-snapshot.json" in $XDG_CACHE_HOME/kinbook (else
    // ~/.cache/kinbook); none when neither variable gives a folder, and the
    // list then runs without a cache.
    static std::unique_ptr<SnapshotCache> make();

    explicit SnapshotCache(std::filesystem::path url) : m_url(std::move(url)) {}

    const std::filesystem::path& url() const { return m_url; }

    // A cached snapshot with its people in the runs the file was read in, on
    // both processors at once: what the list starts from, without moving
    // every person into one list first.
    struct Parts {
        AddressBookSnapshot snapshot;            // everything but the people
        std::vector<std::vector<Person>> people; // the people, run after run
    };

    // The cached snapshot; none when the file is missing, unreadable,
    // damaged or of another format.
    std::optional<AddressBookSnapshot> read() const;
    // The same, in parts.
    std::optional<Parts> readParts() const;
    // Stores the snapshot atomically, creating the folder; errors are swallowed.
    void write(const AddressBookSnapshot& snapshot) const;
    // Deletes the file; errors are swallowed.
    void remove() const;

    // The file's content for a snapshot; none when it cannot be encoded (text
    // that is not UTF-8).
    static std::optional<std::string> encode(const AddressBookSnapshot& snapshot);
    // The snapshot in a file's content; none for anything damaged or of
    // another format. Thread-safe.
    static std::optional<AddressBookSnapshot> decode(std::string_view json);

    // The file's bytes for content `json`: the checksum line, then the JSON.
    static std::string seal(std::string_view json);
    // The JSON of a file's bytes when its checksum holds; none otherwise.
    static std::optional<std::string_view> unseal(std::string_view file);

private:
    std::filesystem::path m_url;
    mutable std::mutex m_mutex;
};

} // namespace kinbook
