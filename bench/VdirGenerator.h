#pragma once

#include "KinbookKit/Result.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace kinbook {

struct VdirGeneratorOptions {
    std::size_t people = 1000;
    std::uint64_t seed = 1;
    // Account folders; at least 1. With one account nobody is linked.
    std::size_t accounts = 3;

    bool operator==(const VdirGeneratorOptions&) const = default;
};

// What a run wrote.
struct VdirGeneratorReport {
    std::size_t accounts = 0;
    std::size_t people = 0;
    // People with a card in two accounts, both carrying the same KinID anchor.
    std::size_t linkedPeople = 0;
    // Every .vcf file: person cards plus group cards.
    std::size_t cards = 0;
    std::size_t groupCards = 0;
    // Bytes of every file written (cards and displayname files).
    std::uint64_t bytes = 0;

    bool operator==(const VdirGeneratorReport&) const = default;
};

// A synthetic address book that looks like a real synced one, for
// benchmarks and scale tests: a vdir root with one folder per account (a
// random collection id, a "displayname" file), one vCard 3.0 file per card,
// named after its UID.
//
// Accounts alternate between the layout Apple's servers serve (PRODID, REV,
// repeated lower-case "type=" parameters, itemN groups with X-ABLabel stock
// labels, X-ABADR, X-SOCIALPROFILE, year-less birthdays with
// X-APPLE-OMIT-YEAR) and Google's (no PRODID, upper-case "TYPE=", short hex
// UIDs, "--MM-DD" birthdays). People have names in Latin with diacritics,
// Cyrillic, Greek, Chinese, Japanese or Arabic script, phone numbers in
// their country's usual ways of writing them (NANP in several forms,
// international), custom labels including former ones ("ex-work"), postal
// addresses, a few notes and small inline JPEG photos. About one person in
// five has a second card in another account; both carry the same KinID
// anchor URL ("kinbook://c/<8 characters>", sometimes with "h=1", "r=N",
// "p=1"), as do some single cards. Each account also holds a few group cards
// (X-ADDRESSBOOKSERVER-KIND:group) naming some of its cards as members.
//
// The same options always give the same bytes. Roughly 1.2 card files and
// 700 bytes per card per person: 100,000 people make about 120,000 files.
// Not thread-safe; uses no global state, so separate instances may run in
// parallel.
class VdirGenerator {
public:
    explicit VdirGenerator(VdirGeneratorOptions options) : m_options(options) {}

    // Writes the address book under `root`, which must be missing or an
    // empty folder (nothing is ever overwritten). Fails with a message
    // naming the path on the first file it cannot create or write; what was
    // written stays.
    Result<VdirGeneratorReport, std::string> write(const std::filesystem::path& root) const;

private:
    VdirGeneratorOptions m_options;
};

} // namespace kinbook
