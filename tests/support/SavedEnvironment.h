#pragma once

#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kinbook::testing {

// Keeps the named environment variables as they are and puts them back when
// it goes, so that a test may point them anywhere in between.
class SavedEnvironment {
public:
    SavedEnvironment(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            const char* value = std::getenv(name);
            m_saved.emplace_back(name, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
        }
    }
    ~SavedEnvironment() {
        for (const auto& [name, value] : m_saved) {
            if (value) {
                ::setenv(name, value->c_str(), 1);
            } else {
                ::unsetenv(name);
            }
        }
    }
    SavedEnvironment(const SavedEnvironment&) = delete;
    SavedEnvironment& operator=(const SavedEnvironment&) = delete;

private:
    std::vector<std::pair<const char*, std::optional<std::string>>> m_saved;
};

} // namespace kinbook::testing
