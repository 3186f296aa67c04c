#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace kinbook::testing {

namespace {

using Clock = std::chrono::steady_clock;

// Everything the child needs, prepared before fork: after it only
// async-signal-safe calls are allowed.
struct PreparedCommand {
    std::string program;
    std::vector<std::string> arguments;
    std::vector<char*> argv;

    explicit PreparedCommand(const std::vector<std::string>& command) : arguments(command) {
        if (auto found = findExecutable(command.empty() ? std::string_view{} : command.front())) {
            program = found->string();
        }
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
    }
};

int exitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

} // namespace

std::optional<std::filesystem::path> findExecutable(std::string_view name) {
    if (name.empty()) {
        return std::nullopt;
    }
    auto executable = [](const std::filesystem::path& candidate) {
        struct stat info {};
        return ::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
               ::access(candidate.c_str(), X_OK) == 0;
    };
    if (name.find('/') != std::string_view::npos) {
        std::filesystem::path path(name);
        return executable(path) ? std::optional(path) : std::nullopt;
    }
    const char* searchPath = std::getenv("PATH");
    std::string_view rest = searchPath != nullptr ? searchPath : "/usr/local/bin:/usr/bin:/bin";
    while (true) {
        std::size_t colon = rest.find(':');
        std::string_view folder = rest.substr(0, colon);
        std::filesystem::path candidate = std::filesystem::path(folder.empty() ? "." : folder) / name;
        if (executable(candidate)) {
            return candidate;
        }
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        rest.remove_prefix(colon + 1);
    }
}

ProcessOutcome runProcess(const std::vector<std::string>& argv, std::string_view input,
                          std::chrono::milliseconds timeout) {
    ProcessOutcome outcome;
    PreparedCommand command(argv);
    if (command.program.empty()) {
        outcome.output = "cannot find the program " + (argv.empty() ? std::string("(none)") : argv.front());
        return outcome;
    }
    int inputPipe[2] = {-1, -1};
    int outputPipe[2] = {-1, -1};
    if (::pipe2(inputPipe, O_CLOEXEC) != 0) {
        outcome.output = "pipe failed";
        return outcome;
    }
    if (::pipe2(outputPipe, O_CLOEXEC) != 0) {
        ::close(inputPipe[0]);
        ::close(inputPipe[1]);
        outcome.output = "pipe failed";
        return outcome;
    }

    pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::dup2(inputPipe[0], STDIN_FILENO);
        ::dup2(outputPipe[1], STDOUT_FILENO);
        ::dup2(outputPipe[1], STDERR_FILENO);
        ::execv(command.program.c_str(), command.argv.data());
        ::_exit(127);
    }
    ::close(inputPipe[0]);
    ::close(outputPipe[1]);
    if (pid < 0) {
        ::close(inputPipe[1]);
        ::close(outputPipe[0]);
        outcome.output = "fork failed";
        return outcome;
    }
    // Also set from this side, so that a kill right after fork reaches the group.
    ::setpgid(pid, pid);

    // The input is small: it fits the pipe buffer, so writing it all before
    // reading cannot deadlock. A child that never reads gets EPIPE, not us.
    std::signal(SIGPIPE, SIG_IGN);
    std::size_t written = 0;
    while (written < input.size()) {
        ssize_t count = ::write(inputPipe[1], input.data() + written, input.size() - written);
        if (count <= 0) {
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    ::close(inputPipe[1]);

    const auto deadline = Clock::now() + timeout;
    int outputFd = outputPipe[0];
    char buffer[16384];
    while (outputFd >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            outcome.timedOut = true;
            break;
        }
        pollfd readable{.fd = outputFd, .events = POLLIN, .revents = 0};
        int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            continue; // the deadline check above ends the loop
        }
        ssize_t count = ::read(outputFd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            closeIfOpen(outputFd);
            break;
        }
        outcome.output.append(buffer, static_cast<std::size_t>(count));
    }
    closeIfOpen(outputFd);

    if (outcome.timedOut) {
        ::kill(-pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.output += "\n(killed after " + std::to_string(timeout.count()) + " ms)";
        return outcome;
    }
    // The output closed: the program ended, or at least closed its streams.
    // Give it the rest of the time to exit.
    int status = 0;
    while (true) {
        pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            outcome.exitCode = exitCodeOf(status);
            return outcome;
        }
        if (done < 0 && errno != EINTR) {
            return outcome;
        }
        if (Clock::now() >= deadline) {
            outcome.timedOut = true;
            ::kill(-pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return outcome;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::optional<pid_t> startBackgroundProcess(const std::vector<std::string>& argv,
                                            const std::filesystem::path& logFile) {
    PreparedCommand command(argv);
    if (command.program.empty()) {
        return std::nullopt;
    }
    std::string logPath = logFile.string();
    pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        int devNull = ::open("/dev/null", O_RDONLY);
        int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (devNull < 0 || log < 0) {
            ::_exit(127);
        }
        ::dup2(devNull, STDIN_FILENO);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::execv(command.program.c_str(), command.argv.data());
        ::_exit(127);
    }
    if (pid < 0) {
        return std::nullopt;
    }
    ::setpgid(pid, pid);
    return pid;
}

bool isProcessRunning(pid_t pid, int* exitCode) {
    int status = 0;
    pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == 0) {
        return true;
    }
    if (done == pid && exitCode != nullptr) {
        *exitCode = exitCodeOf(status);
    }
    return false;
}

void stopProcess(pid_t pid, std::chrono::milliseconds grace) {
    if (pid <= 0) {
        return;
    }
    if (!isProcessRunning(pid)) {
        return;
    }
    ::kill(-pid, SIGTERM);
    const auto deadline = Clock::now() + grace;
    while (Clock::now() < deadline) {
        if (!isProcessRunning(pid)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(-pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
}

} // namespace kinbook::testing
