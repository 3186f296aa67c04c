#pragma once

#include "KinbookKit/people/Duplicates.h"
#include "KinbookKit/text/KinLog.h"

#include <filesystem>
#include <string>
#include <vector>

namespace kinbook {

// The groups the user said are not the same human ("Not Duplicates"), kept
// in one small JSON document in the sidecar folder so that every machine of
// theirs agrees. An answer names the people and the keys they shared then; a
// group is shown again as soon as its people share a key the answer did not
// see (a new phone number in common, say), or someone new joins it.
class NotDuplicates {
public:
    // The document's name in the sidecar's "Documents" folder.
    static constexpr std::string_view fileName = "NotDuplicates.json";

    struct Answer {
        std::vector<std::string> people; // person ids, sorted
        std::vector<std::string> keys;   // sorted
        bool operator==(const Answer&) const = default;
    };

    // Reads the document; none there, or one that can't be read (logged),
    // gives no answers.
    static NotDuplicates read(const std::filesystem::path& file, const KinLog& log);

    const std::vector<Answer>& answers() const { return m_answers; }
    // Whether the user already said these people are not one.
    bool isAnswered(const DuplicateGroup& group) const;
    // The groups the user has not answered, in their order.
    std::vector<DuplicateGroup> unanswered(std::vector<DuplicateGroup> groups) const;

    // Remembers the group and writes the document atomically; false when it
    // couldn't be written.
    bool remember(const DuplicateGroup& group, const std::filesystem::path& file);

private:
    std::vector<Answer> m_answers;
};

} // namespace kinbook
