#pragma once

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `kinbook inspect …`: shows, as one JSON document, what Kinbook reads from a
// piece of data, so a user can see why a card is read the way it is.
void addInspectCommands(CLI::App& app);

} // namespace kinbook::cli
