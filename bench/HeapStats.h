#pragma once

namespace kinbook::bench {

// Bytes the allocator has handed out and not had back, in MB: what is alive,
// not what the heap grew to.
double liveHeapMB();

// Gives the system back the free memory the allocator still holds, so that
// the resident size that follows counts what is alive.
void releaseFreeMemory();

} // namespace kinbook::bench
