#pragma once

#include <functional>

namespace kinbook {

// Runs `first` on this thread and `second` on a thread of its own at the
// same time, and returns when both are done. For the few large steps of a
// load (decoding 100,000 people, joining them) that split in two halves
// without sharing anything they write. When no thread can be started, runs
// one after the other: the work gets done either way.
void runSideBySide(const std::function<void()>& first, const std::function<void()>& second);

} // namespace kinbook
