// Reads arbitrary bytes as a person's "suggestion.json", which another
// program writes and a sync client brings. What decodes must be shown
// without fail, and what it writes back must read back as it wrote it.
//
//   build/fuzz/fuzz/CircleSuggestionFuzzer -max_total_time=60 fuzz/corpus/CircleSuggestionFuzzer

#include "KinbookKit/records/ContactCircle.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view json(reinterpret_cast<const char*>(data), size);
    const auto suggestion = kinbook::CircleSuggestion::fromJSON(json);
    if (!suggestion) {
        return 0;
    }
    (void)suggestion->line();
    (void)suggestion->explanation();
    // Times pass through seconds as a double once; from then on the written
    // text is fixed.
    const std::string written = suggestion->toJSON();
    const auto again = kinbook::CircleSuggestion::fromJSON(written);
    if (!again || again->toJSON() != written) {
        std::abort();
    }
    return 0;
}
