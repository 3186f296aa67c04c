#include "KinbookKit/records/PackedKeys.h"

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace kinbook {

PackedKeys::PackedKeys(const PersonKeys& keys) {
    const std::string* singles[Block::kSingleTexts] = {
        &keys.displayName,
        &keys.sortKey,
        &keys.sectionLetter,
        &keys.firstNameSortKey,
        &keys.firstNameSectionLetter,
        &keys.searchText,
    };
    std::size_t byteCount = 0;
    for (const auto* text : singles) {
        byteCount += text->size();
    }
    for (const auto* list : {&keys.areaCodes, &keys.phoneDigits}) {
        for (const auto& text : *list) {
            byteCount += text.size();
        }
    }
    const std::size_t endCount = Block::kSingleTexts + keys.areaCodes.size() + keys.phoneDigits.size();
    // Offsets are 32 bits: no card holds gigabytes of names.
    if (byteCount > std::numeric_limits<std::uint32_t>::max() ||
        endCount > std::numeric_limits<std::uint32_t>::max() / sizeof(std::uint32_t)) {
        throw std::length_error("a person's keys are too long");
    }

    void* memory = ::operator new(sizeof(Block) + endCount * sizeof(std::uint32_t) + byteCount);
    m_block = new (memory) Block{{1},
                                 static_cast<std::uint32_t>(keys.areaCodes.size()),
                                 static_cast<std::uint32_t>(keys.phoneDigits.size())};
    std::uint32_t* end = m_block->ends();
    char* out = m_block->bytes();
    std::uint32_t at = 0;
    const auto put = [&](const std::string& text) {
        if (!text.empty()) {
            std::memcpy(out + at, text.data(), text.size());
        }
        at += static_cast<std::uint32_t>(text.size());
        *end++ = at;
    };
    for (const auto* text : singles) {
        put(*text);
    }
    for (const auto& text : keys.areaCodes) {
        put(text);
    }
    for (const auto& text : keys.phoneDigits) {
        put(text);
    }
}

PackedKeys::PackedKeys(const PackedKeys& other) noexcept : m_block(other.m_block) {
    if (m_block != nullptr) {
        m_block->shares.fetch_add(1, std::memory_order_relaxed);
    }
}

PackedKeys& PackedKeys::operator=(const PackedKeys& other) noexcept {
    PackedKeys copy(other);
    std::swap(m_block, copy.m_block);
    return *this;
}

PackedKeys& PackedKeys::operator=(PackedKeys&& other) noexcept {
    PackedKeys taken(std::move(other));
    std::swap(m_block, taken.m_block);
    return *this;
}

PackedKeys::~PackedKeys() {
    if (m_block != nullptr && m_block->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_block->~Block();
        ::operator delete(static_cast<void*>(m_block));
    }
}

TextList PackedKeys::areaCodes() const {
    if (m_block == nullptr) {
        return {};
    }
    const std::uint32_t* ends = m_block->ends() + Block::kSingleTexts;
    return TextList(ends, m_block->bytes(), ends[-1], m_block->areaCodeCount);
}

TextList PackedKeys::phoneDigits() const {
    if (m_block == nullptr) {
        return {};
    }
    const std::uint32_t* ends = m_block->ends() + Block::kSingleTexts + m_block->areaCodeCount;
    return TextList(ends, m_block->bytes(), ends[-1], m_block->phoneDigitCount);
}

PersonKeys PackedKeys::unpacked() const {
    PersonKeys keys;
    keys.displayName = std::string(text(Text::displayName));
    keys.sortKey = std::string(text(Text::sortKey));
    keys.sectionLetter = std::string(text(Text::sectionLetter));
    keys.firstNameSortKey = std::string(text(Text::firstNameSortKey));
    keys.firstNameSectionLetter = std::string(text(Text::firstNameSectionLetter));
    keys.areaCodes = areaCodes().strings();
    keys.searchText = std::string(text(Text::searchText));
    keys.phoneDigits = phoneDigits().strings();
    return keys;
}

bool PackedKeys::operator==(const PackedKeys& other) const {
    if (m_block == other.m_block) {
        return true;
    }
    // Keys never worked out read as keys that are all empty.
    const auto empty = [](const Block* block) {
        return block == nullptr ||
               (block->areaCodeCount == 0 && block->phoneDigitCount == 0 && block->byteCount() == 0);
    };
    if (m_block == nullptr || other.m_block == nullptr) {
        return empty(m_block) && empty(other.m_block);
    }
    return m_block->areaCodeCount == other.m_block->areaCodeCount &&
           m_block->phoneDigitCount == other.m_block->phoneDigitCount &&
           m_block->size() == other.m_block->size() &&
           std::memcmp(m_block->ends(), other.m_block->ends(), m_block->size() - sizeof(Block)) == 0;
}

} // namespace kinbook
