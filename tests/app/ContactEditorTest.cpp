// The contact editor in the whole application over a real address book:
// editing a card changes only what the user changed, Cancel and an empty new
// contact write nothing, the company question keeps a previous job, and
// Edit ▸ Undo puts the card back byte for byte.

#include "Kinbook/ContactEditor.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/ContactPage.h"
#include "Kinbook/EditorCommands.h"
#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/QuickEditor.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeWidgetItemIterator>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::runEventsUntil;

class ContactEditorTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::writeSmallAddressBook(book());
        testing::writeFile(book() / "home" / "ZOE.vcf",
                           testing::vcard("ZOE", "Zoe", "Zane",
                                          {"item2.TEL:+1 415 555 0100", "item2.X-ABLabel:ex-home",
                                           "TEL;type=HOME:+1 415 555 0111",
                                           "ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA"}));
        LaunchOptions options;
        options.contactsRoot = book();
        m_app = std::make_unique<KinbookApp>(options);
        ASSERT_TRUE(m_app->start());
        ASSERT_TRUE(runEventsUntil([&] { return m_app->isLoaded(); }));
    }

    fs::path book() const { return m_home.path() / "book"; }
    MainWindow& window() const { return *m_app->window(); }
    PeopleList& list() const { return *m_app->list(); }
    EditorCommands& commands() const { return *window().editorCommands(); }

    // Opens the editor on a person with Edit Contact and waits for their card.
    ContactEditor* edit(const char* personID) {
        EXPECT_TRUE(window().selectPerson(personID));
        commands().editContactAction()->trigger();
        ContactEditor* editor = commands().editor();
        EXPECT_NE(editor, nullptr);
        EXPECT_TRUE(editor != nullptr && runEventsUntil([&] { return editor->isLoaded(); }));
        return editor;
    }

    // Presses keys in the editor's window, as the user would.
    static void press(ContactEditor* editor, Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        editor->activateWindow();
        QTest::keyClick(editor->focusWidget() != nullptr ? editor->focusWidget() : editor, key, modifiers);
    }

    static QPushButton* button(QMessageBox* box, const QString& text) {
        for (QAbstractButton* b : box->buttons()) {
            if (b->text() == text) {
                return qobject_cast<QPushButton*>(b);
            }
        }
        return nullptr;
    }

    std::size_t cardFiles() const {
        std::size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(book())) {
            count += entry.path().extension() == ".vcf" ? 1 : 0;
        }
        return count;
    }

    testing::FreshHome m_home;
    std::unique_ptr<KinbookApp> m_app;
};

