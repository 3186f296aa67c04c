#include "KinbookKit/addressbook/CardListing.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/text/Ascii.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <utility>

namespace kinbook {

bool CardListing::isCardFileName(std::string_view name) {
    // Other writers' temporaries are hidden or do not end in ".vcf".
    return name.size() > 4 && name.front() != '.' && name.substr(name.size() - 4) == ".vcf";
}

namespace {

bool isSpecialFile(unsigned char type) {
    return type == DT_FIFO || type == DT_SOCK || type == DT_CHR || type == DT_BLK;
}

// What a name the listing passes over is, when it is worth a word.
std::optional<CardListing::Oddity::Kind> oddityOf(std::string_view name, unsigned char type) {
    using Kind = CardListing::Oddity::Kind;
    if (name.empty() || type == DT_DIR) {
        return std::nullopt;
    }
    if (name.front() == '.') {
        return isTemporaryFileName(name) ? std::optional(Kind::temporary) : std::nullopt;
    }
    if (name.size() > 4 && equalsIgnoringAsciiCase(name.substr(name.size() - 4), ".vcf")) {
        return CardListing::isCardFileName(name) ? std::optional(Kind::notRegular)
                                                 : std::optional(Kind::upperCaseExtension);
    }
    return std::nullopt;
}

// Whether the folder holds a card file; stops at the first one.
bool holdsCards(const std::filesystem::path& folder) {
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        std::error_code typeError;
        if (CardListing::isCardFileName(it->path().filename().native()) && !it->is_directory(typeError)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> visibleSubfolders(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        std::string name = it->path().filename().native();
        std::error_code typeError;
        if (!name.empty() && name[0] != '.' && it->is_directory(typeError)) {
            names.push_back(std::move(name));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

std::vector<std::string> CardListing::accountNames(const std::filesystem::path& root) {
    std::vector<std::string> accounts;
    if (holdsCards(root)) {
        accounts.emplace_back(".");
    }
    for (const auto& folder : visibleSubfolders(root)) {
        const auto path = root / folder;
        if (holdsCards(path)) {
            accounts.push_back(folder);
            continue;
        }
        std::vector<std::string> collections;
        for (const auto& collection : visibleSubfolders(path)) {
            if (holdsCards(path / collection)) {
                collections.push_back(folder + "/" + collection);
            }
        }
        if (collections.empty()) {
            accounts.push_back(folder);
        } else {
            accounts.insert(accounts.end(), collections.begin(), collections.end());
        }
    }
    return accounts;
}

std::optional<CardListing> CardListing::list(const std::filesystem::path& root, unsigned threads) {
    const int rootFD = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFD < 0) {
        return std::nullopt;
    }
    DIR* rootFolder = ::fdopendir(rootFD);
    if (rootFolder == nullptr) {
        ::close(rootFD);
        return std::nullopt;
    }
    CardListing listing;
    listing.m_root = root;
    for (auto& name : accountNames(root)) {
        listing.m_accounts.push_back({std::move(name), -1, false});
    }

    // Each account's files, listed on its own (possibly beside others), then
    // put together in account order.
    struct Listed {
        std::vector<File> files;
        std::string names;
        std::vector<Oddity> oddities;
    };
    std::vector<Listed> listed(listing.m_accounts.size());
    auto listAccount = [&](std::uint32_t index) {
        Account& account = listing.m_accounts[index];
        const int folderFD = ::openat(rootFD, account.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        // Reading the folder through its own descriptor leaves `folderFD`
        // free for opening its files.
        const int readFD = folderFD < 0 ? -1 : ::dup(folderFD);
        DIR* folder = readFD < 0 ? nullptr : ::fdopendir(readFD);
        if (folder == nullptr) {
            // A folder removed since the root was read is gone with its cards;
            // one that can't be read still holds them.
            account.unreadable = errno != ENOENT && errno != ENOTDIR;
            if (readFD >= 0) {
                ::close(readFD);
            }
            if (folderFD >= 0) {
                ::close(folderFD);
            }
            return;
        }
        account.fd = folderFD;
        Listed& out = listed[index];
        errno = 0;
        while (const dirent* entry = ::readdir(folder)) {
            const std::string_view name = entry->d_name;
            if (!isCardFileName(name) || entry->d_type == DT_DIR || isSpecialFile(entry->d_type)) {
                if (const auto kind = oddityOf(name, entry->d_type)) {
                    out.oddities.push_back({index, std::string(name), *kind});
                }
                errno = 0;
                continue;
            }
            File file;
            file.account = index;
            file.nameOffset = static_cast<std::uint32_t>(out.names.size());
            file.nameLength = static_cast<std::uint32_t>(name.size());
            file.knownRegular = entry->d_type == DT_REG;
            out.names.append(name);
            out.names.push_back('\0');
            out.files.push_back(file);
            errno = 0;
        }
        if (errno != 0) {
            // The listing stopped short: the folder's other cards are unknown.
            account.unreadable = true;
        }
        ::closedir(folder);
    };
    std::atomic<std::uint32_t> next{0};
    auto work = [&] {
        for (std::uint32_t index = next++; index < listed.size(); index = next++) {
            listAccount(index);
        }
    };
    runInParallel(
        static_cast<unsigned>(std::max<std::size_t>(1, std::min<std::size_t>(threads, listed.size()))),
        [&](unsigned) { work(); });
    ::closedir(rootFolder);

    std::size_t fileCount = 0;
    std::size_t nameBytes = 0;
    for (const Listed& account : listed) {
        fileCount += account.files.size();
        nameBytes += account.names.size();
    }
    listing.m_files.reserve(fileCount);
    listing.m_names.reserve(nameBytes);
    for (Listed& account : listed) {
        const auto base = static_cast<std::uint32_t>(listing.m_names.size());
        listing.m_names += account.names;
        for (File file : account.files) {
            file.nameOffset += base;
            listing.m_files.push_back(file);
        }
        std::move(account.oddities.begin(), account.oddities.end(), std::back_inserter(listing.m_oddities));
        account = Listed();
    }
    return listing;
}

CardListing::CardListing(CardListing&& other) noexcept
    : m_root(std::move(other.m_root)), m_accounts(std::move(other.m_accounts)),
      m_files(std::move(other.m_files)), m_names(std::move(other.m_names)),
      m_oddities(std::move(other.m_oddities)) {
    other.m_accounts.clear();
}

CardListing& CardListing::operator=(CardListing&& other) noexcept {
    if (this != &other) {
        close();
        m_root = std::move(other.m_root);
        m_accounts = std::move(other.m_accounts);
        m_files = std::move(other.m_files);
        m_names = std::move(other.m_names);
        m_oddities = std::move(other.m_oddities);
        other.m_accounts.clear();
    }
    return *this;
}

CardListing::~CardListing() {
    close();
}

void CardListing::close() {
    for (Account& account : m_accounts) {
        if (account.fd >= 0) {
            ::close(account.fd);
            account.fd = -1;
        }
    }
}

std::filesystem::path CardListing::path(const File& file) const {
    return m_root / accountName(file) / std::string(name(file));
}

std::filesystem::path CardListing::path(const Oddity& oddity) const {
    return m_root / m_accounts[oddity.account].name / oddity.name;
}

} // namespace kinbook
