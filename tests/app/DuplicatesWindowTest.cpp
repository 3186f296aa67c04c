// The duplicates list and the merge sheet over a real people list reading a
// real vdir, on the offscreen platform.

#include "Kinbook/DuplicatesWindow.h"

#include "Kinbook/MainWindow.h"
#include "Kinbook/MergeSheet.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/QtMainExecutor.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/addressbook/VdirScriptHost.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>

namespace kinbook {
namespace {

using testing::runEventsUntil;
using testing::vcard;
namespace fs = std::filesystem;

class DuplicatesWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root() / "home");
        fs::create_directories(root() / "work");
        testing::writeFile(root() / "home" / "A.vcf",
                           vcard("A", "Ann", "Lee", {"TEL;type=CELL:+1 415 555 0100", "NOTE:Riley's mom"}));
        testing::writeFile(
            root() / "home" / "B.vcf",
            vcard("B", "Ann", "Lee", {"TEL:415.555.0100", "TEL:212 555 0199", "NOTE:Scout troop"}));
        testing::writeFile(root() / "work" / "C.vcf",
                           vcard("C", "Annie", "Lee", {"EMAIL:ann@x.org", "TEL:(415) 555-0100"}));
        testing::writeFile(root() / "home" / "D.vcf", vcard("D", "Bo", "Brown"));
        testing::writeFile(root() / "work" / "E.vcf", vcard("E", "Bo", "Brown"));

        VdirAddressBook::Options options;
        options.root = root();
        options.stateFolder = folder / "state";
        options.notesLocked = true;
        options.log = std::make_shared<KinLog>("store", appLog, platform);
        auto host = std::make_shared<VdirScriptHost>();
        options.scriptHost = host;
        book = std::make_shared<VdirAddressBook>(options);
        host->attach(*book);
        PeopleListOptions listOptions;
        listOptions.log = std::make_shared<KinLog>("list", appLog, platform);
        listOptions.readNotes = KinbookSession::noteReader(book);
        list = std::make_unique<PeopleList>(main, pool, book, listOptions);
        settings = std::make_unique<QSettings>(QString::fromStdString((folder / "settings.ini").string()),
                                               QSettings::IniFormat);
        window = std::make_unique<MainWindow>(*list, main, pool, *settings, appLog);
        window->setDuplicatesSupport(folder / "NotDuplicates.json", {});
        bool loaded = false;
        list->load([&] { loaded = true; });
        ASSERT_TRUE(runEventsUntil([&] { return loaded; }));
    }

    void TearDown() override {
        window.reset();
        list.reset();
    }

    fs::path root() const { return folder / "contacts"; }

    DuplicatesWindow* openDuplicates() {
        auto* duplicates = window->findDuplicates();
        EXPECT_TRUE(runEventsUntil([&] { return !duplicates->isSearching(); }));
        return duplicates;
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

TEST_F(DuplicatesWindowTest, TheSheetComposesTheResultAndTheMergeKeepsOneCardPerAccount) {
    auto* duplicates = openDuplicates();
    EXPECT_EQ(duplicates->windowTitle(), "Duplicates (2)");
    duplicates->strongOnly()->setChecked(true);
    EXPECT_EQ(duplicates->windowTitle(), "Duplicates (1)");
    ASSERT_EQ(duplicates->shownGroups().front().id(), "A+B+C");

    auto* sheet = duplicates->openMerge(0);
    ASSERT_TRUE(runEventsUntil([&] { return sheet->isReady(); }));
    EXPECT_TRUE(sheet->planLabel()->text().contains(
        "1 extra card is in an account that already has one. Their details are copied into the kept card"));
    EXPECT_EQ(sheet->noteEdit()->toPlainText(), "Riley's mom\n\nScout troop");
    auto* phones = sheet->entries(MergeSheet::Entries::phones);
    ASSERT_EQ(phones->count(), 2);
    // The user picks the other card's first name and unticks B's second number.
    sheet->field("First")->setCurrentText("Annie");
    phones->item(1)->setCheckState(Qt::Unchecked);
    EXPECT_EQ(sheet->entries(MergeSheet::Entries::emails)->count(), 1);

    sheet->mergeButton()->click();
    EXPECT_EQ(sheet->mergeButton()->text(), "Merging");
    ASSERT_TRUE(runEventsUntil([&] { return !fs::exists(root() / "home" / "B.vcf"); }));
    ASSERT_TRUE(runEventsUntil(
        [&] { return !duplicates->isSearching() && duplicates->windowTitle() == "Duplicates (0)"; }));

    const auto a = testing::readFile(root() / "home" / "A.vcf");
    const auto c = testing::readFile(root() / "work" / "C.vcf");
    for (const auto& text : {a, c}) {
        EXPECT_NE(text.find("FN:Annie Lee"), std::string::npos) << text;
        EXPECT_EQ(text.find("212 555 0199"), std::string::npos) << text;
        EXPECT_NE(text.find("ann@x.org"), std::string::npos) << text;
        EXPECT_NE(text.find("NOTE:Riley's mom\\n\\nScout troop"), std::string::npos) << text;
    }
    // The list shows the two cards as one person.
    const auto merged = list->person("A");
    ASSERT_NE(merged, nullptr);
    EXPECT_EQ(merged->memberIDs.size(), 2U);
    EXPECT_EQ(list->person("B"), merged);
}

TEST_F(DuplicatesWindowTest, NotDuplicatesIsRememberedAndTheEmptyListSaysSo) {
    auto* duplicates = openDuplicates();
    ASSERT_EQ(duplicates->shownGroups().size(), 2U);
    ASSERT_EQ(duplicates->shownGroups()[1].id(), "D+E");
    duplicates->markNotDuplicates(1);
    EXPECT_EQ(duplicates->windowTitle(), "Duplicates (1)");
    duplicates->markNotDuplicates(0);
    EXPECT_EQ(duplicates->statusLabel()->text(), "No Duplicates");

    // A new window reads the answers from the file.
    auto* again = openDuplicates();
    EXPECT_TRUE(again->shownGroups().empty());
    EXPECT_EQ(again->windowTitle(), "Duplicates (0)");
}

TEST_F(DuplicatesWindowTest, PeopleSelectedInTheListAreMergedFromTheSheetDirectly) {
    EXPECT_EQ(window->mergeSelected(), nullptr);
    auto* model = window->tableModel();
    ASSERT_TRUE(runEventsUntil([&] { return model->rowOf("D") && model->rowOf("E"); }));
    auto* selection = window->table()->selectionModel();
    for (const auto* id : {"D", "E"}) {
        selection->select(model->index(*model->rowOf(id)),
                          QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
    auto* sheet = window->mergeSelected();
    ASSERT_NE(sheet, nullptr);
    ASSERT_TRUE(runEventsUntil([&] { return sheet->isReady(); }));
    ASSERT_EQ(sheet->cards().size(), 2U);
    EXPECT_TRUE(sheet->planLabel()->isHidden()); // one card in each account: nothing is removed
    sheet->choosePrimary("E");
    EXPECT_EQ(sheet->cards().front().id, "E");
    sheet->mergeButton()->click();
    ASSERT_TRUE(runEventsUntil([&] {
        const auto merged = list->person("D");
        return merged && merged->memberIDs.size() == 2;
    }));
    EXPECT_EQ(list->person("D")->kinID, list->person("E")->kinID);
    EXPECT_TRUE(fs::exists(root() / "home" / "D.vcf"));
    EXPECT_TRUE(fs::exists(root() / "work" / "E.vcf"));
}

} // namespace
} // namespace kinbook
