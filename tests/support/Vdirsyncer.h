#pragma once

#include "tests/support/CardDavServer.h"
#include "tests/support/ChildProcess.h"

#include <chrono>
#include <filesystem>
#include <string>

namespace kinbook::testing {

// vdirsyncer, configured to sync one collection of a local vdir with the
// same collection on a CardDavServer, run as the user would run it.
//
// The configuration and vdirsyncer's status live in `folder`; the local
// side is the vdir at `localRoot`, whose collection is the subfolder
// `collection`. Conflicts are left unresolved, so that a conflict shows up
// as a failed sync instead of one side silently winning.
//
// Every run is bounded (killed after `timeout`); its outcome carries the
// exit status and the whole output for the test log. `isInstalled` tells
// whether the program is there at all (scripts/setup.sh installs it).
class Vdirsyncer {
public:
    Vdirsyncer(std::filesystem::path folder, std::filesystem::path localRoot, const CardDavServer& server,
               std::string collection = "contacts");

    static bool isInstalled();

    // Finds the collection on both sides, creating it where it is missing
    // (every question vdirsyncer asks is answered yes).
    ProcessOutcome discover() const;
    // One sync run in both directions.
    ProcessOutcome sync() const;

    // The local collection folder: localRoot/collection.
    std::filesystem::path collectionFolder() const { return m_localRoot / m_collection; }
    const std::filesystem::path& configFile() const { return m_configFile; }

    static constexpr std::chrono::milliseconds timeout = std::chrono::seconds(60);

private:
    ProcessOutcome run(const std::string& command) const;

    std::filesystem::path m_folder;
    std::filesystem::path m_localRoot;
    std::string m_collection;
    std::filesystem::path m_configFile;
};

} // namespace kinbook::testing
