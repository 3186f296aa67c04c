#pragma once

#include "KinbookKit/addressbook/CardBatchReader.h"

#include <memory>
#include <vector>

namespace kinbook {

// Reads a batch of card files in one system call where the kernel allows
// it (io_uring with direct descriptors, Linux 5.19 and later, when no
// sandbox refuses it): each file is opened relative to its folder, read and
// closed inside the kernel. For a large address book of small files that
// costs far less than an open, a read and a close each. A file the batch
// can't settle (larger than its buffer, a link or a file system that doesn't
// say what a name is, any failure but "gone") is read again one by one
// (CardFileReader), which also says exactly what is wrong with it; so is
// every file when io_uring is not available, or once the ring has failed.
class UringCardBatchReader final : public CardBatchReader {
public:
    explicit UringCardBatchReader(bool stamps);
    ~UringCardBatchReader() override;
    UringCardBatchReader(const UringCardBatchReader&) = delete;
    UringCardBatchReader& operator=(const UringCardBatchReader&) = delete;

    void read(std::span<const File> files, std::span<Result> results) override;

    // Whether batches go through io_uring.
    bool batched() const { return m_ring != nullptr; }

    // A factory for the address book's options.
    static CardBatchReaderFactory factory();

private:
    struct Ring;

    bool m_stamps;
    std::unique_ptr<Ring> m_ring;
    std::vector<std::vector<char>> m_buffers; // one per place in a batch
};

} // namespace kinbook
