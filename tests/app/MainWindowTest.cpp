// The main window over a real people list reading a real vdir in a temporary
// folder, on the offscreen platform.

#include "Kinbook/MainWindow.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/ContactPage.h"
#include "Kinbook/HeadingsColumn.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/QtMainExecutor.h"
#include "Kinbook/Sidebar.h"
#include "Kinbook/SortMenu.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QToolButton>
#include <QtTest/QTest>

namespace kinbook {
namespace {

using testing::runEventsUntil;

class MainWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::writeSmallAddressBook(root());
        open();
    }

    void TearDown() override {
        window.reset();
        list.reset();
    }

    std::filesystem::path root() const { return folder / "contacts"; }

    void open() {
        VdirAddressBook::Options options;
        options.root = root();
        options.stateFolder = folder / "state";
        options.log = std::make_shared<KinLog>("store", appLog, platform);
        book = std::make_shared<VdirAddressBook>(options);
        PeopleListOptions listOptions;
        listOptions.log = std::make_shared<KinLog>("list", appLog, platform);
        list = std::make_unique<PeopleList>(main, pool, book, listOptions);
        settings = std::make_unique<QSettings>(QString::fromStdString((folder / "settings.ini").string()),
                                               QSettings::IniFormat);
        window = std::make_unique<MainWindow>(*list, main, pool, *settings, appLog);
        window->resize(1200, 700);
        window->show();
        bool loaded = false;
        list->load([&] { loaded = true; });
        ASSERT_TRUE(runEventsUntil([&] { return loaded && !list->isIndexing(); }));
    }

    // The list as shown: "[A]" for a section title, else the person's name.
    QStringList rows() const {
        QStringList shown;
        const PeopleTableModel* model = window->tableModel();
        for (int row = 0; row < model->rowCount(); ++row) {
            const QString text = model->index(row).data().toString();
            shown << (model->isSectionRow(row) ? "[" + text + "]" : text);
        }
        return shown;
    }

    QStringList sectionTitles() const {
        QStringList titles;
        for (const QString& row : rows()) {
            if (row.startsWith('[')) {
                titles << row.mid(1, row.size() - 2);
            }
        }
        return titles;
    }

    std::string selected() const { return window->table()->selectedID().toStdString(); }

    QWidget* focused() const { return window->focusWidget(); }

    // The page's rows as "label=value".
    QStringList pageRows() const {
        QStringList shown;
        ContactFields* fields = window->page()->fields();
        for (int i = 0; i < fields->topLevelItemCount(); ++i) {
            shown << fields->topLevelItem(i)->text(0) + "=" + fields->topLevelItem(i)->text(1);
        }
        return shown;
    }

    testing::TempFolder folder;
    AppLog appLog{folder / "app.log"};
    testing::RecordingLog platform;
    QtMainExecutor main;
    ThreadPool pool{2};
    std::shared_ptr<VdirAddressBook> book;
    std::unique_ptr<PeopleList> list;
    std::unique_ptr<QSettings> settings;
    std::unique_ptr<MainWindow> window;
};

const QStringList kAllRows = {"[A]",     "Ada Abbott", "Al Avery",  "[B]",     "Bo Brown", "[C]",
                              "Cy Cole", "[D]",        "Dot Drake", "Di Dunn", "[E]",      "Ed Evans",
                              "[S]",     "Ann Smith",  "Sam Smith", "[W]",     "Wu Wang"};

TEST_F(MainWindowTest, ShowsTheSectionsOfTheAddressBookWithTheirCounts) {
    EXPECT_TRUE(window->isShowingList());
    EXPECT_EQ(rows(), kAllRows);
    EXPECT_EQ(window->statusLabel()->text(), "10 people");

    QStringList headings;
    for (int row = 0; row < window->headingsColumn()->count(); ++row) {
        QListWidgetItem* item = window->headingsColumn()->item(row);
        headings << QString("%1 %2").arg(item->text()).arg(item->data(Sidebar::CountRole).toInt());
    }
    EXPECT_EQ(headings, (QStringList{"A 2", "B 1", "C 1", "D 2", "E 1", "S 2", "W 1"}));

    QStringList sidebar;
    for (int row = 0; row < window->sidebar()->count(); ++row) {
        QListWidgetItem* item = window->sidebar()->item(row);
        if (item->data(Sidebar::KindRole).toInt() >= 0) {
            sidebar << QString("%1 %2").arg(item->text()).arg(item->data(Sidebar::CountRole).toInt());
        }
    }
    EXPECT_EQ(sidebar.mid(0, 5),
              (QStringList{"All 10", "On My Computer 9", "Work 1", "Closest 5", "Good Friends 5"}));
    EXPECT_EQ(sidebar.last(), "Hidden 0");
}

