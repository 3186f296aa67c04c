#pragma once

// Runs the real `kinbook` binary as a user would, in a home of its own: HOME
// and every XDG folder point into a temporary folder, so no test reads or
// writes the user's configuration, address book, cache or log.

#include "tests/support/TempFolder.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kinbook::testing {

struct KinbookRun {
    int exitCode = -1; // -1: did not start, or ended by a signal
    std::string out;
    std::string err;

    // Standard output as JSON; a discarded value when it is not JSON.
    nlohmann::json json() const { return nlohmann::json::parse(out, nullptr, false); }
};

class KinbookHome {
public:
    KinbookHome();

    const std::filesystem::path& path() const { return m_folder.path(); }
    std::filesystem::path home() const { return path() / "home"; }
    std::filesystem::path config() const { return path() / "config"; }
    std::filesystem::path data() const { return path() / "data"; }
    std::filesystem::path state() const { return path() / "state"; }
    std::filesystem::path cache() const { return path() / "cache"; }

    // Further environment variables for every run (KINBOOK_CONTACTS, …).
    void setVariable(const std::string& name, const std::string& value) { m_variables[name] = value; }

    // Runs kinbook with the arguments and waits for it to end.
    KinbookRun run(const std::vector<std::string>& arguments) const { return run(arguments, std::nullopt); }
    // The same with standard output on a terminal of this many columns, as
    // when a person runs it; `out` is what the terminal was sent.
    KinbookRun runAtTerminal(const std::vector<std::string>& arguments, int columns = 80) const {
        return run(arguments, columns);
    }

private:
    KinbookRun run(const std::vector<std::string>& arguments, std::optional<int> terminalColumns) const;

    TempFolder m_folder;
    std::map<std::string, std::string> m_variables;
};

} // namespace kinbook::testing
