#include "KinbookKit/records/PastJob.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/text/Ascii.h"

#include <nlohmann/json.hpp>

namespace kinbook {
PastJob PastJob::make(std::string company, std::string title, std::string years) {
    return PastJob{makeUUID(), std::move(company), std::move(title), std::move(years)};
}

bool PastJob::isEmpty() const {
    return isBlank(company) && isBlank(title);
}

std::string PastJob::summary() const {
    std::string text;
    if (!title.empty()) {
        text = title;
    }
    if (!company.empty()) {
        if (!text.empty()) {
            text += ", ";
        }
        text += company;
    }
    if (!years.empty()) {
        text += " \u00B7 ";
        text += years;
    }
    return text;
}

std::string PastJob::searchText() const {
    return summary();
}

std::optional<std::vector<PastJob>> PastJob::decodeList(std::string_view json) {
    const auto document = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!document.is_array()) {
        return std::nullopt;
    }
    std::vector<PastJob> jobs;
    try {
        for (const auto& entry : document) {
            jobs.push_back(PastJob{entry.at("id").get<std::string>(), entry.at("company").get<std::string>(),
                                   entry.at("title").get<std::string>(),
                                   entry.at("years").get<std::string>()});
        }
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
    return jobs;
}

std::string PastJob::encodeList(const std::vector<PastJob>& jobs) {
    auto document = nlohmann::json::array();
    for (const auto& job : jobs) {
        document.push_back(
            {{"id", job.id}, {"company", job.company}, {"title", job.title}, {"years", job.years}});
    }
    return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string pastJobsSearchText(const std::vector<PastJob>& jobs) {
    std::string text;
    for (const auto& job : jobs) {
        if (job.isEmpty()) {
            continue;
        }
        if (!text.empty()) {
            text.push_back('\n');
        }
        text += job.searchText();
    }
    return text;
}

} // namespace kinbook
