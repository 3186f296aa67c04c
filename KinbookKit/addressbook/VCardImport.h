#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/AddressBook.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace kinbook {

// vCard files brought into the address book (`kinbook import`, the window's
// File ▸ Import… and .vcf files opened with the application).
//
// A card is known by its UID: one whose UID the address book already holds,
// or that came earlier in the same import, is skipped, never added as a
// second copy, so importing a file twice adds nothing the second time (a
// card without a UID is given one made from its bytes). A card that is cut
// off (no END:VCARD) or holds nothing but its header is skipped and named;
// the rest still go in. What is added goes in as one batch: all or none.
namespace VCardImport {

// One file's bytes, with the name the user knows it by.
struct Source {
    std::string name;
    std::string bytes;
};

// A card left out, and why.
struct Skipped {
    std::string source;    // the file's name
    std::size_t index = 0; // 1-based place of the card in its file
    std::string name;      // the card's FN (or its UID) when it has one
    std::string reason;
};

struct Plan {
    std::string vcards;             // the cards to add, each its own bytes
    std::vector<std::string> names; // their names, in order
    std::vector<Skipped> duplicates;
    std::vector<Skipped> malformed;
};

// Reads a file whole; the error says why it can't be read, in words.
Result<std::string, std::string> readFile(const std::filesystem::path& file);

// Sorts the cards of the sources into those to add and those to skip; the
// error names a source that holds no vCard at all.
Result<Plan, std::string> plan(std::span<const Source> sources, const std::set<std::string>& knownUIDs);

struct Summary {
    std::vector<std::string> addedIDs;
    std::vector<std::string> addedNames;
    std::vector<Skipped> duplicates;
    std::vector<Skipped> malformed;

    // "Added 3 contacts; skipped 2 already in the address book." and a line
    // naming each card skipped as malformed.
    std::string text() const;
};

// Plans the import against the cards the address book holds (whose ids are
// their UIDs) and adds the new cards to the account (the default one when
// none). Blocks on the disk: call it off the main thread.
Result<Summary, std::string> run(AddressBook& book, std::span<const Source> sources,
                                 std::optional<std::string> accountID);

} // namespace VCardImport
} // namespace kinbook
