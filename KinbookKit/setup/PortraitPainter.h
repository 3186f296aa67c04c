#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace kinbook {

// Paints the small portraits of the demo address book.
class PortraitPainter {
public:
    virtual ~PortraitPainter() = default;

    // A square JPEG of `pixels` a side for a person with these initials, in
    // the colour 0xRRGGBB; none when it cannot be made. Thread-safe.
    virtual std::optional<std::vector<std::uint8_t>> portrait(std::string_view initials, std::uint32_t rgb,
                                                              int pixels) = 0;
};

} // namespace kinbook
