#include "KinbookKit/platform/VipsPortraitPainter.h"

#include <dlfcn.h>
#include <vips/vips.h>

#include <array>
#include <memory>
#include <string>
#include <type_traits>

#if defined(__SANITIZE_ADDRESS__)
// Drawing the initials goes through pango to fontconfig, which keeps what it
// learnt of the fonts until the process ends and never frees it: not a leak
// of ours, and no way to release it. Sanitizer builds are told so.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
#endif

namespace kinbook {

namespace {

// libvips and the hundred libraries it brings take longer to load than a
// run of the tool from its cache takes to answer; only a first run that
// paints portraits needs them, so they are opened then, by name.
struct VipsCalls {
    decltype(&vips_init) init = nullptr;
    decltype(&vips_error_clear) errorClear = nullptr;
    decltype(&vips_cache_set_max) cacheSetMax = nullptr;
    decltype(&vips_xyz) xyz = nullptr;
    decltype(&vips_extract_band) extractBand = nullptr;
    decltype(&vips_add) add = nullptr;
    decltype(&vips_linear1) linear1 = nullptr;
    decltype(&vips_linear) linear = nullptr;
    decltype(&vips_text) text = nullptr;
    decltype(&vips_gravity) gravity = nullptr;
    decltype(&vips_black) black = nullptr;
    decltype(&vips_cast_uchar) castUchar = nullptr;
    decltype(&vips_draw_circle) drawCircle = nullptr;
    decltype(&vips_ifthenelse) ifthenelse = nullptr;
    decltype(&vips_jpegsave_buffer) jpegsaveBuffer = nullptr;
    decltype(&vips_image_get_width) imageGetWidth = nullptr;
    decltype(&vips_image_get_height) imageGetHeight = nullptr;
    decltype(&g_object_unref) objectUnref = nullptr;
    decltype(&g_free) free = nullptr;
};

// The calls, with libvips started; none when it can't be opened or started.
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
        find(calls.xyz, "vips_xyz");
        find(calls.extractBand, "vips_extract_band");
        find(calls.add, "vips_add");
        find(calls.linear1, "vips_linear1");
        find(calls.linear, "vips_linear");
        find(calls.text, "vips_text");
        find(calls.gravity, "vips_gravity");
        find(calls.black, "vips_black");
        find(calls.castUchar, "vips_cast_uchar");
        find(calls.drawCircle, "vips_draw_circle");
        find(calls.ifthenelse, "vips_ifthenelse");
        find(calls.jpegsaveBuffer, "vips_jpegsave_buffer");
        find(calls.imageGetWidth, "vips_image_get_width");
        find(calls.imageGetHeight, "vips_image_get_height");
        find(calls.objectUnref, "g_object_unref");
        find(calls.free, "g_free");
        if (!complete || calls.init("kinbook") != 0) {
            return nullptr;
        }
        // Portraits are painted once; an operation cache would only hold memory.
        calls.cacheSetMax(0);
        return &calls;
    }();
    return opened;
}

// Only called once openVips() has succeeded.
const VipsCalls& calls() {
    return *openVips();
}

struct ImageRelease {
    void operator()(VipsImage* image) const { calls().objectUnref(image); }
};
using Image = std::unique_ptr<VipsImage, ImageRelease>;

Image adopt(VipsImage* image) {
    return Image(image);
}

// The person's colour, a little darker towards the bottom right corner, so
// that the square reads as a picture rather than a flat swatch.
Image shadedSquare(std::uint32_t rgb, int pixels) {
    VipsImage* xy = nullptr;
    if (calls().xyz(&xy, pixels, pixels, nullptr) != 0) {
        return nullptr;
    }
    Image coordinates = adopt(xy);
    VipsImage* sum = nullptr;
    VipsImage* x = nullptr;
    VipsImage* y = nullptr;
    if (calls().extractBand(coordinates.get(), &x, 0, nullptr) != 0) {
        return nullptr;
    }
    Image xBand = adopt(x);
    if (calls().extractBand(coordinates.get(), &y, 1, nullptr) != 0) {
        return nullptr;
    }
    Image yBand = adopt(y);
    if (calls().add(xBand.get(), yBand.get(), &sum, nullptr) != 0) {
        return nullptr;
    }
    Image diagonal = adopt(sum);
    // 1.0 in the top left corner, 0.75 in the bottom right one.
    VipsImage* factor = nullptr;
    if (calls().linear1(diagonal.get(), &factor, -0.25 / (2.0 * pixels), 1.0, nullptr) != 0) {
        return nullptr;
    }
    Image shade = adopt(factor);
    std::array<double, 3> colour = {static_cast<double>((rgb >> 16) & 0xFF),
                                    static_cast<double>((rgb >> 8) & 0xFF), static_cast<double>(rgb & 0xFF)};
    std::array<double, 3> zero = {0, 0, 0};
    VipsImage* coloured = nullptr;
    if (calls().linear(shade.get(), &coloured, colour.data(), zero.data(), 3, "uchar", TRUE, nullptr) != 0) {
        return nullptr;
    }
    return adopt(coloured);
}

