#include "KinbookKit/people/SortOrder.h"

#include <gtest/gtest.h>

#include <string>

namespace kinbook {
namespace {

// The menu's orders, their titles and direction labels, and the raw values
// settings keep them under, which read back exactly and only exactly.
TEST(SortOrder, MenuOrderTitlesDirectionLabelsAndRawValues) {
    struct Row {
        std::string_view raw, title, ascending, descending;
    };
    const Row expected[] = {
        {"lastName", "Last Name", "A to Z", "Z to A"},
        {"firstName", "First Name", "A to Z", "Z to A"},
        {"circle", "Circle", "Closest First", "Farthest First"},
        {"areaCode", "Area Code", "Lowest First", "Highest First"},
        {"zip", "Zip Code", "Lowest First", "Highest First"},
        {"completeness", "Most Complete", "Most First", "Fewest First"},
        {"photo", "Picture", "Pictures First", "Pictures First, Z to A"},
    };
    const auto orders = allSortOrders();
    ASSERT_EQ(orders.size(), std::size(expected));
    for (std::size_t i = 0; i < orders.size(); ++i) {
        SCOPED_TRACE(expected[i].raw);
        EXPECT_EQ(rawValue(orders[i]), expected[i].raw);
        EXPECT_EQ(sortOrderFromRawValue(expected[i].raw), orders[i]);
        EXPECT_EQ(sortOrderTitle(orders[i]), expected[i].title);
        EXPECT_EQ(ascendingLabel(orders[i]), expected[i].ascending);
        EXPECT_EQ(descendingLabel(orders[i]), expected[i].descending);
    }
    EXPECT_EQ(sortOrderFromRawValue("LastName"), std::nullopt) << "raw values are matched exactly";
    EXPECT_EQ(sortOrderFromRawValue(""), std::nullopt);
}

} // namespace
} // namespace kinbook
