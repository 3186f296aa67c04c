// What other programs and strangers leave in an address book folder: files
// sharing a UID, pipes, devices and huge files under card names, leftovers
// of interrupted writes, cards linked in from elsewhere.

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "tests/support/Files.h"
#include "tests/support/TempVdir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <tuple>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempVdir;

std::string card(const std::string& name, const std::string& uid) {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + name + ";;;;\r\nFN:" + name + "\r\nUID:" + uid +
           "\r\nEND:VCARD\r\n";
}

// Each person's id by their name.
std::map<std::string, std::string> idsByName(VdirAddressBook& book) {
    const auto read = book.readAll(ReadOptions{});
    EXPECT_TRUE(read.ok());
    std::map<std::string, std::string> ids;
    for (const auto& person : read->snapshot.people) {
        ids[person.familyName] = person.id;
    }
    return ids;
}

TEST(VdirHostileFolder, SharedUIDsGetStableIdsThatNeverReachAnotherCard) {
    // Xavier, Yolanda and, in another account, Walter share a UID; Zed's UID
    // is the id a second file named "y.vcf" in "a" would be given, so that id
    // must not be made.
    const std::vector<std::tuple<std::string, std::string, std::string>> files{
        {"a", "x.vcf", card("Xavier", "SHARED")},
        {"a", "y.vcf", card("Yolanda", "SHARED")},
        {"a", "z.vcf", card("Zed", "a-y")},
        {"b", "w.vcf", card("Walter", "SHARED")}};
    std::optional<std::map<std::string, std::string>> firstIDs;
    for (const bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "files made last to first" : "files made first to last");
        TempVdir vdir;
        for (std::size_t k = 0; k < files.size(); ++k) {
            const auto& [account, name, bytes] = files[reversed ? files.size() - 1 - k : k];
            vdir.write(account, name, bytes);
        }
        VdirAddressBook book(vdir.options());
        const auto ids = idsByName(book);
        ASSERT_EQ(ids.size(), 4u);
        EXPECT_EQ(ids.at("Xavier"), "SHARED"); // first by account and name
        EXPECT_EQ(ids.at("Zed"), "a-y");
        const std::set<std::string> distinct{ids.at("Xavier"), ids.at("Yolanda"), ids.at("Zed"),
                                             ids.at("Walter")};
        EXPECT_EQ(distinct.size(), 4u);
        if (firstIDs) {
            EXPECT_EQ(ids, *firstIDs);
        }
        firstIDs = ids;
        EXPECT_EQ(
            book.loadReport().duplicates,
            (std::vector<LoadReport::DuplicateUID>{
                {"SHARED",
                 {vdir.root() / "a" / "x.vcf", vdir.root() / "a" / "y.vcf", vdir.root() / "b" / "w.vcf"}}}));
        EXPECT_NE(vdir.log().find("\"SHARED\""), std::string::npos);

        // A change aimed at Yolanda or Walter writes that card and no other.
        for (const auto& [person, aimed] : {std::pair{"Yolanda", 1u}, std::pair{"Walter", 3u}}) {
            auto draft = book.draft(ids.at(person));
            ASSERT_TRUE(draft.ok());
            draft->nickname = person;
            ASSERT_TRUE(book.save(*draft).ok());
            for (std::size_t k = 0; k < files.size(); ++k) {
                const auto& [account, name, bytes] = files[k];
                const std::string now = readFile(vdir.root() / account / name);
                EXPECT_EQ(now.find(std::string("NICKNAME:") + person) != std::string::npos, k == aimed)
                    << name;
                if (k == 0 || k == 2) {
                    EXPECT_EQ(now, bytes) << name; // never aimed at
                }
            }
        }
    }
}

