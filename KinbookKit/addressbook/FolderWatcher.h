#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kinbook {

// What the events behind one notice said changed.
struct FolderChange {
    // Card files written, renamed in or out, deleted or touched, as
    // (account folder name, file name), each once.
    std::vector<std::pair<std::string, std::string>> files;
    // Something changed that the names don't cover: the watch just began (so
    // nothing before it was seen), the kernel dropped events, an account
    // folder came, went or moved, or too many files changed to list.
    bool unnamed = false;
};

// Tells the address book that something in its vdir may have changed: a card
// file written, renamed into place or removed, an account folder added or
// removed, by Kinbook or by any other program (a sync run, a text editor).
// Each notice names the card files its events were about, or says that it
// can't; the change journal then stats just those files, or every file.
// Notices may be merged and may come for changes that turn out to be none;
// after a change, at least one notice follows, and the first notice after a
// start says that anything may have changed.
class FolderWatcher {
public:
    using Callback = std::function<void(const FolderChange&)>;

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
