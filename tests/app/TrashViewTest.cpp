// Deleting people and bringing them back, in the whole application over a
// real address book and a real sidecar folder: Delete and Undo in the list,
// and the Trash view's restore, delete forever and empty.

#include "Kinbook/TrashView.h"

#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/Sidebar.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <fstream>
#include <iterator>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::runEventsUntil;

std::string textOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class TrashViewTest : public ::testing::Test {
protected:
    void start() {
        testing::writeSmallAddressBook(book());
        LaunchOptions options;
        options.contactsRoot = book();
        m_app = std::make_unique<KinbookApp>(options);
        ASSERT_TRUE(m_app->start());
        ASSERT_TRUE(runEventsUntil([&] { return m_app->isLoaded(); }));
    }

    fs::path book() const { return m_home.path() / "book"; }
    MainWindow& window() const { return *m_app->window(); }
    PeopleList& list() const { return *m_app->list(); }
    TrashView& view() const { return *window().trashView(); }
    bool listed(const char* id) const { return window().tableModel()->rowOf(id).has_value(); }

    std::vector<fs::path> trashFiles() const {
        std::vector<fs::path> files;
        const fs::path folder = m_app->session()->sidecar().documents / "Trash";
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.path().extension() == ".kincontact") {
                files.push_back(entry.path());
            }
        }
        return files;
    }

    void trash(std::vector<std::string> ids) {
        bool done = false;
        list().trash(std::move(ids), [&](TrashOutcome outcome) {
            EXPECT_EQ(outcome.failed, 0u);
            done = true;
        });
        ASSERT_TRUE(runEventsUntil([&] { return done; }));
    }

    void chooseSidebar(SidebarChoice::Kind kind) {
        Sidebar* sidebar = window().sidebar();
        for (int row = 0; row < sidebar->count(); ++row) {
            if (sidebar->item(row)->data(Sidebar::KindRole).toInt() == static_cast<int>(kind)) {
                sidebar->setCurrentRow(row);
                return;
            }
        }
        FAIL() << "no such sidebar entry";
    }

    // Clicks a view button and waits for the action it starts.
    void clickAndWait(QPushButton* button) {
        bool finished = false;
        auto c = QObject::connect(&view(), &TrashView::actionFinished, [&] { finished = true; });
        ASSERT_TRUE(button->isEnabled()) << button->text().toStdString();
        button->click();
        ASSERT_TRUE(runEventsUntil([&] { return finished; }));
        QObject::disconnect(c);
    }

    void selectEntry(const QString& name) {
        QListWidget* entries = view().entries();
        entries->clearSelection();
        for (int row = 0; row < entries->count(); ++row) {
            if (entries->item(row)->text().startsWith(name + "\n")) {
                entries->item(row)->setSelected(true);
                return;
            }
        }
        FAIL() << "no entry for " << name.toStdString();
    }

    testing::FreshHome m_home;
    std::unique_ptr<KinbookApp> m_app;
};

TEST_F(TrashViewTest, DeleteMovesTheSelectedPeopleToTheTrashAtOnceAndUndoBringsThemBack) {
    start();
    const std::string adaCard = textOf(book() / "home" / "ADA.vcf");
    ASSERT_TRUE(window().selectPerson("ADA"));
    // Wu in another account, chosen too (as control-click does).
    PeopleTable* table = window().table();
    table->selectionModel()->select(window().tableModel()->index(*window().tableModel()->rowOf("WU")),
                                    QItemSelectionModel::Select | QItemSelectionModel::Rows);
    ASSERT_EQ(table->selectedIDs(), (QStringList{"ADA", "WU"}));
    ASSERT_TRUE(window().trashAction()->isVisible());

    window().activateWindow();
    table->setFocus();
    QTest::keyClick(table, Qt::Key_Delete);
    // Gone from the list before the store has heard of it; no question asked.
    EXPECT_FALSE(listed("ADA"));
    EXPECT_FALSE(listed("WU"));
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr);

    TrashBar* bar = window().trashBar();
    ASSERT_TRUE(runEventsUntil([&] { return bar->text() == "Moved 2 people to the Trash."; }));
    EXPECT_FALSE(fs::exists(book() / "home" / "ADA.vcf"));
    EXPECT_FALSE(fs::exists(book() / "work" / "WU.vcf"));
    EXPECT_EQ(trashFiles().size(), 2u);
    EXPECT_EQ(window().tableModel()->peopleCount(), 8);
    EXPECT_TRUE(listed("ED"));

    // Undo brings back exactly these two, the same person with the same
    // anchor and the former e-mail, each in their own account.
    bool undone = false;
    QObject::connect(bar, &TrashBar::undoFinished, [&] { undone = true; });
    ASSERT_TRUE(bar->undoButton()->isVisible());
    bar->undoButton()->click();
    ASSERT_TRUE(runEventsUntil([&] { return undone; }));
    EXPECT_EQ(bar->text(), "Restored 2 people.");
    EXPECT_TRUE(trashFiles().empty());
    EXPECT_EQ(window().tableModel()->peopleCount(), 10);
    PersonPtr ada;
    for (const auto& person : list().people()) {
        if (person->displayName() == "Ada Abbott") {
            ada = person;
        }
    }
    ASSERT_NE(ada, nullptr);
    EXPECT_TRUE(window().tableModel()->rowOf(ada->id).has_value());
    std::size_t workCards = 0;
    std::string restoredAda;
    for (const auto& folder : {"home", "work"}) {
        for (const auto& entry : fs::directory_iterator(book() / folder)) {
            const std::string text = textOf(entry.path());
            if (text.find("FN:Ada Abbott") != std::string::npos) {
                restoredAda = text;
            }
            workCards += std::string(folder) == "work" && text.find("FN:Wu Wang") != std::string::npos;
        }
    }
    EXPECT_EQ(workCards, 1u);
    EXPECT_NE(restoredAda.find("kinbook://c/A0000001"), std::string::npos);
    EXPECT_NE(restoredAda.find("ada@old.test"), std::string::npos);
    EXPECT_NE(restoredAda.find("ex-work"), std::string::npos);
}

