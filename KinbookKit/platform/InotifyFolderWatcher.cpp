#include "KinbookKit/platform/InotifyFolderWatcher.h"

#include "KinbookKit/addressbook/CardListing.h"

#include <fmt/core.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

namespace kinbook {

namespace {

// The root's own files count too: cards kept directly in it are an address
// book of their own.
constexpr std::uint32_t rootEvents = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE |
                                     IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// IN_CREATE covers cards made with link() (how vdirsyncer creates without
// replacing); IN_ATTRIB a touch, which the journal sees as a change too.
constexpr std::uint32_t accountEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE |
                                        IN_ATTRIB | IN_DELETE_SELF | IN_ONLYDIR;

// Beyond this many files changed between two notices, naming them all
// saves nothing over a scan of everything.
constexpr std::size_t kMostNamedFiles = 10'000;

bool isHidden(std::string_view name) {
    return name.empty() || name[0] == '.';
}

// Cards, and the metadata files that name an account. Other writers'
// temporaries (hidden, "*.tmp", or the target name plus random letters) are
// not cards until renamed into place, which posts its own notice.
bool isReported(std::string_view name) {
    if (isHidden(name)) {
        return false;
    }
    constexpr std::string_view card = ".vcf";
    if (name.size() > card.size() && name.substr(name.size() - card.size()) == card) {
        return true;
    }
    return name == "displayname" || name == "color" || name == "description" || name == "order";
}

} // namespace

InotifyFolderWatcher::~InotifyFolderWatcher() {
    stop();
}

Result<void, std::string> InotifyFolderWatcher::start(const std::filesystem::path& root, Executor& executor,
                                                      Callback onChange) {
    stop();
    m_inotifyFD = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    m_stopFD = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_inotifyFD < 0 || m_stopFD < 0) {
        std::string message = fmt::format("cannot watch the address book: {}", std::strerror(errno));
        stop();
        return failure(message);
    }
    m_rootWatch = ::inotify_add_watch(m_inotifyFD, root.c_str(), rootEvents);
    if (m_rootWatch < 0) {
        std::string message =
            fmt::format("cannot watch the address book folder {}: {}", root.string(), std::strerror(errno));
        stop();
        return failure(message);
    }
    m_root = root;
    m_executor = &executor;
    m_delivery = std::make_shared<Delivery>();
    m_delivery->onChange = std::move(onChange);

