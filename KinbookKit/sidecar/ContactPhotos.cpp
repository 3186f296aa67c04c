#include "KinbookKit/sidecar/ContactPhotos.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/KinLog.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kinbook {

namespace fs = std::filesystem;

namespace {

const KinLog& sidecarLog() {
    static const KinLog log("sidecar");
    return log;
}

bool isPhotoName(const fs::path& name) {
    std::string extension = name.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".jpg" || extension == ".jpeg";
}

std::optional<std::string> readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        return std::nullopt;
    }
    return std::move(text).str();
}

std::string_view asText(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool sameBytes(const fs::path& file, std::span<const std::uint8_t> data) {
    std::error_code error;
    if (fs::file_size(file, error) != data.size() || error) {
        return false;
    }
    const auto contents = readFile(file);
    return contents && *contents == asText(data);
}

// A name in "photos" that is free: the wanted one, else with " 2", " 3"… before
// the extension, so that two photos of one second are both kept.
fs::path freeName(const fs::path& folder, const std::string& stem, const std::string& extension) {
    std::error_code error;
    fs::path candidate = folder / (stem + extension);
    for (int n = 2; fs::exists(fs::symlink_status(candidate, error)); ++n) {
        candidate = folder / fmt::format("{} {}{}", stem, n, extension);
    }
    return candidate;
}

} // namespace

std::optional<PosterInfo> PosterInfo::fromJSON(std::string_view json) {
    const auto document = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return std::nullopt;
    }
    try {
        PosterInfo info;
        info.focusX = document.at("focusX").get<double>();
        info.focusY = document.at("focusY").get<double>();
        info.source = document.at("source").get<std::string>();
        info.setAt = dateFromReferenceSeconds(document.at("setAt").get<double>());
        return info;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::string PosterInfo::toJSON() const {
    const nlohmann::json document = {{"focusX", focusX},
                                     {"focusY", focusY},
                                     {"source", source},
                                     {"setAt", secondsSinceReferenceDate(setAt)}};
    return document.dump();
}

ContactPhotos::ContactPhotos(Executor& underlying, Options options)
    : m_options(std::move(options)), m_root(m_options.documents / "People"), m_queue(underlying) {}

void ContactPhotos::run(std::function<void(ContactPhotos&)> work) {
    m_queue.post([this, work = std::move(work)] { work(*this); });
}

std::optional<fs::path> ContactPhotos::findFolder(const std::string& kinID) const {
    if (!Sidecar::isUsableKinID(kinID)) {
        return std::nullopt;
    }
    std::error_code error;
    std::optional<fs::path> found;
    for (const auto& entry : fs::directory_iterator(m_root, error)) {
        const std::string name = entry.path().filename().string();
        // Of two folders for one person (made on two machines before a
        // sync), the first by name, so that every call picks the same.
        if (Sidecar::folderBelongsTo(name, kinID) && entry.is_directory(error) &&
            (!found || name < found->filename().string())) {
            found = entry.path();
        }
    }
    return found;
}

Result<fs::path, std::string> ContactPhotos::folderForWriting(const PersonKey& person) {
    if (!Sidecar::isUsableKinID(person.kinID)) {
        return failure(fmt::format("\"{}\" is not a KinID a folder can be named by", person.kinID));
    }
    if (auto found = findFolder(person.kinID)) {
        return *found;
    }
    const fs::path folder = m_root / Sidecar::personFolderName(person.displayName, person.kinID);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        return failure(fmt::format("couldn't make the folder {}: {}", folder.string(), error.message()));
    }
    return folder;
}

std::optional<std::string> ContactPhotos::readDocument(const fs::path& folder, const std::string& name) {
    const fs::path file = folder / name;
    std::error_code error;
    if (!fs::exists(file, error)) {
        for (const auto& placeholder : {folder / ("." + name + ".icloud"), folder / (name + ".nextcloud")}) {
            if (fs::exists(placeholder, error)) {
                sidecarLog().info(fmt::format("sidecar: {} of {} not here yet; download started", name,
                                              folder.filename().string()));
                if (m_options.downloads) {
                    m_options.downloads->startDownloading(placeholder, file);
                }
                break;
            }
        }
        return std::nullopt;
    }
    auto text = readFile(file);
    if (!text) {
        sidecarLog().error(fmt::format("sidecar: couldn't read {} of {}", name, folder.filename().string()));
    }
    return text;
}

