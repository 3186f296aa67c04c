#pragma once

#include "KinbookKit/addressbook/ImageScaler.h"

namespace kinbook {

// Thumbnails through libvips, which decodes only as much of a large photo as
// the thumbnail needs (shrink-on-load) and applies its EXIF orientation.
class VipsImageScaler final : public ImageScaler {
public:
    VipsImageScaler();

    std::optional<std::vector<std::uint8_t>> thumbnail(std::span<const std::uint8_t> image,
                                                       int maxPixels) override;
};

} // namespace kinbook
