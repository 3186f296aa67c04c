#include "tests/cli/KinbookRun.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace kinbook::testing {

KinbookHome::KinbookHome() {
    for (const auto& folder : {home(), config(), data(), state(), cache()}) {
        std::filesystem::create_directories(folder);
    }
}

KinbookRun KinbookHome::run(const std::vector<std::string>& arguments,
                            std::optional<int> terminalColumns) const {
    std::map<std::string, std::string> environment = {
        {"HOME", home().string()},
        {"XDG_CONFIG_HOME", config().string()},
        {"XDG_DATA_HOME", data().string()},
        {"XDG_STATE_HOME", state().string()},
        {"XDG_CACHE_HOME", cache().string()},
        {"LANG", "C.UTF-8"},
    };
    // The sanitizer build's settings, and where programs are found.
    for (const char* name : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {
            environment[name] = value;
        }
    }
    for (const auto& [name, value] : m_variables) {
        environment[name] = value;
    }
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) {
        entries.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& entry : entries) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> argumentCopies = {KINBOOK_CLI_PATH};
    argumentCopies.insert(argumentCopies.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentCopies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    KinbookRun result;
    int outPipe[2];
    int errPipe[2];
    if (terminalColumns) {
        // A pseudo-terminal in place of the output pipe: the tool reads from
        // the other end, as from a person's terminal, how wide it is. Output
        // is passed as written, line feeds not turned into CR LF.
        const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
            return result;
        }
        const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave < 0) {
            ::close(master);
            return result;
        }
        termios settings{};
        ::tcgetattr(slave, &settings);
        settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        ::tcsetattr(slave, TCSANOW, &settings);
        winsize size{};
        size.ws_col = static_cast<unsigned short>(*terminalColumns);
        size.ws_row = 24;
        ::ioctl(master, TIOCSWINSZ, &size);
        outPipe[0] = master;
        outPipe[1] = slave;
    } else if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        return result;
    }
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return result;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::dup2(errPipe[1], STDERR_FILENO);
        const int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, STDIN_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (child < 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        return result;
    }
    // Both streams at once, so that neither fills its pipe and stalls the tool.
    std::array<pollfd, 2> streams = {pollfd{outPipe[0], POLLIN, 0}, pollfd{errPipe[0], POLLIN, 0}};
    std::array<std::string*, 2> sinks = {&result.out, &result.err};
    int open = 2;
    std::array<char, 65536> buffer{};
    while (open > 0) {
        if (::poll(streams.data(), streams.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        for (std::size_t i = 0; i < streams.size(); ++i) {
            if (streams[i].fd < 0 || streams[i].revents == 0) {
                continue;
            }
            const ssize_t got = ::read(streams[i].fd, buffer.data(), buffer.size());
            if (got > 0) {
                sinks[i]->append(buffer.data(), static_cast<std::size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                ::close(streams[i].fd);
                streams[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& stream : streams) {
        if (stream.fd >= 0) {
            ::close(stream.fd);
        }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace kinbook::testing
