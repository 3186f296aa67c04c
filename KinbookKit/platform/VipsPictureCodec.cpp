#include "KinbookKit/platform/VipsPictureCodec.h"

#include <dlfcn.h>
#include <vips/vips.h>

#include <cstring>
#include <memory>
#include <type_traits>

namespace kinbook {

namespace {

// The JPEG quality of converted photos and crops: high enough that a contact
// photo cut from a phone picture shows no blocks.
constexpr int kQuality = 90;

struct VipsCalls {
    decltype(&vips_init) init = nullptr;
    decltype(&vips_error_clear) errorClear = nullptr;
    decltype(&vips_cache_set_max) cacheSetMax = nullptr;
    decltype(&vips_thumbnail_buffer) thumbnailBuffer = nullptr;
    decltype(&vips_image_new_from_buffer) newFromBuffer = nullptr;
    decltype(&vips_image_new_from_memory_copy) newFromMemoryCopy = nullptr;
    decltype(&vips_image_write_to_memory) writeToMemory = nullptr;
    decltype(&vips_autorot) autorot = nullptr;
    decltype(&vips_colourspace) colourspace = nullptr;
    decltype(&vips_extract_band) extractBand = nullptr;
    decltype(&vips_cast_uchar) castUchar = nullptr;
    decltype(&vips_jpegsave_buffer) jpegsaveBuffer = nullptr;
    decltype(&vips_image_get_width) width = nullptr;
    decltype(&vips_image_get_height) height = nullptr;
    decltype(&vips_image_get_bands) bands = nullptr;
    decltype(&g_object_unref) objectUnref = nullptr;
    decltype(&g_free) free = nullptr;
};

const VipsCalls* openVips() {
    static const VipsCalls* const opened = []() -> const VipsCalls* {
        // Never closed: libvips keeps process-wide state and threads.
        void* library = ::dlopen("libvips.so.42", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            return nullptr;
        }
        static VipsCalls calls;
        bool complete = true;
        auto find = [&](auto& slot, const char* name) {
            slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(::dlsym(library, name));
            complete = complete && slot != nullptr;
        };
        find(calls.init, "vips_init");
        find(calls.errorClear, "vips_error_clear");
        find(calls.cacheSetMax, "vips_cache_set_max");
        find(calls.thumbnailBuffer, "vips_thumbnail_buffer");
        find(calls.newFromBuffer, "vips_image_new_from_buffer");
        find(calls.newFromMemoryCopy, "vips_image_new_from_memory_copy");
        find(calls.writeToMemory, "vips_image_write_to_memory");
        find(calls.autorot, "vips_autorot");
        find(calls.colourspace, "vips_colourspace");
        find(calls.extractBand, "vips_extract_band");
        find(calls.castUchar, "vips_cast_uchar");
        find(calls.jpegsaveBuffer, "vips_jpegsave_buffer");
        find(calls.width, "vips_image_get_width");
        find(calls.height, "vips_image_get_height");
        find(calls.bands, "vips_image_get_bands");
        find(calls.objectUnref, "g_object_unref");
        find(calls.free, "g_free");
        if (!complete || calls.init("kinbook") != 0) {
            return nullptr;
        }
        // Every picture is decoded once; an operation cache would only hold memory.
        calls.cacheSetMax(0);
        return &calls;
    }();
    return opened;
}

struct ImageRelease {
    const VipsCalls* calls;
    void operator()(VipsImage* image) const { calls->objectUnref(image); }
};
using Image = std::unique_ptr<VipsImage, ImageRelease>;

// Plain 8-bit sRGB without alpha, whatever the picture was (grey, CMYK,
// 16-bit, with transparency).
Image toRgb(const VipsCalls& vips, Image image) {
    VipsImage* out = nullptr;
    if (vips.colourspace(image.get(), &out, VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
        return Image(nullptr, {&vips});
    }
    image = Image(out, {&vips});
    if (vips.bands(image.get()) > 3) {
        if (vips.extractBand(image.get(), &out, 0, "n", 3, nullptr) != 0) {
            return Image(nullptr, {&vips});
        }
        image = Image(out, {&vips});
    }
    if (vips.castUchar(image.get(), &out, nullptr) != 0) {
        return Image(nullptr, {&vips});
    }
    return Image(out, {&vips});
}

std::optional<std::vector<std::uint8_t>> saveJpeg(const VipsCalls& vips, VipsImage* image) {
    void* buffer = nullptr;
    std::size_t length = 0;
    if (vips.jpegsaveBuffer(image, &buffer, &length, "Q", kQuality, nullptr) != 0) {
        vips.errorClear();
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::vector<std::uint8_t> jpeg(bytes, bytes + length);
    vips.free(buffer);
    return jpeg;
}

bool isJpeg(std::span<const std::uint8_t> data) {
    return data.size() > 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF;
}

} // namespace

std::optional<PixelImage> VipsPictureCodec::decode(std::span<const std::uint8_t> data, int maxPixels) {
    const VipsCalls* vips = openVips();
    if (vips == nullptr || data.empty() || maxPixels <= 0) {
        return std::nullopt;
    }
    VipsImage* thumbnail = nullptr;
    // thumbnail_buffer decodes only as much as it needs and applies the EXIF
    // orientation.
    if (vips->thumbnailBuffer(const_cast<std::uint8_t*>(data.data()), data.size(), &thumbnail, maxPixels,
                              "height", maxPixels, "size", VIPS_SIZE_DOWN, nullptr) != 0) {
        vips->errorClear();
        return std::nullopt;
    }
    Image rgb = toRgb(*vips, Image(thumbnail, {vips}));
    if (!rgb) {
        vips->errorClear();
        return std::nullopt;
    }
    std::size_t size = 0;
    void* memory = vips->writeToMemory(rgb.get(), &size);
    if (memory == nullptr) {
        vips->errorClear();
        return std::nullopt;
    }
    PixelImage image;
    image.width = vips->width(rgb.get());
    image.height = vips->height(rgb.get());
    const auto* bytes = static_cast<const std::uint8_t*>(memory);
    image.rgb.assign(bytes, bytes + size);
    vips->free(memory);
    if (image.rgb.size() !=
        static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 3) {
        return std::nullopt;
    }
    return image;
}

std::optional<std::vector<std::uint8_t>> VipsPictureCodec::toJpeg(std::span<const std::uint8_t> data) {
    const VipsCalls* vips = openVips();
    if (vips == nullptr || data.empty()) {
        return std::nullopt;
    }
    VipsImage* loaded = nullptr;
    // Reads the header only; the pixels are decoded when converting.
    loaded = vips->newFromBuffer(data.data(), data.size(), "", nullptr);
    if (loaded == nullptr) {
        vips->errorClear();
        return std::nullopt;
    }
    Image image(loaded, {vips});
    if (isJpeg(data)) {
        return std::vector<std::uint8_t>(data.begin(), data.end());
    }
    VipsImage* rotated = nullptr;
    if (vips->autorot(image.get(), &rotated, nullptr) != 0) {
        vips->errorClear();
        return std::nullopt;
    }
    Image rgb = toRgb(*vips, Image(rotated, {vips}));
    if (!rgb) {
        vips->errorClear();
        return std::nullopt;
    }
    return saveJpeg(*vips, rgb.get());
}

std::optional<std::vector<std::uint8_t>> VipsPictureCodec::encodeJpeg(const PixelImage& image) {
    const VipsCalls* vips = openVips();
    if (vips == nullptr || image.empty() ||
        image.rgb.size() !=
            static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 3) {
        return std::nullopt;
    }
    VipsImage* made = vips->newFromMemoryCopy(image.rgb.data(), image.rgb.size(), image.width, image.height,
                                              3, VIPS_FORMAT_UCHAR);
    if (made == nullptr) {
        vips->errorClear();
        return std::nullopt;
    }
    Image wrapped(made, {vips});
    return saveJpeg(*vips, wrapped.get());
}

} // namespace kinbook
