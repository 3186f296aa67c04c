#include "cli/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace kinbook::cli {

Terminal Terminal::ofStandardOutput() {
    Terminal terminal;
    if (::isatty(STDOUT_FILENO) == 0) {
        return terminal;
    }
    winsize size{};
    // A terminal that cannot say how wide it is gets the customary 80.
    terminal.width = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0
                         ? static_cast<std::size_t>(size.ws_col)
                         : std::size_t{80};
    const char* noColor = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    terminal.colour =
        (noColor == nullptr || noColor[0] == '\0') && !(term != nullptr && std::string_view(term) == "dumb");
    return terminal;
}

} // namespace kinbook::cli
