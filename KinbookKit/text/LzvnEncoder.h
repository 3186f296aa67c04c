#pragma once

// The LZVN encoder behind lzfseCompress for small inputs. Internal to the codec.

#include <cstdint>
#include <span>
#include <vector>

namespace kinbook::lzfse {

// Returns the LZVN payload for `input`, ending with the end-of-stream
// instruction. Meant for inputs below 4096 bytes, but works for any size
// below 4 GiB.
std::vector<std::uint8_t> encodeLzvnPayload(std::span<const std::uint8_t> input);

} // namespace kinbook::lzfse
