#include "KinbookKit/SideBySide.h"

#include "KinbookKit/Executor.h"

namespace kinbook {

void runSideBySide(const std::function<void()>& first, const std::function<void()>& second) {
    runInParallel(2, [&](unsigned part) { part == 0 ? first() : second(); });
}

} // namespace kinbook
