#pragma once

#include "KinbookKit/records/PastJob.h"

#include <map>
#include <string>
#include <vector>

namespace kinbook {

// Where the list finds everyone's past jobs, so that search finds people by a
// former company or title. The sidecar store reads them from each person's
// "jobs.json"; tests and the tool may give them directly.
//
// Called off the main thread, one call at a time.
class PastJobSource {
public:
    virtual ~PastJobSource() = default;

    // Every person's past jobs, by the person's KinID (the key of their
    // sidecar folder). People without past jobs may be left out.
    virtual std::map<std::string, std::vector<PastJob>> allJobs() = 0;
};

} // namespace kinbook