void setAge(const fs::path& file, std::chrono::minutes age) {
    const auto then = std::chrono::system_clock::now() - age;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(then.time_since_epoch());
    const struct timespec times[2] = {{seconds.count(), 0}, {seconds.count(), 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

TEST(VdirHostileFolder, SpecialAndOversizedFilesAreSkippedUnreadAndCounted) {
    TempVdir vdir;
    vdir.write("a", "jane.vcf", card("Jane", "JANE-1"));
    ASSERT_EQ(::mkfifo((vdir.root() / "a" / "pipe.vcf").c_str(), 0644), 0);
    fs::create_symlink("/dev/zero", vdir.root() / "a" / "endless.vcf");
    {
        // Sparse: the size is claimed, not written.
        const int fd = ::open((vdir.root() / "a" / "huge.vcf").c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, (64 << 20) + 1), 0);
        ::close(fd);
    }
    vdir.write("a", "LOUD.VCF", card("Loud", "LOUD-1"));
    for (const bool stamps : {true, false}) {
        VdirAddressBook book(vdir.options());
        ReadOptions options;
        options.takeToken = stamps;
        const auto read = book.readAll(options);
        ASSERT_TRUE(read.ok());
        ASSERT_EQ(read->snapshot.people.size(), 1u);
        EXPECT_EQ(read->snapshot.people.front().id, "JANE-1");
        EXPECT_EQ(book.loadReport().skippedFiles, 4u);
        EXPECT_TRUE(book.loadReport().skippedAny());
    }
    const std::string log = vdir.log();
    for (const char* name : {"pipe.vcf", "endless.vcf", "huge.vcf", "LOUD.VCF"}) {
        EXPECT_NE(log.find(std::string("skipped card ") + (vdir.root() / "a" / name).string()),
                  std::string::npos)
            << name;
    }
}

TEST(VdirHostileFolder, OldLeftoversOfInterruptedWritesGoUnlessAWriterHoldsTheBook) {
    TempVdir vdir;
    vdir.write("a", "jane.vcf", card("Jane", "JANE-1"));
    const fs::path old = vdir.write("a", ".jane.vcf.0A1B2C3D.tmp", "half a card");
    const fs::path fresh = vdir.write("a", ".jane.vcf.99AA88BB.tmp", "being written");
    const fs::path others = vdir.write("a", ".jane.vcf.swp", "an editor's");
    for (const auto& file : {old, others}) {
        setAge(file, std::chrono::minutes(60));
    }
    VdirAddressBook book(vdir.options());

    // Another Kinbook process is in the middle of a change: nothing goes.
    fs::create_directories(book.lockFile().parent_path());
    const int fd = ::open(book.lockFile().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    ASSERT_TRUE(book.readAll(ReadOptions{}).ok());
    EXPECT_TRUE(fs::exists(old));
    ::close(fd);

    ASSERT_TRUE(book.readAll(ReadOptions{}).ok());
    EXPECT_FALSE(fs::exists(old));
    EXPECT_TRUE(fs::exists(fresh));
    EXPECT_TRUE(fs::exists(others));
    EXPECT_EQ(book.loadReport().removedTemporaries, 1u);
    EXPECT_FALSE(book.loadReport().skippedAny());
    EXPECT_NE(vdir.log().find("removed " + old.string()), std::string::npos);

    // A start from the snapshot cache reads no folder, and sweeps once.
    const fs::path another = vdir.write("a", ".jane.vcf.12345678.tmp", "half a card");
    setAge(another, std::chrono::minutes(60));
    VdirAddressBook cached(vdir.options());
    EXPECT_EQ(cached.removeLeftoverTemporaries(), 1u);
    EXPECT_FALSE(fs::exists(another));
    EXPECT_TRUE(fs::exists(fresh));
}

TEST(VdirHostileFolder, ALinkedCardStaysALinkWhenSaved) {
    TempVdir vdir;
    const fs::path elsewhere = vdir.root().parent_path() / "elsewhere";
    fs::create_directories(elsewhere);
    testing::writeFile(elsewhere / "jane.vcf", card("Jane", "JANE-1"));
    fs::create_directories(vdir.root() / "a");
    const fs::path link = vdir.root() / "a" / "jane.vcf";
    fs::create_symlink(elsewhere / "jane.vcf", link);

    VdirAddressBook book(vdir.options());
    auto draft = book.draft("JANE-1");
    ASSERT_TRUE(draft.ok());
    draft->nickname = "JJ";
    ASSERT_TRUE(book.save(*draft).ok());
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_NE(readFile(elsewhere / "jane.vcf").find("NICKNAME:JJ"), std::string::npos);
    // The temporary file went beside the target, and nothing is left over.
    EXPECT_EQ(std::distance(fs::directory_iterator(elsewhere), fs::directory_iterator()), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator(vdir.root() / "a"), fs::directory_iterator()), 1);
}

TEST(VdirHostileFolder, ASaveKeepsWhatSyncChangedWhileTheCardWasOpen) {
    TempVdir vdir;
    const fs::path file = vdir.write("a", "ann.vcf",
                                     "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Smith;Ann;;;\r\nFN:Ann Smith\r\n"
                                     "TEL;TYPE=CELL:+1 212 555 0100\r\nEMAIL;TYPE=HOME:ann@home.test\r\n"
                                     "EMAIL;TYPE=WORK:ann@work.test\r\nUID:ann\r\nEND:VCARD\r\n");
    VdirAddressBook book(vdir.options());
    auto draft = book.draft("ann");
    ASSERT_TRUE(draft.ok());
    // Meanwhile a sync run gives Ann a title, a new number and drops her
    // work address.
    testing::writeFile(file,
                       "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Smith;Ann;;;\r\nFN:Ann Smith\r\n"
                       "TITLE:Pilot\r\nTEL;TYPE=CELL:+1 212 555 0100\r\nTEL;TYPE=HOME:+1 212 555 0199\r\n"
                       "EMAIL;TYPE=HOME:ann@home.test\r\nUID:ann\r\nEND:VCARD\r\n");
    draft->nickname = "Annie";
    draft->emails.erase(draft->emails.begin()); // the user removes the home address
    ASSERT_TRUE(book.save(*draft).ok());
    const std::string written = readFile(file);
    EXPECT_NE(written.find("NICKNAME:Annie"), std::string::npos) << written;
    EXPECT_NE(written.find("TITLE:Pilot"), std::string::npos) << written;
    EXPECT_NE(written.find("555 0199"), std::string::npos) << written;
    EXPECT_EQ(written.find("ann@home.test"), std::string::npos) << written;
    EXPECT_EQ(written.find("ann@work.test"), std::string::npos) << written;
}

} // namespace
} // namespace kinbook
