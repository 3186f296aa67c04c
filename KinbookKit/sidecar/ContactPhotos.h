#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/sidecar/HeadCrop.h"
#include "KinbookKit/sidecar/Sidecar.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// Whose folder: found by the KinID, named from the display name when made.
struct PersonKey {
    std::string kinID;
    std::string displayName;
};

// One of a person's photos.
struct PhotoItem {
    std::filesystem::path url; // the photo; for a placeholder, the file it stands for
    bool isLocal = true;       // false while the sync client has not brought it
    bool operator==(const PhotoItem&) const = default;
};

// The content of "poster.json". Dates are seconds since 2001-01-01 UTC, as
// the file is read on every platform.
struct PosterInfo {
    double focusX = 0.5;
    double focusY = 0.5;
    std::string source; // "photo:" + a photo's file name, or "file:" + the file's name
    std::chrono::system_clock::time_point setAt;

    bool operator==(const PosterInfo&) const = default;
    static std::optional<PosterInfo> fromJSON(std::string_view json);
    std::string toJSON() const;
};

struct Poster {
    std::filesystem::path url; // "poster.jpg" in the person folder
    bool isLocal = true;
    FocusPoint focus; // from "poster.json"; the centre when it can't be read
    bool operator==(const Poster&) const = default;
};

// The person's full-size photos, poster, saved circle suggestion and past
// jobs, in their sidecar folder ("People/<name> <KinID>"). A serial actor:
// the synchronous calls below run on its queue, through run() or ask(), so
// that two writes never overlap; the tool, which has one thread, may call
// them directly. Nothing is cached: every call reads the folder afresh, so
// files the sync client brings later show up on the next call.
//
// Reading never creates a folder; writing creates the person folder (and
// "photos") when missing. A document that can't be read or decoded counts as
// none and is logged. Errors are messages for the user.
class ContactPhotos {
public:
    struct Options {
        std::filesystem::path documents;           // the ready sidecar's "Documents"
        std::shared_ptr<PictureCodec> codec;       // converts added pictures to JPEG
        std::shared_ptr<FaceDetector> detector;    // the poster's focus; none: centre
        std::shared_ptr<CloudDownloads> downloads; // none: placeholders only listed
        Clock* clock = &Clock::system();
    };

    ContactPhotos(Executor& underlying, Options options);

    const std::filesystem::path& root() const { return m_root; }

    // Runs `work` on the store's queue.
    void run(std::function<void(ContactPhotos&)> work);
    // Runs `work` on the store's queue and hands its result to `done` on `reply`.
    template <typename Work, typename Done>
    void ask(Executor& reply, Work work, Done done) {
        run([&reply, work = std::move(work), done = std::move(done)](ContactPhotos& self) mutable {
            auto result = work(self);
            reply.post(
                [result = std::move(result), done = std::move(done)]() mutable { done(std::move(result)); });
        });
    }
    // Blocks until everything posted so far has run (tests, exit).
    void waitUntilIdle() { m_queue.waitUntilIdle(); }

    // The person's folder; none when they have none (or the KinID is not fit
    // to name one).
    std::optional<std::filesystem::path> findFolder(const std::string& kinID) const;

    // Photos, sorted by name (the time they were added).
    std::vector<PhotoItem> photos(const PersonKey& person);
    // Stores each picture as a new JPEG photo named by the time of adding;
    // a picture already there, byte for byte, is not stored again. Returns the
    // items added. "That wasn't a picture." for data that is not one.
    // `progress(done, total)` is told after each picture.
    Result<std::vector<PhotoItem>, std::string>
    addPhotos(const PersonKey& person, const std::vector<std::vector<std::uint8_t>>& pictures,
              const std::function<void(std::size_t, std::size_t)>& progress = {});
    Result<void, std::string> deletePhoto(const PersonKey& person, const PhotoItem& photo);
    // Moves every photo of one person's folder into another's (a merge),
    // keeping one copy of a photo both have.
    Result<std::size_t, std::string> movePhotos(const PersonKey& from, const PersonKey& to);

    std::optional<Poster> poster(const PersonKey& person);
    // Writes "poster.jpg" (as JPEG) and "poster.json" with the face's centre
    // as focus (the centre without a face), the source and the time.
    Result<Poster, std::string> setPoster(const PersonKey& person, std::span<const std::uint8_t> picture,
                                          std::string source);
    // Deletes both poster files; the photos stay.
    Result<void, std::string> removePoster(const PersonKey& person);

    std::optional<CircleSuggestion> suggestion(const PersonKey& person);
    Result<void, std::string> setSuggestion(const PersonKey& person, const CircleSuggestion& suggestion);

    std::vector<PastJob> pastJobs(const PersonKey& person);
    // Replaces the whole list; empty jobs are left out.
    Result<void, std::string> setPastJobs(const PersonKey& person, const std::vector<PastJob>& jobs);
    // Everyone's past jobs by KinID, for search.
    std::map<std::string, std::vector<PastJob>> allPastJobs();

private:
    Result<std::filesystem::path, std::string> folderForWriting(const PersonKey& person);
    // The file's text; none when it is missing (its download started when a
    // placeholder stands there) or unreadable.
    std::optional<std::string> readDocument(const std::filesystem::path& folder, const std::string& name);
    std::string photoName(const std::filesystem::path& photos);

    Options m_options;
    std::filesystem::path m_root; // documents / "People"
    SerialQueue m_queue;
};

} // namespace kinbook
