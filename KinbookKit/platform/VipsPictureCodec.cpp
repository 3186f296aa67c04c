#include "KinbookKit/platform/VipsPictureCodec.h"

#include "KinbookKit/platform/VipsLibrary.h"

#include <cstring>
#include <memory>

namespace kinbook {

namespace {

// The JPEG quality of converted photos and crops: high enough that a contact
// photo cut from a phone picture shows no blocks.
constexpr int kQuality = 90;

using vips::Image;

// Plain 8-bit sRGB without alpha, whatever the picture was (grey, CMYK,
// 16-bit, with transparency).
Image toRgb(const vips::Calls& lib, Image image) {
    VipsImage* out = nullptr;
    if (lib.colourspace(image.get(), &out, VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
        return Image();
    }
    image = Image(out);
    if (lib.bands(image.get()) > 3) {
        if (lib.extractBand(image.get(), &out, 0, "n", 3, nullptr) != 0) {
            return Image();
        }
        image = Image(out);
    }
    if (lib.castUchar(image.get(), &out, nullptr) != 0) {
        return Image();
    }
    return Image(out);
}

std::optional<std::vector<std::uint8_t>> saveJpeg(const vips::Calls& lib, VipsImage* image) {
    void* buffer = nullptr;
    std::size_t length = 0;
    if (lib.jpegsaveBuffer(image, &buffer, &length, "Q", kQuality, nullptr) != 0) {
        lib.errorClear();
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::vector<std::uint8_t> jpeg(bytes, bytes + length);
    lib.free(buffer);
    return jpeg;
}

bool isJpeg(std::span<const std::uint8_t> data) {
    return data.size() > 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF;
}

} // namespace

std::optional<PixelImage> VipsPictureCodec::decode(std::span<const std::uint8_t> data, int maxPixels) {
    const vips::Calls* lib = vips::open();
    if (lib == nullptr || data.empty() || maxPixels <= 0) {
        return std::nullopt;
    }
    VipsImage* thumbnail = nullptr;
    // thumbnail_buffer decodes only as much as it needs and applies the EXIF
    // orientation.
    if (lib->thumbnailBuffer(const_cast<std::uint8_t*>(data.data()), data.size(), &thumbnail, maxPixels,
                             "height", maxPixels, "size", VIPS_SIZE_DOWN, nullptr) != 0) {
        lib->errorClear();
        return std::nullopt;
    }
    Image rgb = toRgb(*lib, Image(thumbnail));
    if (!rgb) {
        lib->errorClear();
        return std::nullopt;
    }
    std::size_t size = 0;
    void* memory = lib->writeToMemory(rgb.get(), &size);
    if (memory == nullptr) {
        lib->errorClear();
        return std::nullopt;
    }
    PixelImage image;
    image.width = lib->width(rgb.get());
    image.height = lib->height(rgb.get());
    const auto* bytes = static_cast<const std::uint8_t*>(memory);
    image.rgb.assign(bytes, bytes + size);
    lib->free(memory);
    if (image.rgb.size() !=
        static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 3) {
        return std::nullopt;
    }
    return image;
}

std::optional<std::vector<std::uint8_t>> VipsPictureCodec::toJpeg(std::span<const std::uint8_t> data) {
    const vips::Calls* lib = vips::open();
    if (lib == nullptr || data.empty()) {
        return std::nullopt;
    }
    VipsImage* loaded = nullptr;
    // Reads the header only; the pixels are decoded when converting.
    loaded = lib->newFromBuffer(data.data(), data.size(), "", nullptr);
    if (loaded == nullptr) {
        lib->errorClear();
        return std::nullopt;
    }
    Image image(loaded);
    if (isJpeg(data)) {
        return std::vector<std::uint8_t>(data.begin(), data.end());
    }
    VipsImage* rotated = nullptr;
    if (lib->autorot(image.get(), &rotated, nullptr) != 0) {
        lib->errorClear();
        return std::nullopt;
    }
    Image rgb = toRgb(*lib, Image(rotated));
    if (!rgb) {
        lib->errorClear();
        return std::nullopt;
    }
    return saveJpeg(*lib, rgb.get());
}

std::optional<std::vector<std::uint8_t>> VipsPictureCodec::encodeJpeg(const PixelImage& image) {
    const vips::Calls* lib = vips::open();
    if (lib == nullptr || image.empty() ||
        image.rgb.size() !=
            static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 3) {
        return std::nullopt;
    }
    VipsImage* made = lib->newFromMemoryCopy(image.rgb.data(), image.rgb.size(), image.width, image.height, 3,
                                             VIPS_FORMAT_UCHAR);
    if (made == nullptr) {
        lib->errorClear();
        return std::nullopt;
    }
    Image wrapped(made);
    return saveJpeg(*lib, wrapped.get());
}

} // namespace kinbook
