#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <vector>

namespace kinbook {

// Mixes one more value's hash into a running seed, so that records hash
// member by member in declaration order (boost's hash_combine, 64-bit).
template <typename T>
void hashCombine(std::size_t& seed, const T& value);

namespace detail {

template <typename T>
struct HashValue {
    std::size_t operator()(const T& value) const { return std::hash<T>{}(value); }
};

template <typename T>
struct HashValue<std::optional<T>> {
    std::size_t operator()(const std::optional<T>& value) const {
        std::size_t seed = value.has_value() ? 1 : 0;
        if (value) {
            hashCombine(seed, *value);
        }
        return seed;
    }
};

template <typename T>
struct HashValue<std::vector<T>> {
    std::size_t operator()(const std::vector<T>& values) const {
        std::size_t seed = values.size();
        for (const auto& value : values) {
            hashCombine(seed, value);
        }
        return seed;
    }
};

template <typename T>
struct HashValue<std::set<T>> {
    std::size_t operator()(const std::set<T>& values) const {
        std::size_t seed = values.size();
        for (const auto& value : values) {
            hashCombine(seed, value);
        }
        return seed;
    }
};

} // namespace detail

template <typename T>
void hashCombine(std::size_t& seed, const T& value) {
    seed ^= detail::HashValue<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 12) + (seed >> 4);
}

// Hashes every argument in order.
template <typename... Ts>
std::size_t hashAll(const Ts&... values) {
    std::size_t seed = 0;
    (hashCombine(seed, values), ...);
    return seed;
}

} // namespace kinbook
