#include "KinbookKit/setup/Configuration.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <map>

namespace kinbook {
namespace {

using testing::TempFolder;
using testing::writeFile;
namespace fs = std::filesystem;

// A made-up environment, so that no test depends on the user's own.
class ConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        variables["HOME"] = (folder / "home").string();
        variables["XDG_CONFIG_HOME"] = (folder / "config").string();
        fs::create_directories(folder / "config" / "kinbook");
    }

    Configuration::Environment environment() const {
        return [this](std::string_view name) -> std::optional<std::string> {
            const auto found = variables.find(std::string(name));
            return found != variables.end() ? std::optional(found->second) : std::nullopt;
        };
    }

    void writeConfig(const std::string& text) {
        writeFile(folder / "config" / "kinbook" / "config.toml", text);
    }

    Configuration load(const Configuration::Overrides& overrides = {}) {
        auto configuration = Configuration::load(environment(), overrides);
        EXPECT_TRUE(configuration.ok()) << (configuration.ok() ? "" : configuration.error());
        return configuration.ok() ? *configuration : Configuration{};
    }

    std::string loadError() {
        auto configuration = Configuration::load(environment());
        EXPECT_FALSE(configuration.ok());
        return configuration.ok() ? std::string() : configuration.error();
    }

    TempFolder folder;
    std::map<std::string, std::string> variables;
};

TEST_F(ConfigurationTest, WithoutConfigurationKinbookRunsOnItsEmbeddedAddressBook) {
    const auto configuration = load();
    const fs::path home = folder / "home";
    EXPECT_TRUE(configuration.usesEmbeddedDefault());
    EXPECT_EQ(configuration.contacts, home / ".local/share/kinbook/contacts");
    EXPECT_EQ(configuration.sidecar, home / ".local/share/kinbook/Sidecar");
    EXPECT_EQ(configuration.stateFolder, home / ".local/state/kinbook");
    EXPECT_EQ(configuration.snapshotFile().parent_path().parent_path(), home / ".cache/kinbook");
    EXPECT_EQ(configuration.snapshotFile().filename(), "kinbook-snapshot.json");
    EXPECT_FALSE(configuration.notesLocked);
    EXPECT_TRUE(configuration.warnings.empty());

    const auto options = configuration.addressBookOptions();
    EXPECT_EQ(options.root, configuration.contacts);
    EXPECT_EQ(options.newAccountName, "On My Computer");
}

TEST_F(ConfigurationTest, XdgFoldersCountOnlyWhenAbsolute) {
    variables["XDG_DATA_HOME"] = (folder / "data").string();
    variables["XDG_CACHE_HOME"] = "relative/cache";
    variables["XDG_STATE_HOME"] = "";
    const auto configuration = load();
    EXPECT_EQ(configuration.contacts, folder / "data/kinbook/contacts");
    EXPECT_EQ(configuration.cacheFolder, folder / "home/.cache/kinbook");
    EXPECT_EQ(configuration.stateFolder, folder / "home/.local/state/kinbook");
}

TEST_F(ConfigurationTest, TheFileSetsEverySetting) {
    writeConfig(R"(
contacts = "~/.contacts"
default_account = "personal"
notes_locked = true
sidecar = "sync/Kinbook"
download_command = "nextcloudcmd --fetch %f"

[accounts.work]
kind = "carddav"
read_only = true

[accounts.personal]
kind = "local"
read_only = false
)");
    const auto configuration = load();
    EXPECT_EQ(configuration.contactsSource, Configuration::Source::configFile);
    EXPECT_EQ(configuration.contacts, folder / "home/.contacts");
    // A relative path is taken from the configuration's own folder.
    EXPECT_EQ(configuration.sidecar, folder / "config/kinbook/sync/Kinbook");
    EXPECT_EQ(configuration.downloadCommand, "nextcloudcmd --fetch %f");

    const auto options = configuration.addressBookOptions();
    EXPECT_TRUE(options.notesLocked);
    EXPECT_EQ(options.defaultAccountID, "personal");
    EXPECT_EQ(options.accountKinds.at("work"), AccountContainer::Kind::cardDAV);
    EXPECT_EQ(options.accountKinds.at("personal"), AccountContainer::Kind::local);
    EXPECT_EQ(options.readOnlyAccounts, std::set<std::string>{"work"});
}

