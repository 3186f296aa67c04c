#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Reads the card files of a full read, a batch at a time, into buffers it
// keeps from batch to batch.
//
// Where the kernel allows it (io_uring with direct descriptors, Linux 5.19
// and later, when no sandbox refuses it), a whole batch is one system call:
// each file is opened relative to its folder, read and closed inside the
// kernel. For a large address book of small files that costs far less than
// an open, a read and a close each. A file the batch can't settle (larger
// than its buffer, a link or a file system that doesn't say what a name is,
// any failure but "gone") is read again the ordinary way, which also says
// exactly what is wrong with it; so is every file when io_uring is not
// available.
//
// With stamps, each file's state (inode, size, modification time) is taken
// before the file is opened: a file replaced in between is then seen as
// changed once more by the next scan, never missed.
//
// One per read thread; not thread-safe.
class CardFileReader {
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

    // Larger files are not cards anyone keeps on purpose; reading them whole
    // would only stall the list.
    static constexpr std::uint64_t kLargestCard = 256ull << 20;

    // With `stamps`, every result carries the file's state. `useRing` false
    // reads every file one by one, as when io_uring is not available.
    explicit CardFileReader(bool stamps, bool useRing = true);
    ~CardFileReader();
    CardFileReader(const CardFileReader&) = delete;
    CardFileReader& operator=(const CardFileReader&) = delete;

    // Reads up to kBatchSize files; `results` has one entry per file.
    void read(std::span<const File> files, std::span<Result> results);

    // Whether batches go through io_uring.
    bool batched() const { return m_ring != nullptr; }

private:
    struct Ring;
    void readOne(const File& file, std::size_t slot, Result& result);

    bool m_stamps;
    std::unique_ptr<Ring> m_ring;
    std::vector<std::vector<char>> m_buffers; // one per place in a batch
};

} // namespace kinbook
