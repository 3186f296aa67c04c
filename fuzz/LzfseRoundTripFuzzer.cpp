// Compresses arbitrary bytes and decompresses the result, which must give
// the input back exactly, within a limit of the input's own size.
//
//   build/fuzz/fuzz/LzfseRoundTripFuzzer -max_len=100000 -max_total_time=240 CORPUS

#include "KinbookKit/text/Lzfse.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto compressed = kinbook::lzfseCompress(std::span(data, size));
    const auto decoded = kinbook::lzfseDecompress(compressed, size);
    if (!decoded.ok() || decoded->size() != size ||
        (size > 0 && std::memcmp(decoded->data(), data, size) != 0)) {
        std::abort();
    }
    return 0;
}
