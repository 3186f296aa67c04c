#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook::testing {

// How a program run by runProcess ended.
struct ProcessOutcome {
    // The exit status; -1 when the program could not be started, was killed
    // by a signal or ran out of time.
    int exitCode = -1;
    bool timedOut = false;
    // Standard output and standard error, interleaved as written.
    std::string output;

    bool operator==(const ProcessOutcome&) const = default;
};

// The program `name` as found on PATH (or `name` itself when it holds a '/'),
// when it exists and is executable.
std::optional<std::filesystem::path> findExecutable(std::string_view name);

// Runs `argv` (argv[0] looked up on PATH) in a process group of its own, with
// `input` on its standard input (which is then closed; keep it within a pipe
// buffer, 64 KiB), and collects its output. After `timeout` the whole group
// is killed and the outcome says so. Never throws; blocks the calling thread.
ProcessOutcome runProcess(const std::vector<std::string>& argv, std::string_view input,
                          std::chrono::milliseconds timeout);

// Starts `argv` in the background in a process group of its own, standard
// input from /dev/null, standard output and error appended to `logFile`.
// Returns its process id, or none when it could not be started. The caller
// owns the process: stop it with stopProcess.
std::optional<pid_t> startBackgroundProcess(const std::vector<std::string>& argv,
                                            const std::filesystem::path& logFile);

// Whether the process is still running; reaps it (and stores its exit status
// in `exitCode` when given) once it has ended.
bool isProcessRunning(pid_t pid, int* exitCode = nullptr);

// Asks the process group to end (SIGTERM), waits up to `grace`, then kills it
// (SIGKILL) and reaps it.
void stopProcess(pid_t pid, std::chrono::milliseconds grace);

} // namespace kinbook::testing
