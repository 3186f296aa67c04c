// Accounts in the whole application over a real address book and a real
// sidecar folder: the page's check list of accounts, and people dragged
// from the list onto an account in the sidebar.

#include "Kinbook/AccountsSection.h"
#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/MoveToAccount.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/Sidebar.h"
#include "KinbookKit/people/PeopleList.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDropEvent>
#include <QListWidget>
#include <QMimeData>
#include <QPushButton>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::runEventsUntil;

class AccountsWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::writeSmallAddressBook(book());
        LaunchOptions options;
        options.contactsRoot = book();
        m_app = std::make_unique<KinbookApp>(options);
        ASSERT_TRUE(m_app->start());
        ASSERT_TRUE(runEventsUntil([&] { return m_app->isLoaded(); }));
    }

    fs::path book() const { return m_home.path() / "book"; }
    MainWindow& window() const { return *m_app->window(); }
    QListWidget& checks() const { return *window().accountsSection()->checkList(); }

    QListWidgetItem* check(const QString& name) const {
        for (int row = 0; row < checks().count(); ++row) {
            if (checks().item(row)->text() == name) {
                return checks().item(row);
            }
        }
        return nullptr;
    }

    testing::FreshHome m_home;
    std::unique_ptr<KinbookApp> m_app;
};

TEST_F(AccountsWindowTest, TheLastAccountIsLockedAndADropOnAnAccountMovesThePeople) {
    ASSERT_TRUE(window().selectPerson("ADA"));
    ASSERT_TRUE(runEventsUntil([&] { return check("On My Computer") != nullptr; }));
    EXPECT_EQ(check("On My Computer")->checkState(), Qt::Checked);
    EXPECT_FALSE(check("On My Computer")->flags() & Qt::ItemIsEnabled);
    EXPECT_EQ(check("On My Computer")->toolTip(), "A contact has to stay in at least one account.");
    EXPECT_EQ(check("Work")->checkState(), Qt::Unchecked);
    EXPECT_TRUE(check("Work")->flags() & Qt::ItemIsEnabled);

    // Ada and Ann dragged out of the list and dropped on Work in the sidebar.
    PeopleTable* table = window().table();
    table->selectionModel()->select(window().tableModel()->index(*window().tableModel()->rowOf("ANN")),
                                    QItemSelectionModel::Select | QItemSelectionModel::Rows);
    std::unique_ptr<QMimeData> dragged(table->dragData());
    ASSERT_TRUE(dragged);
    Sidebar* sidebar = window().sidebar();
    QListWidgetItem* work = nullptr;
    for (int row = 0; row < sidebar->count(); ++row) {
        if (sidebar->item(row)->data(Sidebar::KeyRole).toString() == "work") {
            work = sidebar->item(row);
        }
    }
    ASSERT_TRUE(work);
    // As a real drag does: it enters the sidebar, then drops on Work.
    const QPoint at = sidebar->visualItemRect(work).center();
    QDragEnterEvent enter(at, Qt::MoveAction | Qt::CopyAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(sidebar->viewport(), &enter);
    ASSERT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(at), Qt::MoveAction | Qt::CopyAction, dragged.get(), Qt::LeftButton,
                    Qt::NoModifier);
    QApplication::sendEvent(sidebar->viewport(), &drop);
    QMessageBox* ask = window().moveBar()->confirmation();
    ASSERT_TRUE(ask);
    EXPECT_EQ(ask->text(), "Move these 2 people to Work?");
    EXPECT_TRUE(ask->informativeText().contains("Their cards in other accounts go to the Trash"));
    EXPECT_TRUE(ask->informativeText().contains("hold Ctrl while you drop"));

    bool finished = false;
    QObject::connect(window().moveBar(), &MoveToAccount::batchFinished, [&] { finished = true; });
    ask->findChild<QPushButton*>("ConfirmMoveToAccount")->click();
    ASSERT_TRUE(runEventsUntil([&] { return finished; }));
    EXPECT_EQ(window().moveBar()->text(), "Moved 2 people to Work.");
    EXPECT_FALSE(fs::exists(book() / "home" / "ADA.vcf"));
    EXPECT_FALSE(fs::exists(book() / "home" / "ANN.vcf"));
    const auto& trash = m_app->list()->trash().items();
    ASSERT_EQ(trash.size(), 2u);
    EXPECT_TRUE(trash[0].name.ends_with(" (from On My Computer)")) << trash[0].name;

    // Ada, now only in Work: that is her locked account.
    ASSERT_TRUE(window().selectPerson("ADA"));
    ASSERT_TRUE(runEventsUntil([&] { return check("Work") && check("Work")->checkState() == Qt::Checked; }));
    EXPECT_FALSE(check("Work")->flags() & Qt::ItemIsEnabled);
    EXPECT_EQ(check("On My Computer")->checkState(), Qt::Unchecked);
}

} // namespace
} // namespace kinbook