TEST_F(ContactEditorTest, AnEditChangesOnlyItsLinesShowsAtOnceAndUndoPutsTheBytesBack) {
    const fs::path ada = book() / "home" / "ADA.vcf";
    const std::string before = readFile(ada);
    ContactEditor* editor = edit("ADA");
    ASSERT_NE(editor, nullptr);
    EXPECT_EQ(editor->field("GivenName")->text(), "Ada");

    editor->field("JobTitle")->setText("Chief Engineer");
    EntryRows* phones = editor->rows(EntryRows::Kind::phone);
    ASSERT_EQ(phones->count(), 1);
    editor->findChild<QPushButton*>("AddPhones")->click();
    ASSERT_EQ(phones->count(), 2);
    QTest::keyClicks(phones->valueEdit(1), "+1 646 555 0102");
    phones->moveRow(1, -1); // the new number first
    // The current work e-mail could be marked former: removing it asks first.
    EntryRows* emails = editor->rows(EntryRows::Kind::email);
    ASSERT_EQ(emails->count(), 2);
    emails->requestRemove(0);
    ASSERT_NE(emails->deletionQuestion(), nullptr);
    EXPECT_TRUE(emails->deletionQuestion()->text().contains(
        "To keep it but stop using it, choose Mark as Former instead."));
    button(emails->deletionQuestion(), "Delete")->click();
    EXPECT_EQ(emails->count(), 1);

    press(editor, Qt::Key_S, Qt::ControlModifier);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    const std::string after = readFile(ada);
    // The page and list show the edit without a full read.
    EXPECT_EQ(list().person("ADA")->jobTitle, "Chief Engineer");
    EXPECT_EQ(window().page()->person()->id, "ADA");
    // Every line the user did not touch is still there, in its order.
    for (const char* kept : {"N:Abbott;Ada;;;\r\n", "FN:Ada Abbott\r\n", "ORG:Acme;\r\n",
                             "item1.EMAIL:ada@old.test\r\nitem1.X-ABLabel:ex-work\r\n", "UID:ADA\r\n"}) {
        EXPECT_NE(after.find(kept), std::string::npos) << kept;
    }
    EXPECT_EQ(after.find("ada@acme.test"), std::string::npos);
    EXPECT_NE(after.find("TITLE:Chief Engineer\r\n"), std::string::npos);
    EXPECT_LT(after.find("+1 646 555 0102"), after.find("+1 212 555 0101"));

    EXPECT_EQ(commands().undoAction()->text(), "Undo Edit Contact");
    commands().undoAction()->trigger();
    ASSERT_TRUE(runEventsUntil([&] { return readFile(ada) == before; }));
    ASSERT_TRUE(runEventsUntil([&] { return list().person("ADA")->jobTitle.empty(); }));
    EXPECT_EQ(commands().redoAction()->text(), "Redo Edit Contact");

    // The editor's circle picker places the person at once, and that too can
    // be taken back.
    const std::string ed = readFile(book() / "home" / "ED.vcf");
    editor = edit("ED");
    editor->circlePicker()->choose(ContactCircle::goodFriends);
    ASSERT_TRUE(runEventsUntil([&] { return list().person("ED")->circle == ContactCircle::goodFriends; }));
    ASSERT_TRUE(runEventsUntil([&] { return commands().undoAction()->text() == "Undo Change Circle"; }));
    commands().undoAction()->trigger();
    ASSERT_TRUE(runEventsUntil([&] { return readFile(book() / "home" / "ED.vcf") == ed; }));
}

// The editor lists a former number after the current one; saving what it
// showed, untouched, must not move it on the card or write anything.
TEST_F(ContactEditorTest, SavingAnUntouchedCardWritesNoByte) {
    const fs::path zoe = book() / "home" / "ZOE.vcf";
    const std::string before = readFile(zoe);
    ContactEditor* editor = edit("ZOE");
    ASSERT_NE(editor, nullptr);
    EntryRows* phones = editor->rows(EntryRows::Kind::phone);
    ASSERT_EQ(phones->count(), 2);
    EXPECT_EQ(phones->valueEdit(0)->text(), "+1 415 555 0111");
    EXPECT_EQ(phones->rowLabel(1), "ex-home");
    editor->save();
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    EXPECT_EQ(readFile(zoe), before);
    EXPECT_EQ(commands().undoAction()->text(), "Undo");
}

TEST_F(ContactEditorTest, CancelAndAnEmptyNewContactWriteNothingAndANewContactIsSelected) {
    const std::size_t files = cardFiles();
    const std::string ed = readFile(book() / "home" / "ED.vcf");
    ContactEditor* editor = edit("ED");
    editor->field("GivenName")->setText("Edward");
    press(editor, Qt::Key_Escape);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    EXPECT_EQ(readFile(book() / "home" / "ED.vcf"), ed);

    commands().newContactAction()->trigger();
    editor = commands().editor();
    ASSERT_NE(editor, nullptr);
    EXPECT_EQ(editor->windowTitle(), "New Contact");
    press(editor, Qt::Key_Return, Qt::ControlModifier);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    EXPECT_EQ(cardFiles(), files);
    EXPECT_EQ(commands().undoAction()->text(), "Undo");

    // Enter on the page, like its Edit button, opens the same editor.
    QTest::keyClick(window().page()->fields(), Qt::Key_Return);
    ASSERT_NE(commands().editor(), nullptr);
    commands().editor()->reject();
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));

    commands().newContactAction()->trigger();
    editor = commands().editor();
    QTest::keyClicks(editor->field("GivenName"), "Zed");
    QTest::keyClicks(editor->field("FamilyName"), "Zimmer");
    editor->noteEdit()->setPlainText("Met at the climbing gym.");
    press(editor, Qt::Key_S, Qt::ControlModifier);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }))
        << editor->errorText().toStdString();
    EXPECT_EQ(cardFiles(), files + 1);
    ASSERT_TRUE(runEventsUntil([&] {
        const auto& shown = window().page()->person();
        return shown && shown->givenName == "Zed";
    }));
    EXPECT_EQ(commands().undoAction()->text(), "Undo New Contact");
}

