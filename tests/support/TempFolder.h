#pragma once

#include "tests/support/Files.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace kinbook::testing {

// A fresh folder under the system's temporary folder, removed with all its
// contents when the test ends.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kinbook-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) != nullptr) {
            m_path = pattern;
        }
    }
    ~TempFolder() {
        std::error_code ignored;
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path, ignored);
        }
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    // Empty when the folder could not be made.
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

} // namespace kinbook::testing
