#include "KinbookKit/addressbook/CardFileReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kinbook {

namespace {

// A buffer a large card grew is given back beyond this.
constexpr std::size_t kLargestKeptBuffer = 1 << 20;

// One card file the ordinary way: open relative to its folder, fstat when
// the size or the state is wanted, read to the end. False when the file is
// not read; `problem` then says why, or is empty when the file is simply
// gone.
bool readWithSystemCalls(int folderFD, const char* name, bool knownRegular, std::vector<char>& buffer,
                         std::size_t& length, std::optional<CardBatchReader::Stamp>* stamp,
                         std::string& problem) {
    const int fd = ::openat(folderFD, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        const int error = errno;
        if (error == ENOENT) {
            return false;
        }
        struct stat info {};
        if (stamp != nullptr && ::fstatat(folderFD, name, &info, 0) == 0 && S_ISREG(info.st_mode)) {
            *stamp = CardFileReader::stampOf(info);
        }
        problem = std::strerror(error);
        return false;
    }
    // The size, when known, lets one read take the whole file. A file the
    // listing called regular is statted only once it outgrows the buffer,
    // so that nearly every card costs no stat, and no file is read into
    // memory beyond the size cap.
    std::size_t expected = 0;
    bool sized = false;
    auto size = [&]() {
        struct stat info {};
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            // A pipe or a device, behind a link or put there since the
            // listing: reading it could take without end. A folder is no
            // card and no one's mistake.
            if (!S_ISDIR(info.st_mode)) {
                problem = "not a regular file";
            }
            return false;
        }
        if (stamp != nullptr) {
            *stamp = CardFileReader::stampOf(info);
        }
        if (static_cast<std::uint64_t>(info.st_size) > CardBatchReader::kLargestCard) {
            problem = "larger than the 64 MB a card may have";
            return false;
        }
        expected = static_cast<std::size_t>(info.st_size);
        sized = true;
        if (buffer.size() < expected + 1) {
            buffer.resize(expected + 1);
        }
        return true;
    };
    if ((stamp != nullptr || !knownRegular) && !size()) {
        ::close(fd);
        return false;
    }
    length = 0;
    while (!sized || length < expected) {
        if (length == buffer.size()) {
            if (!size()) {
                ::close(fd);
                return false;
            }
            if (expected <= length) {
                break; // the file as it was when statted is read
            }
            continue;
        }
        // A file that grew since fstat is read as it was then, as a card is
        // read everywhere else.
        const std::size_t room = sized ? expected - length : buffer.size() - length;
        const ssize_t got = ::read(fd, buffer.data() + length, room);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break; // the end, or a file that shrank: keep what was there
        }
        length += static_cast<std::size_t>(got);
    }
    ::close(fd);
    return true;
}

} // namespace

CardFileReader::CardFileReader(bool stamps)
    : m_stamps(stamps), m_buffers(kBatchSize, std::vector<char>(kSlotBytes)) {}

CardBatchReaderFactory CardFileReader::factory() {
    return [](bool stamps) { return std::make_unique<CardFileReader>(stamps); };
}

CardBatchReader::Stamp CardFileReader::stampOf(const struct stat& info) {
    return {static_cast<std::uint64_t>(info.st_ino), static_cast<std::uint64_t>(info.st_size),
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

void CardFileReader::shrinkAfterLargeCard(std::vector<char>& buffer) {
    if (buffer.size() > kLargestKeptBuffer) {
        buffer = std::vector<char>(kSlotBytes);
    }
}

void CardFileReader::readOne(const File& file, bool stamps, std::vector<char>& buffer, Result& result) {
    result = Result();
    std::size_t length = 0;
    if (!readWithSystemCalls(file.folderFD, file.name, file.knownRegular, buffer, length,
                             stamps ? &result.stamp : nullptr, result.problem)) {
        result.outcome = result.problem.empty() ? Outcome::gone : Outcome::unreadable;
        return;
    }
    result.outcome = Outcome::read;
    result.bytes = std::string_view(buffer.data(), length);
}

void CardFileReader::read(std::span<const File> files, std::span<Result> results) {
    const std::size_t count = std::min({files.size(), results.size(), kBatchSize});
    for (std::size_t i = 0; i < count; ++i) {
        shrinkAfterLargeCard(m_buffers[i]);
        readOne(files[i], m_stamps, m_buffers[i], results[i]);
    }
}

} // namespace kinbook