TEST_F(ConfigurationTest, EnvironmentOverridesTheFileAndTheCommandLineOverridesBoth) {
    writeConfig("contacts = \"/srv/from-file\"\nsidecar = \"/srv/sidecar\"\n");
    variables["KINBOOK_CONTACTS"] = "/srv/from-environment";
    variables["KINBOOK_SIDECAR"] = "off";
    auto configuration = load();
    EXPECT_EQ(configuration.contacts, "/srv/from-environment");
    EXPECT_EQ(configuration.contactsSource, Configuration::Source::environment);
    EXPECT_FALSE(configuration.sidecar);

    configuration = load({.contacts = "/srv/from-flag/"});
    EXPECT_EQ(configuration.contacts, "/srv/from-flag");
    EXPECT_EQ(configuration.contactsSource, Configuration::Source::commandLine);
}

// Two address books never share a cache, or the window would first show the
// other book's people; one book has one cache however it is named.
TEST_F(ConfigurationTest, EachAddressBookHasOneCacheKeyedByItsRealPath) {
    fs::create_directories(folder / "books" / "family");
    fs::create_directories(folder / "books" / "work");
    fs::create_directory_symlink(folder / "books" / "family", folder / "family-link");

    writeConfig("contacts = \"" + (folder / "books" / "family").string() + "\"\n");
    const auto fromFile = load().snapshotFile();
    variables["KINBOOK_CONTACTS"] = (folder / "books" / "work").string();
    const auto fromEnvironment = load().snapshotFile();
    EXPECT_NE(fromEnvironment, fromFile);
    EXPECT_NE(load({.contacts = folder / "books" / "work" / ".."}).snapshotFile(), fromEnvironment);

    EXPECT_EQ(load({.contacts = folder / "family-link"}).snapshotFile(), fromFile);
    EXPECT_EQ(load({.contacts = (folder / "books" / "family").string() + "/"}).snapshotFile(), fromFile);
    EXPECT_EQ(load({.contacts = folder / "books" / "work" / ".." / "family"}).snapshotFile(), fromFile);
    EXPECT_EQ(fromFile.filename(), "kinbook-snapshot.json");
}

TEST_F(ConfigurationTest, KinbookConfigNamesAnotherFileWhereFalseTurnsTheSidecarOff) {
    writeFile(folder / "elsewhere.toml", "notes_locked = true\nsidecar = false\n");
    variables["KINBOOK_CONFIG"] = (folder / "elsewhere.toml").string();
    const auto configuration = load();
    EXPECT_TRUE(configuration.notesLocked);
    EXPECT_FALSE(configuration.sidecar);
    EXPECT_EQ(configuration.configFile, folder / "elsewhere.toml");
}

TEST_F(ConfigurationTest, MistakesNameTheFileAndTheLineAndAnUnreadableFileIsAnError) {
    const std::string file = (folder / "config/kinbook/config.toml").string();
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"contacts = ", ":1:"},
        // The place is the value's.
        {"\nnotes_locked = \"yes\"\n", ":2:16: \"notes_locked\" must be true or false"},
        {"contacts = 3\n", ":1:12: \"contacts\" must be a text"},
        // No number stands in for a flag.
        {"notes_locked = 1\n", ":1:16: \"notes_locked\" must be true or false"},
        {"sidecar = true\n", "\"sidecar\" must be a folder, or false to turn it off"},
        {"[accounts.work]\nkind = \"imap\"\n",
         ":2:8: unknown account kind \"imap\" (local, carddav or exchange)"},
        {"accounts = 1\n", "\"accounts\" must be a table"},
    };
    for (const auto& c : cases) {
        writeConfig(c.text);
        const std::string error = loadError();
        EXPECT_EQ(error.rfind(file, 0), 0u) << error;
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
    fs::remove(folder / "config/kinbook/config.toml");
    fs::create_directories(folder / "config/kinbook/config.toml");
    EXPECT_NE(loadError().find("can't read the configuration"), std::string::npos);
}

TEST_F(ConfigurationTest, UnknownKeysAreWarnedAboutAndOtherwiseIgnored) {
    writeConfig("contact = \"/typo\"\nnotes_locked = true\n[accounts.work]\nreadonly = true\n");
    const auto configuration = load();
    EXPECT_TRUE(configuration.notesLocked);
    EXPECT_TRUE(configuration.usesEmbeddedDefault());
    ASSERT_EQ(configuration.warnings.size(), 2u);
    const std::string warnings = configuration.warnings[0] + "\n" + configuration.warnings[1];
    EXPECT_NE(warnings.find(":1:11: unknown key \"contact\""), std::string::npos) << warnings;
    EXPECT_NE(warnings.find(":4:12: unknown key \"accounts.work.readonly\""), std::string::npos) << warnings;
    EXPECT_TRUE(configuration.readOnlyAccounts.empty());
}

} // namespace
} // namespace kinbook
