#pragma once

// The LZFSE block encoder behind lzfseCompress. Internal to the codec.

#include <cstdint>
#include <span>
#include <vector>

namespace kinbook::lzfse {

// Appends `input` to `out` as LZFSE blocks with compressed headers ("bvx2"),
// without the end-of-stream block. A block that would not be smaller than its
// content is appended as a raw block instead. Matches reach back into earlier
// blocks. `input` must be smaller than 4 GiB.
void encodeLzfseBlocks(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out);

} // namespace kinbook::lzfse
