#include "Kinbook/LaunchOptions.h"

#include "KinbookKit/Version.h"
#include "KinbookKit/text/Ascii.h"

#include <fmt/format.h>

#include <charconv>

namespace kinbook {
namespace {

// Narrow windows are the point of -KinWindowWidth (the headings column steps
// aside), but below this nothing useful fits.
constexpr int kMinimumWidth = 240;
constexpr int kMaximumWidth = 16384;

std::optional<int> parseWidth(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// A file the desktop hands over to be imported: named as a vCard file is.
bool isVCardFile(std::string_view argument) {
    const auto extension = asciiLowered(std::filesystem::path(argument).extension().string());
    return !argument.starts_with('-') && (extension == ".vcf" || extension == ".vcard");
}

} // namespace

Result<LaunchOptions, std::string> LaunchOptions::parse(std::span<const std::string> arguments) {
    LaunchOptions options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string_view argument = arguments[i];
        // "--contacts=DIR" as well as "--contacts DIR", as the tool takes it.
        std::optional<std::string_view> attached;
        if (argument.starts_with("--") && argument.find('=') != std::string_view::npos) {
            attached = argument.substr(argument.find('=') + 1);
            argument = argument.substr(0, argument.find('='));
        }
        auto takeValue = [&]() -> std::optional<std::string> {
            if (attached) {
                return std::string(*attached);
            }
            if (i + 1 < arguments.size()) {
                return arguments[++i];
            }
            return std::nullopt;
        };

        const bool isFlag = argument == "--version" || argument == "--help" || argument == "-h";
        if (isFlag && attached) {
            return failure(fmt::format("{} takes no value", argument));
        }
        if (argument == "-KinSearchBench") {
            options.searchBench = true;
        } else if (argument == "-KinScrollBench") {
            options.scrollBench = true;
        } else if (argument == "--version") {
            options.showVersion = true;
        } else if (argument == "--help" || argument == "-h") {
            options.showHelp = true;
        } else if (argument == "--contacts" || argument == "-KinScreenshot" || argument == "-KinSelect" ||
                   argument == "-KinWindowWidth") {
            const auto value = takeValue();
            if (!value || value->empty()) {
                return failure(fmt::format("{} needs a value", argument));
            }
            if (argument == "--contacts") {
                options.contactsRoot = *value;
            } else if (argument == "-KinScreenshot") {
                options.screenshot = *value;
            } else if (argument == "-KinSelect") {
                options.selectID = *value;
            } else {
                const auto width = parseWidth(*value);
                if (!width || *width < kMinimumWidth || *width > kMaximumWidth) {
                    return failure(
                        fmt::format("-KinWindowWidth takes a width in pixels from {} to {}, not {}",
                                    kMinimumWidth, kMaximumWidth, *value));
                }
                options.windowWidth = *width;
            }
        } else if (isVCardFile(argument)) {
            options.importFiles.emplace_back(std::string(argument));
        } else {
            return failure(fmt::format("unknown argument {}", argument));
        }
    }
    return options;
}

std::string LaunchOptions::usage() {
    return fmt::format("{}: your address book, with circles, former entries and more\n"
                       "\n"
                       "Usage: vellumary-contacts [--contacts DIR] [diagnostic switches] [FILE.vcf…]\n"
                       "\n"
                       "  --contacts DIR        the vdir address book to open (one folder per account)\n"
                       "  --version             print the version and exit\n"
                       "  --help                print this text and exit\n"
                       "  FILE.vcf…             offer to import the cards of these vCard files\n"
                       "\n"
                       "Diagnostics:\n"
                       "  -KinScreenshot FILE   wait for the first load, save the window as PNG and quit\n"
                       "  -KinWindowWidth N     open the window N pixels wide\n"
                       "  -KinSelect ID         select the person with that card id at launch\n"
                       "  -KinSearchBench       type into the search field, log the times and quit\n"
                       "  -KinScrollBench       scroll the list at a fixed rate, log the lateness and quit\n",
                       kProductName);
}

} // namespace kinbook
