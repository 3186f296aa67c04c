#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace kinbook {

// What the last full read of an address book passed over or had to settle,
// so that the faces can say so once instead of leaving a card out without
// a word. Every item is also in the "store" log.
struct LoadReport {
    // Two or more files holding one UID (a copy made by hand, a sync gone
    // wrong). The first file by account and name keeps the UID as its id;
    // each other one is known by an id made from its account and file name.
    struct DuplicateUID {
        std::string uid;
        std::vector<std::filesystem::path> files; // in that order
        bool operator==(const DuplicateUID&) const = default;
    };
    std::vector<DuplicateUID> duplicates;

    // Card files not read: unreadable, too large, not a regular file, not a
    // vCard, or named ".VCF" in capitals.
    std::size_t skippedFiles = 0;
    // Account folders that could not be listed: their cards are missing.
    std::size_t unreadableFolders = 0;
    // Temporary files of writes that never finished, removed by this read.
    std::size_t removedTemporaries = 0;

    bool skippedAny() const { return skippedFiles > 0 || unreadableFolders > 0; }
    bool operator==(const LoadReport&) const = default;
};

} // namespace kinbook
