#include "KinbookKit/people/NotDuplicates.h"

#include "KinbookKit/AtomicFile.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kinbook {
namespace {

std::vector<std::string> sortedIDs(const DuplicateGroup& group) {
    std::vector<std::string> ids;
    for (const auto& person : group.people) {
        ids.push_back(person.id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

bool containsAll(const std::vector<std::string>& sorted, const std::vector<std::string>& wanted) {
    return std::all_of(wanted.begin(), wanted.end(), [&](const std::string& item) {
        return std::binary_search(sorted.begin(), sorted.end(), item);
    });
}

} // namespace

NotDuplicates NotDuplicates::read(const std::filesystem::path& file, const KinLog& log) {
    NotDuplicates answers;
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return answers;
    }
    std::stringstream text;
    text << in.rdbuf();
    try {
        const auto document = nlohmann::json::parse(text.str());
        for (const auto& entry : document.at("answers")) {
            Answer answer{entry.at("people").get<std::vector<std::string>>(),
                          entry.at("keys").get<std::vector<std::string>>()};
            std::sort(answer.people.begin(), answer.people.end());
            std::sort(answer.keys.begin(), answer.keys.end());
            answers.m_answers.push_back(std::move(answer));
        }
    } catch (const nlohmann::json::exception& error) {
        log.error(fmt::format("{} can't be read, so no group is taken as answered: {}", file.string(),
                              error.what()));
        answers.m_answers.clear();
    }
    return answers;
}

bool NotDuplicates::isAnswered(const DuplicateGroup& group) const {
    const auto ids = sortedIDs(group);
    return std::any_of(m_answers.begin(), m_answers.end(), [&](const Answer& answer) {
        return containsAll(answer.people, ids) && containsAll(answer.keys, group.keys);
    });
}

std::vector<DuplicateGroup> NotDuplicates::unanswered(std::vector<DuplicateGroup> groups) const {
    std::erase_if(groups, [&](const DuplicateGroup& group) { return isAnswered(group); });
    return groups;
}

bool NotDuplicates::remember(const DuplicateGroup& group, const std::filesystem::path& file) {
    auto keys = group.keys;
    std::sort(keys.begin(), keys.end());
    m_answers.push_back({sortedIDs(group), std::move(keys)});
    nlohmann::json list = nlohmann::json::array();
    for (const auto& answer : m_answers) {
        list.push_back({{"people", answer.people}, {"keys", answer.keys}});
    }
    const nlohmann::json document{{"version", 1}, {"answers", list}};
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    return writeFileAtomically(file, document.dump(2) + "\n");
}

} // namespace kinbook
