#include "KinbookKit/platform/VipsImageScaler.h"

#include <vips/vips.h>

#include <cstdlib>
#include <mutex>

namespace kinbook {

VipsImageScaler::VipsImageScaler() {
    static std::once_flag started;
    std::call_once(started, [] {
        // libvips keeps process-wide state; it is started once and never shut
        // down, as it asks of programs that use it from several threads.
        if (VIPS_INIT("kinbook") != 0) {
            vips_error_clear();
        }
        // Photos in cards are small; an operation cache would only hold memory.
        vips_cache_set_max(0);
    });
}

std::optional<std::vector<std::uint8_t>> VipsImageScaler::thumbnail(std::span<const std::uint8_t> image,
                                                                    int maxPixels) {
    if (image.empty() || maxPixels <= 0) {
        return std::nullopt;
    }
    VipsImage* scaled = nullptr;
    // thumbnail_buffer applies the EXIF orientation and never enlarges.
    if (vips_thumbnail_buffer(const_cast<std::uint8_t*>(image.data()), image.size(), &scaled, maxPixels,
                              "height", maxPixels, "size", VIPS_SIZE_DOWN, nullptr) != 0) {
        vips_error_clear();
        return std::nullopt;
    }
    void* buffer = nullptr;
    std::size_t length = 0;
    const int failed = vips_jpegsave_buffer(scaled, &buffer, &length, "Q", 85, "strip", TRUE, nullptr);
    g_object_unref(scaled);
    if (failed != 0) {
        vips_error_clear();
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::vector<std::uint8_t> jpeg(bytes, bytes + length);
    g_free(buffer);
    return jpeg;
}

} // namespace kinbook
