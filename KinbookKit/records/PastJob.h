#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// A job the person held before, kept when the card's company changes so that
// search still finds them by it. Past jobs belong to the person, not to a
// card: they live in the person's sidecar folder as "jobs.json".
struct PastJob {
    std::string id; // a UUID in its standard text form
    std::string company;
    std::string title;
    std::string years; // free text, such as "1999-2004"

    bool operator==(const PastJob&) const = default;

    // A fresh entry for a company and title, with a new id.
    static PastJob make(std::string company, std::string title, std::string years = {});

    // Company and title both blank: such an entry counts as none.
    bool isEmpty() const;

    // "Engineer, Acme · 1999-2004": title and company where present, then the
    // years after a middle dot.
    std::string summary() const;

    // The text that search matches for this job.
    std::string searchText() const;

    // The "jobs.json" array, in display order. Decoding gives none for
    // anything that is not an array of past jobs.
    static std::optional<std::vector<PastJob>> decodeList(std::string_view json);
    static std::string encodeList(const std::vector<PastJob>& jobs);
};

// Every job's search text, one per line: added to the person's search text so
// that a query may match across the name and the past jobs together.
std::string pastJobsSearchText(const std::vector<PastJob>& jobs);

} // namespace kinbook
