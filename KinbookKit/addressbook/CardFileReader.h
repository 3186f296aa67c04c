#pragma once

#include "KinbookKit/addressbook/CardBatchReader.h"

#include <vector>

struct stat;

namespace kinbook {

// The card files of a batch read one by one: an open, a read and a close
// each, relative to the file's folder. Works everywhere; the address book's
// reader when no faster one is given.
class CardFileReader final : public CardBatchReader {
public:
    // With `stamps`, every result carries the file's state.
    explicit CardFileReader(bool stamps);

    void read(std::span<const File> files, std::span<Result> results) override;

    // A factory for the address book's options.
    static CardBatchReaderFactory factory();

    // Reads one card file into `buffer`, grown as the file needs and kept
    // for the next: the whole work of this reader, and what a faster one
    // falls back on for a file it can't settle, since it also says exactly
    // what is wrong with the file.
    static void readOne(const File& file, bool stamps, std::vector<char>& buffer, Result& result);

    // A file's state as its stat gives it.
    static Stamp stampOf(const struct stat& info);

    // A batch reads each file into a buffer of this size; nearly every card
    // fits.
    static constexpr std::size_t kSlotBytes = 16 * 1024;
    // Gives a buffer a large card grew back, before the next batch uses it.
    static void shrinkAfterLargeCard(std::vector<char>& buffer);

private:
    bool m_stamps;
    std::vector<std::vector<char>> m_buffers; // one per place in a batch
};

} // namespace kinbook
