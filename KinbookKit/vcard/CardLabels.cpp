#include "KinbookKit/vcard/CardLabels.h"

#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardEntries.h"

#include <array>
#include <optional>
#include <vector>

namespace kinbook {
namespace {

constexpr std::string_view kTokenOpen = "_$!<";
constexpr std::string_view kTokenClose = ">!$_";
constexpr std::string_view kAnniversaryToken = "_$!<Anniversary>!$_";

bool isToken(std::string_view label) {
    return label.size() > kTokenOpen.size() + kTokenClose.size() && label.starts_with(kTokenOpen) &&
           label.ends_with(kTokenClose);
}

std::string constantOf(StockLabel label) {
    return std::string(labelConstant(label));
}

// The TYPE values that name something, with the ones that never name a
// label left out.
struct Types {
    std::vector<std::string> values;

    bool has(std::string_view type) const {
        for (const auto& value : values) {
            if (equalsIgnoringAsciiCase(value, type)) {
                return true;
            }
        }
        return false;
    }
};

bool isOneOf(std::string_view value, std::initializer_list<std::string_view> names) {
    for (const auto name : names) {
        if (equalsIgnoringAsciiCase(value, name)) {
            return true;
        }
    }
    return false;
}

Types typesOf(const VCardProperty& property, EntryKind kind) {
    Types types;
    for (auto& value : property.parameterValues("TYPE")) {
        const std::string_view trimmed = trimAsciiSpace(value);
        if (isLabelType(kind, trimmed)) {
            types.values.emplace_back(trimmed);
        }
    }
    return types;
}

// A TYPE value that names no stock label, as the custom label it stands for.
std::string customFromType(std::string_view type) {
    if (startsWithIgnoringAsciiCase(type, "X-") && type.size() > 2) {
        type.remove_prefix(2);
    }
    bool allCapitals = true;
    for (const char c : type) {
        allCapitals = allCapitals && !(c >= 'a' && c <= 'z');
    }
    return allCapitals ? asciiLowered(type) : std::string(type);
}

// The first value that none of `known` accounts for, as a custom label.
std::string firstCustom(const Types& types, std::initializer_list<std::string_view> known) {
    for (const auto& value : types.values) {
        bool isKnown = false;
        for (const auto name : known) {
            isKnown = isKnown || equalsIgnoringAsciiCase(value, name);
        }
        if (!isKnown) {
            return customFromType(value);
        }
    }
    return {};
}

// Home, work and other, which every kind of entry shares.
std::optional<std::string> commonLabel(const Types& types) {
    if (types.has("HOME")) {
        return constantOf(StockLabel::home);
    }
    if (types.has("WORK")) {
        return constantOf(StockLabel::work);
    }
    if (types.has("OTHER")) {
        return constantOf(StockLabel::other);
    }
    return std::nullopt;
}

std::string phoneLabel(const Types& types) {
    if (types.has("IPHONE")) {
        return constantOf(StockLabel::iPhone);
    }
    if (types.has("FAX")) {
        if (types.has("HOME")) {
            return constantOf(StockLabel::homeFax);
        }
        if (types.has("WORK")) {
            return constantOf(StockLabel::workFax);
        }
    }
    if (types.has("CELL")) {
        return constantOf(types.has("WORK") ? StockLabel::work : StockLabel::mobile);
    }
    if (types.has("PAGER")) {
        return constantOf(StockLabel::pager);
    }
    if (types.has("MAIN")) {
        return constantOf(StockLabel::main);
    }
    if (auto common = commonLabel(types)) {
        return *common;
    }
    // A fax with neither home nor work, and other writers' kinds (CAR, VIDEO).
    std::string custom = firstCustom(types, {});
    return custom.empty() ? constantOf(StockLabel::other) : custom;
}

std::string emailLabel(const Types& types) {
    if (types.has("ICLOUD")) {
        return constantOf(StockLabel::iCloud);
    }
    if (auto common = commonLabel(types)) {
        return *common;
    }
    std::string custom = firstCustom(types, {});
    return custom.empty() ? constantOf(StockLabel::other) : custom;
}

std::string urlLabel(const Types& types) {
    if (types.has("HOMEPAGE") || types.has("X-HOMEPAGE")) {
        return constantOf(StockLabel::homepage);
    }
    if (auto common = commonLabel(types)) {
        return *common;
    }
    return firstCustom(types, {});
}

std::string addressLabel(const Types& types) {
    if (auto common = commonLabel(types)) {
        return *common;
    }
    std::string custom = firstCustom(types, {});
    return custom.empty() ? constantOf(StockLabel::other) : custom;
}

// 4.0 RELATED types that Apple has a token for.
std::string relationLabel(const Types& types) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 9> kTokens{{
        {"spouse", "_$!<Spouse>!$_"},
        {"child", "_$!<Child>!$_"},
        {"parent", "_$!<Parent>!$_"},
        {"friend", "_$!<Friend>!$_"},
        {"sibling", "_$!<Sibling>!$_"},
        {"sweetheart", "_$!<Partner>!$_"},
        {"partner", "_$!<Partner>!$_"},
        {"manager", "_$!<Manager>!$_"},
        {"assistant", "_$!<Assistant>!$_"},
    }};
    for (const auto& value : types.values) {
        for (const auto& [type, token] : kTokens) {
            if (equalsIgnoringAsciiCase(value, type)) {
                return std::string(token);
            }
        }
    }
    return firstCustom(types, {});
}

std::string labelFromText(std::string_view text) {
    if (stockLabelForConstant(text) || isToken(text)) {
        return std::string(text);
    }
    if (equalsIgnoringAsciiCase(text, "Other")) {
        return constantOf(StockLabel::other);
    }
    return std::string(text);
}

bool isAnniversaryProperty(const VCardProperty& property) {
    return property.is("ANNIVERSARY") || property.is("X-ANNIVERSARY") || property.is("X-MS-ANNIVERSARY") ||
           property.is("X-EVOLUTION-ANNIVERSARY");
}

} // namespace

