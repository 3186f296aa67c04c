#pragma once

#include "tests/support/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kinbook::testing {

// Points the XDG folders at a fresh temporary home for one test, and back.
class FreshHome {
public:
    FreshHome() {
        for (const char* name : kNames) {
            const char* value = std::getenv(name);
            m_saved.emplace_back(name, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
            const auto path = m_folder / name;
            std::filesystem::create_directories(path);
            ::setenv(name, path.c_str(), 1);
        }
        ::unsetenv("KINBOOK_CONFIG");
        ::unsetenv("KINBOOK_CONTACTS");
        ::unsetenv("KINBOOK_SIDECAR");
    }
    ~FreshHome() {
        for (const auto& [name, value] : m_saved) {
            if (value) {
                ::setenv(name, value->c_str(), 1);
            } else {
                ::unsetenv(name);
            }
        }
    }
    const std::filesystem::path& path() const { return m_folder.path(); }

private:
    static constexpr const char* kNames[] = {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME",
                                             "XDG_DATA_HOME"};
    TempFolder m_folder;
    std::vector<std::pair<const char*, std::optional<std::string>>> m_saved;
};

} // namespace kinbook::testing
