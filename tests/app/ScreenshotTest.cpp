// The real binary under a virtual X server: it must start, draw its window
// and save it, which is also how the README's screenshot is made.

#include "tests/support/ChildProcess.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <QImage>
#include <QSet>

namespace kinbook {
namespace {

using namespace std::chrono_literals;

// How many different colours the picture uses: a blank or single-colour
// window has one or two, a drawn one hundreds.
int colourCount(const QImage& image) {
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2) {
        for (int x = 0; x < image.width(); x += 2) {
            colours.insert(image.pixel(x, y));
        }
    }
    return static_cast<int>(colours.size());
}

TEST(Screenshot, TheApplicationDrawsItsWindowUnderAVirtualXServer) {
    ASSERT_TRUE(testing::findExecutable("xvfb-run")) << "xvfb-run is missing: run scripts/setup.sh";
    testing::TempFolder folder;
    const auto picture = folder / "window.png";

    // The child finds its XDG folders in this process's private ones; it
    // must use X, not the offscreen platform the other tests use.
    const auto outcome =
        testing::runProcess({"xvfb-run", "-a", "env", "-u", "QT_QPA_PLATFORM", KINBOOK_APP_PATH,
                             "-KinWindowWidth", "900", "-KinScreenshot", picture.string()},
                            "", 120s);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.output;

    QImage image(QString::fromStdString(picture.string()));
    ASSERT_FALSE(image.isNull()) << outcome.output;
    EXPECT_EQ(image.width(), 900);
    EXPECT_GT(colourCount(image), 20);
}

} // namespace
} // namespace kinbook
