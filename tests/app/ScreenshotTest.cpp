// The real binary under a virtual X server: it must start, load an address
// book, draw its window and save it, which is also how the README's
// screenshot is made.

#include "tests/app/TestAddressBook.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <QHash>
#include <QImage>

namespace kinbook {
namespace {

using namespace std::chrono_literals;

// The share of the picture taken by its commonest colour: a blank window is
// nearly all one colour, a drawn list with a page far less.
double commonestColourShare(const QImage& image) {
    QHash<QRgb, int> counts;
    int total = 0;
    int most = 0;
    for (int y = 0; y < image.height(); y += 2) {
        for (int x = 0; x < image.width(); x += 2) {
            most = std::max(most, ++counts[image.pixel(x, y)]);
            ++total;
        }
    }
    return total == 0 ? 1.0 : static_cast<double>(most) / total;
}

TEST(Screenshot, TheApplicationDrawsItsWindowUnderAVirtualXServer) {
    ASSERT_TRUE(testing::findExecutable("xvfb-run")) << "xvfb-run is missing: run scripts/setup.sh";
    testing::TempFolder folder;
    testing::writeSmallAddressBook(folder / "book");
    const auto picture = folder / "window.png";

    // The child finds its XDG folders in this process's private ones; it
    // must use X, not the offscreen platform the other tests use.
    const auto outcome =
        testing::runProcess({"xvfb-run", "-a", "-s", "-screen 0 1280x900x24", "env", "-u", "QT_QPA_PLATFORM",
                             KINBOOK_APP_PATH, "--contacts", (folder / "book").string(), "-KinWindowWidth",
                             "1000", "-KinSelect", "ADA", "-KinScreenshot", picture.string()},
                            "", 120s);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.output;

    QImage image(QString::fromStdString(picture.string()));
    ASSERT_FALSE(image.isNull()) << outcome.output;
    EXPECT_EQ(image.width(), 1000);
    EXPECT_LT(commonestColourShare(image), 0.8);
}

TEST(Screenshot, AnUnusableArgumentIsRefusedBeforeAnyWindowOpens) {
    const auto outcome = testing::runProcess({KINBOOK_APP_PATH, "-KinWindowWidth", "wide"}, "", 60s);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.output.find("-KinWindowWidth takes a width in pixels"), std::string::npos)
        << outcome.output;
}

} // namespace
} // namespace kinbook
