#include "KinbookKit/addressbook/StoredEntryRegistry.h"

#include "KinbookKit/AtomicFile.h"

#include <fstream>
#include <sstream>

namespace kinbook {
namespace {

std::string contentsOf(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return {};
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

} // namespace

StoredEntryRegistry::StoredEntryRegistry(std::filesystem::path file)
    : EntryRegistry(file.empty() ? Loader() : Loader([file] { return contentsOf(file); })),
      m_file(std::move(file)) {}

bool StoredEntryRegistry::flush() {
    if (!hasChanges() || m_file.empty()) {
        return true;
    }
    if (!writeFileAtomically(m_file, encoded())) {
        return false;
    }
    markKept();
    return true;
}

} // namespace kinbook