std::vector<PhotoItem> ContactPhotos::photos(const PersonKey& person) {
    std::vector<PhotoItem> items;
    const auto folder = findFolder(person.kinID);
    if (!folder) {
        return items;
    }
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(*folder / "photos", error)) {
        const std::string name = entry.path().filename().string();
        if (auto target = Sidecar::placeholderTarget(name)) {
            if (!isPhotoName(*target)) {
                continue;
            }
            const fs::path actual = entry.path().parent_path() / *target;
            if (fs::exists(actual, error)) {
                continue; // brought already; the file itself is listed
            }
            if (m_options.downloads) {
                m_options.downloads->startDownloading(entry.path(), actual);
            }
            items.push_back({actual, false});
        } else if (!name.starts_with('.') && isPhotoName(name) && entry.is_regular_file(error)) {
            items.push_back({entry.path(), true});
        }
    }
    // By the time of adding: "… 101500.jpg" before "… 101500 2.jpg".
    std::sort(items.begin(), items.end(), [](const PhotoItem& a, const PhotoItem& b) {
        return std::pair(a.url.stem(), a.url.extension()) < std::pair(b.url.stem(), b.url.extension());
    });
    return items;
}

std::string ContactPhotos::photoName(const fs::path&) {
    const std::time_t now = std::chrono::system_clock::to_time_t(m_options.clock->now());
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H%M%S", &local);
    return text;
}

Result<std::vector<PhotoItem>, std::string>
ContactPhotos::addPhotos(const PersonKey& person, const std::vector<std::vector<std::uint8_t>>& pictures,
                         const std::function<void(std::size_t, std::size_t)>& progress) {
    // Every picture is read before anything is written: a drop of a picture
    // and a page that isn't one adds nothing and says so.
    std::vector<std::vector<std::uint8_t>> jpegs;
    jpegs.reserve(pictures.size());
    for (const auto& picture : pictures) {
        auto jpeg = m_options.codec ? m_options.codec->toJpeg(picture) : std::nullopt;
        if (!jpeg) {
            return failure(std::string("That wasn't a picture."));
        }
        jpegs.push_back(std::move(*jpeg));
    }
    auto folder = folderForWriting(person);
    if (!folder) {
        return failure(folder.error());
    }
    const fs::path photosFolder = *folder / "photos";
    std::error_code error;
    fs::create_directories(photosFolder, error);
    if (error) {
        return failure(
            fmt::format("couldn't make the folder {}: {}", photosFolder.string(), error.message()));
    }
    std::vector<PhotoItem> added;
    std::size_t done = 0;
    for (const auto& jpeg : jpegs) {
        bool already = false;
        for (const auto& entry : fs::directory_iterator(photosFolder, error)) {
            if (isPhotoName(entry.path()) && sameBytes(entry.path(), jpeg)) {
                already = true;
                break;
            }
        }
        if (!already) {
            const fs::path file = freeName(photosFolder, photoName(photosFolder), ".jpg");
            if (!writeFileAtomically(file, asText(jpeg))) {
                return failure(fmt::format("couldn't write {}", file.string()));
            }
            added.push_back({file, true});
        }
        if (progress) {
            progress(++done, jpegs.size());
        }
    }
    sidecarLog().info(fmt::format("sidecar: {} photos added for {}", added.size(), person.kinID));
    return added;
}

Result<void, std::string> ContactPhotos::deletePhoto(const PersonKey& person, const PhotoItem& photo) {
    const auto folder = findFolder(person.kinID);
    // Only a photo of this person's "photos" is ever removed, whatever path
    // the caller holds.
    if (!folder || photo.url.parent_path() != *folder / "photos" || !isPhotoName(photo.url.filename())) {
        return failure(fmt::format("{} is not one of this person's photos", photo.url.string()));
    }
    std::error_code error;
    const fs::path name = photo.url.filename();
    fs::remove(photo.url, error);
    if (error) {
        return failure(fmt::format("couldn't delete {}: {}", photo.url.string(), error.message()));
    }
    fs::remove(photo.url.parent_path() / ("." + name.string() + ".icloud"), error);
    fs::remove(photo.url.parent_path() / (name.string() + ".nextcloud"), error);
    return {};
}

