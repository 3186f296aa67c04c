#include "KinbookKit/sidecar/HeadCrop.h"

#include "KinbookKit/platform/DlibFaceDetector.h"
#include "KinbookKit/platform/VipsPictureCodec.h"
#include "tests/sidecar/TestPictures.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kinbook {
namespace {

using testing::Placement;

// The geometry alone, on the cases where a slip shows: a face at an edge, a
// face larger than the picture allows, no face.
TEST(HeadCropGeometry, SquaresFollowTheFaceAndStayInside) {
    struct Case {
        const char* what;
        int width, height;
        std::optional<FaceBox> face;
        CropRect expected;
    };
    const Case cases[] = {
        // 2.4 × 100 = 240; centre (500, 500 - 10); no edge in the way.
        {"face in the middle", 1000, 1000, FaceBox{450, 450, 100, 100}, {380, 370, 240, 240}},
        // The square would start above the picture: flush with the top.
        {"face near the top", 600, 1600, FaceBox{250, 20, 100, 100}, {180, 0, 240, 240}},
        // And past the right edge: flush with it.
        {"face at the right", 1000, 800, FaceBox{940, 300, 60, 60}, {856, 252, 144, 144}},
        // The taller side of the face decides; no more than the shorter side of the picture.
        {"face too large", 400, 300, FaceBox{100, 50, 100, 200}, {0, 0, 300, 300}},
        {"no face, landscape", 600, 400, std::nullopt, {100, 0, 400, 400}},
        {"no face, portrait", 451, 300, std::nullopt, {75, 0, 301, 300}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(HeadCrop::square(c.width, c.height, c.face), c.expected);
    }
}

TEST(HeadCropGeometry, TheLargestFaceDecidesAndTheFirstOfEqualOnes) {
    const FaceBox small{0, 0, 50, 50};
    const FaceBox large{300, 300, 120, 120};
    const FaceBox sameAsLarge{10, 10, 120, 120};
    EXPECT_EQ(HeadCrop::largestFace({small, large, sameAsLarge}), large);
    EXPECT_EQ(HeadCrop::largestFace({}), std::nullopt);
}

// The real codec and detector, on real pictures.
class HeadCropTest : public ::testing::Test {
protected:
    VipsPictureCodec codec;
    DlibFaceDetector detector;
    HeadCrop headCrop{codec, detector};
};

bool contains(const CropRect& square, const FaceBox& face) {
    return square.x <= face.x && square.y <= face.y && square.x + square.width >= face.x + face.width &&
           square.y + square.height >= face.y + face.height;
}

TEST_F(HeadCropTest, ThePortraitIsCroppedAroundTheFace) {
    const auto data = testing::readBytes(testing::photoSample("astronaut.png"));
    const auto decision = headCrop.decide(data, HeadCrop::contactPhotoPixels);
    ASSERT_TRUE(decision);
    EXPECT_EQ(decision->width, 512);
    ASSERT_TRUE(decision->face);
    EXPECT_TRUE(contains(decision->square, *decision->face));
    EXPECT_LT(decision->square.width, 512); // around the head, not the whole picture
    ASSERT_TRUE(decision->focus);
    EXPECT_LT(decision->focus->y, 0.5); // the face is in the upper half

    const auto jpeg = headCrop.crop(data, HeadCrop::contactPhotoPixels);
    ASSERT_TRUE(jpeg);
    EXPECT_EQ(testing::storedSize(*jpeg), std::make_pair(decision->square.width, decision->square.height));
}

TEST_F(HeadCropTest, AFaceNearTheTopOfATallPictureGivesASquareFlushWithTheTop) {
    const auto data = testing::canvasJpeg(700, 1200, {{"astronaut.png", 1.3, 17, -80}});
    const auto decision = headCrop.decide(data, HeadCrop::contactPhotoPixels);
    ASSERT_TRUE(decision && decision->face);
    EXPECT_EQ(decision->square.y, 0);
    EXPECT_TRUE(contains(decision->square, *decision->face));
}

TEST_F(HeadCropTest, OfTwoFacesTheLargerOneDecides) {
    // A small copy at the top left, a large one at the bottom right.
    const auto data =
        testing::canvasJpeg(1400, 1000, {{"astronaut.png", 0.5, 0, 0}, {"astronaut.png", 1.2, 760, 380}});
    const auto decision = headCrop.decide(data, HeadCrop::contactPhotoPixels);
    ASSERT_TRUE(decision && decision->face);
    EXPECT_GT(decision->face->x, 760);
    EXPECT_GT(decision->square.x, 700);
}

TEST_F(HeadCropTest, OrientationIsAppliedBeforeLookingForTheFace) {
    // A landscape picture shows whether the turn was applied.
    const auto wide = testing::canvasJpeg(900, 500, {{"astronaut.png", 0.75, 450, 0}});
    const auto wideTurned = testing::rotatedWithExif(wide);
    ASSERT_EQ(testing::storedSize(wideTurned), std::make_pair(500, 900));
    const auto decision = headCrop.decide(wideTurned, HeadCrop::contactPhotoPixels);
    ASSERT_TRUE(decision);
    EXPECT_EQ(decision->width, 900);
    EXPECT_EQ(decision->height, 500);
    ASSERT_TRUE(decision->face); // an upright face, found only when turned back
    EXPECT_GT(decision->face->x, 450);
}

TEST_F(HeadCropTest, PicturesWithoutAFaceGiveTheCentredSquareAndNotAPictureNothing) {
    for (const char* sample : {"coffee.png", "chelsea.png"}) {
        SCOPED_TRACE(sample);
        const auto data = testing::readBytes(testing::photoSample(sample));
        const auto decision = headCrop.decide(data, HeadCrop::contactPhotoPixels);
        ASSERT_TRUE(decision);
        EXPECT_FALSE(decision->face);
        EXPECT_EQ(decision->square, HeadCrop::square(decision->width, decision->height, std::nullopt));
        EXPECT_FALSE(headCrop.focus(data));
    }
    const std::string text = "BEGIN:VCARD\r\nEND:VCARD\r\n";
    const std::vector<std::uint8_t> notAPicture(text.begin(), text.end());
    EXPECT_FALSE(headCrop.crop(notAPicture, HeadCrop::contactPhotoPixels));
    EXPECT_FALSE(headCrop.focus(notAPicture));
}

// Faces of a large picture are looked for in a smaller copy and mapped back:
// the square must come out where a crop of the smaller picture, scaled up,
// puts it, within a pixel or two.
TEST_F(HeadCropTest, DetectingOnASmallerCopyMapsTheSquareBack) {
    const auto data = testing::canvasJpeg(2000, 1500, {{"astronaut.png", 2.0, 900, 100}});
    const auto large = headCrop.decide(data, 2000);
    const auto small = headCrop.decide(data, HeadCrop::detectionPixels);
    ASSERT_TRUE(large && small && large->face && small->face);
    const double scale = static_cast<double>(large->width) / small->width;
    EXPECT_LE(std::abs(large->square.x - small->square.x * scale), 2 * scale);
    EXPECT_LE(std::abs(large->square.y - small->square.y * scale), 2 * scale);
    EXPECT_LE(std::abs(large->square.width - small->square.width * scale), 2 * scale);
}

} // namespace
} // namespace kinbook
