#include "tests/sidecar/TestPictures.h"

#include <vips/vips.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace kinbook::testing {

namespace {

struct Unref {
    void operator()(VipsImage* image) const { g_object_unref(image); }
};
using Image = std::unique_ptr<VipsImage, Unref>;

void started() {
    static const bool ok = VIPS_INIT("kinbook-tests") == 0;
    if (!ok) {
        throw std::runtime_error("libvips did not start");
    }
}

// Takes the out-parameter's address: it is read only after the call that
// fills it has run, whatever order the arguments are evaluated in.
Image check(int failed, VipsImage** image) {
    if (failed != 0 || *image == nullptr) {
        throw std::runtime_error(std::string("libvips: ") + vips_error_buffer());
    }
    return Image(*image);
}

Image load(const std::string& sample, double scale) {
    started();
    VipsImage* loaded = vips_image_new_from_file(photoSample(sample).c_str(), nullptr);
    Image image = check(loaded == nullptr ? -1 : 0, &loaded);
    if (scale == 1) {
        return image;
    }
    VipsImage* resized = nullptr;
    return check(vips_resize(image.get(), &resized, scale, nullptr), &resized);
}

Bytes save(VipsImage* image) {
    void* buffer = nullptr;
    std::size_t length = 0;
    if (vips_jpegsave_buffer(image, &buffer, &length, "Q", 92, nullptr) != 0) {
        throw std::runtime_error(vips_error_buffer());
    }
    Bytes bytes(static_cast<std::uint8_t*>(buffer), static_cast<std::uint8_t*>(buffer) + length);
    g_free(buffer);
    return bytes;
}

} // namespace

std::filesystem::path photoSample(const std::string& name) {
    return std::filesystem::path(KINBOOK_TESTDATA_DIR) / "photos" / name;
}

Bytes readBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes canvasJpeg(int width, int height, const std::vector<Placement>& placements) {
    started();
    VipsImage* black = nullptr;
    Image canvas = check(vips_black(&black, width, height, "bands", 3, nullptr), &black);
    VipsImage* grey = nullptr;
    canvas = check(vips_linear1(canvas.get(), &grey, 1.0, 128.0, "uchar", TRUE, nullptr), &grey);
    for (const auto& placement : placements) {
        Image picture = load(placement.sample, placement.scale);
        VipsImage* inserted = nullptr;
        canvas = check(vips_insert(canvas.get(), picture.get(), &inserted, placement.x, placement.y, nullptr),
                       &inserted);
    }
    return save(canvas.get());
}

Bytes sampleJpeg(const std::string& sample, double scale) {
    Image picture = load(sample, scale);
    return save(picture.get());
}

Bytes rotatedWithExif(const Bytes& jpeg) {
    started();
    VipsImage* loaded = vips_image_new_from_buffer(jpeg.data(), jpeg.size(), "", nullptr);
    Image image = check(loaded == nullptr ? -1 : 0, &loaded);
    VipsImage* turned = nullptr;
    // Orientation 6 means "turn a quarter to the right to show": store it
    // turned a quarter to the left.
    image = check(vips_rot(image.get(), &turned, VIPS_ANGLE_D270, nullptr), &turned);
    VipsImage* copy = nullptr;
    image = check(vips_copy(image.get(), &copy, nullptr), &copy);
    vips_image_set_int(image.get(), VIPS_META_ORIENTATION, 6);
    return save(image.get());
}

std::pair<int, int> storedSize(const Bytes& picture) {
    started();
    VipsImage* loaded = vips_image_new_from_buffer(picture.data(), picture.size(), "", nullptr);
    Image image = check(loaded == nullptr ? -1 : 0, &loaded);
    return {vips_image_get_width(image.get()), vips_image_get_height(image.get())};
}

} // namespace kinbook::testing
