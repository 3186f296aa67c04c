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
#include "KinbookKit/platform/InotifyFolderWatcher.h"
#include "KinbookKit/setup/KinbookSession.h"
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
        options.watcher = watcher;
        book = std::make_shared<VdirAddressBook>(options);
        PeopleListOptions listOptions;
        listOptions.log = std::make_shared<KinLog>("list", appLog, platform);
        listOptions.readNotes = KinbookSession::noteReader(book);
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
    std::shared_ptr<FolderWatcher> watcher; // none: changes on disk go unheard
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
              (QStringList{"All 10", "On My Computer 9", "Work 1", "Closest 5", "Good Friends 0"}));
    EXPECT_EQ(sidebar.mid(sidebar.size() - 2), (QStringList{"Hidden 0", "Trash 0"}));
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

// The sidebar, the headings column and the keys combine into one list
// whatever order they are used in.
TEST_F(MainWindowTest, FiltersCombineInEveryOrderOfClicksAndKeys) {
    Sidebar* sidebar = window->sidebar();
    const auto choose = [&](const QString& title) {
        QListWidgetItem* entry = sidebar->findItems(title, Qt::MatchExactly).value(0);
        ASSERT_NE(entry, nullptr) << title.toStdString();
        sidebar->setCurrentItem(entry);
    };
    const QStringList work = {"[W]", "Wu Wang"};
    for (const QString first : {"Closest", "Hidden", "Good Friends", "On My Computer"}) {
        choose(first);
        choose("Work");
        ASSERT_TRUE(runEventsUntil([&] { return rows() == work; }))
            << first.toStdString() << ": " << rows().join(", ").toStdString();
        EXPECT_EQ(list->accountFilter(), "work");
        EXPECT_FALSE(list->circleFilter());
        EXPECT_FALSE(list->showingHidden());
        choose("All");
        ASSERT_TRUE(runEventsUntil([&] { return rows() == kAllRows; })) << rows().join(", ").toStdString();
    }

    // A circle and a heading, either one first: the closest people under D.
    const QStringList closestUnderD = {"[D]", "Dot Drake", "Di Dunn"};
    HeadingsColumn* headings = window->headingsColumn();
    const auto chooseHeadingByKeys = [&](const QString& title) {
        headings->setFocus();
        QTest::keyClick(headings, Qt::Key_Home);
        for (int i = 0; i < headings->count() && headings->currentItem()->text() != title; ++i) {
            QTest::keyClick(headings, Qt::Key_Down);
        }
    };
    choose("Closest");
    ASSERT_TRUE(runEventsUntil([&] { return sectionTitles() == QStringList{"A", "B", "C", "D"}; }));
    chooseHeadingByKeys("D");
    ASSERT_TRUE(runEventsUntil([&] { return rows() == closestUnderD; })) << rows().join(", ").toStdString();
    // The footer counts what the list shows.
    EXPECT_EQ(window->statusLabel()->text(), "2 people");

    choose("All");
    ASSERT_TRUE(runEventsUntil([&] {
        return rows() == QStringList{"[D]", "Dot Drake", "Di Dunn"};
    })) << rows().join(", ").toStdString();
    choose("Closest");
    ASSERT_TRUE(runEventsUntil([&] { return rows() == closestUnderD; })) << rows().join(", ").toStdString();

    // Moving on through the column with the keys filters as a click does.
    QTest::keyClick(headings, Qt::Key_Up);
    ASSERT_TRUE(runEventsUntil([&] { return sectionTitles() == QStringList{"C"}; }))
        << rows().join(", ").toStdString();
    EXPECT_EQ(window->statusLabel()->text(), "1 person");
}

// The page shows the person chosen in the list, and nobody once they have
// left what the list shows.
TEST_F(MainWindowTest, ThePageClearsWhenItsPersonLeavesTheShownList) {
    ASSERT_TRUE(window->selectPerson("ED"));
    ASSERT_EQ(window->page()->person()->id, "ED");
    QListWidgetItem* closest = window->sidebar()->findItems("Closest", Qt::MatchExactly).value(0);
    window->sidebar()->setCurrentItem(closest);
    ASSERT_TRUE(runEventsUntil([&] { return !rows().contains("Ed Evans"); }));
    EXPECT_FALSE(window->page()->person().has_value());
}

// A refusal is about the move just tried: the next action takes it away.
TEST_F(MainWindowTest, ARefusalClearsOnTheNextAction) {
    ASSERT_TRUE(window->selectPerson("ED"));
    CirclePicker* picker = window->page()->circlePicker();
    picker->choose(ContactCircle::closest);
    ASSERT_FALSE(picker->refusalText().isEmpty());
    window->page()->hideButton()->click();
    EXPECT_EQ(picker->refusalText(), "");
}

