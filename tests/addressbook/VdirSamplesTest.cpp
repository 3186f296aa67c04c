#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;

constexpr std::string_view kSeveralCards = "This card's file holds several cards";

// The editor's draft of any real card, saved untouched, must write nothing:
// the reading and the writing of labels, dates and links have to agree.
TEST(VdirAddressBookSamples, AnUntouchedDraftOfEveryRealCardWritesNothing) {
    testing::TempFolder folder;
    const fs::path root = folder / "contacts";
    fs::create_directories(root / "samples");
    for (const auto& sample : fs::directory_iterator(fs::path(KINBOOK_TESTDATA_DIR) / "vcard-real")) {
        if (sample.path().extension() == ".vcf") {
            fs::copy_file(sample.path(), root / "samples" / sample.path().filename());
        }
    }
    AppLog appLog(folder / "app.log");
    VdirAddressBook::Options options;
    options.root = root;
    options.stateFolder = folder / "state";
    options.log = std::make_shared<KinLog>("store", appLog);
    VdirAddressBook book(options);
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    EXPECT_GE(read->snapshot.people.size(), 20u);

    std::map<fs::path, std::string> before;
    for (const auto& file : fs::directory_iterator(root / "samples")) {
        before[file.path()] = readFile(file.path());
    }
    for (const auto& person : read->snapshot.people) {
        auto draft = book.draft(person.id);
        ASSERT_TRUE(draft.ok()) << person.id;
        const auto saved = book.save(*draft);
        // A file of several cards is refused whatever the draft says; its
        // bytes are checked below like everyone else's.
        const bool refusedAsSeveral =
            !saved.ok() && saved.error().description().find(kSeveralCards) != std::string::npos;
        EXPECT_TRUE(saved.ok() || refusedAsSeveral)
            << person.id << ": " << (saved.ok() ? "" : saved.error().description());
    }
    for (const auto& [path, bytes] : before) {
        EXPECT_EQ(readFile(path), bytes) << path.filename();
    }
}

} // namespace
} // namespace kinbook