Result<std::size_t, std::string> ContactPhotos::movePhotos(const PersonKey& from, const PersonKey& to) {
    const auto source = findFolder(from.kinID);
    if (!source) {
        return std::size_t{0};
    }
    auto target = folderForWriting(to);
    if (!target) {
        return failure(target.error());
    }
    if (*source == *target) {
        return std::size_t{0};
    }
    const fs::path targetPhotos = *target / "photos";
    std::error_code error;
    fs::create_directories(targetPhotos, error);
    std::size_t moved = 0;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(*source / "photos", error)) {
        const std::string name = entry.path().filename().string();
        const auto placeholder = Sidecar::placeholderTarget(name);
        if ((placeholder && isPhotoName(*placeholder)) || (!name.starts_with('.') && isPhotoName(name))) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        const std::string name = file.filename().string();
        if (!Sidecar::placeholderTarget(name)) {
            const auto contents = readFile(file);
            bool duplicate = false;
            for (const auto& entry : fs::directory_iterator(targetPhotos, error)) {
                if (contents && isPhotoName(entry.path()) &&
                    sameBytes(entry.path(),
                              {reinterpret_cast<const std::uint8_t*>(contents->data()), contents->size()})) {
                    duplicate = true;
                    break;
                }
            }
            if (duplicate) {
                fs::remove(file, error);
                ++moved;
                continue;
            }
        }
        const fs::path destination =
            fs::exists(targetPhotos / name, error)
                ? freeName(targetPhotos, file.stem().string(), file.extension().string())
                : targetPhotos / name;
        fs::rename(file, destination, error);
        if (error) {
            return failure(fmt::format("couldn't move {}: {}", file.string(), error.message()));
        }
        ++moved;
    }
    sidecarLog().info(fmt::format("sidecar: moved {} photos from {} to {}", moved, from.kinID, to.kinID));
    return moved;
}

std::optional<Poster> ContactPhotos::poster(const PersonKey& person) {
    const auto folder = findFolder(person.kinID);
    if (!folder) {
        return std::nullopt;
    }
    Poster poster;
    poster.url = *folder / "poster.jpg";
    std::error_code error;
    if (!fs::exists(poster.url, error)) {
        const fs::path placeholder = *folder / ".poster.jpg.icloud";
        const fs::path nextcloud = *folder / "poster.jpg.nextcloud";
        const fs::path standing = fs::exists(placeholder, error) ? placeholder : nextcloud;
        if (!fs::exists(standing, error)) {
            return std::nullopt;
        }
        if (m_options.downloads) {
            m_options.downloads->startDownloading(standing, poster.url);
        }
        poster.isLocal = false;
    }
    if (const auto text = readDocument(*folder, "poster.json")) {
        if (const auto info = PosterInfo::fromJSON(*text)) {
            poster.focus = {info->focusX, info->focusY};
        } else {
            sidecarLog().error(fmt::format("sidecar: unreadable poster.json of {}", person.kinID));
        }
    }
    return poster;
}

Result<Poster, std::string>
ContactPhotos::setPoster(const PersonKey& person, std::span<const std::uint8_t> picture, std::string source) {
    auto jpeg = m_options.codec ? m_options.codec->toJpeg(picture) : std::nullopt;
    if (!jpeg) {
        return failure(std::string("That wasn't a picture."));
    }
    auto folder = folderForWriting(person);
    if (!folder) {
        return failure(folder.error());
    }
    PosterInfo info;
    if (m_options.codec && m_options.detector) {
        HeadCrop headCrop(*m_options.codec, *m_options.detector);
        if (const auto focus = headCrop.focus(*jpeg)) {
            info.focusX = focus->x;
            info.focusY = focus->y;
        }
    }
    info.source = std::move(source);
    info.setAt = m_options.clock->now();
    Poster poster{*folder / "poster.jpg", true, {info.focusX, info.focusY}};
    if (!writeFileAtomically(poster.url, asText(*jpeg))) {
        return failure(fmt::format("couldn't write {}", poster.url.string()));
    }
    if (!writeFileAtomically(*folder / "poster.json", info.toJSON())) {
        return failure(fmt::format("couldn't write {}", (*folder / "poster.json").string()));
    }
    sidecarLog().info(fmt::format("sidecar: poster set for {}", person.kinID));
    return poster;
}

