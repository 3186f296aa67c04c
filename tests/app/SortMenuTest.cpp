#include "Kinbook/SortMenu.h"

#include <gtest/gtest.h>

#include <QAction>

namespace kinbook {
namespace {

TEST(SortMenu, OffersTheSevenOrdersAndTheChosenOrdersOwnDirectionWords) {
    SortMenu menu;
    QStringList titles;
    for (SortOrder order : allSortOrders()) {
        titles << menu.orderAction(order)->text();
    }
    EXPECT_EQ(titles, (QStringList{"Last Name", "First Name", "Circle", "Area Code", "Zip Code",
                                   "Most Complete", "Picture"}));
    EXPECT_EQ(menu.ascendingAction()->text(), "A to Z");
    EXPECT_EQ(menu.descendingAction()->text(), "Z to A");

    menu.setState(SortOrder::photo, true);
    EXPECT_TRUE(menu.orderAction(SortOrder::photo)->isChecked());
    EXPECT_FALSE(menu.orderAction(SortOrder::lastName)->isChecked());
    EXPECT_EQ(menu.ascendingAction()->text(), "Pictures First");
    EXPECT_EQ(menu.descendingAction()->text(), "Pictures First, Z to A");
    EXPECT_TRUE(menu.descendingAction()->isChecked());
    EXPECT_EQ(menu.summary(), "Picture, Pictures First, Z to A");
}

TEST(SortMenu, ChoosingAnnouncesOnlyChanges) {
    SortMenu menu;
    std::vector<SortOrder> orders;
    std::vector<bool> directions;
    QObject::connect(&menu, &SortMenu::orderChosen, [&](SortOrder order) { orders.push_back(order); });
    QObject::connect(&menu, &SortMenu::directionChosen,
                     [&](bool descending) { directions.push_back(descending); });

    menu.orderAction(SortOrder::lastName)->trigger();
    menu.orderAction(SortOrder::circle)->trigger();
    menu.ascendingAction()->trigger();
    menu.descendingAction()->trigger();

    EXPECT_EQ(orders, std::vector<SortOrder>{SortOrder::circle});
    EXPECT_EQ(directions, std::vector<bool>{true});
}

} // namespace
} // namespace kinbook
