#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kinbook {

// Reads the card files of a full read, a batch at a time, into buffers it
// keeps from batch to batch. CardFileReader reads them one by one, anywhere;
// a platform may settle a whole batch in fewer system calls.
//
// With stamps, each file's state (inode, size, modification time) is taken
// before the file is opened: a file replaced in between is then seen as
// changed once more by the next scan, never missed.
//
// One per read thread; not thread-safe.
class CardBatchReader {
public:
    static constexpr std::size_t kBatchSize = 32;

    struct File {
        int folderFD = -1;
        const char* name = nullptr;
        // The folder listing said it is a regular file.
        bool knownRegular = false;
    };

    struct Stamp {
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t mtimeNs = 0;
    };

    enum class Outcome : std::uint8_t {
        gone,       // vanished since the listing, or not a regular file
        unreadable, // there, but it can't be read (`problem` says why)
        read,
    };

    struct Result {
        Outcome outcome = Outcome::gone;
        std::string_view bytes;     // when read; valid until the next read()
        std::optional<Stamp> stamp; // when asked for and the file could be statted
        std::string problem;
    };

    // Larger files are not cards anyone keeps on purpose (a card with a
    // large photo is a few megabytes); reading them whole would only stall
    // the list, or take the memory a file made to do so asks for. They are
    // skipped, unread, and reported.
    static constexpr std::uint64_t kLargestCard = 64ull << 20;

    virtual ~CardBatchReader() = default;

    // Reads up to kBatchSize files; `results` has one entry per file.
    virtual void read(std::span<const File> files, std::span<Result> results) = 0;
};

// Makes the reader of one read thread; with `stamps`, every result it gives
// carries the file's state.
using CardBatchReaderFactory = std::function<std::unique_ptr<CardBatchReader>(bool stamps)>;

} // namespace kinbook
