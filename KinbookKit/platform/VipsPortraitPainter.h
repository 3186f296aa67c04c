#pragma once

#include "KinbookKit/setup/PortraitPainter.h"

namespace kinbook {

// Monogram portraits through libvips: the initials in white on a shaded
// square of the person's colour. Where no font can be found the initials are
// left out and a head-and-shoulders outline stands in. libvips is opened
// (dlopen) by the first portrait, so a program that paints none never loads
// it; without libvips there are no portraits.
class VipsPortraitPainter final : public PortraitPainter {
public:
    VipsPortraitPainter();

    std::optional<std::vector<std::uint8_t>> portrait(std::string_view initials, std::uint32_t rgb,
                                                      int pixels) override;
};

} // namespace kinbook
