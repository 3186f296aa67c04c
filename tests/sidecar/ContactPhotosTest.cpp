#include "KinbookKit/sidecar/ContactPhotos.h"

#include "KinbookKit/platform/DlibFaceDetector.h"
#include "KinbookKit/platform/VipsPictureCodec.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/sidecar/TestPictures.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/TempFolder.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::Bytes;

// Every download the store asks for.
class RecordingDownloads final : public CloudDownloads {
public:
    void startDownloading(const fs::path&, const fs::path& target) override {
        std::lock_guard lock(mutex);
        asked.push_back(target.filename().string());
    }
    std::mutex mutex;
    std::vector<std::string> asked;
};

// The sidecar's log lines, as the platform log gets them.
class RecordingLog final : public PlatformLog {
public:
    void write(LogLevel level, std::string_view category, std::string_view message) override {
        std::lock_guard lock(mutex);
        if (category == "sidecar" && level == LogLevel::error) {
            errors.emplace_back(message);
        }
    }
    std::mutex mutex;
    std::vector<std::string> errors;
};

class ContactPhotosTest : public ::testing::Test {
protected:
    ContactPhotosTest() {
        KinLog::setPlatformLog(&log);
        status = Sidecar::openNow(folder / "Sidecar");
        ContactPhotos::Options options;
        options.documents = status.documents;
        options.codec = std::make_shared<VipsPictureCodec>();
        options.detector = std::make_shared<DlibFaceDetector>();
        options.downloads = downloads;
        options.clock = &clock;
        photos = std::make_unique<ContactPhotos>(pool, std::move(options));
    }
    ~ContactPhotosTest() override { KinLog::setPlatformLog(nullptr); }

    fs::path people() const { return status.documents / "People"; }
    std::vector<std::string> names(const std::vector<PhotoItem>& items) const {
        std::vector<std::string> out;
        for (const auto& item : items) {
            out.push_back(item.url.filename().string() + (item.isLocal ? "" : " (not local)"));
        }
        return out;
    }

    testing::TempFolder folder;
    testing::FakeClock clock;
    RecordingLog log;
    std::shared_ptr<RecordingDownloads> downloads = std::make_shared<RecordingDownloads>();
    ThreadPool pool{1};
    Sidecar::Status status;
    std::unique_ptr<ContactPhotos> photos;
    const PersonKey ann{"AB12CD34", "Ann Lee"};
};

TEST_F(ContactPhotosTest, TheSamePictureTwiceKeepsOneCopyAndTwoInOneSecondAreBothKept) {
    const Bytes cup = testing::sampleJpeg("coffee.png");
    const Bytes cat = testing::sampleJpeg("chelsea.png");
    // Two different pictures of the same length: the bytes decide, not the size.
    Bytes cupTwin = cup;
    cupTwin[cupTwin.size() / 2] ^= 0x01;

    auto first = photos->addPhotos(ann, {cup, cat});
    ASSERT_TRUE(first) << first.error();
    auto second = photos->addPhotos(ann, {cup, cupTwin}); // the same second still
    ASSERT_TRUE(second) << second.error();
    EXPECT_EQ(second->size(), 1u);
    // 2026-01-01 00:00:00 UTC in the local time of the test run.
    const auto listed = names(photos->photos(ann));
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_EQ(fs::path(listed[0]).extension(), ".jpg");
    EXPECT_TRUE(listed[1].starts_with(fs::path(listed[0]).stem().string() + " "));
    EXPECT_EQ(testing::readBytes(first->front().url), cup); // JPEG kept byte for byte
    EXPECT_EQ(testing::readBytes(second->front().url), cupTwin);
}

TEST_F(ContactPhotosTest, NonJpegPicturesAreStoredAsJpegAndOtherDataIsRefused) {
    auto added = photos->addPhotos(ann, {testing::readBytes(testing::photoSample("chelsea.png"))});
    ASSERT_TRUE(added) << added.error();
    ASSERT_EQ(added->size(), 1u);
    EXPECT_EQ(testing::storedSize(testing::readBytes(added->front().url)), std::make_pair(451, 300));
    EXPECT_EQ(testing::readBytes(added->front().url)[0], 0xFF);

    const std::string page = "<html>not a picture</html>";
    auto refused = photos->addPhotos({"ZZ99ZZ99", "Bo"}, {Bytes(page.begin(), page.end())});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), "That wasn't a picture.");
    EXPECT_FALSE(photos->findFolder("ZZ99ZZ99")); // nothing made for it
}

