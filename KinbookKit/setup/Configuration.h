#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/records/Account.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Where Kinbook finds the user's address book and keeps its own files, and
// how it treats the accounts. Shared by the application and the tool, so both
// work on the same address book with the same settings.
//
// Read from $XDG_CONFIG_HOME/kinbook/config.toml (or the file $KINBOOK_CONFIG
// names), then overridden by environment variables, then by command-line
// flags. A missing file is no error: everything has a default. With nothing
// configured Kinbook runs on its embedded default, a vdir at
// $XDG_DATA_HOME/kinbook/contacts whose one account is "On My Computer".
//
//     contacts = "~/.contacts"        # the vdir root
//     default_account = "personal"    # folder new cards go to
//     notes_locked = false            # refuse to change cards with a note
//     sidecar = "~/Nextcloud/Kinbook" # or false: no sidecar
//     download_command = "…"          # fetches a cloud placeholder; %f is the file
//
//     [accounts.work]                 # one table per account folder
//     kind = "carddav"                # local, carddav or exchange
//     read_only = true
struct Configuration {
    // Who chose the address book, weakest first.
    enum class Source { embeddedDefault, configFile, environment, commandLine };

    std::filesystem::path contacts; // the vdir root
    Source contactsSource = Source::embeddedDefault;
    std::optional<std::string> defaultAccount;
    std::map<std::string, AccountContainer::Kind> accountKinds;
    std::set<std::string> readOnlyAccounts;
    bool notesLocked = false;
    // The folder that holds what does not fit in a card; none when turned off.
    std::optional<std::filesystem::path> sidecar;
    std::optional<std::string> downloadCommand;

    std::filesystem::path configFile;  // the file read, or that would have been
    std::filesystem::path dataFolder;  // $XDG_DATA_HOME/kinbook
    std::filesystem::path stateFolder; // $XDG_STATE_HOME/kinbook: change journal, entry identities, log
    std::filesystem::path cacheFolder; // $XDG_CACHE_HOME/kinbook: the snapshot cache

    // Keys the file holds that Kinbook does not know, as "config.toml: unknown
    // key \"…\"": worth telling the user, who may have mistyped one.
    std::vector<std::string> warnings;

    // Reads a variable of the environment; none when it is not set.
    using Environment = std::function<std::optional<std::string>(std::string_view name)>;
    static Environment processEnvironment();

    // What the command line says, strongest of all.
    struct Overrides {
        std::optional<std::filesystem::path> contacts;
    };

    // The configuration in effect. Fails, with a message naming the file and
    // the line, when the file exists but cannot be read or holds a value of
    // the wrong kind.
    static Result<Configuration, std::string> load(const Environment& environment,
                                                   const Overrides& overrides = {});

    // Where an embedded default address book lives, whoever chose it.
    std::filesystem::path embeddedContacts() const { return dataFolder / "contacts"; }
    bool usesEmbeddedDefault() const { return contactsSource == Source::embeddedDefault; }

    // The snapshot cache of this address book: "kinbook-snapshot.json" in a
    // folder of the cache folder named after the book's real path, so that
    // every address book, however it was named (file, environment, command
    // line, a link), has one cache of its own, shared by both faces.
    std::filesystem::path snapshotFile() const;

    // The address book's options: root, state folder, accounts' kinds,
    // default and read-only accounts, notes locked.
    VdirAddressBook::Options addressBookOptions() const;
};

// The text of a Source, as `kinbook` shows it: "embedded default",
// "config file", "environment", "command line".
std::string_view describe(Configuration::Source source);

} // namespace kinbook
