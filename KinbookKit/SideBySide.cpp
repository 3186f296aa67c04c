#include "KinbookKit/SideBySide.h"

#include <system_error>
#include <thread>

namespace kinbook {

void runSideBySide(const std::function<void()>& first, const std::function<void()>& second) {
    std::thread other;
    try {
        other = std::thread(second);
    } catch (const std::system_error&) {
        second();
    }
    // The other half is waited for even when this one throws: it works on
    // the caller's data.
    struct Joiner {
        std::thread& thread;
        ~Joiner() {
            if (thread.joinable()) {
                thread.join();
            }
        }
    } joiner{other};
    first();
}

} // namespace kinbook