TEST_F(MainWindowTest, TypingInTheSearchFieldNarrowsTheList) {
    window->searchField()->setFocus();
    QTest::keyClicks(window->searchField(), "ann");

    ASSERT_TRUE(runEventsUntil([&] { return rows().size() == 3; })) << rows().join(", ").toStdString();
    EXPECT_EQ(rows(), (QStringList{"[S]", "Ann Smith", "Sam Smith"}));
    EXPECT_EQ(window->statusLabel()->text(), "2 matches");

    QTest::keyClicks(window->searchField(), " smi");
    ASSERT_TRUE(runEventsUntil([&] { return list->searchText() == "ann smi"; }));
    EXPECT_EQ(rows(), (QStringList{"[S]", "Ann Smith", "Sam Smith"}));

    QTest::keyClick(window->searchField(), Qt::Key_Escape);
    ASSERT_TRUE(runEventsUntil([&] { return rows() == kAllRows; })) << rows().join(", ").toStdString();
}

TEST_F(MainWindowTest, TheSortMenuSwitchesTheSectionsAndTheirDirection) {
    window->sortMenu()->orderAction(SortOrder::circle)->trigger();
    ASSERT_TRUE(runEventsUntil([&] {
        return sectionTitles() == QStringList{"Closest", "No Circle"};
    })) << sectionTitles().join(", ").toStdString();

    window->sortMenu()->descendingAction()->trigger();
    ASSERT_TRUE(runEventsUntil([&] { return sectionTitles() == QStringList{"No Circle", "Closest"}; }));
    EXPECT_EQ(window->findChild<QToolButton*>("SortButton")->text(), "Circle, Farthest First");
    EXPECT_EQ(window->sortMenu()->descendingAction()->text(), "Farthest First");

    window->sortMenu()->orderAction(SortOrder::firstName)->trigger();
    window->sortMenu()->ascendingAction()->trigger();
    ASSERT_TRUE(runEventsUntil([&] { return sectionTitles().first() == "A"; }));
    // By first name: Ada, Al and Ann come first.
    EXPECT_EQ(rows().mid(0, 4), (QStringList{"[A]", "Ada Abbott", "Al Avery", "Ann Smith"}));
}

TEST_F(MainWindowTest, AFullCircleRefusesANewcomerOnThePageAndAnOuterCircleTakesThem) {
    ASSERT_TRUE(window->selectPerson("ED"));
    CirclePicker* picker = window->page()->circlePicker();
    ASSERT_EQ(window->page()->person()->id, "ED");

    picker->choose(ContactCircle::closest);
    EXPECT_EQ(picker->refusalText(), "Your 5 is full (5 of 5). Move someone out of it first.");
    EXPECT_EQ(list->person("ED")->circle, std::nullopt);

    picker->choose(ContactCircle::goodFriends);
    ASSERT_TRUE(runEventsUntil([&] { return list->person("ED")->circle == ContactCircle::goodFriends; }));
    EXPECT_EQ(picker->refusalText(), "");
    EXPECT_EQ(picker->current(), ContactCircle::goodFriends);
    // The circle lives in the card itself.
    EXPECT_NE(testing::readFile(root() / "home" / "ED.vcf").find("r=2"), std::string::npos);
}

TEST_F(MainWindowTest, TheKeyboardMovesBetweenTheColumnsAndAlongTheList) {
    window->sidebar()->setFocus();
    QTest::keyClick(focused(), Qt::Key_Right);
    EXPECT_EQ(focused(), window->headingsColumn());
    QTest::keyClick(focused(), Qt::Key_Right);
    EXPECT_EQ(focused(), window->table());

    QTest::keyClick(focused(), Qt::Key_Down);
    EXPECT_EQ(selected(), "ADA");
    QTest::keyClick(focused(), Qt::Key_Down);
    QTest::keyClick(focused(), Qt::Key_Down);
    EXPECT_EQ(selected(), "BO") << "across the border between A and B";

    QTest::keyClick(focused(), Qt::Key_Right);
    ContactFields* fields = window->page()->fields();
    EXPECT_EQ(focused(), fields);
    ASSERT_NE(fields->currentItem(), nullptr);
    QTreeWidgetItem* first = fields->currentItem();
    QTest::keyClick(focused(), Qt::Key_Down);
    EXPECT_NE(fields->currentItem(), first);
    QTest::keyClick(focused(), Qt::Key_Up);
    EXPECT_EQ(fields->currentItem(), first);

    QTest::keyClick(focused(), Qt::Key_Left);
    EXPECT_EQ(focused(), window->table());
    EXPECT_EQ(selected(), "BO");
    QTest::keyClick(focused(), Qt::Key_Left);
    EXPECT_EQ(focused(), window->headingsColumn());
    QTest::keyClick(focused(), Qt::Key_Left);
    EXPECT_EQ(focused(), window->sidebar());

    // Down in the search field moves the list's row; the typing goes on.
    window->searchField()->setFocus();
    QTest::keyClick(focused(), Qt::Key_Down);
    EXPECT_EQ(selected(), "CY");
    EXPECT_EQ(focused(), window->searchField());
    QTest::keyClick(focused(), Qt::Key_Up);
    QTest::keyClick(focused(), Qt::Key_Up);
    EXPECT_EQ(selected(), "AL");
    EXPECT_EQ(focused(), window->searchField());
}

