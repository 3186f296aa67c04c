// Compiled into each Kinbook program (not into a library), so that the
// allocator finds it: jemalloc reads its options from this variable when the
// program first allocates.
//
// A list of 100,000 people is a few million small strings and lists made at
// once, and faulting their memory in one small page at a time was a large
// part of a start from the cache. With transparent huge pages behind the
// heap there are a tenth as many faults, and reading and joining the cache
// take about a third less time.

extern "C" {
// The name and type are the allocator's.
const char* malloc_conf = "thp:always,metadata_thp:auto";
}