TEST_F(TrashViewTest, TheTrashViewListsRestoresDeletesForeverAndEmptiesOnlyWhenConfirmed) {
    start();
    trash({"ADA"});
    trash({"ED", "WU"});
    chooseSidebar(SidebarChoice::Kind::trash);
    ASSERT_TRUE(runEventsUntil([&] { return list().trash().showing(); }));
    EXPECT_TRUE(view().isVisibleTo(&window()));
    EXPECT_FALSE(window().table()->isVisibleTo(&window()));
    EXPECT_EQ(view().titleText(), "3 in Trash");
    EXPECT_EQ(view().explanationText(), "Deleted contacts wait here until you empty the Trash.");
    ASSERT_EQ(view().entries()->count(), 3);
    // Newest first, each with its date and the accounts it was in.
    EXPECT_TRUE(view().entries()->item(2)->text().startsWith("Ada Abbott\n"));
    EXPECT_TRUE(view().entries()->item(2)->text().endsWith(" \u00B7 On My Computer"));
    selectEntry("Wu Wang");
    EXPECT_TRUE(view().entries()->selectedItems().front()->text().endsWith(" \u00B7 Work"));

    // Wu's account went away since: he comes back in the default one, and
    // the view says so.
    fs::remove_all(book() / "work");
    clickAndWait(view().findChild<QPushButton*>("TrashRestore"));
    EXPECT_EQ(view().messageText(), "Restored to the default account: Work is no longer there.");
    EXPECT_EQ(view().titleText(), "2 in Trash");
    EXPECT_NE(list().person("WU"), nullptr);

    selectEntry("Ed Evans");
    clickAndWait(view().findChild<QPushButton*>("TrashDeleteForever"));
    EXPECT_EQ(view().titleText(), "1 in Trash");
    EXPECT_EQ(list().person("ED"), nullptr);

    // The question first; Cancel leaves everything.
    view().emptyButton()->click();
    QMessageBox* ask = view().confirmation();
    ASSERT_NE(ask, nullptr);
    EXPECT_EQ(ask->text(), "Empty the Trash?");
    EXPECT_EQ(ask->informativeText(), "1 contacts will be gone for good.");
    ask->button(QMessageBox::Cancel)->click();
    testing::runEventsFor(std::chrono::milliseconds(50));
    EXPECT_EQ(trashFiles().size(), 1u);

    view().emptyButton()->click();
    ask = view().confirmation();
    ASSERT_NE(ask, nullptr);
    bool finished = false;
    QObject::connect(&view(), &TrashView::actionFinished, [&] { finished = true; });
    ask->findChild<QPushButton*>("ConfirmEmptyTrash")->click();
    ASSERT_TRUE(runEventsUntil([&] { return finished; }));
    EXPECT_TRUE(trashFiles().empty());
    EXPECT_EQ(view().titleText(), "Trash Is Empty");
    EXPECT_FALSE(view().emptyButton()->isEnabled());

    // Back to everyone: the list shows again, without Ada and Ed.
    chooseSidebar(SidebarChoice::Kind::all);
    EXPECT_FALSE(list().trash().showing());
    EXPECT_TRUE(window().table()->isVisibleTo(&window()));
    EXPECT_EQ(window().tableModel()->peopleCount(), 8);
}

TEST_F(TrashViewTest, WithoutASidecarFolderDeleteIsNotOfferedAndTheTrashSaysWhy) {
    ::setenv("KINBOOK_SIDECAR", (m_home.path() / "mnt" / "share" / "Kinbook").c_str(), 1);
    start();
    ::unsetenv("KINBOOK_SIDECAR");
    EXPECT_FALSE(window().trashAction()->isVisible());
    ASSERT_TRUE(window().selectPerson("ADA"));
    window().activateWindow();
    window().table()->setFocus();
    QTest::keyClick(window().table(), Qt::Key_Delete);
    window().trashAction()->trigger();
    testing::runEventsFor(std::chrono::milliseconds(50));
    EXPECT_TRUE(listed("ADA"));
    EXPECT_TRUE(fs::exists(book() / "home" / "ADA.vcf"));

    chooseSidebar(SidebarChoice::Kind::trash);
    EXPECT_EQ(view().titleText(), "Trash Needs a Sidecar Folder");
    EXPECT_EQ(view().explanationText(), "Deleted contacts are kept in the sidecar folder.");
    EXPECT_FALSE(view().emptyButton()->isVisibleTo(&view()));
}

} // namespace
} // namespace kinbook
