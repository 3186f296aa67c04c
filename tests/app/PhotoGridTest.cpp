// The person's sidecar on their page, in the whole application over a real
// address book and a real sidecar folder: photos, poster, suggestion and
// past jobs.

#include "Kinbook/PhotoGrid.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/ContactPage.h"
#include "Kinbook/KinbookApp.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PosterHeader.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "tests/app/AppTestSupport.h"
#include "tests/app/FreshHome.h"
#include "tests/app/TestAddressBook.h"

#include <gtest/gtest.h>

#include <QPushButton>
#include <fstream>
#include <iterator>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::runEventsUntil;

fs::path sample(const char* name) {
    return fs::path(KINBOOK_TESTDATA_DIR) / "photos" / name;
}

std::vector<std::uint8_t> bytesOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class PhotoGridTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::writeSmallAddressBook(m_home.path() / "book");
        LaunchOptions options;
        options.contactsRoot = m_home.path() / "book";
        m_app = std::make_unique<KinbookApp>(options);
        ASSERT_TRUE(m_app->start());
        ASSERT_TRUE(runEventsUntil([&] { return m_app->isLoaded(); }));
        ASSERT_NE(store(), nullptr);
    }

    ContactPhotos* store() const { return m_app->session()->photos(); }
    PhotoGrid& grid() const { return *m_app->window()->page()->photoGrid(); }
    PersonPtr person(const char* id) const { return m_app->list()->person(id); }

    // Selects the person and waits until the page has read their folder and
    // drawn every thumbnail.
    void show(const char* id) {
        bool listed = false;
        bool drawn = false;
        auto a = QObject::connect(&grid(), &PhotoGrid::photosListed, [&] { listed = true; });
        auto b = QObject::connect(&grid(), &PhotoGrid::thumbnailsDone, [&] { drawn = true; });
        ASSERT_TRUE(m_app->window()->selectPerson(id));
        ASSERT_TRUE(runEventsUntil([&] { return listed && drawn; }));
        QObject::disconnect(a);
        QObject::disconnect(b);
    }

    // Runs a grid action and waits for the write and the reading after it.
    template <typename Action>
    void change(Action action) {
        bool finished = false;
        bool listed = false;
        auto a = QObject::connect(&grid(), &PhotoGrid::changeFinished, [&] { finished = true; });
        auto b = QObject::connect(&grid(), &PhotoGrid::photosListed, [&] { listed = finished; });
        action();
        ASSERT_TRUE(runEventsUntil([&] { return finished && (listed || !grid().messageText().isEmpty()); }));
        QObject::disconnect(a);
        QObject::disconnect(b);
    }

    testing::FreshHome m_home;
    std::unique_ptr<KinbookApp> m_app;
};

TEST_F(PhotoGridTest, ThePageShowsThePersonsPhotosPastJobsAndSuggestionWhichOneClickAccepts) {
    const PersonKey ada{"A0000001", "Ada Abbott"};
    CircleSuggestion suggestion;
    suggestion.circle = ContactCircle::friends;
    suggestion.confidence = 0.875;
    suggestion.source = "messages";
    std::vector<PhotoItem> stored;
    store()->run([&](ContactPhotos& photos) {
        stored =
            photos.addPhotos(ada, {bytesOf(sample("astronaut.png")), bytesOf(sample("coffee.png"))}).value();
        ASSERT_TRUE(photos.setSuggestion(ada, suggestion));
        ASSERT_TRUE(photos.setPastJobs(
            ada, {PastJob::make("Initech", "Analyst", "1999-2004"), PastJob::make("  ", " ", "2010")}));
    });
    store()->waitUntilIdle();
    ASSERT_EQ(stored.size(), 2u);

    // Someone without a folder first, so that showing Ada is a change.
    show("ED");
    EXPECT_EQ(grid().photoList()->count(), 0);
    EXPECT_EQ(grid().pastJobsText(), "");

    show("ADA");
    ASSERT_EQ(grid().photoList()->count(), 2);
    EXPECT_EQ(grid().photoAt(0), stored[0].url);
    EXPECT_EQ(grid().photoAt(1), stored[1].url);
    EXPECT_EQ(grid().thumbnailsShown(), 2);
    EXPECT_FALSE(grid().photoList()->item(0)->icon().isNull());
    EXPECT_EQ(grid().pastJobsText(), QString::fromUtf8("Analyst, Initech \u00B7 1999-2004"));

    // The list refreshing the page keeps the saved suggestion.
    CirclePicker* picker = m_app->window()->page()->circlePicker();
    EXPECT_EQ(picker->suggestionText(), QString::fromUtf8("Suggests Friends \u00B7 88%"));
    auto* use = picker->findChild<QPushButton*>();
    ASSERT_NE(use, nullptr);
    ASSERT_EQ(use->text(), "Use");
    use->click();
    ASSERT_TRUE(runEventsUntil([&] { return person("ADA")->circle == ContactCircle::friends; }));
    EXPECT_EQ(picker->suggestionText(), QString::fromUtf8("Suggests Friends \u00B7 88%"));
    EXPECT_TRUE(use->isHidden());

    // Another person's page shows none of Ada's.
    show("BO");
    EXPECT_EQ(grid().photoList()->count(), 0);
    EXPECT_EQ(picker->suggestionText(), "");
}

