// Reads arbitrary bytes as a person's "jobs.json", which syncs between
// machines and may have been written by anything. What decodes must encode
// and decode again to the same jobs.
//
//   build/fuzz/fuzz/PastJobsFuzzer -max_total_time=60 fuzz/corpus/PastJobsFuzzer

#include "KinbookKit/records/PastJob.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view json(reinterpret_cast<const char*>(data), size);
    const auto jobs = kinbook::PastJob::decodeList(json);
    if (!jobs) {
        return 0;
    }
    const auto again = kinbook::PastJob::decodeList(kinbook::PastJob::encodeList(*jobs));
    if (!again || *again != *jobs) {
        std::abort();
    }
    for (const auto& job : *jobs) {
        (void)job.summary();
        (void)job.searchText();
    }
    return 0;
}
