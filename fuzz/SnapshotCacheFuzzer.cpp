// Reads arbitrary bytes as the snapshot cache, which lives in the user's
// cache folder where anything may damage it. The reader must refuse or
// return a snapshot; a snapshot it returns must write a cache that reads
// back to the same snapshot.
//
//   build/fuzz/fuzz/SnapshotCacheFuzzer -max_total_time=60 fuzz/corpus/SnapshotCacheFuzzer

#include "KinbookKit/people/SnapshotCache.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

using kinbook::SnapshotCache;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    (void)SnapshotCache::unseal(bytes);
    const auto snapshot = SnapshotCache::decode(bytes);
    if (!snapshot) {
        return 0;
    }
    const auto written = SnapshotCache::encode(*snapshot);
    if (!written) {
        return 0; // text that is not UTF-8 is not cached
    }
    const auto again = SnapshotCache::decode(*written);
    if (!again || *again != *snapshot) {
        std::abort();
    }
    return 0;
}
