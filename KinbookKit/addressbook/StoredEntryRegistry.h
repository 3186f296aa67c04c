#pragma once

#include "KinbookKit/vcard/EntryRegistry.h"

#include <filesystem>

namespace kinbook {

// The entry registry of an address book, kept between runs in a file of
// Kinbook's state folder. The file is read when the registry is first used;
// a missing or damaged file remembers nothing.
//
// Not thread-safe: owned by the address book's serial executor.
class StoredEntryRegistry final : public EntryRegistry {
public:
    // An empty path keeps the identities in memory only.
    explicit StoredEntryRegistry(std::filesystem::path file);

    // Writes the remembered cards if anything changed since the last write.
    // The file is replaced atomically; a failure leaves the old file.
    bool flush();

private:
    std::filesystem::path m_file;
};

} // namespace kinbook
