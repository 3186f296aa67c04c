#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Every card file under a vdir root, listed in one pass: the account
// folders (those whose name does not start with a dot) in name order, and in
// each, in directory order, the names of its card files ("*.vcf", not
// hidden, not folders).
//
// A full read and the change journal's scan both go through every card of
// a large address book, so the listing is cheap to make and to use: the
// names sit in one buffer rather than one path object each, and every
// account folder stays open, so that a file is opened or statted relative
// to its folder without walking the whole path again.
//
// Move-only; the folders are closed when the listing goes.
class CardListing {
public:
    struct Account {
        std::string name;
        int fd = -1; // open on the folder; -1 when it could not be read
        // The folder exists but could not be read (permissions, an I/O
        // error): what it holds is unknown, not gone.
        bool unreadable = false;
    };

    struct File {
        std::uint32_t account = 0;    // index into accounts()
        std::uint32_t nameOffset = 0; // into the names buffer; NUL-terminated there
        std::uint32_t nameLength = 0;
        // The folder listing says this is a regular file; otherwise (a link,
        // a file system that doesn't say) only a stat can tell.
        bool knownRegular = false;
    };

    // A file in an account folder that looks meant for the address book but
    // is not read as a card. Never read; listed so that a read can say what
    // it passed over.
    struct Oddity {
        enum class Kind : std::uint8_t {
            upperCaseExtension, // "NAME.VCF": other programs read it, the address book does not
            notRegular,         // a card's name on a pipe, a socket or a device
            temporary,          // a temporary file of an atomic write (see AtomicFile.h)
        };
        std::uint32_t account = 0;
        std::string name;
        Kind kind = Kind::notRegular;
    };

    // None when the root can't be opened as a folder. With several
    // `threads`, account folders are listed side by side.
    static std::optional<CardListing> list(const std::filesystem::path& root, unsigned threads = 1);

    CardListing(CardListing&& other) noexcept;
    CardListing& operator=(CardListing&& other) noexcept;
    CardListing(const CardListing&) = delete;
    CardListing& operator=(const CardListing&) = delete;
    ~CardListing();

    const std::vector<Account>& accounts() const { return m_accounts; }
    const std::vector<File>& files() const { return m_files; }
    const std::vector<Oddity>& oddities() const { return m_oddities; }

    std::string_view name(const File& file) const {
        return std::string_view(m_names).substr(file.nameOffset, file.nameLength);
    }
    const char* cName(const File& file) const { return m_names.c_str() + file.nameOffset; }
    const std::string& accountName(const File& file) const { return m_accounts[file.account].name; }
    int folderFD(const File& file) const { return m_accounts[file.account].fd; }
    std::filesystem::path path(const File& file) const;
    std::filesystem::path path(const Oddity& oddity) const;

    // The account folders under `root`, as paths below it, in name order.
    // Every layout vdirsyncer and its users keep is read:
    // - "ROOT/<account>/*.vcf": each folder is an account, an empty one
    //   included (a new account has no cards yet);
    // - "ROOT/*.vcf": the root is itself one address book, named ".";
    // - "ROOT/<pair>/<collection>/*.vcf": a folder that holds no cards but
    //   whose subfolders do is a group of collections, each an account
    //   named "<pair>/<collection>".
    // Folders whose name starts with a dot are never looked into.
    static std::vector<std::string> accountNames(const std::filesystem::path& root);

    // Whether `name` is a card file's name, as the listing counts them.
    static bool isCardFileName(std::string_view name);

private:
    CardListing() = default;
    void close();

    std::filesystem::path m_root;
    std::vector<Account> m_accounts;
    std::vector<File> m_files;
    std::string m_names;
    std::vector<Oddity> m_oddities;
};

} // namespace kinbook
