#include "KinbookKit/platform/DlibFaceDetector.h"

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_transforms/interpolation.h>

#include <algorithm>

namespace kinbook {

namespace {

// Below this many pixels on the longer side a picture is doubled first, so
// that a face filling a fifth of a small picture is still found.
constexpr int kUpsampleBelow = 400;

// The detector's own threshold is 0 and keeps matches it is barely sure of:
// the round badge on a space suit, a knot in wood. A real face, even a
// turned one, scores well above this.
constexpr double kMinimumConfidence = 0.3;

} // namespace

std::vector<FaceBox> DlibFaceDetector::faces(const PixelImage& image) {
    std::vector<FaceBox> found;
    if (image.empty() || image.rgb.size() < static_cast<std::size_t>(image.width) *
                                                static_cast<std::size_t>(image.height) * 3) {
        return found;
    }
    thread_local dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();

    // The detector looks at brightness only.
    dlib::array2d<unsigned char> grey(image.height, image.width);
    const std::uint8_t* pixel = image.rgb.data();
    for (int row = 0; row < image.height; ++row) {
        for (int column = 0; column < image.width; ++column, pixel += 3) {
            grey[row][column] =
                static_cast<unsigned char>((299 * pixel[0] + 587 * pixel[1] + 114 * pixel[2]) / 1000);
        }
    }
    double scale = 1;
    if (std::max(image.width, image.height) < kUpsampleBelow) {
        dlib::pyramid_up(grey);
        scale = 2;
    }
    std::vector<dlib::rect_detection> detections;
    detector(grey, detections, kMinimumConfidence);
    for (const auto& detection : detections) {
        const auto& box = detection.rect;
        // dlib's rectangles include their right and bottom edges.
        const auto left = static_cast<double>(box.left());
        const auto top = static_cast<double>(box.top());
        FaceBox face{left / scale, top / scale, (static_cast<double>(box.right()) - left + 1) / scale,
                     (static_cast<double>(box.bottom()) - top + 1) / scale};
        // Clipped to the picture: a face cut by the edge is found partly outside.
        const double right = std::min<double>(face.x + face.width, image.width);
        const double bottom = std::min<double>(face.y + face.height, image.height);
        face.x = std::max(0.0, face.x);
        face.y = std::max(0.0, face.y);
        face.width = right - face.x;
        face.height = bottom - face.y;
        if (face.width > 0 && face.height > 0) {
            found.push_back(face);
        }
    }
    return found;
}

} // namespace kinbook
