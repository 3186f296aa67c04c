#pragma once

#include "KinbookKit/people/PastJobSource.h"

#include <filesystem>

namespace kinbook::cli {

// Everyone's past jobs as the sidecar keeps them: "People/<name> <KinID>/jobs.json"
// under the sidecar's "Documents" folder, found by the KinID at the end of
// the folder's name. A missing or unreadable file means no past jobs.
//
// FIXME: the sidecar store will read these for the application too; the tool
// should then use it instead.
class SidecarPastJobs final : public PastJobSource {
public:
    explicit SidecarPastJobs(std::filesystem::path sidecar) : m_sidecar(std::move(sidecar)) {}

    std::map<std::string, std::vector<PastJob>> allJobs() override;

    // Whether the sidecar holds any person folder at all: without one there
    // is nothing to read, and the list need not ask.
    static bool hasPeople(const std::filesystem::path& sidecar);

private:
    std::filesystem::path m_sidecar;
};

} // namespace kinbook::cli
