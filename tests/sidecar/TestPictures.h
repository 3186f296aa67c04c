#pragma once

// Pictures for the photo and head-crop tests, built with libvips from the
// public-domain samples: a face near the top of a tall picture, two faces of
// different sizes, an EXIF-rotated JPEG.

#include "KinbookKit/sidecar/Picture.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kinbook::testing {

using Bytes = std::vector<std::uint8_t>;

std::filesystem::path photoSample(const std::string& name); // e.g. "astronaut.png"
Bytes readBytes(const std::filesystem::path& file);

// A picture placed on a plain grey canvas, each scaled to `scale` of its size
// and put with its top-left corner at (x, y).
struct Placement {
    std::string sample;
    double scale = 1;
    int x = 0;
    int y = 0;
};
Bytes canvasJpeg(int width, int height, const std::vector<Placement>& placements);

// A sample as JPEG, scaled by `scale`.
Bytes sampleJpeg(const std::string& sample, double scale = 1);

// The JPEG turned a quarter to the left on its pixels, with an EXIF
// orientation (6) that says to turn it back: upright once decoded properly.
Bytes rotatedWithExif(const Bytes& jpeg);

// The size a JPEG decodes to, without orientation applied.
std::pair<int, int> storedSize(const Bytes& picture);

} // namespace kinbook::testing
