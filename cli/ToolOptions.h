#pragma once

#include <optional>
#include <string>

namespace kinbook::cli {

// The options every people command takes, before or after its name.
struct ToolOptions {
    std::optional<std::string> contacts; // --contacts DIR: this vdir instead of the configured one
    bool json = false;                   // --json: print listings as JSON
    bool noCache = false;                // --no-cache: neither read nor write the snapshot cache
};

} // namespace kinbook::cli
