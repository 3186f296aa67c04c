#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace kinbook {

// The seven ways the list can be ordered, in the order the sort menu offers
// them. The raw value is what the tool's --sort takes and what preferences
// store, so it never changes.
enum class SortOrder {
    lastName,
    firstName,
    circle,
    areaCode,
    zip,
    completeness,
    photo,
};

std::span<const SortOrder> allSortOrders();

std::string_view rawValue(SortOrder order);
std::optional<SortOrder> sortOrderFromRawValue(std::string_view rawValue);

// "Last Name", "Zip Code", "Picture", …
std::string_view sortOrderTitle(SortOrder order);
// The direction's label in the sort menu: "A to Z" / "Z to A", "Closest First" / "Farthest First", …
std::string_view ascendingLabel(SortOrder order);
std::string_view descendingLabel(SortOrder order);

} // namespace kinbook
