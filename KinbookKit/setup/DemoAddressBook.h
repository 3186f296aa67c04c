#pragma once

#include "KinbookKit/Result.h"
#include "KinbookKit/setup/Configuration.h"
#include "KinbookKit/setup/PortraitPainter.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// What writing the demo address book made.
struct DemoAddressBookReport {
    std::size_t accounts = 0;
    std::size_t people = 0;
    std::size_t cards = 0;
    std::size_t photos = 0;
    std::size_t pastJobFiles = 0;      // people given a "jobs.json" in the sidecar
    std::vector<std::string> warnings; // what could not be written besides the cards

    bool operator==(const DemoAddressBookReport&) const = default;
};

// The address book a new user finds on first run, so that the list shows at
// once what Kinbook does: three dozen people over two accounts ("On My
// Computer" and "Work"), in every circle, two of them hidden; former phones,
// e-mail addresses and an address marked "ex-"; people with a card in both
// accounts joined by one KinID (one with the primary mark on each side, one
// without); social links; notes; portraits; names in several scripts. Past
// jobs do not fit in a card: they go into the sidecar as each person's
// "jobs.json", when there is a sidecar.
//
// The cards are ordinary vCard 3.0 files, written by Kinbook's own card
// writer, so any other program reads them too. The same build always writes
// the same cards.
//
// `root` must not exist yet. The book is written into a hidden folder beside
// it and renamed into place as a whole, so an interrupted run leaves no
// half-made address book (the leftover hidden folder is removed by the next
// run). A sidecar person folder that already exists is left alone. Without a
// painter, or when it fails, people have no portrait.
Result<DemoAddressBookReport, std::string>
writeDemoAddressBook(const std::filesystem::path& root, const std::optional<std::filesystem::path>& sidecar,
                     PortraitPainter* painter);

// The first run of the embedded default: when the configuration has the
// embedded address book and its folder does not exist yet, writes the demo
// address book there (and the past jobs into the configured sidecar).
// Returns what it wrote, or none when there was nothing to do. A configured
// address book, or an embedded one that exists (even empty, after the user
// deleted every card), is never touched.
Result<std::optional<DemoAddressBookReport>, std::string>
seedDemoAddressBookOnFirstRun(const Configuration& configuration, PortraitPainter* painter);

} // namespace kinbook
