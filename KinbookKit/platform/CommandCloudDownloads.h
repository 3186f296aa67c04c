#pragma once

#include "KinbookKit/sidecar/Sidecar.h"

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace kinbook {

// Asks for a placeholder's file the Linux way: the sync client (Nextcloud,
// Syncthing) brings files in its own time, so the ask is logged, and the
// configured `download_command` is started for it when there is one. The
// command is split at spaces into a program and its arguments, "%f" standing
// for the placeholder's path as one argument: no shell ever sees a file
// name. A file is asked for once per run; the command is not waited for.
class CommandCloudDownloads final : public CloudDownloads {
public:
    explicit CommandCloudDownloads(std::optional<std::string> command) : m_command(std::move(command)) {}
    ~CommandCloudDownloads() override;

    void startDownloading(const std::filesystem::path& placeholder,
                          const std::filesystem::path& target) override;

    // The program and arguments for one placeholder (empty: no command).
    static std::vector<std::string> argumentsFor(const std::string& command, const std::string& placeholder);

private:
    void reap(); // under m_mutex

    std::optional<std::string> m_command;
    std::mutex m_mutex;
    std::set<std::filesystem::path> m_asked; // guarded by m_mutex
    std::set<pid_t> m_running;               // guarded by m_mutex
};

} // namespace kinbook
