// Card text never drives the terminal that shows it: a card from a stranger
// whose values hold escape sequences, C1 controls and bidi overrides is
// printed by the real `kinbook` binary with all of them gone, to a terminal
// and to a pipe, while the JSON output keeps them under JSON's escapes.

#include "tests/cli/KinbookRun.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace kinbook::testing {
namespace {

namespace fs = std::filesystem;

// A hyperlink (OSC 8, ended by BEL), a screen clear (CSI), a title change
// ended by ST, an 8-bit CSI as a C1 code point, a right-to-left override, a
// backspace and a bare ESC at the end.
const std::string kHostileName =
    "Mal\x1b]8;;https://evil.example\x07lory\x1b[2J \x1b]0;owned\x1b\\Vic\xc2\x9b"
    "31mtim\xe2\x80\xae"
    "kcab\x08\x1b";

// The text as a vCard 3.0 text value.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\' || c == ';' || c == ',') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

bool drivesTheTerminal(const std::string& out) {
    return out.find('\x1b') != std::string::npos || out.find("\xc2\x9b") != std::string::npos ||
           out.find("\xe2\x80\xae") != std::string::npos || out.find('\x07') != std::string::npos ||
           out.find('\x08') != std::string::npos;
}

TEST(TerminalTextTest, ControlsInACardsTextNeverReachTheTerminalOrAPipe) {
    KinbookHome home;
    home.setVariable("NO_COLOR", "1");
    const fs::path root = home.path() / "vdir";
    fs::create_directories(root / "personal");
    writeFile(root / "personal" / "mallory.vcf",
              "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + escaped(kHostileName) +
                  ";;;;\r\nFN:" + escaped(kHostileName) +
                  "\r\nEMAIL:m\x1b[8m@example.com\r\nNOTE:line one\\nline\x1b]52\\;c\\;Y2xpcA==\x07 two\r\n"
                  "URL:kinbook://c/MAL10000\r\nUID:mallory\x1b[1m-1\r\nEND:VCARD\r\n");

    for (const bool terminal : {false, true}) {
        const std::vector<std::string> list{"--contacts", root.string(), "list"};
        const auto listed = terminal ? home.runAtTerminal(list, 200) : home.run(list);
        ASSERT_EQ(listed.exitCode, 0) << listed.err;
        EXPECT_FALSE(drivesTheTerminal(listed.out)) << listed.out;
        // What the terminal would have shown is still there.
        EXPECT_NE(listed.out.find("Mallory Victim"), std::string::npos) << listed.out;
        EXPECT_NE(listed.out.find("m@example.com"), std::string::npos) << listed.out;

        const std::vector<std::string> show{"--contacts", root.string(), "show", "MAL10000"};
        const auto shown = terminal ? home.runAtTerminal(show, 200) : home.run(show);
        ASSERT_EQ(shown.exitCode, 0) << shown.err;
        EXPECT_FALSE(drivesTheTerminal(shown.out)) << shown.out;
        EXPECT_NE(shown.out.find("line one"), std::string::npos) << shown.out;
        EXPECT_EQ(shown.out.find("Y2xpcA"), std::string::npos) << "a clipboard write's payload goes too";
    }

    // JSON keeps every character, escaped as JSON escapes controls.
    const auto json = home.run({"--contacts", root.string(), "show", "MAL10000", "--json"});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    EXPECT_EQ(json.out.find('\x1b'), std::string::npos);
    const auto document = json.json();
    ASSERT_FALSE(document.is_discarded());
    EXPECT_NE(document.at("person").at("displayName").get<std::string>().find(kHostileName),
              std::string::npos);
}

} // namespace
} // namespace kinbook::testing