    // The root is watched first, so a folder made while this loop runs is seen
    // either here or by its event (watching it twice is harmless).
    std::error_code error;
    for (std::filesystem::directory_iterator entry(root, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename().native();
        std::error_code typeError;
        if (!isHidden(name) && entry->is_directory(typeError)) {
            watchAccount(name);
        }
    }
    // Nothing was watched before now.
    notify({}, true);
    m_reader = std::thread([this] { readEvents(); });
    return {};
}

void InotifyFolderWatcher::stop() {
    if (m_reader.joinable()) {
        std::uint64_t one = 1;
        while (::write(m_stopFD, &one, sizeof one) < 0 && errno == EINTR) {
        }
        m_reader.join();
    }
    if (m_inotifyFD >= 0) {
        ::close(m_inotifyFD);
        m_inotifyFD = -1;
    }
    if (m_stopFD >= 0) {
        ::close(m_stopFD);
        m_stopFD = -1;
    }
    if (m_delivery) {
        // Waits for a notice that is running right now.
        std::lock_guard lock(m_delivery->mutex);
        m_delivery->stopped = true;
    }
    m_delivery.reset();
    m_rootWatch = -1;
    m_accounts.clear();
    m_incomplete = false;
    m_executor = nullptr;
}

void InotifyFolderWatcher::watchAccount(const std::string& name) {
    // The kernel drops a removed folder's watch itself. Watching a folder
    // twice (a folder renamed back) gives the watch it has, now by this name.
    const int watch = ::inotify_add_watch(m_inotifyFD, (m_root / name).c_str(), accountEvents);
    if (watch >= 0) {
        m_accounts[watch] = name;
        // A folder of the root may be a group of collections, one level
        // deeper ("<pair>/<collection>"): those are watched as well.
        if (name.find('/') == std::string::npos) {
            std::error_code error;
            for (std::filesystem::directory_iterator entry(m_root / name, error), end; !error && entry != end;
                 entry.increment(error)) {
                std::string sub = entry->path().filename().native();
                std::error_code typeError;
                if (!isHidden(sub) && entry->is_directory(typeError)) {
                    watchAccount(name + "/" + sub);
                }
            }
        }
    } else if (errno != ENOENT && errno != ENOTDIR) {
        // A folder we may not read, or one past the kernel's limit on
        // watches: changes in it go unseen, so names can no longer be
        // trusted to cover everything.
        m_incomplete = true;
    }
}

void InotifyFolderWatcher::forgetAccount(const std::string& name) {
    for (auto account = m_accounts.begin(); account != m_accounts.end(); ++account) {
        if (account->second == name) {
            // A folder moved away keeps its watch; its events must not be
            // taken for this name's.
            ::inotify_rm_watch(m_inotifyFD, account->first);
            m_accounts.erase(account);
            return;
        }
    }
}

void InotifyFolderWatcher::notify(std::vector<std::pair<std::string, std::string>> files, bool unnamed) {
    std::shared_ptr<Delivery> delivery = m_delivery;
    {
        std::lock_guard lock(delivery->changesMutex);
        FolderChange& changes = delivery->changes;
        changes.unnamed = changes.unnamed || unnamed;
        if (!changes.unnamed) {
            for (auto& file : files) {
                if (delivery->named.insert(file).second) {
                    changes.files.push_back(std::move(file));
                }
            }
            changes.unnamed = changes.files.size() > kMostNamedFiles;
        }
        if (changes.unnamed) {
            changes.files.clear();
            delivery->named.clear();
        }
    }
    if (delivery->pending.exchange(true)) {
        return;
    }
    m_executor->post([delivery] {
        std::lock_guard lock(delivery->mutex);
        if (delivery->stopped) {
            return;
        }
        // Cleared before the changes are taken, so a change made while this
        // runs posts again.
        delivery->pending = false;
        FolderChange change;
        {
            std::lock_guard changesLock(delivery->changesMutex);
            change = std::exchange(delivery->changes, FolderChange{});
            delivery->named.clear();
        }
        delivery->onChange(change);
    });
}

void InotifyFolderWatcher::readEvents() {
    std::array<pollfd, 2> waits{{{m_inotifyFD, POLLIN, 0}, {m_stopFD, POLLIN, 0}}};
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (waits[1].revents != 0) {
            return;
        }
        bool changed = false;
        bool unnamed = false;
        std::vector<std::pair<std::string, std::string>> files;
        for (;;) {
            ssize_t got = ::read(m_inotifyFD, buffer, sizeof buffer);
            if (got <= 0) {
                break; // EAGAIN: drained
            }
            for (std::size_t offset = 0; offset < static_cast<std::size_t>(got);) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                offset += sizeof(inotify_event) + event->len;
                std::string_view name = event->len > 0 ? std::string_view(event->name) : std::string_view();
                if ((event->mask & IN_Q_OVERFLOW) != 0) {
                    changed = unnamed = true;
                } else if (event->wd == m_rootWatch) {
                    if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
                        changed = unnamed = true;
                    } else if ((event->mask & IN_ISDIR) != 0 && !isHidden(name)) {
                        if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                            forgetAccount(std::string(name));
                        }
                        if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
                            watchAccount(std::string(name));
                        }
                        // Cards came or went with the folder, unnamed.
                        changed = unnamed = true;
                    } else if ((event->mask & IN_ISDIR) == 0 && isReported(name)) {
                        // A card directly in the root: the first one makes
                        // the root an account, so the names can't be trusted.
                        changed = unnamed = true;
                    }
                } else if ((event->mask & IN_IGNORED) != 0) {
                    m_accounts.erase(event->wd);
                } else if ((event->mask & IN_DELETE_SELF) != 0) {
                    changed = unnamed = true;
                } else if ((event->mask & IN_ISDIR) != 0 && !isHidden(name)) {
                    // A collection made or removed inside a folder of the root.
                    const auto account = m_accounts.find(event->wd);
                    if (account != m_accounts.end() && account->second.find('/') == std::string::npos) {
                        const std::string path = account->second + "/" + std::string(name);
                        if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                            forgetAccount(path);
                        }
                        if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
                            watchAccount(path);
                        }
                    }
                    changed = unnamed = true;
                } else if (isReported(name)) {
                    changed = true;
                    if (CardListing::isCardFileName(name)) {
                        const auto account = m_accounts.find(event->wd);
                        if (account != m_accounts.end()) {
                            files.emplace_back(account->second, std::string(name));
                        } else {
                            unnamed = true;
                        }
                    }
                }
            }
        }
        if (changed) {
            notify(std::move(files), unnamed || m_incomplete);
        }
    }
}

} // namespace kinbook
