#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// A read-only look through an address book folder for what makes Kinbook
// (or a sync tool) pass a card over or mistake one card for another: the
// health check behind `kinbook check` and the window's "Check…" button.
// It opens every card file once, reads at most the size cap of each, and
// changes nothing, not even an access time it can avoid changing.
struct HealthFinding {
    enum class Kind {
        unreadableFolder,   // an account folder that can't be listed
        unreadableFile,     // a card file that can't be opened or read
        notRegular,         // a pipe, a socket or a device under a card's name
        tooLarge,           // over the size cap: never read
        notCard,            // no vCard in it
        severalCards,       // more than one card in one file
        duplicateUID,       // one UID on several files
        noUID,              // a card without a UID
        notUTF8,            // bytes that are not UTF-8
        upperCaseExtension, // ".VCF" in capitals: not read
        leftoverTemporary,  // a temporary file of a write that never finished
        groupCard,          // a contact group stored as a card: kept, not a person
    };

    Kind kind = Kind::unreadableFile;
    // The files (or the folder) concerned; a duplicate UID's in the order
    // that decides which keeps it.
    std::vector<std::filesystem::path> files;
    std::string detail; // the system's reason, the UID, or the number of cards
    bool operator==(const HealthFinding&) const = default;

    // Whether the finding is something to set right. Cards without a UID,
    // text in another encoding and group cards are read as they should be,
    // and only told of.
    bool isProblem() const { return kind != Kind::noUID && kind != Kind::notUTF8 && kind != Kind::groupCard; }
    // A short name for the kind ("duplicate-uid"), as `--json` gives it.
    static std::string_view name(Kind kind);
    // What the finding is, in a sentence, and what to do about it.
    static std::string_view what(Kind kind);
    static std::string_view advice(Kind kind);
};

struct HealthReport {
    std::filesystem::path root;
    bool readable = true;      // false: the root itself could not be opened
    std::size_t cardFiles = 0; // files named as cards that were looked at
    std::vector<HealthFinding> findings;

    std::size_t problemCount() const;
};

// Looks through the address book at `root` in every layout the store reads.
HealthReport checkAddressBook(const std::filesystem::path& root);

// The report as the tool prints it: each kind once, with its files and what
// to do, and a last line with the count.
std::string describe(const HealthReport& report);

} // namespace kinbook