Result<void, std::string> ContactPhotos::removePoster(const PersonKey& person) {
    const auto folder = findFolder(person.kinID);
    if (!folder) {
        return {};
    }
    std::error_code error;
    for (const char* name : {"poster.jpg", "poster.json", ".poster.jpg.icloud", "poster.jpg.nextcloud"}) {
        fs::remove(*folder / name, error);
        if (error) {
            return failure(fmt::format("couldn't delete {}: {}", (*folder / name).string(), error.message()));
        }
    }
    return {};
}

std::optional<CircleSuggestion> ContactPhotos::suggestion(const PersonKey& person) {
    const auto folder = findFolder(person.kinID);
    if (!folder) {
        return std::nullopt;
    }
    const auto text = readDocument(*folder, "suggestion.json");
    if (!text) {
        return std::nullopt;
    }
    auto suggestion = CircleSuggestion::fromJSON(*text);
    if (!suggestion) {
        sidecarLog().error(fmt::format("sidecar: unreadable suggestion.json of {}", person.kinID));
    }
    return suggestion;
}

Result<void, std::string> ContactPhotos::setSuggestion(const PersonKey& person,
                                                       const CircleSuggestion& suggestion) {
    auto folder = folderForWriting(person);
    if (!folder) {
        return failure(folder.error());
    }
    if (!writeFileAtomically(*folder / "suggestion.json", suggestion.toJSON())) {
        return failure(fmt::format("couldn't write {}", (*folder / "suggestion.json").string()));
    }
    return {};
}

std::vector<PastJob> ContactPhotos::pastJobs(const PersonKey& person) {
    const auto folder = findFolder(person.kinID);
    if (!folder) {
        return {};
    }
    const auto text = readDocument(*folder, "jobs.json");
    if (!text) {
        return {};
    }
    auto jobs = PastJob::decodeList(*text);
    if (!jobs) {
        sidecarLog().error(fmt::format("sidecar: unreadable jobs.json of {}", person.kinID));
        return {};
    }
    std::erase_if(*jobs, [](const PastJob& job) { return job.isEmpty(); });
    return std::move(*jobs);
}

Result<void, std::string> ContactPhotos::setPastJobs(const PersonKey& person,
                                                     const std::vector<PastJob>& jobs) {
    std::vector<PastJob> kept;
    std::copy_if(jobs.begin(), jobs.end(), std::back_inserter(kept),
                 [](const PastJob& job) { return !job.isEmpty(); });
    const auto found = findFolder(person.kinID);
    if (kept.empty() && !found) {
        return {}; // nothing to keep, and no folder made for it
    }
    auto folder = folderForWriting(person);
    if (!folder) {
        return failure(folder.error());
    }
    if (!writeFileAtomically(*folder / "jobs.json", PastJob::encodeList(kept))) {
        return failure(fmt::format("couldn't write {}", (*folder / "jobs.json").string()));
    }
    return {};
}

std::map<std::string, std::vector<PastJob>> ContactPhotos::allPastJobs() {
    std::map<std::string, std::vector<PastJob>> all;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(m_root, error)) {
        const auto kinID = Sidecar::kinIDOfFolder(entry.path().filename().string());
        if (!kinID || !entry.is_directory(error)) {
            continue;
        }
        const auto text = readDocument(entry.path(), "jobs.json");
        if (!text) {
            continue;
        }
        auto jobs = PastJob::decodeList(*text);
        if (!jobs) {
            sidecarLog().error(fmt::format("sidecar: unreadable jobs.json of {}", *kinID));
            continue;
        }
        std::erase_if(*jobs, [](const PastJob& job) { return job.isEmpty(); });
        if (!jobs->empty()) {
            auto& kept = all[*kinID];
            kept.insert(kept.end(), jobs->begin(), jobs->end());
        }
    }
    return all;
}

} // namespace kinbook
