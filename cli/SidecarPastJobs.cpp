#include "cli/SidecarPastJobs.h"

#include <cctype>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kinbook::cli {

namespace fs = std::filesystem;

namespace {

fs::path peopleFolder(const fs::path& sidecar) {
    return sidecar / "Documents" / "People";
}

// The KinID a person folder belongs to: its whole name, or what follows its
// last blank; none when that is not a run of letters and digits.
std::optional<std::string> kinIDOf(const std::string& folderName) {
    const auto blank = folderName.rfind(' ');
    std::string id = blank == std::string::npos ? folderName : folderName.substr(blank + 1);
    if (id.empty()) {
        return std::nullopt;
    }
    for (char& c : id) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
            return std::nullopt;
        }
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return id;
}

} // namespace

bool SidecarPastJobs::hasPeople(const fs::path& sidecar) {
    std::error_code error;
    return fs::is_directory(peopleFolder(sidecar), error) && !fs::is_empty(peopleFolder(sidecar), error);
}

std::map<std::string, std::vector<PastJob>> SidecarPastJobs::allJobs() {
    std::map<std::string, std::vector<PastJob>> jobs;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(peopleFolder(m_sidecar), error)) {
        const auto kinID = kinIDOf(entry.path().filename().string());
        if (!kinID) {
            continue;
        }
        std::ifstream in(entry.path() / "jobs.json", std::ios::binary);
        if (!in) {
            continue;
        }
        std::ostringstream text;
        text << in.rdbuf();
        auto list = PastJob::decodeList(text.str());
        if (!list) {
            continue;
        }
        std::erase_if(*list, [](const PastJob& job) { return job.isEmpty(); });
        if (!list->empty()) {
            auto& kept = jobs[*kinID];
            kept.insert(kept.end(), list->begin(), list->end());
        }
    }
    return jobs;
}

} // namespace kinbook::cli
