#pragma once

#include "KinbookKit/addressbook/FolderWatcher.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kinbook {

// A FolderWatcher over Linux inotify: one watch on the root (account folders
// coming and going) and one per account folder (card files written with
// close-after-write, renamed in or out, deleted, or touched). A reader thread
// waits on the inotify descriptor and an eventfd that stop() signals.
//
// Notices are merged: while one posted notice has not yet started running,
// further changes post no other, and their card names join the pending
// notice's. Names that are not cards or account metadata (other programs'
// temporaries, hidden files) post nothing. When the kernel's queue
// overflows, an account folder comes, goes or moves, or an account folder
// can't be watched, the notice says that it can't name what changed: the
// journal then scans everything.
//
// Not thread-safe: start() and stop() from one thread; the destructor stops.
class InotifyFolderWatcher final : public FolderWatcher {
public:
    InotifyFolderWatcher() = default;
    ~InotifyFolderWatcher() override;

    InotifyFolderWatcher(const InotifyFolderWatcher&) = delete;
    InotifyFolderWatcher& operator=(const InotifyFolderWatcher&) = delete;

    Result<void, std::string> start(const std::filesystem::path& root, Executor& executor,
                                    Callback onChange) override;
    void stop() override;

private:
    // Shared with the tasks posted to the executor, which may run after stop().
    struct Delivery {
        Callback onChange;
        std::atomic<bool> pending{false};
        std::mutex mutex;     // held while onChange runs; stop() takes it to wait
        bool stopped = false; // guarded by mutex
        std::mutex changesMutex;
        FolderChange changes;                                // for the next notice; guarded by changesMutex
        std::set<std::pair<std::string, std::string>> named; // the files in `changes`
    };

    void readEvents();
    void watchAccount(const std::string& name);
    void forgetAccount(const std::string& name);
    void notify(std::vector<std::pair<std::string, std::string>> files, bool unnamed);

    std::filesystem::path m_root;
    Executor* m_executor = nullptr;
    std::shared_ptr<Delivery> m_delivery;
    int m_inotifyFD = -1;
    int m_stopFD = -1;
    int m_rootWatch = -1;
    // Account folder watches and the folder each watches; the reader thread's
    // once it runs.
    std::unordered_map<int, std::string> m_accounts;
    // Some account folder could not be watched, so names can't cover all.
    bool m_incomplete = false;
    std::thread m_reader;
};

} // namespace kinbook
