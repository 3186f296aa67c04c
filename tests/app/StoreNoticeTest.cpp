// The window's word about an address book the read could not take whole:
// shown once, with the health check a click away.

#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QToolBar>

namespace kinbook {
namespace {

using testing::FreshHome;
using testing::runEventsUntil;

TEST(StoreNotice, SkippedFilesAndSharedUIDsAreToldOnceWithTheCheckAtHand) {
    FreshHome home;
    const auto book = home.path() / "book";
    testing::writeSmallAddressBook(book);
    testing::writeFile(book / "home" / "ADA-copy.vcf", testing::readFile(book / "home" / "ADA.vcf"));
    ASSERT_EQ(::mkfifo((book / "home" / "pipe.vcf").c_str(), 0644), 0);
    LaunchOptions options;
    options.contactsRoot = book;
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));

    EXPECT_EQ(app.window()->findChildren<QToolBar*>("storeNotice").size(), 1);
    auto* text = app.window()->findChild<QLabel*>("storeNoticeText");
    ASSERT_NE(text, nullptr);
    EXPECT_TRUE(text->text().startsWith("1 file in your address book was not read."))
        << text->text().toStdString();
    EXPECT_TRUE(text->text().contains("share one UID"));

    app.window()->findChild<QPushButton*>("storeNoticeCheck")->click();
    QPlainTextEdit* report = nullptr;
    ASSERT_TRUE(runEventsUntil([&] {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (auto* found = widget->findChild<QPlainTextEdit*>("storeCheckReport")) {
                report = found;
            }
        }
        return report != nullptr;
    }));
    const std::string shown = report->toPlainText().toStdString();
    EXPECT_NE(shown.find("UID ADA:"), std::string::npos) << shown;
    EXPECT_NE(shown.find((book / "home" / "pipe.vcf").string() + " (a pipe)"), std::string::npos) << shown;
}

} // namespace
} // namespace kinbook
