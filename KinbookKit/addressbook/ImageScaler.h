#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kinbook {

// Makes the small pictures of the list from a card's full photo.
class ImageScaler {
public:
    virtual ~ImageScaler() = default;

    // A JPEG whose longest edge is at most `maxPixels`, with the photo's
    // orientation applied; none when the bytes are not an image it can read.
    // Thread-safe.
    virtual std::optional<std::vector<std::uint8_t>> thumbnail(std::span<const std::uint8_t> image,
                                                               int maxPixels) = 0;
};

} // namespace kinbook