TEST_F(MainWindowTest, ChoosingAHeadingShowsItsSectionAndTheColumnStepsAsideWhenNarrow) {
    HeadingsColumn* headings = window->headingsColumn();
    ASSERT_TRUE(window->headingsShown());
    QListWidgetItem* s = headings->findItems("S", Qt::MatchExactly).value(0);
    ASSERT_NE(s, nullptr);
    Q_EMIT headings->itemClicked(s);
    ASSERT_TRUE(runEventsUntil([&] { return sectionTitles() == QStringList{"S"}; }));
    // The column keeps every heading while one is chosen.
    EXPECT_EQ(headings->count(), 7);

    EXPECT_EQ(window->headingsAction()->text(), "Hide the headings column");
    window->resize(700, 700);
    EXPECT_FALSE(window->headingsShown());
    window->resize(1200, 700);
    EXPECT_TRUE(window->headingsShown());

    window->headingsAction()->trigger();
    EXPECT_FALSE(window->headingsShown());
    EXPECT_EQ(window->headingsAction()->text(),
              "Show the headings column (it steps aside when the window is too narrow)");
    EXPECT_EQ(settings->value("showHeadings").toBool(), false);
}

TEST_F(MainWindowTest, MarkingAnEntryFormerFromThePageRewritesItsLabel) {
    ASSERT_TRUE(window->selectPerson("ADA"));
    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("work=ada@acme.test"); }))
        << pageRows().join(" | ").toStdString();
    // The former e-mail is listed after the current one.
    EXPECT_LT(pageRows().indexOf("work=ada@acme.test"), pageRows().indexOf("ex-work=ada@old.test"));

    ContactFields* fields = window->page()->fields();
    QTreeWidgetItem* acme = fields->findItems("ada@acme.test", Qt::MatchExactly, 1).value(0);
    const auto actions = window->page()->entryActions(acme, window.get());
    ASSERT_EQ(actions.size(), 1);
    EXPECT_EQ(actions.front()->text(), "Mark as Former (ex-work)");
    actions.front()->trigger();

    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("ex-work=ada@acme.test"); }))
        << pageRows().join(" | ").toStdString();
    EXPECT_NE(testing::readFile(root() / "home" / "ADA.vcf").find("ex-work"), std::string::npos);
    acme = fields->findItems("ada@acme.test", Qt::MatchExactly, 1).value(0);
    EXPECT_EQ(window->page()->entryActions(acme, window.get()).front()->text(), "Mark as Current");
}

TEST_F(MainWindowTest, HidingTakesThePersonOutOfTheListAndIntoHidden) {
    ASSERT_TRUE(window->selectPerson("WU"));
    QPushButton* hide = window->page()->hideButton();
    EXPECT_EQ(hide->text(), "Hide");
    hide->click();

    ASSERT_TRUE(runEventsUntil([&] { return list->hiddenCount() == 1 && !rows().contains("Wu Wang"); }));
    EXPECT_EQ(hide->text(), "Unhide");
    QListWidgetItem* hidden = window->sidebar()->findItems("Hidden", Qt::MatchExactly).value(0);
    ASSERT_NE(hidden, nullptr);
    EXPECT_EQ(hidden->data(Sidebar::CountRole).toInt(), 1);

    window->sidebar()->setCurrentItem(hidden);
    ASSERT_TRUE(runEventsUntil([&] {
        return rows() == QStringList{"[W]", "Wu Wang"};
    })) << rows().join(", ").toStdString();
}

class MainWindowWithoutAddressBook : public MainWindowTest {
protected:
    void SetUp() override {
        // A file where the folder should be: nothing can be read.
        testing::writeFile(root(), "not a folder");
        open();
    }
};

TEST_F(MainWindowWithoutAddressBook, SaysItCouldNotLoadContactsAndWhy) {
    EXPECT_FALSE(window->isShowingList());
    EXPECT_EQ(window->stateTitle(), "Couldn't Load Contacts");
    EXPECT_TRUE(window->stateText().contains(QString::fromStdString(root().string())))
        << window->stateText().toStdString();
}

} // namespace
} // namespace kinbook
