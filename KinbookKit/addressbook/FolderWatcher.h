#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"

#include <filesystem>
#include <functional>
#include <string>

namespace kinbook {

// Tells the address book that something in its vdir may have changed: a card
// file written, renamed into place or removed, an account folder added or
// removed, by Kinbook or by any other program (a sync run, a text editor). It
// says nothing about what changed; the change journal's scan finds that out.
// Notices may be merged and may come for changes that turn out to be none;
// after a change, at least one notice follows.
class FolderWatcher {
public:
    using Callback = std::function<void()>;

    virtual ~FolderWatcher() = default;

    // Watches `root` and each of its account folders (not those whose name
    // starts with a dot), and folders that appear later. Each notice runs
    // `onChange` as a task on `executor`, which must outlive the watcher. A
    // watcher already started is restarted on the new root. Fails with a
    // message when the root cannot be watched.
    virtual Result<void, std::string> start(const std::filesystem::path& root, Executor& executor,
                                            Callback onChange) = 0;

    // Stops watching. Once it returns, `onChange` is not running and never
    // runs again (a notice already posted finds the watcher stopped). Harmless
    // when not watching. Call it from the thread that called start(), never
    // from `onChange`.
    virtual void stop() = 0;
};

} // namespace kinbook
