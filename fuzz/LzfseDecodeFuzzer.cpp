// Feeds arbitrary bytes to the LZFSE decoder, as a Trash file from a synced
// folder could. The decoder must fail cleanly or succeed; whatever it
// decodes must also survive our own encoder and decoder unchanged.
//
//   build/fuzz/fuzz/LzfseDecodeFuzzer -max_total_time=240 CORPUS tests/data/lzfse

#include "KinbookKit/text/Lzfse.h"

#include <cstdint>
#include <cstdlib>
#include <span>

namespace {

// Small enough for the fuzzer's memory limit, large enough for streams that
// expand a great deal.
constexpr std::size_t sizeLimit = std::size_t{1} << 24;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto decoded = kinbook::lzfseDecompress(std::span(data, size), sizeLimit);
    if (!decoded.ok()) {
        return 0;
    }
    if (decoded->size() > sizeLimit) {
        std::abort();
    }
    const auto again = kinbook::lzfseDecompress(kinbook::lzfseCompress(*decoded), decoded->size());
    if (!again.ok() || *again != *decoded) {
        std::abort();
    }
    return 0;
}
