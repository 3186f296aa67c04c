#include "KinbookKit/platform/VipsLibrary.h"

#include <dlfcn.h>

#include <type_traits>

namespace kinbook::vips {

const Calls* open() {
    static const Calls* const opened = []() -> const Calls* {
        // Never closed: libvips keeps process-wide state and threads.
        void* library = ::dlopen("libvips.so.42", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            return nullptr;
        }
        static Calls calls;
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
        find(calls.xyz, "vips_xyz");
        find(calls.add, "vips_add");
        find(calls.linear1, "vips_linear1");
        find(calls.linear, "vips_linear");
        find(calls.text, "vips_text");
        find(calls.gravity, "vips_gravity");
        find(calls.black, "vips_black");
        find(calls.drawCircle, "vips_draw_circle");
        find(calls.ifthenelse, "vips_ifthenelse");
        if (!complete || calls.init("kinbook") != 0) {
            return nullptr;
        }
        // Every picture is decoded or painted once; an operation cache would
        // only hold memory.
        calls.cacheSetMax(0);
        return &calls;
    }();
    return opened;
}

} // namespace kinbook::vips
