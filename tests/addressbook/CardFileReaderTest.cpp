#include "KinbookKit/addressbook/CardFileReader.h"

#include "KinbookKit/platform/UringCardBatchReader.h"
#include "tests/support/TempFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::TempFolder;
using testing::writeFile;

// Every reader a full read may be given, each read through the same cases.
struct Reader {
    const char* name;
    CardBatchReaderFactory make;
};
const Reader readers[] = {
    {"one by one", CardFileReader::factory()},
    {"io_uring", UringCardBatchReader::factory()},
};

// A folder of files of every kind a batch meets, opened as a full read
// opens its account folders.
class CardFileReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_folder / "home" / "folder.vcf");
        writeFile(m_folder / "home" / "a.vcf", "BEGIN:VCARD\r\nFN:A\r\nEND:VCARD\r\n");
        writeFile(m_folder / "home" / "empty.vcf", "");
        // Larger than a batch's buffer: read again the ordinary way.
        m_large = "BEGIN:VCARD\r\nNOTE:" + std::string(100'000, 'x') + "\r\nEND:VCARD\r\n";
        writeFile(m_folder / "home" / "large.vcf", m_large);
        fs::create_symlink(m_folder / "home" / "a.vcf", m_folder / "home" / "link.vcf");
        fs::create_symlink(m_folder / "home" / "folder.vcf", m_folder / "home" / "folder-link.vcf");
        // Plain cards fill the batch up to its size, to be read in order.
        for (std::size_t i = 0; i + 6 < CardBatchReader::kBatchSize; ++i) {
            m_cards.push_back("card" + std::to_string(i) + ".vcf");
            writeFile(m_folder / "home" / m_cards.back(), "card " + std::to_string(i));
        }
        m_fd = ::open((m_folder / "home").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    void TearDown() override { ::close(m_fd); }

    std::vector<CardBatchReader::Result> readAll(CardBatchReader& reader) {
        std::vector<CardBatchReader::File> files = {
            {m_fd, "a.vcf", true},       {m_fd, "empty.vcf", true}, {m_fd, "large.vcf", true},
            {m_fd, "missing.vcf", true}, {m_fd, "link.vcf", false}, {m_fd, "folder-link.vcf", false},
        };
        for (const auto& name : m_cards) {
            files.push_back({m_fd, name.c_str(), true});
        }
        std::vector<CardBatchReader::Result> results(files.size());
        reader.read(files, results);
        // The views stay good until the next batch: copy what the test needs.
        for (auto& result : results) {
            m_kept.emplace_back(result.bytes);
            result.bytes = m_kept.back();
        }
        return results;
    }

    CardBatchReader::Stamp stampOf(const std::string& name) const {
        struct stat info {};
        ::stat((m_folder / "home" / name).c_str(), &info);
        return {static_cast<std::uint64_t>(info.st_ino), static_cast<std::uint64_t>(info.st_size),
                info.st_mtim.tv_sec * 1'000'000'000 + info.st_mtim.tv_nsec};
    }

    TempFolder m_folder;
    std::string m_large;
    std::vector<std::string> m_cards;
    int m_fd = -1;
    std::deque<std::string> m_kept;
};

TEST_F(CardFileReaderTest, ABatchReadsWhatOneByOneReads) {
    using Outcome = CardBatchReader::Outcome;
    for (const bool stamps : {false, true}) {
        for (const Reader& kind : readers) {
            SCOPED_TRACE(::testing::Message() << "stamps " << stamps << ", " << kind.name);
            const auto reader = kind.make(stamps);
            // Twice, so the buffers a batch keeps are reused.
            for (int round = 0; round < 2; ++round) {
                const auto results = readAll(*reader);
                EXPECT_EQ(results[0].outcome, Outcome::read);
                EXPECT_EQ(results[0].bytes, "BEGIN:VCARD\r\nFN:A\r\nEND:VCARD\r\n");
                EXPECT_EQ(results[1].outcome, Outcome::read);
                EXPECT_EQ(results[1].bytes, "");
                EXPECT_EQ(results[2].outcome, Outcome::read);
                EXPECT_EQ(results[2].bytes, m_large);
                EXPECT_EQ(results[3].outcome, Outcome::gone);
                EXPECT_EQ(results[4].outcome, Outcome::read) << "a link to a card is the card";
                EXPECT_EQ(results[4].bytes, results[0].bytes);
                EXPECT_EQ(results[5].outcome, Outcome::gone) << "a link to a folder is no card";
                ASSERT_EQ(results.size(), CardBatchReader::kBatchSize);
                for (std::size_t i = 0; i < m_cards.size(); ++i) {
                    EXPECT_EQ(results[6 + i].outcome, Outcome::read) << m_cards[i];
                    EXPECT_EQ(results[6 + i].bytes, "card " + std::to_string(i));
                }
                for (const auto& result : results) {
                    EXPECT_TRUE(result.problem.empty()) << result.problem;
                }
                for (const auto& [index, name] :
                     std::vector<std::pair<int, std::string>>{{0, "a.vcf"}, {2, "large.vcf"}, {4, "a.vcf"}}) {
                    ASSERT_EQ(results[index].stamp.has_value(), stamps) << name;
                    if (stamps) {
                        EXPECT_EQ(results[index].stamp->inode, stampOf(name).inode) << name;
                        EXPECT_EQ(results[index].stamp->size, stampOf(name).size) << name;
                        EXPECT_EQ(results[index].stamp->mtimeNs, stampOf(name).mtimeNs) << name;
                    }
                }
            }
        }
    }
}

} // namespace
} // namespace kinbook
