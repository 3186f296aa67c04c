// The application as it starts: configuration, address book, list and
// window together, with the XDG folders of each test its own.

#include "Kinbook/KinbookApp.h"

#include "Kinbook/MainWindow.h"
#include "Kinbook/PeopleTableModel.h"
#include "KinbookKit/people/PeopleList.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QLabel>
#include <QPushButton>
#include <cstdlib>

namespace kinbook {
namespace {

using testing::FreshHome;
using testing::runEventsUntil;

TEST(KinbookApp, OpensTheAddressBookGivenOnTheCommandLine) {
    FreshHome home;
    testing::writeSmallAddressBook(home.path() / "book");
    LaunchOptions options;
    options.contactsRoot = home.path() / "book";
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.window() != nullptr; }));

    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));
    EXPECT_TRUE(app.window()->isShowingList());
    EXPECT_EQ(app.window()->tableModel()->peopleCount(), 10);
    EXPECT_EQ(app.window()->objectName(), "People");
}

TEST(KinbookApp, WithoutASidecarTheBannerShowsAndPeopleStillList) {
    FreshHome home;
    testing::writeSmallAddressBook(home.path() / "book");
    // A share that is not mounted: the folder's parent is missing.
    ::setenv("KINBOOK_SIDECAR", (home.path() / "mnt" / "share" / "Kinbook").c_str(), 1);
    LaunchOptions options;
    options.contactsRoot = home.path() / "book";
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));
    EXPECT_EQ(app.window()->tableModel()->peopleCount(), 10);
    auto* banner = app.window()->findChild<QLabel*>("sidecarBannerText");
    ASSERT_NE(banner, nullptr);
    EXPECT_TRUE(banner->text().endsWith("Vellumary Contacts keeps photos and history there."));
    EXPECT_FALSE(std::filesystem::exists(home.path() / "mnt"));
    ::unsetenv("KINBOOK_SIDECAR");
}

TEST(KinbookApp, WithASidecarThereIsNoBanner) {
    FreshHome home;
    testing::writeSmallAddressBook(home.path() / "book");
    LaunchOptions options;
    options.contactsRoot = home.path() / "book";
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));
    EXPECT_EQ(app.window()->findChild<QLabel*>("sidecarBannerText"), nullptr);
}

TEST(KinbookApp, AFirstRunOffersTheEmbeddedAddressBookAndFillsItWithExamplePeople) {
    FreshHome home;
    KinbookApp app(LaunchOptions{});
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.window() != nullptr; }));
    EXPECT_FALSE(app.window()->isShowingList());
    EXPECT_EQ(app.window()->stateTitle(), "Welcome to Vellumary Contacts");
    EXPECT_TRUE(app.window()->stateText().contains(
        QString::fromStdString((home.path() / "XDG_DATA_HOME" / "kinbook" / "contacts").string())));

    app.window()->findChild<QPushButton*>("StateButton")->click();

    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));
    EXPECT_TRUE(app.window()->isShowingList());
    EXPECT_GT(app.window()->tableModel()->peopleCount(), 20);
    EXPECT_GE(app.list()->accounts().size(), 2u);
}

TEST(KinbookApp, AMissingFolderGivenOnTheCommandLineIsMadeEmptyOnRequest) {
    FreshHome home;
    LaunchOptions options;
    options.contactsRoot = home.path() / "new-book";
    KinbookApp app(options);
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(runEventsUntil([&] { return app.window() != nullptr; }));
    EXPECT_TRUE(app.window()->stateText().startsWith("There is no address book at"));

    app.window()->findChild<QPushButton*>("StateButton")->click();

    ASSERT_TRUE(runEventsUntil([&] { return app.isLoaded(); }));
    EXPECT_TRUE(app.window()->isShowingList());
    EXPECT_EQ(app.window()->tableModel()->peopleCount(), 0);
    ASSERT_EQ(app.list()->accounts().size(), 1u);
    EXPECT_EQ(app.list()->accounts()[0].name, "On My Computer");
}

} // namespace
} // namespace kinbook
