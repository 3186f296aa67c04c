#pragma once

#include "KinbookKit/Result.h"

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// What the application was started with, beyond Qt's own options (which the
// application object takes out of the arguments first):
//
//   --contacts DIR          the vdir address book to open, as the command-line tool takes it
//   -KinScreenshot FILE     waits for the first load, saves the main window as a PNG and quits
//   -KinWindowWidth N       opens the main window N pixels wide
//   -KinSelect ID           selects the person with that id (any of their cards' ids) at launch
//   -KinSearchBench         types into the search field and logs how long keys and results took
//   -KinScrollBench         scrolls the list at a fixed rate and logs how late the steps came
//   --version, --help
//   FILE.vcf…               vCard files to offer to import (the desktop opens them so)
//
// With -KinSearchBench or -KinScrollBench the application quits when they
// are done (after the screenshot, if one was asked for).
struct LaunchOptions {
    std::optional<std::filesystem::path> contactsRoot;
    std::optional<std::filesystem::path> screenshot;
    std::optional<int> windowWidth;
    std::optional<std::string> selectID;
    bool searchBench = false;
    bool scrollBench = false;
    bool showVersion = false;
    bool showHelp = false;
    std::vector<std::filesystem::path> importFiles;

    bool operator==(const LaunchOptions&) const = default;

    // The arguments after the program's name. Fails with a message naming
    // the argument it could not use.
    static Result<LaunchOptions, std::string> parse(std::span<const std::string> arguments);

    // The usage text printed by --help.
    static std::string usage();
};

} // namespace kinbook
