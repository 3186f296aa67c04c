// Reads arbitrary bytes as a person's "poster.json", which syncs between
// machines. What decodes must write back as text that reads back the same.
//
//   build/fuzz/fuzz/PosterInfoFuzzer -max_total_time=60 fuzz/corpus/PosterInfoFuzzer

#include "KinbookKit/sidecar/ContactPhotos.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view json(reinterpret_cast<const char*>(data), size);
    const auto info = kinbook::PosterInfo::fromJSON(json);
    if (!info) {
        return 0;
    }
    const std::string written = info->toJSON();
    const auto again = kinbook::PosterInfo::fromJSON(written);
    if (!again || again->toJSON() != written) {
        std::abort();
    }
    return 0;
}
