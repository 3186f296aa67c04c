#include "Kinbook/PeopleTable.h"

#include "Kinbook/PeopleTableModel.h"

#include <gtest/gtest.h>

#include <QKeyEvent>
#include <QtTest/QTest>

namespace kinbook {
namespace {

PersonPtr person(std::string id, std::string given, std::string family) {
    Person made;
    made.id = std::move(id);
    made.givenName = std::move(given);
    made.familyName = std::move(family);
    made.derive();
    return std::make_shared<const Person>(std::move(made));
}

// A: Ada Abbott, Al Avery · B: Bo Brown · D: Di Dunn, Dot Drake
SectionList threeSections() {
    const auto people = std::make_shared<const std::vector<PersonPtr>>(std::vector<PersonPtr>{
        person("a1", "Ada", "Abbott"), person("a2", "Al", "Avery"), person("b1", "Bo", "Brown"),
        person("d1", "Di", "Dunn"), person("d2", "Dot", "Drake")});
    const auto& held = *people;
    return SectionList({{"A", {held[0].get(), held[1].get()}},
                        {"B", {held[2].get()}},
                        {"D", {held[3].get(), held[4].get()}}},
                       people);
}

TEST(PeopleTableModel, EachSectionIsATitleRowFollowedByItsPeople) {
    PeopleTableModel model;
    model.setSections(threeSections());

    ASSERT_EQ(model.rowCount(), 8);
    EXPECT_EQ(model.peopleCount(), 5);
    QStringList shown;
    for (int row = 0; row < model.rowCount(); ++row) {
        shown << model.index(row).data().toString();
    }
    EXPECT_EQ(shown,
              (QStringList{"A", "Ada Abbott", "Al Avery", "B", "Bo Brown", "D", "Di Dunn", "Dot Drake"}));
    EXPECT_TRUE(model.isSectionRow(3));
    EXPECT_EQ(model.personAt(3), nullptr);
    EXPECT_EQ(model.personAt(4)->id, "b1");
    EXPECT_EQ(model.flags(model.index(0)), Qt::NoItemFlags);
    EXPECT_TRUE(model.flags(model.index(7)) & Qt::ItemIsSelectable);
    EXPECT_EQ(model.rowOf("d2"), 7);
    EXPECT_EQ(model.rowOf("nobody"), std::nullopt);
    EXPECT_EQ(model.sectionRow("D"), 5);
}

TEST(PeopleTableModel, AnEmptyListHasNoRows) {
    PeopleTableModel model;
    model.setSections(threeSections());
    model.setSections(SectionList());
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_EQ(model.personAt(0), nullptr);
    EXPECT_EQ(model.personRowFrom(0, 1), std::nullopt);
}

class PeopleTableKeys : public ::testing::Test {
protected:
    void SetUp() override {
        model.setSections(threeSections());
        table.setPeopleModel(&model);
        table.resize(300, 400);
        table.show();
        table.setFocus();
    }

    std::string selected() const { return table.selectedID().toStdString(); }

    PeopleTableModel model;
    PeopleTable table;
};

TEST_F(PeopleTableKeys, DownAndUpCrossSectionBordersWithoutStoppingOnTitles) {
    QTest::keyClick(&table, Qt::Key_Down);
    EXPECT_EQ(selected(), "a1");
    QTest::keyClick(&table, Qt::Key_Down);
    EXPECT_EQ(selected(), "a2");
    QTest::keyClick(&table, Qt::Key_Down);
    EXPECT_EQ(selected(), "b1");
    QTest::keyClick(&table, Qt::Key_Down);
    EXPECT_EQ(selected(), "d1");
    QTest::keyClick(&table, Qt::Key_Up);
    EXPECT_EQ(selected(), "b1");
    QTest::keyClick(&table, Qt::Key_Up);
    QTest::keyClick(&table, Qt::Key_Up);
    EXPECT_EQ(selected(), "a1");
    // The first person stays chosen: there is nothing above.
    QTest::keyClick(&table, Qt::Key_Up);
    EXPECT_EQ(selected(), "a1");
    QTest::keyClick(&table, Qt::Key_End);
    EXPECT_EQ(selected(), "d2");
}

TEST_F(PeopleTableKeys, MovingBySeveralStepsStopsAtTheLastPerson) {
    table.moveSelection(1);
    EXPECT_EQ(selected(), "a1");
    table.moveSelection(3);
    EXPECT_EQ(selected(), "d1");
    table.moveSelection(10);
    EXPECT_EQ(selected(), "d2");
    table.moveSelection(-2);
    EXPECT_EQ(selected(), "b1");
}

TEST_F(PeopleTableKeys, RightAsksForThePageOnlyWithSomeoneSelectedAndLeftForTheColumnBeside) {
    int pageRequests = 0;
    int leftRequests = 0;
    QObject::connect(&table, &PeopleTable::enterPageRequested, [&] { ++pageRequests; });
    QObject::connect(&table, &PeopleTable::leaveLeftRequested, [&] { ++leftRequests; });

    QTest::keyClick(&table, Qt::Key_Right);
    EXPECT_EQ(pageRequests, 0);
    QTest::keyClick(&table, Qt::Key_Down);
    QTest::keyClick(&table, Qt::Key_Right);
    EXPECT_EQ(pageRequests, 1);
    QTest::keyClick(&table, Qt::Key_Left);
    EXPECT_EQ(leftRequests, 1);
}

} // namespace
} // namespace kinbook