std::string readLabel(const VCard& card, const VCardProperty& property) {
    if (const VCardProperty* label = card.companion(property, "X-ABLabel")) {
        const std::string text = label->text();
        const std::string_view trimmed = trimAsciiSpace(text);
        if (!trimmed.empty()) {
            return labelFromText(trimmed);
        }
    }
    const auto kind = entryKind(property);
    if (!kind) {
        return {};
    }
    const Types types = typesOf(property, *kind);
    switch (*kind) {
    case EntryKind::phone:
        return phoneLabel(types);
    case EntryKind::email:
        return emailLabel(types);
    case EntryKind::url:
        return urlLabel(types);
    case EntryKind::address:
        return addressLabel(types);
    case EntryKind::date:
        return isAnniversaryProperty(property) ? std::string(kAnniversaryToken) : std::string();
    case EntryKind::relation:
        return property.is("RELATED") ? relationLabel(types) : std::string();
    case EntryKind::social:
    case EntryKind::messaging:
        return commonLabel(types).value_or(std::string());
    }
    return {};
}

bool isLabelType(EntryKind kind, std::string_view type) {
    type = trimAsciiSpace(type);
    if (type.empty() || isOneOf(type, {"VOICE", "INTERNET", "PREF"})) {
        return false;
    }
    switch (kind) {
    case EntryKind::address:
        return !isOneOf(type, {"POSTAL", "PARCEL", "DOM", "INTL"});
    case EntryKind::email:
        return !equalsIgnoringAsciiCase(type, "X400");
    case EntryKind::social:
    case EntryKind::messaging:
        // Their other TYPE values name the service.
        return isOneOf(type, {"HOME", "WORK", "OTHER"});
    case EntryKind::phone:
    case EntryKind::url:
    case EntryKind::date:
    case EntryKind::relation:
        return true;
    }
    return true;
}

std::string labelDisplayText(std::string_view label) {
    return localizedLabel(label);
}

} // namespace kinbook
