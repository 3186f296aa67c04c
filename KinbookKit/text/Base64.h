#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Standard Base64 (RFC 4648 section 4) with padding: how bytes are stored in
// Kinbook's JSON files, and how vCards carry inline photos.
std::string base64Encode(std::span<const std::uint8_t> bytes);

// Decodes Base64, skipping ASCII white space (vCard photos are folded over
// many lines). Padding is optional. None for any other character or a
// truncated final group.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

} // namespace kinbook