TEST_F(ContactPhotosTest, ListingShowsPlaceholdersAsNotLocalAndIgnoresOtherFiles) {
    const fs::path dir = people() / "Ann Lee AB12CD34" / "photos";
    fs::create_directories(dir);
    testing::writeFile(dir / "2024-01-01 100000.jpg", "jpeg");
    testing::writeFile(dir / "B.JPEG", "jpeg");
    testing::writeFile(dir / ".2024-02-02 100000.jpg.icloud", "placeholder");
    testing::writeFile(dir / "2024-03-03 100000.jpg.nextcloud", "");
    testing::writeFile(dir / "notes.txt", "a text file");
    testing::writeFile(dir / ".notes.txt.icloud", "placeholder of a text file");
    // A placeholder left beside the file it stood for: the file is here.
    testing::writeFile(dir / ".2024-01-01 100000.jpg.icloud", "stale");

    EXPECT_EQ(names(photos->photos(ann)),
              (std::vector<std::string>{"2024-01-01 100000.jpg", "2024-02-02 100000.jpg (not local)",
                                        "2024-03-03 100000.jpg (not local)", "B.JPEG"}));
    std::sort(downloads->asked.begin(), downloads->asked.end());
    EXPECT_EQ(downloads->asked, (std::vector<std::string>{"2024-02-02 100000.jpg", "2024-03-03 100000.jpg"}));
}

TEST_F(ContactPhotosTest, AFolderIsFoundByItsKinIDAfterARenameAndReadersMakeNone) {
    EXPECT_TRUE(photos->photos(ann).empty());
    EXPECT_FALSE(photos->poster(ann));
    EXPECT_TRUE(photos->pastJobs(ann).empty());
    EXPECT_FALSE(fs::exists(people()));

    ASSERT_TRUE(photos->addPhotos(ann, {testing::sampleJpeg("coffee.png")}));
    const PersonKey renamed{"AB12CD34", "Ann Smith"};
    ASSERT_TRUE(photos->setPastJobs(renamed, {PastJob::make("Acme", "Engineer")}));
    EXPECT_TRUE(fs::exists(people() / "Ann Lee AB12CD34" / "jobs.json"));
    EXPECT_FALSE(fs::exists(people() / "Ann Smith AB12CD34"));
    EXPECT_EQ(photos->photos(renamed).size(), 1u);
}

TEST_F(ContactPhotosTest, HostileNamesAndPathsNeverLeaveTheSidecar) {
    for (const std::string& name :
         std::vector<std::string>{"../../..", "/etc/passwd", ":", "   ", std::string(300, 'n')}) {
        SCOPED_TRACE(name.substr(0, 20));
        ASSERT_TRUE(photos->setPastJobs({"CD34EF56", name}, {PastJob::make("Acme", "Engineer")}));
        const auto found = photos->findFolder("CD34EF56");
        ASSERT_TRUE(found);
        EXPECT_EQ(found->parent_path(), people());
        fs::remove_all(*found);
    }
    EXPECT_FALSE(photos->setPastJobs({"../X", "Ann"}, {PastJob::make("Acme", "Engineer")}));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()),
              1); // only Sidecar

    // A photo path outside the person's "photos" is never deleted.
    ASSERT_TRUE(photos->addPhotos(ann, {testing::sampleJpeg("coffee.png")}));
    const fs::path outside = folder / "keep.jpg";
    testing::writeFile(outside, "mine");
    EXPECT_FALSE(photos->deletePhoto(ann, {outside, true}));
    EXPECT_FALSE(photos->deletePhoto(
        ann, {people() / "Ann Lee AB12CD34" / "photos" / ".." / ".." / ".." / ".." / "keep.jpg", true}));
    EXPECT_TRUE(fs::exists(outside));
    const auto listed = photos->photos(ann);
    ASSERT_TRUE(photos->deletePhoto(ann, listed.front()));
    EXPECT_TRUE(photos->photos(ann).empty());
}

TEST_F(ContactPhotosTest, ThePosterIsRecordedAsTheOtherPlatformsReadIt) {
    ASSERT_TRUE(photos->addPhotos(ann, {testing::sampleJpeg("coffee.png")}));
    const Bytes portrait = testing::readBytes(testing::photoSample("astronaut.png"));
    auto poster = photos->setPoster(ann, portrait, "photo:2026-01-01 000000.jpg");
    ASSERT_TRUE(poster) << poster.error();

    const fs::path dir = people() / "Ann Lee AB12CD34";
    const auto json = nlohmann::json::parse(testing::readFile(dir / "poster.json"));
    EXPECT_EQ(json.size(), 4u);
    EXPECT_EQ(json.at("source"), "photo:2026-01-01 000000.jpg");
    // 2026-01-01 00:00:00 UTC is 788918400 s after 2001-01-01.
    EXPECT_DOUBLE_EQ(json.at("setAt").get<double>(), 788918400.0);
    EXPECT_LT(json.at("focusY").get<double>(), 0.5); // the face, in the upper half
    EXPECT_EQ(photos->poster(ann), poster.value());

    // A picture without a face: the focus is the centre. Replacing the
    // poster, and removing it, leave the photos alone.
    auto cup =
        photos->setPoster(ann, testing::readBytes(testing::photoSample("coffee.png")), "file:coffee.png");
    ASSERT_TRUE(cup);
    EXPECT_EQ(cup->focus, (FocusPoint{0.5, 0.5}));
    ASSERT_TRUE(photos->removePoster(ann));
    EXPECT_FALSE(photos->poster(ann));
    EXPECT_EQ(photos->photos(ann).size(), 1u);

    // Only the placeholder: not local, its download asked for.
    testing::writeFile(dir / ".poster.jpg.icloud", "");
    const auto waiting = photos->poster(ann);
    ASSERT_TRUE(waiting);
    EXPECT_FALSE(waiting->isLocal);
    EXPECT_EQ(downloads->asked, std::vector<std::string>{"poster.jpg"});
}

