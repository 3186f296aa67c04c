#pragma once

#include "KinbookKit/sidecar/Picture.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kinbook {

// A point in 0…1 coordinates with the origin at the top left.
struct FocusPoint {
    double x = 0.5;
    double y = 0.5;
    bool operator==(const FocusPoint&) const = default;
};

// Square pixel area of a picture, in whole pixels.
struct CropRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool operator==(const CropRect&) const = default;
};

// Turns a picture into a square around the head, for the contact photo and
// the page's head view, and finds the face's centre for the poster's focus.
// Stateless apart from the codec and detector it is given; any thread.
class HeadCrop {
public:
    // The contact photo's largest side, and the head view's.
    static constexpr int contactPhotoPixels = 2048;
    static constexpr int headViewPixels = 1200;
    // Faces are looked for in a copy at most this large: the detector's time
    // grows with the pixels, and a head big enough to crop around is found
    // just as well at this size.
    static constexpr int detectionPixels = 1024;

    HeadCrop(PictureCodec& codec, FaceDetector& detector) : m_codec(codec), m_detector(detector) {}

    // What the crop decided, for `kinbook inspect headcrop` and the tests.
    struct Decision {
        int width = 0; // the thumbnail the crop is cut from
        int height = 0;
        std::optional<FaceBox> face; // the largest face, in the thumbnail's pixels
        CropRect square;
        std::optional<FocusPoint> focus;
    };

    // The crop of a picture scaled to `maxPixels`; none when it is not a picture.
    std::optional<Decision> decide(std::span<const std::uint8_t> data, int maxPixels);

    // The head-centred square as JPEG; none when the data is not a picture.
    std::optional<std::vector<std::uint8_t>> crop(std::span<const std::uint8_t> data, int maxPixels);

    // The face's centre, from a copy at most 1200 pixels; none without a face
    // or a picture.
    std::optional<FocusPoint> focus(std::span<const std::uint8_t> data);

    // The geometry alone. With a face: a square of 2.4 times the face's
    // larger side (at most the picture's shorter side), centred on the face
    // moved up by a tenth of its height, pushed inside the picture. Without:
    // the largest centred square. Widened to whole pixels.
    static CropRect square(int width, int height, const std::optional<FaceBox>& face);

    // The face of the largest area; of equal areas, the first found.
    static std::optional<FaceBox> largestFace(const std::vector<FaceBox>& faces);

    // Cuts a rectangle out of decoded pixels (clamped to the picture).
    static PixelImage cut(const PixelImage& image, const CropRect& rect);

private:
    // The faces of `image`, looked for in a smaller copy of `data` when the
    // image is larger than detectionPixels, and mapped back to its pixels.
    std::vector<FaceBox> facesOf(std::span<const std::uint8_t> data, const PixelImage& image);

    PictureCodec& m_codec;
    FaceDetector& m_detector;
};

} // namespace kinbook
