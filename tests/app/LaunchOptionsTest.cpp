#include "Kinbook/LaunchOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook {
namespace {

Result<LaunchOptions, std::string> parse(std::vector<std::string> arguments) {
    return LaunchOptions::parse(arguments);
}

TEST(LaunchOptions, TakesTheDiagnosticSwitchesAndTheAddressBook) {
    auto options = parse({"-KinScreenshot", "/tmp/shot.png", "-KinWindowWidth", "640", "-KinSelect",
                          "ABC-123", "--contacts", "/home/me/.contacts", "-KinScrollBench"});
    ASSERT_TRUE(options) << options.error();
    EXPECT_EQ(options->screenshot, std::filesystem::path("/tmp/shot.png"));
    EXPECT_EQ(options->windowWidth, 640);
    EXPECT_EQ(options->selectID, "ABC-123");
    EXPECT_EQ(options->contactsRoot, std::filesystem::path("/home/me/.contacts"));
    EXPECT_TRUE(options->scrollBench);
    EXPECT_FALSE(options->searchBench);
    EXPECT_FALSE(options->showHelp);
}

TEST(LaunchOptions, NothingGivenMeansTheConfiguredAddressBookAndNoDiagnostics) {
    auto options = parse({});
    ASSERT_TRUE(options);
    EXPECT_EQ(*options, LaunchOptions());
}

TEST(LaunchOptions, TakesTheAddressBookWithAnEqualsSignAndVCardFilesToImport) {
    auto options = parse({"--contacts=/srv/book", "Ann Smith.vcf", "/tmp/EXPORT.VCARD"});
    ASSERT_TRUE(options) << options.error();
    EXPECT_EQ(options->contactsRoot, std::filesystem::path("/srv/book"));
    EXPECT_EQ(options->importFiles,
              (std::vector<std::filesystem::path>{"Ann Smith.vcf", "/tmp/EXPORT.VCARD"}));
}

TEST(LaunchOptions, RefusesWhatItCannotUseAndSaysWhich) {
    const struct {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{"-KinScreenshot"}, "-KinScreenshot needs a value"},
        {{"--contacts="}, "--contacts needs a value"},
        {{"-KinWindowWidth", "wide"}, "-KinWindowWidth takes a width in pixels from 240 to 16384, not wide"},
        {{"-KinWindowWidth", "100"}, "-KinWindowWidth takes a width in pixels from 240 to 16384, not 100"},
        {{"-KinWindowWidth", "640px"},
         "-KinWindowWidth takes a width in pixels from 240 to 16384, not 640px"},
        {{"--version=2"}, "--version takes no value"},
        {{"--frobnicate"}, "unknown argument --frobnicate"},
        {{"photo.jpg"}, "unknown argument photo.jpg"},
    };
    for (const auto& example : cases) {
        auto options = parse(example.arguments);
        ASSERT_FALSE(options) << example.arguments[0];
        EXPECT_EQ(options.error(), example.message);
    }
}

} // namespace
} // namespace kinbook
