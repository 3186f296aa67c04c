#include "bench/HeapStats.h"

#ifdef KINBOOK_JEMALLOC
#include <jemalloc/jemalloc.h>

#include <cstddef>
#include <cstdint>
#else
#include <malloc.h>
#endif

namespace kinbook::bench {

#ifdef KINBOOK_JEMALLOC

double liveHeapMB() {
    // The statistics are a snapshot taken when the epoch moves on.
    std::uint64_t epoch = 1;
    std::size_t length = sizeof epoch;
    mallctl("epoch", &epoch, &length, &epoch, length);
    std::size_t allocated = 0;
    length = sizeof allocated;
    if (mallctl("stats.allocated", &allocated, &length, nullptr, 0) != 0) {
        return 0;
    }
    return static_cast<double>(allocated) / (1024.0 * 1024.0);
}

void releaseFreeMemory() {
    // 4096 is MALLCTL_ARENAS_ALL: every arena.
    mallctl("arena.4096.purge", nullptr, nullptr, nullptr, 0);
}

#else

double liveHeapMB() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / (1024.0 * 1024.0);
}

void releaseFreeMemory() {
    malloc_trim(0);
}

#endif

} // namespace kinbook::bench
