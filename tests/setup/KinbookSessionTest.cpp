// The one wiring both faces start through, opened as the window opens it:
// configuration from the user's files, the address book opened off the main
// executor, then a list that loads and a store whose noted cards change
// through its scripting host.

#include "KinbookKit/setup/KinbookSession.h"

#include "KinbookKit/people/PeopleList.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/SavedEnvironment.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

const std::string kNora = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Noted;Nora;;;\r\nFN:Nora Noted\r\n"
                          "NOTE:Met at the fair.\r\nUID:NORA-1\r\nEND:VCARD\r\n";
const std::string kPat = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Plain;Pat;;;\r\nFN:Pat Plain\r\n"
                         "UID:PLAT-1\r\nEND:VCARD\r\n";

// Points $HOME at a fresh folder, with no XDG or Kinbook variables to lead
// elsewhere, so that every file the session reads or writes is the test's.
class FreshHome {
public:
    FreshHome() {
        for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME",
                                 "KINBOOK_CONFIG", "KINBOOK_CONTACTS", "KINBOOK_SIDECAR"}) {
            ::unsetenv(name);
        }
        ::setenv("HOME", m_folder.path().c_str(), 1);
    }
    fs::path operator/(const fs::path& name) const { return m_folder / name; }

private:
    testing::TempFolder m_folder;
    testing::SavedEnvironment m_saved{
        "HOME",          "XDG_CONFIG_HOME", "XDG_CACHE_HOME",   "XDG_STATE_HOME",
        "XDG_DATA_HOME", "KINBOOK_CONFIG",  "KINBOOK_CONTACTS", "KINBOOK_SIDECAR"};
};

TEST(KinbookSession, OpensTheConfiguredBookInTheBackgroundAndHandsBackAListThatLoads) {
    FreshHome home;
    fs::create_directories(home / "contacts" / "family");
    writeFile(home / "contacts" / "family" / "NORA-1.vcf", kNora);
    writeFile(home / "contacts" / "family" / "PLAT-1.vcf", kPat);
    fs::create_directories(home / ".config" / "kinbook");
    writeFile(home / ".config" / "kinbook" / "config.toml",
              "contacts = \"~/contacts\"\nnotes_locked = true\nsidecar = \"~/Sidecar\"\nmistyped = 1\n");

    testing::ManualExecutor main;
    testing::ManualExecutor background;
    std::vector<std::string> warnings;
    bool opened = false;
    KinbookSession::Options options;
    options.warning = [&](const std::string& warning) { warnings.push_back(warning); };
    options.openedInBackground = [&] { opened = true; };
    auto session = KinbookSession::open(main, background, std::move(options));
    ASSERT_TRUE(session.ok()) << session.error();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_TRUE(warnings[0].ends_with("unknown key \"mistyped\"")) << warnings[0];

    // Nothing is opened on the caller's thread: the book waits for the
    // background executor, the list for the main one.
    KinbookSession& opening = **session;
    EXPECT_EQ(opening.addressBook(), nullptr);
    EXPECT_EQ(opening.list(), nullptr);
    main.runUntilIdle();
    EXPECT_FALSE(opened);
    background.runUntilIdle();
    EXPECT_FALSE(opened);
    main.runUntilIdle();
    ASSERT_TRUE(opened);
    ASSERT_NE(opening.list(), nullptr);
    EXPECT_EQ(opening.addressBook()->root(), home / "contacts");
    // The sidecar is opened with the book, off the main thread, and its
    // store made with the list.
    EXPECT_EQ(opening.sidecar(), Sidecar::Status::ready(home / "Sidecar" / "Documents"));
    ASSERT_NE(opening.photos(), nullptr);

    bool loaded = false;
    opening.list()->load([&] { loaded = true; });
    for (int round = 0; round < 100 && !loaded; ++round) {
        background.runUntilIdle();
        main.runUntilIdle();
    }
    ASSERT_TRUE(loaded);
    std::vector<std::string> names;
    for (const auto& person : opening.list()->people()) {
        names.emplace_back(person->displayName());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Nora Noted", "Pat Plain"}));
    while (background.runUntilIdle() + main.runUntilIdle() > 0) {
    }
    EXPECT_TRUE(fs::exists(opening.configuration().snapshotFile()));

    // The configuration locks notes, so the store refuses a noted card and
    // the change goes through the scripting host the wiring gave it, which
    // writes to this very book.
    VdirAddressBook& book = *opening.addressBook();
    auto draft = book.draft("NORA-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "Nor";
    const auto outcome = book.save(*draft);
    ASSERT_TRUE(outcome.ok());
    EXPECT_EQ(outcome->kind, SaveOutcome::Kind::viaContactsApp);
    ASSERT_TRUE(book.writeThroughContactsApp(*outcome).ok());
    const std::string written = readFile(home / "contacts" / "family" / "NORA-1.vcf");
    EXPECT_NE(written.find("NICKNAME:Nor\r\n"), std::string::npos) << written;
    EXPECT_NE(written.find("NOTE:Met at the fair.\r\n"), std::string::npos) << written;
}

} // namespace
} // namespace kinbook
