#include "KinbookKit/platform/UringCardBatchReader.h"

#include "KinbookKit/addressbook/CardFileReader.h"

#include <fcntl.h>
#include <liburing.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace kinbook {

namespace {

// A batch reads each file into a buffer of this size; one that fills it is
// read again one by one.
constexpr std::size_t kSlotBytes = CardFileReader::kSlotBytes;

} // namespace

struct UringCardBatchReader::Ring {
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

UringCardBatchReader::UringCardBatchReader(bool stamps)
    : m_stamps(stamps), m_ring(Ring::make()), m_buffers(kBatchSize, std::vector<char>(kSlotBytes)) {}

UringCardBatchReader::~UringCardBatchReader() = default;

CardBatchReaderFactory UringCardBatchReader::factory() {
    return [](bool stamps) { return std::make_unique<UringCardBatchReader>(stamps); };
}

void UringCardBatchReader::read(std::span<const File> files, std::span<Result> results) {
    const std::size_t count = std::min({files.size(), results.size(), kBatchSize});
    enum class Plan : std::uint8_t { oneByOne, ring, settled };
    std::array<Plan, kBatchSize> plans{};
    for (std::size_t i = 0; i < count; ++i) {
        results[i] = Result();
        CardFileReader::shrinkAfterLargeCard(m_buffers[i]);
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
                results[i].stamp = CardFileReader::stampOf(info);
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
        CardFileReader::readOne(files[i], m_stamps, m_buffers[i], result);
    }
}

} // namespace kinbook
