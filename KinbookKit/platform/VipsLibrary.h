#pragma once

#include <vips/vips.h>

#include <memory>

namespace kinbook::vips {

// The libvips calls Kinbook makes. libvips and the hundred libraries it
// brings take longer to load than a run of the tool from its cache takes to
// answer; only a run that paints or converts pictures needs them, so they
// are opened then, by name, once for the whole process.
struct Calls {
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
    decltype(&vips_xyz) xyz = nullptr;
    decltype(&vips_add) add = nullptr;
    decltype(&vips_linear1) linear1 = nullptr;
    decltype(&vips_linear) linear = nullptr;
    decltype(&vips_text) text = nullptr;
    decltype(&vips_gravity) gravity = nullptr;
    decltype(&vips_black) black = nullptr;
    decltype(&vips_draw_circle) drawCircle = nullptr;
    decltype(&vips_ifthenelse) ifthenelse = nullptr;
};

// The calls, with libvips started; none when it can't be opened or started.
// Thread-safe.
const Calls* open();

// Releases an image; only for images made once open() has succeeded.
struct ImageRelease {
    void operator()(VipsImage* image) const { open()->objectUnref(image); }
};
using Image = std::unique_ptr<VipsImage, ImageRelease>;

} // namespace kinbook::vips
