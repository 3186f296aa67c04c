#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kinbook {

// A decoded picture: 8-bit RGB, three bytes a pixel, row after row from the
// top left, with its orientation already applied.
struct PixelImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;

    bool empty() const { return width <= 0 || height <= 0; }
};

// A face found in a picture, in pixels, origin at the top left.
struct FaceBox {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    double area() const { return width * height; }
    bool operator==(const FaceBox&) const = default;
};

// Decodes and encodes pictures for the photos, the poster and the head crop.
// Implemented over libvips on Linux. Thread-safe.
class PictureCodec {
public:
    virtual ~PictureCodec() = default;

    // The picture scaled down (never up) so that its longer side is at most
    // `maxPixels`, orientation applied; none when the bytes are not a
    // picture the codec reads (JPEG, PNG, WebP, HEIC where available).
    virtual std::optional<PixelImage> decode(std::span<const std::uint8_t> data, int maxPixels) = 0;

    // The picture as JPEG at full size: JPEG data as it came, byte for byte
    // (so that the same photo added twice is seen to be the same), anything
    // else converted; none when the bytes are not a picture.
    virtual std::optional<std::vector<std::uint8_t>> toJpeg(std::span<const std::uint8_t> data) = 0;

    // Encodes decoded pixels; none on failure.
    virtual std::optional<std::vector<std::uint8_t>> encodeJpeg(const PixelImage& image) = 0;
};

// Finds faces in a picture. Implemented with dlib's frontal face detector on
// Linux. Thread-safe.
class FaceDetector {
public:
    virtual ~FaceDetector() = default;
    // Every face found, in the order the detector found them.
    virtual std::vector<FaceBox> faces(const PixelImage& image) = 0;
};

} // namespace kinbook