TEST_F(ContactEditorTest, ChangingTheCompanyAsksToKeepItAsAPreviousJob) {
    const fs::path ada = book() / "home" / "ADA.vcf";
    const std::string before = readFile(ada);
    ContactEditor* editor = edit("ADA");
    // The question needs the person's past jobs, read from the sidecar.
    ASSERT_TRUE(runEventsUntil(
        [&] { return editor->findChild<QPushButton*>("AddPreviousJob")->isVisibleTo(editor); }));
    editor->field("Organization")->setText("Globex");
    editor->save();
    QMessageBox* question = editor->keepJobQuestion();
    ASSERT_NE(question, nullptr);
    EXPECT_EQ(question->text(), "Keep Acme as a previous job?");
    // Ada has a work e-mail, so all four answers are offered.
    for (const char* text : {ContactEditor::keepJobButton, ContactEditor::keepAndMarkButton,
                             ContactEditor::dontKeepButton, "Cancel"}) {
        EXPECT_NE(button(question, text), nullptr) << text;
    }
    button(question, "Cancel")->click();
    testing::runEventsFor(std::chrono::milliseconds(50));
    EXPECT_EQ(readFile(ada), before);
    ASSERT_NE(commands().editor(), nullptr);

    // A past job of one's own, filled in by hand, is kept too.
    editor->findChild<QPushButton*>("AddPreviousJob")->click();
    editor->findChildren<QLineEdit*>("PastJobCompany").back()->setText("Initech");
    editor->save();
    button(editor->keepJobQuestion(), ContactEditor::keepAndMarkButton)->click();
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    const std::string after = readFile(ada);
    EXPECT_NE(after.find("ORG:Globex;"), std::string::npos);
    // The work e-mail is now a former one; nothing else of the card changed.
    EXPECT_EQ(after.find("EMAIL;type=WORK"), std::string::npos);
    EXPECT_NE(after.find("ex-work"), std::string::npos);
    EXPECT_NE(after.find("TEL;type=CELL:+1 212 555 0101\r\n"), std::string::npos);
    ContactPhotos* photos = m_app->session()->photos();
    ASSERT_NE(photos, nullptr);
    const PersonKey key{list().person("ADA")->kinID.value_or(""), "Ada Abbott"};
    ASSERT_TRUE(runEventsUntil([&] {
        photos->waitUntilIdle();
        const auto jobs = photos->pastJobs(key);
        return jobs.size() == 2 && jobs[0].company == "Initech" && jobs[1].company == "Acme";
    }));
}

TEST_F(ContactEditorTest, AChosenPhotoBecomesTheContactPhotoOnSaveAndNotOnCancel) {
    const fs::path zoe = book() / "home" / "ZOE.vcf";
    const std::string before = readFile(zoe);
    const QString picture =
        QString::fromStdString((fs::path(KINBOOK_TESTDATA_DIR) / "photos" / "astronaut.png").string());
    ContactEditor* editor = edit("ZOE");
    ASSERT_TRUE(editor->findChild<QPushButton*>("ChoosePhoto")->isEnabled());
    editor->choosePhoto(picture);
    EXPECT_FALSE(editor->findChild<QLabel*>("PhotoPreview")->pixmap().isNull());
    press(editor, Qt::Key_Escape);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    testing::runEventsFor(std::chrono::milliseconds(50));
    EXPECT_EQ(readFile(zoe), before);

    editor = edit("ZOE");
    editor->choosePhoto(picture);
    press(editor, Qt::Key_S, Qt::ControlModifier);
    ASSERT_TRUE(runEventsUntil([&] { return commands().editor() == nullptr; }));
    ASSERT_TRUE(runEventsUntil([&] { return readFile(zoe).find("PHOTO") != std::string::npos; }));
    // Only the photo came: every line the card had is still there.
    const std::string after = readFile(zoe);
    for (const char* kept : {"item2.TEL:+1 415 555 0100\r\n", "TEL;type=HOME:+1 415 555 0111\r\n",
                             "ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA\r\n"}) {
        EXPECT_NE(after.find(kept), std::string::npos) << kept;
    }
}