// Ann Smith has a home card and a work card, joined by one KinID, and the
// changes on disk are followed as the application follows them.
class MainWindowJoinedPersonTest : public MainWindowTest {
protected:
    void SetUp() override {
        testing::writeSmallAddressBook(root());
        testing::writeFile(root() / "home" / "ANN.vcf",
                           testing::vcard("ANN", "Ann", "Smith",
                                          {"URL:kinbook://c/A0000009?p=1", "TEL;type=CELL:+1 212 555 0147",
                                           "EMAIL;type=HOME:ann@home.test", "item1.EMAIL:ann@old.test",
                                           "item1.X-ABLabel:ex-home", "NOTE:Met at the harbour"}));
        writeWorkCard("Staff Engineer");
        watcher = std::make_shared<InotifyFolderWatcher>();
        open();
    }

    void writeWorkCard(const std::string& title) {
        testing::writeFile(
            root() / "work" / "ANN-W.vcf",
            testing::vcard("ANN-W", "Ann", "Smith",
                           {"URL:kinbook://c/A0000009", "ORG:Fernhill;", "TITLE:" + title,
                            "TEL;type=WORK:+1 718 555 0190", "EMAIL;type=WORK:ann@fernhill.test",
                            "EMAIL;type=HOME:ANN@home.test", "NOTE:Ask about the bridge"}));
    }
};

TEST_F(MainWindowJoinedPersonTest, ThePageShowsEveryCardOfAJoinedPerson) {
    ASSERT_TRUE(window->selectPerson("ANN"));
    const QStringList expected = {"mobile · On My Computer=+1 212 555 0147", "work · Work=+1 718 555 0190",
                                  "home · On My Computer=ann@home.test",     "work · Work=ann@fernhill.test",
                                  "ex-home · On My Computer=ann@old.test",   "Work=Staff Engineer · Fernhill",
                                  "On My Computer=Met at the harbour",       "Work=Ask about the bridge"};
    ASSERT_TRUE(runEventsUntil([&] {
        const auto shown = pageRows();
        return std::all_of(expected.begin(), expected.end(),
                           [&](const QString& row) { return shown.contains(row); });
    })) << pageRows().join(" | ").toStdString();
    const auto shown = pageRows();
    // The address both cards hold is shown once; the former one comes last.
    EXPECT_EQ(shown.filter("ann@home.test", Qt::CaseInsensitive).size(), 1);
    EXPECT_LT(shown.indexOf("work · Work=ann@fernhill.test"),
              shown.indexOf("ex-home · On My Computer=ann@old.test"));

    // Marking an entry former changes the card it is on.
    ContactFields* fields = window->page()->fields();
    QTreeWidgetItem* work = fields->findItems("+1 718 555 0190", Qt::MatchExactly, 1).value(0);
    ASSERT_NE(work, nullptr);
    window->page()->entryActions(work, window.get()).front()->trigger();
    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("ex-work · Work=+1 718 555 0190"); }))
        << pageRows().join(" | ").toStdString();
    EXPECT_NE(testing::readFile(root() / "work" / "ANN-W.vcf").find("ex-work"), std::string::npos);
    EXPECT_EQ(testing::readFile(root() / "home" / "ANN.vcf").find("ex-work"), std::string::npos);
}

// Another program changes the selected person's card: the page follows,
// as the list's row does.
TEST_F(MainWindowJoinedPersonTest, ThePageFollowsAnOutsideEditOfTheSelectedPersonsCard) {
    ASSERT_TRUE(window->selectPerson("ANN"));
    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("Work=Staff Engineer · Fernhill"); }))
        << pageRows().join(" | ").toStdString();
    writeWorkCard("Principal Engineer");
    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("Work=Principal Engineer · Fernhill"); }))
        << pageRows().join(" | ").toStdString();
    EXPECT_FALSE(pageRows().contains("Work=Staff Engineer · Fernhill"));

    testing::writeFile(
        root() / "home" / "ANN.vcf",
        testing::vcard("ANN", "Annie", "Smith", {"URL:kinbook://c/A0000009?p=1", "TEL:+1 212 555 0148"}));
    ASSERT_TRUE(runEventsUntil([&] { return pageRows().contains("other · On My Computer=+1 212 555 0148"); }))
        << pageRows().join(" | ").toStdString();
    EXPECT_EQ(window->page()->findChild<QLabel*>("ContactName")->text(), "Annie Smith");
    EXPECT_TRUE(rows().contains("Annie Smith"));
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
