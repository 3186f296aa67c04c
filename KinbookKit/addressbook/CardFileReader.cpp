#include "KinbookKit/addressbook/CardFileReader.h"

#include <fcntl.h>
#include <liburing.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kinbook {

namespace {

// A batch reads each file into a buffer of this size; nearly every card
// fits, and one that fills it is read again the ordinary way.
constexpr std::size_t kSlotBytes = 16 * 1024;
// A buffer a large card grew is given back beyond this.
constexpr std::size_t kLargestKeptBuffer = 1 << 20;

CardFileReader::Stamp stampOf(const struct stat& info) {
    return {static_cast<std::uint64_t>(info.st_ino), static_cast<std::uint64_t>(info.st_size),
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

// One card file the ordinary way: open relative to its folder, fstat when
// the size or the state is wanted, read to the end. False when the file is
// not read; `problem` then says why, or is empty when the file is simply
// gone (or is no regular file).
bool readWithSystemCalls(int folderFD, const char* name, bool knownRegular, std::vector<char>& buffer,
                         std::size_t& length, std::optional<CardFileReader::Stamp>* stamp,
                         std::string& problem) {
    const int fd = ::openat(folderFD, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        const int error = errno;
        if (error == ENOENT) {
            return false;
        }
        struct stat info {};
        if (stamp != nullptr && ::fstatat(folderFD, name, &info, 0) == 0 && S_ISREG(info.st_mode)) {
            *stamp = stampOf(info);
        }
        problem = std::strerror(error);
        return false;
    }
    // The size, when known, lets one read take the whole file.
    std::size_t expected = 0;
    bool sized = false;
    if (stamp != nullptr || !knownRegular) {
        struct stat info {};
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            ::close(fd); // a folder or a device behind a link: not a card
            return false;
        }
        if (stamp != nullptr) {
            *stamp = stampOf(info);
        }
        if (static_cast<std::uint64_t>(info.st_size) > CardFileReader::kLargestCard) {
            ::close(fd);
            problem = "file too large";
            return false;
        }
        expected = static_cast<std::size_t>(info.st_size);
        sized = true;
        if (buffer.size() < expected + 1) {
            buffer.resize(expected + 1);
        }
    }
    length = 0;
    while (!sized || length < expected) {
        if (length == buffer.size()) {
            if (buffer.size() > CardFileReader::kLargestCard) {
                ::close(fd);
                problem = "file too large";
                return false;
            }
            buffer.resize(std::min<std::size_t>(buffer.size() * 2, CardFileReader::kLargestCard + 1));
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

struct CardFileReader::Ring {
    io_uring ring{};
    bool open = false;

    ~Ring() {
        if (open) {
            io_uring_queue_exit(&ring);
        }
    }

    // A ring with a direct descriptor for each place of a batch, or none when
    // the kernel (or a sandbox) says no to any of what a batch needs.
    static std::unique_ptr<Ring> make() {
        auto made = std::make_unique<Ring>();
        if (io_uring_queue_init(static_cast<unsigned>(3 * kBatchSize), &made->ring, 0) < 0) {
            return nullptr;
        }
        made->open = true;
        io_uring_probe* probe = io_uring_get_probe_ring(&made->ring);
        const bool supported = probe != nullptr && io_uring_opcode_supported(probe, IORING_OP_OPENAT) &&
                               io_uring_opcode_supported(probe, IORING_OP_READ) &&
                               io_uring_opcode_supported(probe, IORING_OP_CLOSE);
        if (probe != nullptr) {
            io_uring_free_probe(probe);
        }
        if (!supported ||
            io_uring_register_files_sparse(&made->ring, static_cast<unsigned>(kBatchSize)) < 0) {
            return nullptr;
        }
        return made;
    }
};

CardFileReader::CardFileReader(bool stamps, bool useRing)
    : m_stamps(stamps), m_ring(useRing ? Ring::make() : nullptr),
      m_buffers(kBatchSize, std::vector<char>(kSlotBytes)) {}

CardFileReader::~CardFileReader() = default;

void CardFileReader::readOne(const File& file, std::size_t slot, Result& result) {
    std::vector<char>& buffer = m_buffers[slot];
    std::size_t length = 0;
    result.problem.clear();
    if (!readWithSystemCalls(file.folderFD, file.name, file.knownRegular, buffer, length,
                             m_stamps ? &result.stamp : nullptr, result.problem)) {
        result.outcome = result.problem.empty() ? Outcome::gone : Outcome::unreadable;
        return;
    }
    result.outcome = Outcome::read;
    result.bytes = std::string_view(buffer.data(), length);
}

void CardFileReader::read(std::span<const File> files, std::span<Result> results) {
    const std::size_t count = std::min({files.size(), results.size(), kBatchSize});
    enum class Plan : std::uint8_t { oneByOne, ring, settled };
    std::array<Plan, kBatchSize> plans{};
    for (std::size_t i = 0; i < count; ++i) {
        results[i] = Result();
        if (m_buffers[i].size() > kLargestKeptBuffer) {
            m_buffers[i] = std::vector<char>(kSlotBytes);
        }
    }

    unsigned queued = 0;
    if (m_ring) {
        io_uring* ring = &m_ring->ring;
        for (std::size_t i = 0; i < count; ++i) {
            const File& file = files[i];
            // A link, or a name the file system didn't say was a file, is
            // left to a stat; so is anything a stat finds odd.
            if (!file.knownRegular) {
                continue;
            }
            if (m_stamps) {
                struct stat info {};
                if (::fstatat(file.folderFD, file.name, &info, 0) != 0) {
                    if (errno == ENOENT) {
                        plans[i] = Plan::settled; // gone since the listing
                    }
                    continue;
                }
                if (!S_ISREG(info.st_mode) || static_cast<std::uint64_t>(info.st_size) >= kSlotBytes) {
                    continue;
                }
                results[i].stamp = stampOf(info);
            }
            const auto slot = static_cast<unsigned>(i);
            io_uring_sqe* sqe = io_uring_get_sqe(ring);
            // Direct descriptors never enter the process's table: there is no
            // O_CLOEXEC to give.
            io_uring_prep_openat_direct(sqe, file.folderFD, file.name, O_RDONLY | O_NOCTTY | O_NONBLOCK, 0,
                                        slot);
            sqe->flags |= IOSQE_IO_LINK;
            io_uring_sqe_set_data64(sqe, i * 3);
            sqe = io_uring_get_sqe(ring);
            io_uring_prep_read(sqe, static_cast<int>(slot), m_buffers[i].data(),
                               static_cast<unsigned>(kSlotBytes), 0);
            // The close runs whatever became of the open and the read, so the
            // place is free for the next batch.
            sqe->flags |= IOSQE_FIXED_FILE | IOSQE_IO_HARDLINK;
            io_uring_sqe_set_data64(sqe, i * 3 + 1);
            sqe = io_uring_get_sqe(ring);
            io_uring_prep_close_direct(sqe, slot);
            io_uring_sqe_set_data64(sqe, i * 3 + 2);
            plans[i] = Plan::ring;
            queued += 3;
        }
    }

    std::array<int, kBatchSize> opened{};
    std::array<int, kBatchSize> got{};
    std::array<bool, kBatchSize> answered{};
    if (queued > 0) {
        io_uring* ring = &m_ring->ring;
        int submitted = io_uring_submit(ring);
        while (submitted == -EINTR) {
            submitted = io_uring_submit(ring);
        }
        unsigned waiting = submitted > 0 ? static_cast<unsigned>(submitted) : 0;
        while (waiting > 0) {
            io_uring_cqe* cqe = nullptr;
            const int waited = io_uring_wait_cqe(ring, &cqe);
            if (waited == -EINTR) {
                continue;
            }
            if (waited < 0) {
                break;
            }
            const std::uint64_t data = io_uring_cqe_get_data64(cqe);
            const std::size_t i = data / 3;
            if (i < count && data % 3 == 0) {
                opened[i] = cqe->res;
            } else if (i < count && data % 3 == 1) {
                got[i] = cqe->res;
                answered[i] = true;
            }
            io_uring_cqe_seen(ring, cqe);
            --waiting;
        }
        if (waiting > 0 || submitted != static_cast<int>(queued)) {
            // The ring failed: what it left undone is read one by one, and so
            // is everything after. Dropping it closes what it still holds.
            m_ring.reset();
            answered.fill(false);
            if (waiting > 0) {
                // Reads still under way may yet land in these buffers: they
                // are left to them, never reused or freed.
                new std::vector<std::vector<char>>(std::move(m_buffers));
                m_buffers.assign(kBatchSize, std::vector<char>(kSlotBytes));
            }
        }
    }

    for (std::size_t i = 0; i < count; ++i) {
        Result& result = results[i];
        if (plans[i] == Plan::settled) {
            continue;
        }
        if (plans[i] == Plan::ring && answered[i]) {
            if (opened[i] == -ENOENT) {
                result = Result(); // gone since the listing
                continue;
            }
            // Anything else that went wrong is read again for its exact
            // reason; a full buffer may hold only the start of a larger card,
            // and a size other than the stamp's is a file that changed
            // meanwhile.
            const bool whole = opened[i] >= 0 && got[i] >= 0 &&
                               static_cast<std::size_t>(got[i]) < kSlotBytes &&
                               (!result.stamp || result.stamp->size == static_cast<std::uint64_t>(got[i]));
            if (whole) {
                result.outcome = Outcome::read;
                result.bytes = std::string_view(m_buffers[i].data(), static_cast<std::size_t>(got[i]));
                continue;
            }
        }
        result = Result();
        readOne(files[i], i, result);
    }
}

} // namespace kinbook
