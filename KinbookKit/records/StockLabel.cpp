#include "KinbookKit/records/StockLabel.h"

#include "KinbookKit/text/Ascii.h"

#include <array>

namespace kinbook {
namespace {

struct StockLabelRow {
    StockLabel label;
    std::string_view constant;
    std::string_view displayName;
};

constexpr std::array<StockLabelRow, 12> kRows{{
    {StockLabel::mobile, "_$!<Mobile>!$_", "mobile"},
    {StockLabel::iPhone, "iPhone", "iPhone"},
    {StockLabel::home, "_$!<Home>!$_", "home"},
    {StockLabel::work, "_$!<Work>!$_", "work"},
    {StockLabel::other, "_$!<Other>!$_", "other"},
    {StockLabel::main, "_$!<Main>!$_", "main"},
    {StockLabel::pager, "_$!<Pager>!$_", "pager"},
    {StockLabel::homeFax, "_$!<HomeFAX>!$_", "home fax"},
    {StockLabel::workFax, "_$!<WorkFAX>!$_", "work fax"},
    {StockLabel::school, "_$!<School>!$_", "school"},
    {StockLabel::homepage, "_$!<HomePage>!$_", "homepage"},
    {StockLabel::iCloud, "iCloud", "iCloud"},
}};

constexpr std::array<StockLabel, 12> kAll{
    StockLabel::mobile,  StockLabel::iPhone, StockLabel::home,     StockLabel::work,
    StockLabel::other,   StockLabel::main,   StockLabel::pager,    StockLabel::homeFax,
    StockLabel::workFax, StockLabel::school, StockLabel::homepage, StockLabel::iCloud,
};

const StockLabelRow& row(StockLabel label) {
    return kRows[static_cast<std::size_t>(label)];
}

} // namespace

std::span<const StockLabel> allStockLabels() {
    return kAll;
}

std::string_view labelConstant(StockLabel label) {
    return row(label).constant;
}

std::string_view labelDisplayName(StockLabel label) {
    return row(label).displayName;
}

std::optional<StockLabel> stockLabelForConstant(std::string_view constant) {
    for (const auto& entry : kRows) {
        if (entry.constant == constant) {
            return entry.label;
        }
    }
    return std::nullopt;
}

std::optional<StockLabel> stockLabelForDisplayName(std::string_view name) {
    for (const auto& entry : kRows) {
        if (equalsIgnoringAsciiCase(entry.displayName, name)) {
            return entry.label;
        }
    }
    return std::nullopt;
}

std::string localizedLabel(std::string_view label) {
    if (auto stock = stockLabelForConstant(label)) {
        return std::string(labelDisplayName(*stock));
    }
    constexpr std::string_view open = "_$!<";
    constexpr std::string_view close = ">!$_";
    if (label.size() <= open.size() + close.size() || !label.starts_with(open) || !label.ends_with(close)) {
        return std::string(label);
    }
    // Apple's other tokens, in words: "AssistantPhone" is "assistant
    // phone", "OtherFAX" "other fax". A token is never shown or written
    // into a label the user sees ("ex-_$!<OtherFAX>!$_").
    const std::string_view name = label.substr(open.size(), label.size() - open.size() - close.size());
    std::string words;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        const bool upper = c >= 'A' && c <= 'Z';
        const bool previousLower = i > 0 && !(name[i - 1] >= 'A' && name[i - 1] <= 'Z');
        if (upper && i > 0 && previousLower) {
            words.push_back(' ');
        }
        words.push_back(asciiLower(c));
    }
    return words;
}

std::string labelFromDisplayName(std::string_view name) {
    if (auto stock = stockLabelForDisplayName(name)) {
        return std::string(labelConstant(*stock));
    }
    return std::string(name);
}

} // namespace kinbook
