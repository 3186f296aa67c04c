#include "cli/CommandSuggestion.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>

namespace kinbook::cli {
namespace {

// Edits between two words, a swap of neighbours counting as one (the
// optimal string alignment distance), without case.
std::size_t editDistance(std::string_view left, std::string_view right) {
    const auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    std::vector<std::vector<std::size_t>> table(left.size() + 1, std::vector<std::size_t>(right.size() + 1));
    for (std::size_t i = 0; i <= left.size(); ++i) {
        table[i][0] = i;
    }
    for (std::size_t j = 0; j <= right.size(); ++j) {
        table[0][j] = j;
    }
    for (std::size_t i = 1; i <= left.size(); ++i) {
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t cost = lower(left[i - 1]) == lower(right[j - 1]) ? 0 : 1;
            table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, table[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && lower(left[i - 1]) == lower(right[j - 2]) &&
                lower(left[i - 2]) == lower(right[j - 1])) {
                table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
            }
        }
    }
    return table[left.size()][right.size()];
}

} // namespace

std::optional<std::string> nearestCommand(std::string_view typed, const std::vector<std::string>& commands) {
    std::optional<std::string> nearest;
    std::size_t best = 0;
    for (const auto& command : commands) {
        const auto distance = editDistance(typed, command);
        if (!nearest || distance < best) {
            nearest = command;
            best = distance;
        }
    }
    // Two edits in a word of five or more, one in a shorter one: beyond
    // that the guess is more likely wrong than helpful.
    const std::size_t allowed = typed.size() >= 5 ? 2 : 1;
    if (!nearest || best > allowed) {
        return std::nullopt;
    }
    return nearest;
}

std::optional<std::string> unknownCommandMessage(const CLI::App& app, int argc, char** argv) {
    std::vector<std::string> commands;
    for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        commands.push_back(command->get_name());
    }
    // The first word that is neither an option nor the value of one.
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--contacts") {
            ++i;
            continue;
        }
        if (word.starts_with("-")) {
            continue;
        }
        if (std::find(commands.begin(), commands.end(), word) != commands.end()) {
            return std::nullopt;
        }
        if (const auto meant = nearestCommand(word, commands)) {
            return fmt::format("unknown command \"{}\"; did you mean \"{}\"?", word, *meant);
        }
        return fmt::format("unknown command \"{}\"; the commands are {}", word, fmt::join(commands, ", "));
    }
    return std::nullopt;
}

} // namespace kinbook::cli
