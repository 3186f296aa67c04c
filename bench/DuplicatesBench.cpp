// Finding duplicates and merging, as one table:
//
//   kinbook-bench-duplicates [--sizes 25000,50000,100000] [--folder DIR]
//
// For each size, a generated vdir with duplicates planted (one person in 50
// gets a second card in another account with the same name, the same phone
// written another way, or the same e-mail in other capitals; every 1000th
// phone number is given to eight people, more than a key may link), read as
// the list reads it; then `findGroups` over every person (the median of five
// runs) and the heap it takes while it runs. Then one merge of two cards and
// one of four cards over two accounts on their own vdir, through the store
// on disk (no card carries a note, so no script runs), the median of five.

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/Duplicates.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "KinbookKit/text/AppLog.h"
#include "bench/HeapStats.h"
#include "bench/VdirGenerator.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>

namespace {

using namespace kinbook;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void writeText(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

std::string card(const std::string& uid, const std::string& given, const std::string& family,
                 const std::string& lines) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:" + uid + "\r\nFN:" + given + " " + family + "\r\nN:" + family +
           ";" + given + ";;;\r\n" + lines + "END:VCARD\r\n";
}

// Cards that look like people already there, in a folder of their own.
void plantDuplicates(const fs::path& root, const std::vector<Person>& people) {
    const fs::path planted = root / "planted";
    for (std::size_t i = 0; i < people.size(); i += 50) {
        const auto& person = people[i];
        std::string lines;
        switch ((i / 50) % 3) {
        case 0: // the same name alone
            break;
        case 1:
            if (!person.phoneNumbers.empty()) {
                std::string digits;
                for (const char c : person.phoneNumbers.front()) {
                    if (c >= '0' && c <= '9') {
                        digits.push_back(c);
                    }
                }
                lines += "TEL:" + digits + "\r\n";
            }
            break;
        default:
            if (!person.emailAddresses.empty()) {
                std::string upper(person.emailAddresses.front());
                std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) {
                    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
                });
                lines += "EMAIL: " + upper + "\r\n";
            }
        }
        writeText(planted / fmt::format("DUP-{}.vcf", i),
                  card(fmt::format("DUP-{}", i), person.givenName, person.familyName, lines));
    }
    // An office line shared by eight: no group may form through it.
    for (std::size_t i = 0; i < people.size() / 1000; ++i) {
        for (int member = 0; member < 8; ++member) {
            writeText(planted / fmt::format("OFFICE-{}-{}.vcf", i, member),
                      card(fmt::format("OFFICE-{}-{}", i, member), fmt::format("Desk{}", member),
                           fmt::format("Office{}", i), fmt::format("TEL:+1 (646) 555-{:04}\r\n", i)));
        }
    }
}

std::vector<Person> readPeople(const fs::path& root, const fs::path& state) {
    VdirAddressBook::Options options;
    options.root = root;
    options.stateFolder = state;
    VdirAddressBook book(options);
    auto read = book.readAll({});
    if (!read) {
        fmt::print(stderr, "couldn't read {}: {}\n", root.string(), read.error().description());
        std::exit(1);
    }
    // The list shows the cards of one KinID as one person: the later cards
    // of a linked person are left out, as joining them would.
    std::vector<Person> people;
    std::set<std::string> kinIDs;
    for (auto& person : read->snapshot.people) {
        if (!person.kinID || kinIDs.insert(*person.kinID).second) {
            people.push_back(std::move(person));
        }
    }
    return people;
}

void benchFindGroups(const fs::path& base, std::size_t size) {
    const fs::path root = base / fmt::format("dup-{}", size);
    if (!fs::exists(root)) {
        VdirGenerator generator({.people = size, .seed = 7, .accounts = 3});
        if (auto written = generator.write(root); !written) {
            fmt::print(stderr, "{}\n", written.error());
            std::exit(1);
        }
        plantDuplicates(root, readPeople(root, base / "state"));
    }
    const auto people = readPeople(root, base / "state");
    std::vector<double> times;
    std::size_t groups = 0;
    double heapMB = 0;
    for (int run = 0; run < 5; ++run) {
        bench::releaseFreeMemory();
        const double before = bench::liveHeapMB();
        const auto start = SteadyClock::now();
        const auto found = Duplicates::findGroups(people);
        times.push_back(millisecondsSince(start));
        heapMB = std::max(heapMB, bench::liveHeapMB() - before);
        groups = found.size();
    }
    fmt::print("{:>9} {:>9} {:>8} {:>12.1f} {:>12.1f}\n", size, people.size(), groups, median(times), heapMB);
}

double benchMerge(const fs::path& base, int cards) {
    std::vector<double> times;
    for (int run = 0; run < 5; ++run) {
        const fs::path root = base / fmt::format("merge-{}-{}", cards, run);
        fs::remove_all(root);
        for (int i = 0; i < cards; ++i) {
            const std::string account = i % 2 == 0 ? "icloud" : "gmail";
            writeText(root / account / fmt::format("C{}.vcf", i),
                      card(fmt::format("C{}", i), "Ann", "Lee",
                           fmt::format("TEL;TYPE=CELL:+1 415 555 01{:02}\r\nEMAIL:ann{}@example.org\r\n"
                                       "ADR;TYPE=HOME:;;{} Main St;Springfield;IL;62701;USA\r\n",
                                       i, i, i + 1)));
        }
        VdirAddressBook::Options options;
        options.root = root;
        options.stateFolder = base / fmt::format("merge-state-{}-{}", cards, run);
        options.log = std::make_shared<KinLog>("bench", AppLog::shared());
        VdirAddressBook book(options);
        std::vector<Duplicates::MergeCard> order;
        std::vector<ContactDraft> drafts;
        for (int i = 0; i < cards; ++i) {
            order.push_back({fmt::format("C{}", i), {i % 2 == 0 ? "icloud" : "gmail"}});
        }
        const auto start = SteadyClock::now();
        for (const auto& card : order) {
            drafts.push_back(book.draft(card.id).value());
        }
        MergeChoices choices;
        choices.result = Duplicates::mergePrefill(drafts);
        const auto merged = runMerge(book, order, choices, KinLog("bench", AppLog::shared()));
        times.push_back(millisecondsSince(start));
        if (!merged) {
            fmt::print(stderr, "merge failed: {}\n", merged.error().description());
            std::exit(1);
        }
        fs::remove_all(root);
    }
    return median(times);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Finding duplicates and merging people");
    std::string sizes = "25000,50000,100000";
    std::string folder;
    app.add_option("--sizes", sizes, "People in each generated address book");
    app.add_option("--folder", folder, "Where to keep the generated vdirs (reused when they exist)");
    CLI11_PARSE(app, argc, argv);
    const fs::path base =
        (folder.empty() ? fs::temp_directory_path() : fs::path(folder)) / "kinbook-bench-duplicates";
    fs::create_directories(base);

    fmt::print("{:>9} {:>9} {:>8} {:>12} {:>12}\n", "people", "searched", "groups", "findGroups ms",
               "heap MB");
    std::stringstream list(sizes);
    for (std::string size; std::getline(list, size, ',');) {
        benchFindGroups(base, std::stoul(size));
    }
    fmt::print("merge of 2 cards (one account each): {:.1f} ms\n", benchMerge(base, 2));
    fmt::print("merge of 4 cards over two accounts:  {:.1f} ms\n", benchMerge(base, 4));
    return 0;
}
