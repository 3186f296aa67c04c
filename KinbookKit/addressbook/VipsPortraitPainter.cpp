#include "KinbookKit/addressbook/VipsPortraitPainter.h"

#include <vips/vips.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>

namespace kinbook {

namespace {

struct ImageRelease {
    void operator()(VipsImage* image) const { g_object_unref(image); }
};
using Image = std::unique_ptr<VipsImage, ImageRelease>;

Image adopt(VipsImage* image) {
    return Image(image);
}

// The person's colour, a little darker towards the bottom right corner, so
// that the square reads as a picture rather than a flat swatch.
Image shadedSquare(std::uint32_t rgb, int pixels) {
    VipsImage* xy = nullptr;
    if (vips_xyz(&xy, pixels, pixels, nullptr) != 0) {
        return nullptr;
    }
    Image coordinates = adopt(xy);
    VipsImage* sum = nullptr;
    VipsImage* x = nullptr;
    VipsImage* y = nullptr;
    if (vips_extract_band(coordinates.get(), &x, 0, nullptr) != 0) {
        return nullptr;
    }
    Image xBand = adopt(x);
    if (vips_extract_band(coordinates.get(), &y, 1, nullptr) != 0) {
        return nullptr;
    }
    Image yBand = adopt(y);
    if (vips_add(xBand.get(), yBand.get(), &sum, nullptr) != 0) {
        return nullptr;
    }
    Image diagonal = adopt(sum);
    // 1.0 in the top left corner, 0.75 in the bottom right one.
    VipsImage* factor = nullptr;
    if (vips_linear1(diagonal.get(), &factor, -0.25 / (2.0 * pixels), 1.0, nullptr) != 0) {
        return nullptr;
    }
    Image shade = adopt(factor);
    std::array<double, 3> colour = {static_cast<double>((rgb >> 16) & 0xFF),
                                    static_cast<double>((rgb >> 8) & 0xFF), static_cast<double>(rgb & 0xFF)};
    std::array<double, 3> zero = {0, 0, 0};
    VipsImage* coloured = nullptr;
    if (vips_linear(shade.get(), &coloured, colour.data(), zero.data(), 3, "uchar", TRUE, nullptr) != 0) {
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
    if (vips_text(&text, markup.c_str(), "font", font.c_str(), "dpi", 72, nullptr) != 0) {
        return nullptr;
    }
    Image rendered = adopt(text);
    if (vips_image_get_width(rendered.get()) <= 1 || vips_image_get_width(rendered.get()) > pixels ||
        vips_image_get_height(rendered.get()) > pixels) {
        return nullptr;
    }
    VipsImage* centred = nullptr;
    if (vips_gravity(rendered.get(), &centred, VIPS_COMPASS_DIRECTION_CENTRE, pixels, pixels, nullptr) != 0) {
        return nullptr;
    }
    return adopt(centred);
}

// A head and shoulders in a pale tint, for when no font draws the initials.
Image silhouetteMask(int pixels) {
    VipsImage* black = nullptr;
    if (vips_black(&black, pixels, pixels, nullptr) != 0) {
        return nullptr;
    }
    Image mask = adopt(black);
    VipsImage* bands = nullptr;
    if (vips_cast_uchar(mask.get(), &bands, nullptr) != 0) {
        return nullptr;
    }
    mask = adopt(bands);
    std::array<double, 1> ink = {140};
    vips_draw_circle(mask.get(), ink.data(), 1, pixels / 2, pixels * 2 / 5, pixels / 5, "fill", TRUE,
                     nullptr);
    vips_draw_circle(mask.get(), ink.data(), 1, pixels / 2, pixels + pixels / 8, pixels * 2 / 5, "fill", TRUE,
                     nullptr);
    return mask;
}

} // namespace

VipsPortraitPainter::VipsPortraitPainter() {
    static std::once_flag started;
    std::call_once(started, [] {
        // libvips keeps process-wide state; started once, never shut down.
        if (VIPS_INIT("kinbook") != 0) {
            vips_error_clear();
        }
        vips_cache_set_max(0);
    });
}

std::optional<std::vector<std::uint8_t>> VipsPortraitPainter::portrait(std::string_view initials,
                                                                       std::uint32_t rgb, int pixels) {
    if (pixels < 16 || pixels > 4096) {
        return std::nullopt;
    }
    Image background = shadedSquare(rgb, pixels);
    if (!background) {
        vips_error_clear();
        return std::nullopt;
    }
    Image mask = initialsMask(initials, pixels);
    if (!mask) {
        vips_error_clear();
        mask = silhouetteMask(pixels);
    }
    Image picture;
    if (mask) {
        VipsImage* white = nullptr;
        std::array<double, 3> full = {255, 255, 255};
        // A constant white image of the same size, blended in through the mask.
        if (vips_black(&white, pixels, pixels, "bands", 3, nullptr) == 0) {
            Image blank = adopt(white);
            std::array<double, 3> one = {1, 1, 1};
            VipsImage* paper = nullptr;
            if (vips_linear(blank.get(), &paper, one.data(), full.data(), 3, "uchar", TRUE, nullptr) == 0) {
                Image whiteImage = adopt(paper);
                VipsImage* blended = nullptr;
                if (vips_ifthenelse(mask.get(), whiteImage.get(), background.get(), &blended, "blend", TRUE,
                                    nullptr) == 0) {
                    picture = adopt(blended);
                }
            }
        }
    }
    if (!picture) {
        vips_error_clear();
        picture = std::move(background);
    }
    void* buffer = nullptr;
    std::size_t length = 0;
    if (vips_jpegsave_buffer(picture.get(), &buffer, &length, "Q", 85, "strip", TRUE, nullptr) != 0) {
        vips_error_clear();
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::vector<std::uint8_t> jpeg(bytes, bytes + length);
    g_free(buffer);
    return jpeg;
}

} // namespace kinbook
