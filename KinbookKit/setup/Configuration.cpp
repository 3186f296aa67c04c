#include "KinbookKit/setup/Configuration.h"

#include "KinbookKit/platform/UringCardBatchReader.h"
#include "KinbookKit/text/Fold.h"

#include <fmt/core.h>
#include <pwd.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kinbook {

namespace fs = std::filesystem;

namespace {

// The user's home folder: $HOME, else the user database, as the XDG rules
// fall back to it.
fs::path homeFolder(const Configuration::Environment& environment) {
    if (auto home = environment("HOME"); home && !home->empty()) {
        return *home;
    }
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

// An XDG base folder: the variable when it holds an absolute path (a relative
// one is invalid and ignored), else its default under the home folder.
fs::path xdgFolder(const Configuration::Environment& environment, std::string_view variable,
                   const fs::path& fallbackUnderHome) {
    if (auto value = environment(variable); value && !value->empty() && value->front() == '/') {
        return *value;
    }
    return homeFolder(environment) / fallbackUnderHome;
}

// "~" and "~/…" are the home folder; a relative path is taken from `base`.
fs::path expandPath(std::string_view text, const Configuration::Environment& environment,
                    const fs::path& base) {
    if (text == "~") {
        return homeFolder(environment);
    }
    if (text.starts_with("~/")) {
        return homeFolder(environment) / fs::path(text.substr(2));
    }
    fs::path path(text);
    path = path.is_absolute() ? path.lexically_normal() : (base / path).lexically_normal();
    // "/srv/contacts/" and "/srv/contacts" are one folder, with one cache.
    if (!path.has_filename() && path.has_relative_path()) {
        path = path.parent_path();
    }
    return path;
}

fs::path currentFolder() {
    std::error_code error;
    fs::path current = fs::current_path(error);
    return error ? fs::path("/") : current;
}

std::optional<AccountContainer::Kind> kindNamed(std::string_view name) {
    if (name == "local") {
        return AccountContainer::Kind::local;
    }
    if (name == "carddav") {
        return AccountContainer::Kind::cardDAV;
    }
    if (name == "exchange") {
        return AccountContainer::Kind::exchange;
    }
    return std::nullopt;
}

std::string where(const fs::path& file, const toml::node& node) {
    const auto& source = node.source();
    return fmt::format("{}:{}:{}", file.string(), source.begin.line, source.begin.column);
}

// Reads the file's settings into `configuration`. A missing file leaves the
// defaults; anything unreadable or mistyped is an error naming its place.
Result<void, std::string> readFile(Configuration& configuration,
                                   const Configuration::Environment& environment) {
    const fs::path& file = configuration.configFile;
    std::error_code error;
    if (!fs::exists(file, error)) {
        return {};
    }
    std::ifstream in(file, std::ios::binary);
    if (!in || fs::is_directory(file, error)) {
        return failure(fmt::format("can't read the configuration {}", file.string()));
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    const std::string text = bytes.str();

    toml::table table;
    try {
        table = toml::parse(text, file.string());
    } catch (const toml::parse_error& parseError) {
        const auto& source = parseError.source();
        return failure(fmt::format("{}:{}:{}: {}", file.string(), source.begin.line, source.begin.column,
                                   parseError.description()));
    }

    const fs::path base = file.parent_path();
    auto textOf = [&](std::string_view key, const toml::node& node) -> Result<std::string, std::string> {
        if (auto value = node.value_exact<std::string>()) {
            return *value;
        }
        return failure(fmt::format("{}: \"{}\" must be a text", where(file, node), key));
    };
    auto flagOf = [&](std::string_view key, const toml::node& node) -> Result<bool, std::string> {
        if (auto value = node.value_exact<bool>()) {
            return *value;
        }
        return failure(fmt::format("{}: \"{}\" must be true or false", where(file, node), key));
    };

    for (const auto& [key, node] : table) {
        const std::string_view name = key.str();
        if (name == "contacts") {
            auto value = textOf(name, node);
            if (!value) {
                return failure(value.error());
            }
            configuration.contacts = expandPath(*value, environment, base);
            configuration.contactsSource = Configuration::Source::configFile;
        } else if (name == "default_account") {
            auto value = textOf(name, node);
            if (!value) {
                return failure(value.error());
            }
            configuration.defaultAccount = *value;
        } else if (name == "notes_locked") {
            auto value = flagOf(name, node);
            if (!value) {
                return failure(value.error());
            }
            configuration.notesLocked = *value;
        } else if (name == "sidecar") {
            if (auto off = node.value_exact<bool>()) {
                if (*off) {
                    return failure(fmt::format("{}: \"sidecar\" must be a folder, or false to turn it off",
                                               where(file, node)));
                }
                configuration.sidecar.reset();
                continue;
            }
            auto value = textOf(name, node);
            if (!value) {
                return failure(value.error());
            }
            configuration.sidecar = expandPath(*value, environment, base);
        } else if (name == "download_command") {
            auto value = textOf(name, node);
            if (!value) {
                return failure(value.error());
            }
            configuration.downloadCommand = *value;
        } else if (name == "accounts") {
            const toml::table* accounts = node.as_table();
            if (accounts == nullptr) {
                return failure(
                    fmt::format("{}: \"accounts\" must be a table of account folders", where(file, node)));
            }
            for (const auto& [folder, settingsNode] : *accounts) {
                const toml::table* settings = settingsNode.as_table();
                if (settings == nullptr) {
                    return failure(fmt::format("{}: account \"{}\" must be a table",
                                               where(file, settingsNode), folder.str()));
                }
                for (const auto& [setting, value] : *settings) {
                    if (setting.str() == "kind") {
                        auto kindText = textOf("kind", value);
                        if (!kindText) {
                            return failure(kindText.error());
                        }
                        auto kind = kindNamed(*kindText);
                        if (!kind) {
                            return failure(
                                fmt::format("{}: unknown account kind \"{}\" (local, carddav or exchange)",
                                            where(file, value), *kindText));
                        }
                        configuration.accountKinds[std::string(folder.str())] = *kind;
                    } else if (setting.str() == "read_only") {
                        auto readOnly = flagOf("read_only", value);
                        if (!readOnly) {
                            return failure(readOnly.error());
                        }
                        if (*readOnly) {
                            configuration.readOnlyAccounts.insert(std::string(folder.str()));
                        }
                    } else {
                        configuration.warnings.push_back(fmt::format("{}: unknown key \"accounts.{}.{}\"",
                                                                     where(file, value), folder.str(),
                                                                     setting.str()));
                    }
                }
            }
        } else {
            configuration.warnings.push_back(fmt::format("{}: unknown key \"{}\"", where(file, node), name));
        }
    }
    return {};
}

// FNV-1a: stable across runs and builds, unlike std::hash.
std::uint64_t stableHash(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : text) {
        hash = (hash ^ byte) * 0x100000001b3ULL;
    }
    return hash;
}

} // namespace

Configuration::Environment Configuration::processEnvironment() {
    return [](std::string_view name) -> std::optional<std::string> {
        const char* value = std::getenv(std::string(name).c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

Result<Configuration, std::string> Configuration::load(const Environment& environment,
                                                       const Overrides& overrides) {
    Configuration configuration;
    configuration.dataFolder = xdgFolder(environment, "XDG_DATA_HOME", ".local/share") / "kinbook";
    configuration.stateFolder = xdgFolder(environment, "XDG_STATE_HOME", ".local/state") / "kinbook";
    configuration.cacheFolder = xdgFolder(environment, "XDG_CACHE_HOME", ".cache") / "kinbook";
    configuration.contacts = configuration.embeddedContacts();
    configuration.sidecar = configuration.dataFolder / "Sidecar";

    const fs::path here = currentFolder();
    if (auto file = environment("KINBOOK_CONFIG"); file && !file->empty()) {
        configuration.configFile = expandPath(*file, environment, here);
    } else {
        configuration.configFile =
            xdgFolder(environment, "XDG_CONFIG_HOME", ".config") / "kinbook" / "config.toml";
    }
    if (auto read = readFile(configuration, environment); !read) {
        return failure(read.error());
    }

    if (auto contacts = environment("KINBOOK_CONTACTS"); contacts && !contacts->empty()) {
        configuration.contacts = expandPath(*contacts, environment, here);
        configuration.contactsSource = Source::environment;
    }
    if (auto sidecar = environment("KINBOOK_SIDECAR")) {
        if (sidecar->empty() || *sidecar == "off") {
            configuration.sidecar.reset();
        } else {
            configuration.sidecar = expandPath(*sidecar, environment, here);
        }
    }
    if (overrides.contacts) {
        configuration.contacts = expandPath(overrides.contacts->string(), environment, here);
        configuration.contactsSource = Source::commandLine;
    }
    return configuration;
}

fs::path Configuration::snapshotFile() const {
    // The folder as it really is: "~/.contacts", a symbolic link to it and
    // "/home/ann/.contacts/" are one address book with one cache, and two
    // books never share one, whichever way each was named.
    std::error_code error;
    fs::path real = fs::weakly_canonical(contacts, error);
    if (error) {
        real = contacts.lexically_normal();
    }
    // The cache keeps folded keys: a cache of another folding is never read.
    const auto key = fmt::format("{}\n{}", real.native(), kFoldRevision);
    return cacheFolder / fmt::format("{:016x}", stableHash(key)) / "kinbook-snapshot.json";
}

VdirAddressBook::Options Configuration::addressBookOptions() const {
    VdirAddressBook::Options options;
    options.root = contacts;
    options.stateFolder = stateFolder;
    options.notesLocked = notesLocked;
    options.defaultAccountID = defaultAccount;
    options.accountKinds = accountKinds;
    options.readOnlyAccounts = readOnlyAccounts;
    options.cardReaders = UringCardBatchReader::factory();
    return options;
}

std::string_view describe(Configuration::Source source) {
    switch (source) {
    case Configuration::Source::embeddedDefault:
        return "embedded default";
    case Configuration::Source::configFile:
        return "config file";
    case Configuration::Source::environment:
        return "environment";
    case Configuration::Source::commandLine:
        return "command line";
    }
    return "embedded default";
}

} // namespace kinbook
