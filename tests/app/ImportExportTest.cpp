// The application opened with .vcf files, as the desktop opens them: it offers
// the new cards with their count, into the account chosen, then shows what it
// added; the File menu's Export writes them back out as stored.

#include "Kinbook/ImportExport.h"

#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PeopleTableModel.h"
#include "KinbookKit/people/PeopleList.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::runEventsUntil;

TEST(ImportExportTest, OpenedVCardFilesAreOfferedCountedAndAddedToTheChosenAccount) {
    testing::FreshHome home;
    const fs::path book = home.path() / "book";
    testing::writeSmallAddressBook(book);
    // Two new people, and Ann, who is in the address book already.
    const fs::path file = home.path() / "from-phone.vcf";
    const std::string kim = testing::vcard("KIM", "Kim", "Kale", {"TEL;TYPE=CELL:+1 555 0142"});
    testing::writeFile(file,
                       kim + testing::vcard("LEO", "Leo", "Lane") + testing::vcard("ANN", "Ann", "Smith"));

    LaunchOptions options;
    options.contactsRoot = book;
    options.importFiles = {file};
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.importExport() != nullptr; }));
    ImportExport& importExport = *app.importExport();
    ASSERT_TRUE(runEventsUntil([&] { return importExport.dialog() != nullptr; }));

    QDialog* offer = importExport.dialog();
    ASSERT_EQ(offer->objectName(), "ImportDialog");
    QString texts;
    for (const auto* label : offer->findChildren<QLabel*>()) {
        texts += label->text() + "\n";
    }
    EXPECT_TRUE(texts.contains("Import 2 Contacts?")) << texts.toStdString();
    EXPECT_TRUE(texts.contains("1 already in your address book")) << texts.toStdString();
    auto* accounts = offer->findChild<QComboBox*>("ImportAccount");
    ASSERT_NE(accounts, nullptr);
    ASSERT_EQ(accounts->count(), 2);
    accounts->setCurrentIndex(accounts->findData("work"));
    offer->findChild<QDialogButtonBox*>()->buttons().front()->click();

    ASSERT_TRUE(runEventsUntil([&] {
        return importExport.dialog() && importExport.dialog()->objectName() == "ImportExportReport";
    }));
    auto* summary = qobject_cast<QMessageBox*>(importExport.dialog());
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(summary->text(), "Added 2 contacts; skipped 1 card already there.");
    EXPECT_EQ(testing::readFile(book / "work" / "KIM.vcf"), kim) << "a card goes in as it was written";
    EXPECT_TRUE(fs::exists(book / "work" / "LEO.vcf"));
    EXPECT_FALSE(fs::exists(book / "work" / "ANN.vcf"));
    // The new people show in the list without a full read, the first selected.
    ASSERT_TRUE(runEventsUntil([&] { return app.window()->tableModel()->rowOf("KIM").has_value(); }));
    summary->accept();

    // Export sits in the File menu and writes the cards as stored.
    bool listed = false;
    for (const auto* action : app.window()->fileMenu()->actions()) {
        listed = listed || action->objectName() == "ExportAction";
    }
    EXPECT_TRUE(listed);
    const fs::path out = home.path() / "out.vcf";
    importExport.exportTo(out, {"KIM"});
    ASSERT_TRUE(runEventsUntil([&] { return fs::exists(out); }));
    EXPECT_EQ(testing::readFile(out), kim);
}

} // namespace
} // namespace kinbook
