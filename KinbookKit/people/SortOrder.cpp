#include "KinbookKit/people/SortOrder.h"

#include <array>

namespace kinbook {
namespace {

struct SortOrderRow {
    SortOrder order;
    std::string_view rawValue;
    std::string_view title;
    std::string_view ascending;
    std::string_view descending;
};

// In the order the sort menu offers them; the raw values are stored in
// preferences and typed after --sort, so they never change.
constexpr std::array<SortOrderRow, 7> kRows{{
    {SortOrder::lastName, "lastName", "Last Name", "A to Z", "Z to A"},
    {SortOrder::firstName, "firstName", "First Name", "A to Z", "Z to A"},
    {SortOrder::circle, "circle", "Circle", "Closest First", "Farthest First"},
    {SortOrder::areaCode, "areaCode", "Area Code", "Lowest First", "Highest First"},
    {SortOrder::zip, "zip", "Zip Code", "Lowest First", "Highest First"},
    {SortOrder::completeness, "completeness", "Most Complete", "Most First", "Fewest First"},
    // Descending keeps pictures first and only turns the names around.
    {SortOrder::photo, "photo", "Picture", "Pictures First", "Pictures First, Z to A"},
}};

constexpr std::array<SortOrder, 7> kAll{
    SortOrder::lastName, SortOrder::firstName,    SortOrder::circle, SortOrder::areaCode,
    SortOrder::zip,      SortOrder::completeness, SortOrder::photo,
};

const SortOrderRow& row(SortOrder order) {
    return kRows[static_cast<std::size_t>(order)];
}

} // namespace

std::span<const SortOrder> allSortOrders() {
    return kAll;
}

std::string_view rawValue(SortOrder order) {
    return row(order).rawValue;
}

std::optional<SortOrder> sortOrderFromRawValue(std::string_view value) {
    for (const auto& entry : kRows) {
        if (entry.rawValue == value) {
            return entry.order;
        }
    }
    return std::nullopt;
}

std::string_view sortOrderTitle(SortOrder order) {
    return row(order).title;
}

std::string_view ascendingLabel(SortOrder order) {
    return row(order).ascending;
}

std::string_view descendingLabel(SortOrder order) {
    return row(order).descending;
}

} // namespace kinbook