TEST_F(ContactEditorTest, TheQuickEditorEditsOneEntryInPlaceOrSaysItIsGone) {
    const fs::path zoe = book() / "home" / "ZOE.vcf";
    ASSERT_TRUE(window().selectPerson("ZOE"));
    ASSERT_TRUE(runEventsUntil([&] { return window().page()->hasAllCards(); }));
    // The page's rows of the phone and the address.
    auto rowOf = [&](const QString& text) -> QTreeWidgetItem* {
        ContactFields* fields = window().page()->fields();
        for (QTreeWidgetItemIterator it(fields); *it != nullptr; ++it) {
            if ((*it)->text(1).contains(text) || (*it)->text(0).contains(text)) {
                return *it;
            }
        }
        return nullptr;
    };
    QTreeWidgetItem* phone = rowOf("555 0111");
    ASSERT_NE(phone, nullptr);
    window().page()->fields()->setCurrentItem(phone);
    QTest::keyClick(window().page()->fields(), Qt::Key_F2);
    QuickEditor* quick = commands().quickEditor();
    ASSERT_NE(quick, nullptr);
    ASSERT_TRUE(runEventsUntil([&] { return quick->isLoaded(); }));
    quick->valueEdit()->setText("+1 415 555 0112");
    quick->save();
    ASSERT_TRUE(runEventsUntil([&] { return commands().quickEditor() == nullptr; }));
    std::string bytes = readFile(zoe);
    EXPECT_NE(bytes.find("TEL;type=HOME:+1 415 555 0112\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("ADR;type=HOME:;;1 Main St;Springfield;IL;62701;USA\r\n"), std::string::npos);

    // A whole address pasted into the street is split, its unit on the
    // street's second line.
    QTreeWidgetItem* address = rowOf("Springfield");
    ASSERT_NE(address, nullptr);
    Q_EMIT window().page()->fields()->itemDoubleClicked(address, 1);
    quick = commands().quickEditor();
    ASSERT_TRUE(quick != nullptr && runEventsUntil([&] { return quick->isLoaded(); }));
    for (int part = 0; part < 4; ++part) {
        quick->addressPart(part)->clear();
    }
    quick->streetEdit()->setPlainText("350 Fifth Avenue Apt 5, New York, NY 10118");
    EXPECT_EQ(quick->streetEdit()->toPlainText(), "350 Fifth Avenue\nApt 5");
    EXPECT_EQ(quick->addressPart(0)->text(), "New York");
    EXPECT_EQ(quick->addressPart(1)->text(), "NY");
    EXPECT_EQ(quick->addressPart(2)->text(), "10118");

    // Meanwhile the address went elsewhere, and then the whole contact.
    bytes = readFile(zoe);
    bytes.erase(bytes.find("ADR;"), bytes.find("\r\n", bytes.find("ADR;")) + 2 - bytes.find("ADR;"));
    testing::writeFile(zoe, bytes);
    quick->save();
    ASSERT_TRUE(runEventsUntil([&] { return !quick->errorText().isEmpty(); }));
    EXPECT_EQ(quick->errorText(), QuickEditor::addressGone);
    EXPECT_EQ(readFile(zoe), bytes);
    fs::remove(zoe);
    quick->save();
    ASSERT_TRUE(runEventsUntil([&] { return quick->errorText() == QuickEditor::contactGone; }));
    EXPECT_FALSE(fs::exists(zoe));
}

} // namespace
} // namespace kinbook
