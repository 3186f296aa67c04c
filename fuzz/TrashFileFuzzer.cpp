// Reads arbitrary bytes as a Trash file from a synced Trash folder: first
// as the file on disk (LZFSE around JSON), then, when the input is not a
// compressed stream, as the JSON inside one. What reads must write and read
// back to the same file, card bytes and notes included.
//
//   build/fuzz/fuzz/TrashFileFuzzer -max_total_time=60 fuzz/corpus/TrashFileFuzzer

#include "KinbookKit/sidecar/ContactTrash.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

using kinbook::ContactTrash;
using kinbook::TrashFile;

namespace {

void expectStable(const TrashFile& file) {
    const auto again = ContactTrash::decode(ContactTrash::encode(file));
    if (!again.ok() || again->toJSON() != file.toJSON()) {
        std::abort();
    }
    (void)ContactTrash::baseName(file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (const auto file = ContactTrash::decode(bytes); file.ok()) {
        expectStable(*file);
    }
    if (const auto file = TrashFile::fromJSON(bytes); file.ok()) {
        expectStable(*file);
    }
    return 0;
}
