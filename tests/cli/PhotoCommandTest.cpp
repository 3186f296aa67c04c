// The photo, poster and past-job commands on a real sidecar folder, run as a
// user runs them: the demo address book, then a person's photos, poster,
// contact photo and past jobs, and the same person found by a former job;
// without a sidecar they say so.

#include "tests/cli/KinbookRun.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

const std::string kPortrait = std::string(KINBOOK_TESTDATA_DIR) + "/photos/astronaut.png";
const std::string kCup = std::string(KINBOOK_TESTDATA_DIR) + "/photos/coffee.png";

// The demo address book is made for a person at a terminal, as on a first run.
void seedDemo(const testing::KinbookHome& home) {
    const auto first = home.runAtTerminal({"list"});
    ASSERT_EQ(first.exitCode, 0) << first.err;
}

TEST(PhotoCommand, PhotosPosterContactPhotoAndPastJobsOnARealSidecar) {
    testing::KinbookHome home;
    seedDemo(home);
    const auto listed = home.run({"list", "--json"});
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    const std::string person = listed.json()["sections"][0]["people"][0]["id"];

    const auto added = home.run({"photo", "add", person, kPortrait, kCup, kPortrait});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    const auto photos = home.run({"photos", person, "--json"});
    ASSERT_EQ(photos.exitCode, 0) << photos.err;
    ASSERT_EQ(photos.json().size(), 2u); // the portrait twice is kept once
    const fs::path first = photos.json()[0]["url"].get<std::string>();
    EXPECT_TRUE(fs::exists(first));
    EXPECT_EQ(first.parent_path().parent_path().parent_path(),
              home.data() / "kinbook/Sidecar/Documents/People");

    const auto poster = home.run({"poster", person, kPortrait});
    ASSERT_EQ(poster.exitCode, 0) << poster.err;
    EXPECT_LT(poster.json()["focus"]["y"].get<double>(), 0.5);
    ASSERT_EQ(home.run({"poster", person, "--remove"}).exitCode, 0);
    EXPECT_TRUE(home.run({"poster", person}).json().is_null());

    const auto contactPhoto = home.run({"photo", "set", person, kPortrait});
    ASSERT_EQ(contactPhoto.exitCode, 0) << contactPhoto.err;
    const auto notAPicture =
        home.run({"photo", "set", person, std::string(KINBOOK_TESTDATA_DIR) + "/photos/README.md"});
    EXPECT_EQ(notAPicture.exitCode, 1);
    EXPECT_NE(notAPicture.err.find("That wasn't a picture."), std::string::npos) << notAPicture.err;

    ASSERT_EQ(home.run({"jobs", person, "--add", "Zanzibar Shipping", "--title", "Purser"}).exitCode, 0);
    const auto found = home.run({"search", "zanzibar", "--json", "--no-cache"});
    ASSERT_EQ(found.exitCode, 0) << found.err;
    EXPECT_EQ(found.json()["sections"][0]["people"][0]["id"], person);
    ASSERT_EQ(home.run({"jobs", person, "--clear"}).exitCode, 0);
    EXPECT_EQ(home.run({"jobs", person}).out, "");

    // Without a sidecar the photo commands say so, and the list still works.
    home.setVariable("KINBOOK_SIDECAR", "off");
    const auto noSidecar = home.run({"photos", person});
    EXPECT_EQ(noSidecar.exitCode, 1);
    EXPECT_NE(noSidecar.err.find("no sidecar folder"), std::string::npos) << noSidecar.err;
    EXPECT_EQ(home.run({"list", "--json"}).exitCode, 0);
}

TEST(PhotoCommand, InspectHeadcropShowsTheDecision) {
    testing::KinbookHome home;
    const auto portrait = home.run({"inspect", "headcrop", kPortrait, "--max", "256"});
    ASSERT_EQ(portrait.exitCode, 0) << portrait.err;
    const auto json = portrait.json();
    EXPECT_EQ(json["width"], 256);
    // Widened to whole pixels: square to within a pixel.
    EXPECT_LE(std::abs(json["square"]["width"].get<int>() - json["square"]["height"].get<int>()), 1);
    EXPECT_FALSE(json["focus"].is_null());
    const auto cup = home.run({"inspect", "headcrop", kCup}).json();
    EXPECT_TRUE(cup["focus"].is_null());
    EXPECT_EQ(cup["square"], (nlohmann::json{{"x", 100}, {"y", 0}, {"width", 400}, {"height", 400}}));
}

} // namespace
} // namespace kinbook