// A white mask of the initials, centred on a square; none without a font.
Image initialsMask(std::string_view initials, int pixels) {
    if (initials.empty()) {
        return nullptr;
    }
    const std::string markup = "<b>" + std::string(initials) + "</b>";
    VipsImage* text = nullptr;
    // Two initials take about half the width at this size.
    const int points = pixels * 2 / 5;
    const std::string font = "sans " + std::to_string(points);
    if (calls().text(&text, markup.c_str(), "font", font.c_str(), "dpi", 72, nullptr) != 0) {
        return nullptr;
    }
    Image rendered = adopt(text);
    if (calls().imageGetWidth(rendered.get()) <= 1 || calls().imageGetWidth(rendered.get()) > pixels ||
        calls().imageGetHeight(rendered.get()) > pixels) {
        return nullptr;
    }
    VipsImage* centred = nullptr;
    if (calls().gravity(rendered.get(), &centred, VIPS_COMPASS_DIRECTION_CENTRE, pixels, pixels, nullptr) !=
        0) {
        return nullptr;
    }
    return adopt(centred);
}

// A head and shoulders in a pale tint, for when no font draws the initials.
Image silhouetteMask(int pixels) {
    VipsImage* black = nullptr;
    if (calls().black(&black, pixels, pixels, nullptr) != 0) {
        return nullptr;
    }
    Image mask = adopt(black);
    VipsImage* bands = nullptr;
    if (calls().castUchar(mask.get(), &bands, nullptr) != 0) {
        return nullptr;
    }
    mask = adopt(bands);
    std::array<double, 1> ink = {140};
    calls().drawCircle(mask.get(), ink.data(), 1, pixels / 2, pixels * 2 / 5, pixels / 5, "fill", TRUE,
                       nullptr);
    calls().drawCircle(mask.get(), ink.data(), 1, pixels / 2, pixels + pixels / 8, pixels * 2 / 5, "fill",
                       TRUE, nullptr);
    return mask;
}

} // namespace

VipsPortraitPainter::VipsPortraitPainter() = default;

std::optional<std::vector<std::uint8_t>> VipsPortraitPainter::portrait(std::string_view initials,
                                                                       std::uint32_t rgb, int pixels) {
    if (pixels < 16 || pixels > 4096) {
        return std::nullopt;
    }
    if (openVips() == nullptr) {
        return std::nullopt;
    }
    Image background = shadedSquare(rgb, pixels);
    if (!background) {
        calls().errorClear();
        return std::nullopt;
    }
    Image mask = initialsMask(initials, pixels);
    if (!mask) {
        calls().errorClear();
        mask = silhouetteMask(pixels);
    }
    Image picture;
    if (mask) {
        VipsImage* white = nullptr;
        std::array<double, 3> full = {255, 255, 255};
        // A constant white image of the same size, blended in through the mask.
        if (calls().black(&white, pixels, pixels, "bands", 3, nullptr) == 0) {
            Image blank = adopt(white);
            std::array<double, 3> one = {1, 1, 1};
            VipsImage* paper = nullptr;
            if (calls().linear(blank.get(), &paper, one.data(), full.data(), 3, "uchar", TRUE, nullptr) ==
                0) {
                Image whiteImage = adopt(paper);
                VipsImage* blended = nullptr;
                if (calls().ifthenelse(mask.get(), whiteImage.get(), background.get(), &blended, "blend",
                                       TRUE, nullptr) == 0) {
                    picture = adopt(blended);
                }
            }
        }
    }
    if (!picture) {
        calls().errorClear();
        picture = std::move(background);
    }
    void* buffer = nullptr;
    std::size_t length = 0;
    if (calls().jpegsaveBuffer(picture.get(), &buffer, &length, "Q", 85, "strip", TRUE, nullptr) != 0) {
        calls().errorClear();
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::vector<std::uint8_t> jpeg(bytes, bytes + length);
    calls().free(buffer);
    return jpeg;
}

} // namespace kinbook
