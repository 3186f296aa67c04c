#include "cli/InspectCommands.h"

#include "KinbookKit/text/Fold.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

namespace kinbook::cli {
namespace {

void printJson(const nlohmann::json& document) {
    fmt::print("{}\n", document.dump(2));
}

} // namespace

void addInspectCommands(CLI::App& app) {
    auto* inspect = app.add_subcommand("inspect", "Show what Kinbook reads from a piece of data, as JSON");
    inspect->require_subcommand(1);

    auto* foldCommand = inspect->add_subcommand("fold", "The folded form used by search and sorting");
    auto text = std::make_shared<std::string>();
    foldCommand->add_option("TEXT", *text, "Any text")->required();
    foldCommand->callback([text] { printJson({{"folded", fold(*text)}}); });
}

} // namespace kinbook::cli
