#pragma once

#include <cstdint>
#include <string_view>

namespace kinbook {

// A tiny, fast random source with a fixed algorithm (SplitMix64), so that a
// seed gives the same synthetic data on every machine and compiler, which
// the standard library's distributions do not promise. Not for secrets.
class SplitMix64 {
public:
    explicit SplitMix64(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    // A value in [0, bound); 0 for a bound of 0. The slight bias of the
    // modulo does not matter for test data.
    std::uint64_t below(std::uint64_t bound) { return bound == 0 ? 0 : next() % bound; }
    // An int in [low, high].
    int between(int low, int high) {
        return low + static_cast<int>(below(static_cast<std::uint64_t>(high - low + 1)));
    }
    // True with the given chance in percent.
    bool percent(unsigned chance) { return below(100) < chance; }

    template <typename T, std::size_t N>
    const T& pick(const T (&items)[N]) {
        return items[below(N)];
    }

private:
    std::uint64_t m_state;
};

} // namespace kinbook
