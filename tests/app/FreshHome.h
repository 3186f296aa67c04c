#pragma once

#include "tests/support/SavedEnvironment.h"
#include "tests/support/TempFolder.h"

#include <cstdlib>
#include <filesystem>

namespace kinbook::testing {

// Points the XDG folders at a fresh temporary home for one test, and back.
class FreshHome {
public:
    FreshHome() {
        for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
            const auto path = m_folder / name;
            std::filesystem::create_directories(path);
            ::setenv(name, path.c_str(), 1);
        }
        ::unsetenv("KINBOOK_CONFIG");
        ::unsetenv("KINBOOK_CONTACTS");
        ::unsetenv("KINBOOK_SIDECAR");
    }
    const std::filesystem::path& path() const { return m_folder.path(); }

private:
    TempFolder m_folder;
    SavedEnvironment m_saved{"XDG_CONFIG_HOME", "XDG_CACHE_HOME",   "XDG_STATE_HOME", "XDG_DATA_HOME",
                             "KINBOOK_CONFIG",  "KINBOOK_CONTACTS", "KINBOOK_SIDECAR"};
};

} // namespace kinbook::testing
