#include "KinbookKit/records/Texts.h"

#include "KinbookKit/Hash.h"

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

namespace kinbook {

Texts::Block* Texts::allocate(std::size_t count, std::size_t byteCount, std::uint32_t mark) {
    // Offsets are 32 bits: no card holds gigabytes of text.
    if (byteCount > std::numeric_limits<std::uint32_t>::max() ||
        count > std::numeric_limits<std::uint32_t>::max() / sizeof(std::uint32_t)) {
        throw std::length_error("a list of texts is too long");
    }
    void* memory = ::operator new(sizeof(Block) + count * sizeof(std::uint32_t) + byteCount);
    return new (memory) Block{{1}, static_cast<std::uint32_t>(count), mark};
}

void Texts::put(Block& block, std::uint32_t& filled, std::string_view text) {
    const std::uint32_t begin = filled == 0 ? 0 : block.ends()[filled - 1];
    if (!text.empty()) {
        std::memcpy(block.bytes() + begin, text.data(), text.size());
    }
    block.ends()[filled++] = begin + static_cast<std::uint32_t>(text.size());
}

Texts::Texts(const Texts& other) noexcept : m_block(other.m_block) {
    if (m_block != nullptr) {
        m_block->shares.fetch_add(1, std::memory_order_relaxed);
    }
}

Texts& Texts::operator=(const Texts& other) noexcept {
    Texts copy(other);
    std::swap(m_block, copy.m_block);
    return *this;
}

Texts& Texts::operator=(Texts&& other) noexcept {
    Texts taken(std::move(other));
    std::swap(m_block, taken.m_block);
    return *this;
}

Texts::~Texts() {
    if (m_block != nullptr && m_block->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_block->~Block();
        ::operator delete(static_cast<void*>(m_block));
    }
}

bool Texts::contains(std::string_view text) const {
    return std::find(begin(), end(), text) != end();
}

TextList Texts::stretch(std::size_t from, std::size_t count) const {
    if (count == 0) {
        return {};
    }
    const std::uint32_t* ends = m_block->ends() + from;
    return TextList(ends, m_block->bytes(), from == 0 ? 0 : ends[-1], count);
}

bool Texts::operator==(const Texts& other) const {
    if (m_block == other.m_block) {
        return true;
    }
    if (size() != other.size()) {
        return false;
    }
    if (empty()) {
        return true;
    }
    const std::size_t length = m_block->count * sizeof(std::uint32_t) + m_block->byteCount();
    return m_block->mark == other.m_block->mark && m_block->byteCount() == other.m_block->byteCount() &&
           std::memcmp(m_block->ends(), other.m_block->ends(), length) == 0;
}

} // namespace kinbook

std::size_t std::hash<kinbook::Texts>::operator()(const kinbook::Texts& texts) const {
    std::size_t seed = texts.size();
    for (const auto text : texts) {
        kinbook::hashCombine(seed, text);
    }
    return seed;
}
