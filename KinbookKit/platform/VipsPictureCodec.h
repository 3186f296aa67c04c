#pragma once

#include "KinbookKit/sidecar/Picture.h"

namespace kinbook {

// Pictures through libvips: shrink-on-load thumbnails with the EXIF
// orientation applied, any format libvips reads here (JPEG, PNG, WebP, GIF,
// TIFF, and HEIC when its loader is installed), JPEG out. libvips is opened
// by name with the first picture, so that a run of the tool that touches no
// picture never pays for loading it. Without libvips nothing is a picture.
class VipsPictureCodec final : public PictureCodec {
public:
    std::optional<PixelImage> decode(std::span<const std::uint8_t> data, int maxPixels) override;
    std::optional<std::vector<std::uint8_t>> toJpeg(std::span<const std::uint8_t> data) override;
    std::optional<std::vector<std::uint8_t>> encodeJpeg(const PixelImage& image) override;
};

} // namespace kinbook
