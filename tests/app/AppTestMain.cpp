// The application tests run the real widgets on Qt's offscreen platform, in a
// private set of XDG folders so that no test reads or writes the user's
// configuration, cache, state or address book.

#include "Kinbook/KinbookApplication.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);

    std::string pattern = (std::filesystem::temp_directory_path() / "kinbook-app-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        return 1;
    }
    const std::filesystem::path home = pattern;
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        const auto folder = home / name;
        std::filesystem::create_directories(folder);
        ::setenv(name, folder.c_str(), 1);
    }

    int result = 0;
    {
        kinbook::KinbookApplication application(argc, argv);
        result = RUN_ALL_TESTS();
    }
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    return result;
}
