#include "Kinbook/Sidebar.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

struct Entry {
    QString title;
    int count;
    QString badge;
};

std::vector<Entry> entriesOf(const Sidebar& sidebar) {
    std::vector<Entry> entries;
    for (int row = 0; row < sidebar.count(); ++row) {
        const QListWidgetItem* item = sidebar.item(row);
        if (item->data(Sidebar::KindRole).toInt() >= 0) {
            entries.push_back({item->text(), item->data(Sidebar::CountRole).toInt(),
                               item->data(Sidebar::BadgeRole).toString()});
        }
    }
    return entries;
}

SidebarCounts someCounts() {
    SidebarCounts counts;
    counts.everyone = 40;
    counts.accounts = {{"home", "On My Computer"}, {"work", "Work"}};
    counts.accountCounts = {{"home", 30}, {"work", 12}};
    counts.circleCounts = {{ContactCircle::closest, 3}, {ContactCircle::friends, 7}};
    counts.hidden = 2;
    counts.trash = 4;
    return counts;
}

// A circle's count is of the people the list shows when it is chosen: those
// in it, not those inside it too; how full it is, which counts them, is in
// its tooltip.
TEST(Sidebar, ListsEveryoneTheAccountsEachCirclesOwnPeopleHiddenAndTheTrash) {
    Sidebar sidebar;
    sidebar.setCounts(someCounts());

    QStringList shown;
    for (const Entry& entry : entriesOf(sidebar)) {
        shown << QString("%1%2 %3")
                     .arg(entry.badge.isEmpty() ? "" : entry.badge + " ", entry.title)
                     .arg(entry.count);
    }
    EXPECT_EQ(shown, (QStringList{"All 40", "On My Computer 30", "Work 12", "5 Closest 3",
                                  "15 Good Friends 0", "50 Friends 7", "150 Meaningful 0", "500 Known 0",
                                  "A Acquaintance 0", "Hidden 2", "Trash 4"}));
    EXPECT_EQ(sidebar.findItems("Friends", Qt::MatchExactly).value(0)->toolTip(),
              "7 in Friends; your 50 holds 10 of 50");
}

TEST(Sidebar, ChoosingAnEntryAnnouncesItAndAnAccountThatWentAwayFallsBackToAll) {
    Sidebar sidebar;
    sidebar.setCounts(someCounts());
    std::vector<SidebarChoice> choices;
    QObject::connect(&sidebar, &Sidebar::choiceChanged,
                     [&](const SidebarChoice& choice) { choices.push_back(choice); });

    for (int row = 0; row < sidebar.count(); ++row) {
        if (sidebar.item(row)->text() == "Work" || sidebar.item(row)->text() == "Friends") {
            sidebar.setCurrentRow(row);
        }
    }
    ASSERT_EQ(choices.size(), 2u);
    EXPECT_EQ(choices[0], (SidebarChoice{SidebarChoice::Kind::account, "work", std::nullopt}));
    EXPECT_EQ(choices[1], (SidebarChoice{SidebarChoice::Kind::circle, "", ContactCircle::friends}));

    sidebar.showChoice({SidebarChoice::Kind::account, "work", std::nullopt});
    SidebarCounts withoutWork = someCounts();
    withoutWork.accounts.pop_back();
    sidebar.setCounts(withoutWork);
    EXPECT_EQ(sidebar.choice(), SidebarChoice());
    EXPECT_EQ(choices.size(), 2u);
}

} // namespace
} // namespace kinbook
