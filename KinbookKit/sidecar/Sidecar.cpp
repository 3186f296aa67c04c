#include "KinbookKit/sidecar/Sidecar.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/Clock.h"
#include "KinbookKit/text/KinLog.h"

#include <fmt/core.h>

#include <system_error>

namespace kinbook::Sidecar {

namespace fs = std::filesystem;

namespace {

const KinLog& sidecarLog() {
    static const KinLog log("sidecar");
    return log;
}

// The longest file name the common file systems take, in bytes.
constexpr std::size_t kMaxFileName = 255;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

} // namespace

Status openNow(const std::optional<fs::path>& folder) {
    const auto start = Clock::system().monotonicNow();
    std::error_code error;
    // Without the parent, the folder would be made on a bare mount point and
    // the user's files would go where their sync never looks.
    if (!folder || folder->empty() || !fs::is_directory(folder->parent_path(), error)) {
        sidecarLog().info("sidecar: no iCloud");
        return Status::noICloud();
    }
    fs::path documents = *folder / "Documents";
    fs::create_directories(documents, error);
    const fs::path readme = documents / "README.txt";
    // A README the user edited, or a link they put there, stays as it is.
    if (!fs::exists(fs::symlink_status(readme, error)) && fs::is_directory(documents, error)) {
        (void)writeFileAtomically(readme, readmeText);
    }
    sidecarLog().info(fmt::format("sidecar: ready in {} ms", Clock::system().millisecondsSince(start)));
    return Status::ready(std::move(documents));
}

void open(Executor& background, Executor& reply, std::optional<fs::path> folder,
          std::function<void(Status)> done) {
    background.post([&reply, folder = std::move(folder), done = std::move(done)]() mutable {
        Status status = openNow(folder);
        reply.post([status = std::move(status), done = std::move(done)] { done(status); });
    });
}

std::string personFolderName(std::string_view displayName, std::string_view kinID) {
    std::string name;
    name.reserve(displayName.size());
    for (char c : displayName) {
        const auto byte = static_cast<unsigned char>(c);
        name += (c == '/' || c == ':' || c == '\\' || byte < 0x20 || byte == 0x7f) ? '-' : c;
    }
    const auto first = name.find_first_not_of(" \t\n\r\f\v.");
    name.erase(0, first == std::string::npos ? name.size() : first);
    while (!name.empty() && isBlank(name.back())) {
        name.pop_back();
    }
    const std::size_t room = kMaxFileName - 1 - kinID.size();
    if (name.size() > room) {
        std::size_t cut = room;
        // Back up to the first byte of a UTF-8 character.
        while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) {
            --cut;
        }
        name.resize(cut);
        while (!name.empty() && isBlank(name.back())) {
            name.pop_back();
        }
    }
    if (name.empty()) {
        return std::string(kinID);
    }
    return name + ' ' + std::string(kinID);
}

bool folderBelongsTo(std::string_view folderName, std::string_view kinID) {
    if (kinID.empty()) {
        return false;
    }
    if (folderName == kinID) {
        return true;
    }
    return folderName.size() > kinID.size() && folderName.ends_with(kinID) &&
           folderName[folderName.size() - kinID.size() - 1] == ' ';
}

std::optional<std::string> kinIDOfFolder(std::string_view folderName) {
    const auto blank = folderName.rfind(' ');
    const std::string_view id = blank == std::string_view::npos ? folderName : folderName.substr(blank + 1);
    if (!isUsableKinID(id)) {
        return std::nullopt;
    }
    return std::string(id);
}

bool isUsableKinID(std::string_view kinID) {
    if (kinID.empty() || kinID.size() > 32) {
        return false;
    }
    for (char c : kinID) {
        const bool digit = c >= '0' && c <= '9';
        const bool upper = c >= 'A' && c <= 'Z';
        if (!digit && !upper) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> placeholderTarget(std::string_view fileName) {
    constexpr std::string_view icloud = ".icloud";
    constexpr std::string_view nextcloud = ".nextcloud";
    std::string_view target;
    if (fileName.starts_with('.') && fileName.ends_with(icloud) && fileName.size() > icloud.size() + 1) {
        target = fileName.substr(1, fileName.size() - 1 - icloud.size());
    } else if (fileName.ends_with(nextcloud) && fileName.size() > nextcloud.size()) {
        target = fileName.substr(0, fileName.size() - nextcloud.size());
    } else {
        return std::nullopt;
    }
    if (target == "." || target == ".." || target.find('/') != std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(target);
}

} // namespace kinbook::Sidecar