TEST_F(ContactPhotosTest, CorruptDocumentsReadAsNoneAndAreLogged) {
    const fs::path dir = people() / "Ann Lee AB12CD34";
    fs::create_directories(dir);
    testing::writeFile(dir / "poster.jpg", "jpeg");
    testing::writeFile(dir / "poster.json", "{\"focusX\": 0.2");
    testing::writeFile(dir / "jobs.json", "{\"not\": \"a list\"}");
    testing::writeFile(dir / "suggestion.json", "{\"circle\": 9, \"confidence\": 1}");

    const auto poster = photos->poster(ann);
    ASSERT_TRUE(poster);
    EXPECT_EQ(poster->focus, (FocusPoint{0.5, 0.5}));
    EXPECT_TRUE(photos->pastJobs(ann).empty());
    EXPECT_TRUE(photos->allPastJobs().empty());
    EXPECT_FALSE(photos->suggestion(ann));
    EXPECT_EQ(log.errors.size(), 4u);
    for (const auto& line : log.errors) {
        EXPECT_TRUE(line.starts_with("sidecar: unreadable ")) << line;
    }
}

TEST_F(ContactPhotosTest, SuggestionAndPastJobsRoundTripAndFeedSearch) {
    CircleSuggestion suggestion;
    suggestion.circle = ContactCircle::friends;
    suggestion.confidence = 0.875;
    suggestion.reasons = {"weekly calls"};
    suggestion.source = "messages";
    suggestion.madeAt = *parseIso8601("2026-01-01T10:00:00Z");
    ASSERT_TRUE(photos->setSuggestion(ann, suggestion));
    EXPECT_EQ(photos->suggestion(ann), suggestion);

    const auto job = PastJob::make("Acme", "Engineer", "1999-2004");
    ASSERT_TRUE(photos->setPastJobs(ann, {job, PastJob::make("", "", "2001")}));
    EXPECT_EQ(photos->pastJobs(ann), std::vector<PastJob>{job});
    const PersonKey bo{"ZZ99ZZ99", "Bo"};
    ASSERT_TRUE(photos->setPastJobs(bo, {PastJob::make("Initech", "")}));
    const auto all = photos->allPastJobs();
    EXPECT_EQ(all.size(), 2u);
    EXPECT_EQ(all.at("AB12CD34"), std::vector<PastJob>{job});

    // A document the sync client has not brought yet is none for now.
    const fs::path cy = people() / "Cy ZZ11ZZ11";
    fs::create_directories(cy);
    testing::writeFile(cy / ".jobs.json.icloud", "");
    EXPECT_TRUE(photos->pastJobs({"ZZ11ZZ11", "Cy"}).empty());
    EXPECT_EQ(downloads->asked, std::vector<std::string>{"jobs.json"});
}

TEST_F(ContactPhotosTest, MovingPhotosForAMergeKeepsOneCopyOfEach) {
    const PersonKey bo{"ZZ99ZZ99", "Bo"};
    const Bytes cup = testing::sampleJpeg("coffee.png");
    const Bytes cat = testing::sampleJpeg("chelsea.png");
    ASSERT_TRUE(photos->addPhotos(ann, {cup}));
    ASSERT_TRUE(photos->addPhotos(bo, {cup, cat})); // same second: the names clash too
    auto moved = photos->movePhotos(bo, ann);
    ASSERT_TRUE(moved) << moved.error();
    EXPECT_EQ(*moved, 2u);
    const auto kept = photos->photos(ann);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_TRUE(photos->photos(bo).empty());
    EXPECT_NE(testing::readBytes(kept[0].url), testing::readBytes(kept[1].url));
}

TEST_F(ContactPhotosTest, TheActorRunsWorkInOrderAndAnswersOnTheCallersExecutor) {
    testing::ManualExecutor underlying;
    testing::ManualExecutor main;
    ContactPhotos store(underlying,
                        {status.documents, std::make_shared<VipsPictureCodec>(), nullptr, nullptr, &clock});
    std::vector<std::size_t> counts;
    store.run([&](ContactPhotos& self) { (void)self.addPhotos(ann, {testing::sampleJpeg("coffee.png")}); });
    store.ask(
        main, [&](ContactPhotos& self) { return self.photos(ann).size(); },
        [&](std::size_t count) { counts.push_back(count); });
    EXPECT_EQ(main.runUntilIdle(), 0u);
    underlying.runUntilIdle();
    EXPECT_TRUE(counts.empty()); // answered on the caller's executor only
    main.runUntilIdle();
    EXPECT_EQ(counts, std::vector<std::size_t>{1});
}

} // namespace
} // namespace kinbook
