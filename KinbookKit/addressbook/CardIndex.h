#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace kinbook {

// The address book's map from card id to the card's file. A full read of a
// large address book makes a new one every time, so its entries live in one
// arena: making and dropping 100,000 of them costs little more than hashing
// the ids, with no allocation of its own per entry, and the ids can be
// hashed ahead, on the threads that read the cards. Removing an entry leaves
// its bytes in the arena until the next full read replaces the index.
//
// Not thread-safe; movable, and a moved-from index is empty.
class CardIndex {
public:
    struct Place {
        std::uint32_t account = 0;
        // The file's name; empty when it is the card id plus ".vcf", how
        // vdirsyncer names files, so most entries keep no name at all.
        std::string_view fileName;
    };

    CardIndex();
    explicit CardIndex(std::size_t expected);
    CardIndex(CardIndex&& other) noexcept;
    CardIndex& operator=(CardIndex&& other) noexcept;
    ~CardIndex();

    // The hash the index files `cardID` under.
    static std::size_t hashOf(std::string_view cardID);

    const Place* find(std::string_view cardID) const;
    // Adds the card unless the index has it already; false then. `hash` is
    // hashOf(cardID).
    bool insert(std::string_view cardID, std::size_t hash, std::uint32_t account, std::string_view fileName);
    bool insert(std::string_view cardID, std::uint32_t account, std::string_view fileName) {
        return insert(cardID, hashOf(cardID), account, fileName);
    }
    // Adds the card or moves it to another file.
    void set(std::string_view cardID, std::uint32_t account, std::string_view fileName);
    void erase(std::string_view cardID);
    std::size_t size() const;

private:
    struct Entries;
    std::unique_ptr<Entries> m_entries;
};

} // namespace kinbook
