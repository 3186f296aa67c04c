#pragma once

#include <cstdint>
#include <string>

namespace kinbook {

// 64 bits from the operating system's cryptographically strong random source
// (getrandom). Thread-safe. Identifiers that must never collide across a
// user's devices (KinIDs, entry ids) are drawn from here, never from a
// seeded generator.
std::uint64_t secureRandom64();

// A uniformly drawn index in [0, bound), bound > 0, without modulo bias:
// multiply-high of a 64-bit draw, rejecting draws whose low product falls
// below 2^64 mod bound (Lemire's method).
std::uint64_t secureRandomBelow(std::uint64_t bound);

// A fresh random (version 4) UUID in its standard upper-case text form,
// 8-4-4-4-12 hexadecimal digits.
std::string makeUUID();

} // namespace kinbook
