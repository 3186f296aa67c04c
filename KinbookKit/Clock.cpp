#include "KinbookKit/Clock.h"

namespace kinbook {
namespace {

class SystemClock final : public Clock {
public:
    std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }
    std::chrono::steady_clock::time_point monotonicNow() const override {
        return std::chrono::steady_clock::now();
    }
};

} // namespace

Clock& Clock::system() {
    static SystemClock* const clock = new SystemClock();
    return *clock;
}

} // namespace kinbook
