#include "KinbookKit/platform/CommandCloudDownloads.h"

#include "KinbookKit/text/KinLog.h"

#include <fmt/core.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>

extern char** environ;

namespace kinbook {

namespace {

const KinLog& sidecarLog() {
    static const KinLog log("sidecar");
    return log;
}

} // namespace

CommandCloudDownloads::~CommandCloudDownloads() {
    std::lock_guard lock(m_mutex);
    reap();
}

std::vector<std::string> CommandCloudDownloads::argumentsFor(const std::string& command,
                                                             const std::string& placeholder) {
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < command.size()) {
        const auto end = command.find(' ', start);
        std::string word = command.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!word.empty()) {
            arguments.push_back(word == "%f" ? placeholder : word);
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return arguments;
}

void CommandCloudDownloads::reap() {
    for (auto it = m_running.begin(); it != m_running.end();) {
        int status = 0;
        it = ::waitpid(*it, &status, WNOHANG) == 0 ? std::next(it) : m_running.erase(it);
    }
}

void CommandCloudDownloads::startDownloading(const std::filesystem::path& placeholder,
                                             const std::filesystem::path& target) {
    std::lock_guard lock(m_mutex);
    reap();
    if (!m_asked.insert(target).second) {
        return;
    }
    sidecarLog().info(
        fmt::format("sidecar: waiting for the sync client to bring {}", target.filename().string()));
    if (!m_command) {
        return;
    }
    auto arguments = argumentsFor(*m_command, placeholder.string());
    if (arguments.empty()) {
        return;
    }
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    const int failed = ::posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ);
    if (failed != 0) {
        sidecarLog().error(
            fmt::format("sidecar: couldn't start the download command: {}", std::strerror(failed)));
        return;
    }
    m_running.insert(child);
}

} // namespace kinbook
