#include "KinbookKit/sidecar/HeadCrop.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kinbook {

CropRect HeadCrop::square(int width, int height, const std::optional<FaceBox>& face) {
    const double w = width;
    const double h = height;
    double side = std::min(w, h);
    double left = (w - side) / 2;
    double top = (h - side) / 2;
    if (face) {
        side = std::min({std::max(2.4 * face->width, 2.4 * face->height), w, h});
        const double centreX = face->x + face->width / 2;
        // A little above the face's middle, so the hair stays in and the
        // shoulders give way.
        const double centreY = face->y + face->height / 2 - 0.1 * face->height;
        left = std::clamp(centreX - side / 2, 0.0, w - side);
        top = std::clamp(centreY - side / 2, 0.0, h - side);
    }
    const int x0 = std::max(0, static_cast<int>(std::floor(left)));
    const int y0 = std::max(0, static_cast<int>(std::floor(top)));
    const int x1 = std::min(width, static_cast<int>(std::ceil(left + side)));
    const int y1 = std::min(height, static_cast<int>(std::ceil(top + side)));
    return {x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)};
}

std::optional<FaceBox> HeadCrop::largestFace(const std::vector<FaceBox>& faces) {
    std::optional<FaceBox> largest;
    for (const auto& face : faces) {
        if (!largest || face.area() > largest->area()) {
            largest = face;
        }
    }
    return largest;
}

PixelImage HeadCrop::cut(const PixelImage& image, const CropRect& rect) {
    const int x0 = std::clamp(rect.x, 0, image.width);
    const int y0 = std::clamp(rect.y, 0, image.height);
    const int x1 = std::clamp(rect.x + rect.width, x0, image.width);
    const int y1 = std::clamp(rect.y + rect.height, y0, image.height);
    PixelImage out;
    out.width = x1 - x0;
    out.height = y1 - y0;
    out.rgb.resize(static_cast<std::size_t>(out.width) * static_cast<std::size_t>(out.height) * 3);
    const std::size_t rowBytes = static_cast<std::size_t>(out.width) * 3;
    for (int row = 0; row < out.height; ++row) {
        const std::size_t from = (static_cast<std::size_t>(y0 + row) * static_cast<std::size_t>(image.width) +
                                  static_cast<std::size_t>(x0)) *
                                 3;
        if (rowBytes > 0) {
            std::memcpy(out.rgb.data() + static_cast<std::size_t>(row) * rowBytes, image.rgb.data() + from,
                        rowBytes);
        }
    }
    return out;
}

std::vector<FaceBox> HeadCrop::facesOf(std::span<const std::uint8_t> data, const PixelImage& image) {
    if (std::max(image.width, image.height) <= detectionPixels) {
        return m_detector.faces(image);
    }
    const auto small = m_codec.decode(data, detectionPixels);
    if (!small || small->empty()) {
        return m_detector.faces(image);
    }
    const double scaleX = static_cast<double>(image.width) / small->width;
    const double scaleY = static_cast<double>(image.height) / small->height;
    auto faces = m_detector.faces(*small);
    for (auto& face : faces) {
        face = {face.x * scaleX, face.y * scaleY, face.width * scaleX, face.height * scaleY};
    }
    return faces;
}

std::optional<HeadCrop::Decision> HeadCrop::decide(std::span<const std::uint8_t> data, int maxPixels) {
    const auto image = m_codec.decode(data, maxPixels);
    if (!image || image->empty()) {
        return std::nullopt;
    }
    Decision decision;
    decision.width = image->width;
    decision.height = image->height;
    decision.face = largestFace(facesOf(data, *image));
    decision.square = square(image->width, image->height, decision.face);
    if (decision.face) {
        decision.focus = FocusPoint{(decision.face->x + decision.face->width / 2) / image->width,
                                    (decision.face->y + decision.face->height / 2) / image->height};
    }
    return decision;
}

std::optional<std::vector<std::uint8_t>> HeadCrop::crop(std::span<const std::uint8_t> data, int maxPixels) {
    const auto image = m_codec.decode(data, maxPixels);
    if (!image || image->empty()) {
        return std::nullopt;
    }
    const auto rect = square(image->width, image->height, largestFace(facesOf(data, *image)));
    return m_codec.encodeJpeg(cut(*image, rect));
}

std::optional<FocusPoint> HeadCrop::focus(std::span<const std::uint8_t> data) {
    auto decision = decide(data, headViewPixels);
    return decision ? decision->focus : std::nullopt;
}

} // namespace kinbook
