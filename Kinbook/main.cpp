// vellumary-contacts: the desktop application.

#include "Kinbook/KinbookApp.h"
#include "Kinbook/KinbookApplication.h"
#include "Kinbook/LaunchOptions.h"
#include "KinbookKit/Version.h"
#include "KinbookKit/setup/KinbookSession.h"

#include <fmt/core.h>

#include <string>
#include <vector>

int main(int argc, char** argv) {
    // --version and --help answer without a display, before Qt looks for one.
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--version") {
            fmt::print("vellumary-contacts {}\n", kinbook::kVersion);
            return 0;
        }
        if (argument == "--help" || argument == "-h") {
            fmt::print("{}", kinbook::LaunchOptions::usage());
            return 0;
        }
    }

    kinbook::KinbookSession::openPlatformLog();
    kinbook::KinbookApplication application(argc, argv);

    // Qt has taken its own options (-platform, -style, …) out of argv.
    std::vector<std::string> arguments(argv + 1, argv + argc);
    auto options = kinbook::LaunchOptions::parse(arguments);
    if (!options) {
        fmt::print(stderr, "vellumary-contacts: {}\n", options.error());
        return 2;
    }

    kinbook::KinbookApp app(std::move(options).value());
    if (!app.start()) {
        return 1;
    }
    return application.exec();
}