TEST_F(PhotoGridTest, AddingRefusesATextFileThenAddsPicturesForAPersonWithoutAKinID) {
    ASSERT_FALSE(person("ED")->kinID);
    show("ED");
    const fs::path note = m_home.path() / "note.txt";
    testing::writeFile(note, "not a picture\n");

    change([&] { grid().addFiles({QString::fromStdString(note.string())}); });
    EXPECT_EQ(grid().messageText(), "That wasn't a picture.");
    EXPECT_EQ(grid().photoList()->count(), 0);

    // Ed gets a KinID in his card first, so that his new folder finds him.
    change([&] {
        grid().addFiles({QString::fromStdString(sample("chelsea.png").string()),
                         QString::fromStdString(sample("coffee.png").string())});
    });
    EXPECT_EQ(grid().messageText(), "");
    ASSERT_EQ(grid().photoList()->count(), 2);
    ASSERT_TRUE(runEventsUntil([&] { return person("ED")->kinID.has_value(); }));
    const PersonKey ed{*person("ED")->kinID, "Ed Evans"};
    std::vector<PhotoItem> listed;
    store()->run([&](ContactPhotos& photos) { listed = photos.photos(ed); });
    store()->waitUntilIdle();
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(grid().photoAt(0), listed[0].url);

    // Adding one of them again keeps one copy.
    change([&] { grid().addFiles({QString::fromStdString(sample("coffee.png").string())}); });
    EXPECT_EQ(grid().photoList()->count(), 2);

    change([&] { grid().deletePhoto(0); });
    ASSERT_EQ(grid().photoList()->count(), 1);
    EXPECT_FALSE(fs::exists(listed[0].url));
    EXPECT_EQ(grid().photoAt(0), listed[1].url);
}

TEST_F(PhotoGridTest, APhotoBecomesThePosterBehindTheHeaderAndTheContactPhoto) {
    const PersonKey ada{"A0000001", "Ada Abbott"};
    store()->run([&](ContactPhotos& photos) {
        ASSERT_TRUE(photos.addPhotos(ada, {bytesOf(sample("astronaut.png"))}));
    });
    store()->waitUntilIdle();
    show("ADA");
    ASSERT_EQ(grid().photoList()->count(), 1);
    PosterHeader* header = m_app->window()->page()->posterHeader();
    EXPECT_FALSE(header->hasPoster());

    change([&] { grid().useAsPoster(0); });
    const auto folder = store()->findFolder("A0000001");
    ASSERT_TRUE(folder);
    ASSERT_TRUE(fs::exists(*folder / "poster.jpg"));
    std::ifstream json(*folder / "poster.json");
    const auto info = PosterInfo::fromJSON(std::string(std::istreambuf_iterator<char>(json), {}));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->source, "photo:" + grid().photoAt(0).filename().string());
    // The astronaut's face sits in the upper half of the portrait.
    EXPECT_LT(info->focusY, 0.5);
    EXPECT_TRUE(header->hasPoster());
    EXPECT_NEAR(header->focus().y(), info->focusY, 1e-9);
    // The photo stays a photo.
    EXPECT_EQ(grid().photoList()->count(), 1);

    ASSERT_FALSE(person("ADA")->hasImage);
    grid().useAsContactPhoto(0);
    ASSERT_TRUE(runEventsUntil([&] { return !grid().isBusy(); }));
    EXPECT_EQ(grid().messageText(), "");
    ASSERT_TRUE(runEventsUntil([&] { return person("ADA")->hasImage; }));
}

TEST(PosterHeader, TheVisiblePartCoversTheBandAroundTheFocusAndStaysInsideThePicture) {
    // A tall portrait behind a wide band: the full width, a strip in height.
    const QRectF face = PosterHeader::visiblePart({1000, 2000}, {500, 100}, {0.5, 0.3});
    EXPECT_DOUBLE_EQ(face.width(), 1000);
    EXPECT_DOUBLE_EQ(face.height(), 200);
    EXPECT_DOUBLE_EQ(face.center().y(), 600);
    // A focus at an edge pushes the strip back inside.
    EXPECT_DOUBLE_EQ(PosterHeader::visiblePart({1000, 2000}, {500, 100}, {0.5, 0.02}).top(), 0);
    EXPECT_DOUBLE_EQ(PosterHeader::visiblePart({1000, 2000}, {500, 100}, {0.5, 1.0}).bottom(), 2000);
    // A wide picture behind a tall area: cut at the sides.
    const QRectF side = PosterHeader::visiblePart({3000, 1000}, {100, 100}, {0.9, 0.5});
    EXPECT_DOUBLE_EQ(side.width(), 1000);
    EXPECT_DOUBLE_EQ(side.right(), 3000);
}

} // namespace
} // namespace kinbook
