#pragma once

#include <chrono>

namespace kinbook {

// What time it is, for every part of Kinbook: the wall clock for what is
// shown and stored (the one-day rule of a full read, the time of a refresh,
// dates written into cards and files), the monotonic clock for every
// duration that is measured or logged. Passed in, never read directly, so
// that a test drives time the same way in every part.
//
// Thread-safe: both readings may be taken from any thread.
class Clock {
public:
    virtual ~Clock() = default;

    virtual std::chrono::system_clock::time_point now() const = 0;
    virtual std::chrono::steady_clock::time_point monotonicNow() const = 0;

    // Milliseconds since `start`, on the monotonic clock, as the log shows them.
    long long millisecondsSince(std::chrono::steady_clock::time_point start) const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(monotonicNow() - start).count();
    }

    // The system's clocks; one for the whole process, never destroyed.
    static Clock& system();
};

} // namespace kinbook
