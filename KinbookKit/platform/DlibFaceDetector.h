#pragma once

#include "KinbookKit/sidecar/Picture.h"

namespace kinbook {

// Faces through dlib's frontal face detector (a HOG detector built into the
// library: no model file to find or ship). It finds frontal faces of about
// 80 pixels and up, so small pictures are looked at twice as large. Each
// thread keeps a detector of its own: dlib's is not safe to share.
class DlibFaceDetector final : public FaceDetector {
public:
    std::vector<FaceBox> faces(const PixelImage& image) override;
};

} // namespace kinbook
