#include "KinbookKit/records/ExLabel.h"

#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/Ascii.h"

#include <array>

namespace kinbook::ExLabel {
namespace {

// The labels a former label can turn back into, in the order they are tried.
constexpr std::array<StockLabel, 9> kRestorable{
    StockLabel::mobile, StockLabel::iPhone, StockLabel::home,     StockLabel::work,   StockLabel::other,
    StockLabel::main,   StockLabel::iCloud, StockLabel::homepage, StockLabel::school,
};

} // namespace

bool isFormer(std::string_view label) {
    return label.size() >= prefix.size() && asciiLowered(label.substr(0, prefix.size())) == prefix;
}

std::string former(std::string_view label) {
    if (isFormer(label)) {
        return std::string(label);
    }
    if (label.empty()) {
        return std::string(prefix) + std::string(labelDisplayName(StockLabel::other));
    }
    return std::string(prefix) + localizedLabel(label);
}

std::string current(std::string_view label) {
    if (!isFormer(label)) {
        return std::string(label);
    }
    const std::string_view rest = label.substr(prefix.size());
    const std::string lowered = asciiLowered(rest);
    for (StockLabel stock : kRestorable) {
        if (asciiLowered(labelDisplayName(stock)) == lowered) {
            return std::string(labelConstant(stock));
        }
    }
    return std::string(rest);
}

std::string markAsFormerTitle(std::string_view label) {
    return "Mark as Former (" + former(label) + ")";
}

std::string markAsFormerRowTitle(std::string_view displayedLabel) {
    return "Mark as Former (ex-" +
           (displayedLabel.empty() ? std::string("other") : std::string(displayedLabel)) + ")";
}

} // namespace kinbook::ExLabel
