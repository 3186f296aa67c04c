#include "KinbookKit/platform/VipsPortraitPainter.h"

#include "KinbookKit/platform/VipsLibrary.h"

#include <array>
#include <memory>
#include <string>

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

// Only called once vips::open() has succeeded.
const vips::Calls& calls() {
    return *vips::open();
}

using vips::Image;

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
    if (calls().width(rendered.get()) <= 1 || calls().width(rendered.get()) > pixels ||
        calls().height(rendered.get()) > pixels) {
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
    if (vips::open() == nullptr) {
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
