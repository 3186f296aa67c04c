#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kinbook {

// The fixed labels that address books share. A card entry's label is either
// one of these constants or a custom text. The constants are the label tokens
// that vCards written by Apple's software carry in X-ABLabel ("_$!<Mobile>!$_"),
// so the vCard layer can store a token as it reads it; everything else in
// Kinbook sees the English display name ("mobile").
enum class StockLabel {
    mobile,
    iPhone,
    home,
    work,
    other,
    main,
    pager,
    homeFax,
    workFax,
    school,
    homepage,
    iCloud,
};

std::span<const StockLabel> allStockLabels();

// The label constant stored for the stock label ("_$!<Mobile>!$_", or "iPhone"
// and "iCloud", which have no token form).
std::string_view labelConstant(StockLabel label);

// The name the user sees ("mobile", "home fax", "homepage").
std::string_view labelDisplayName(StockLabel label);

// The stock label whose constant is exactly `constant`, if any.
std::optional<StockLabel> stockLabelForConstant(std::string_view constant);

// The stock label whose display name equals `name`, ignoring ASCII case.
std::optional<StockLabel> stockLabelForDisplayName(std::string_view name);

// The display name of any label: a stock constant gives its display name,
// any other Apple label token its name in words ("_$!<OtherFAX>!$_" is
// "other fax"), a custom label is its own display name, and an empty label
// stays empty.
std::string localizedLabel(std::string_view label);

// The constant for a label shown to the user: a stock display name gives its
// constant, anything else (a custom or former label) is kept as it is.
std::string labelFromDisplayName(std::string_view name);

} // namespace kinbook
