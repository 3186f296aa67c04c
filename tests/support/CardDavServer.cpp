#include "tests/support/CardDavServer.h"

#include "tests/support/ChildProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <thread>

namespace kinbook::testing {

namespace {

// Base64 of "kinbook:kinbook", the only credentials the tests use.
constexpr std::string_view basicCredentials = "a2luYm9vazpraW5ib29r";

constexpr int startAttempts = 5;
// Radicale takes about half a second to import and bind; a loaded machine
// several times that. Polled, never waited out.
constexpr int readinessPolls = 600;
constexpr auto readinessInterval = std::chrono::milliseconds(25);

// A port nobody listens on right now: bind to port 0, read what the kernel
// chose, let it go. Another program may take it before the server binds it;
// start() then tries again with another one.
std::uint16_t pickFreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    std::uint16_t port = 0;
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

bool writeText(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string readText(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

HttpReply sendRequest(std::uint16_t port, const std::string& request) {
    HttpReply reply;
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return reply;
    }
    timeval timeout{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return reply;
    }
    std::size_t sent = 0;
    while (sent < request.size()) {
        ssize_t count = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            ::close(fd);
            return reply;
        }
        sent += static_cast<std::size_t>(count);
    }
    // HTTP/1.0 without keep-alive: the answer ends when the server closes.
    std::string received;
    char buffer[16384];
    while (true) {
        ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        received.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd);

    // "HTTP/1.x NNN reason"
    if (received.size() < 12 || received.compare(0, 5, "HTTP/") != 0) {
        return reply;
    }
    std::size_t space = received.find(' ');
    if (space == std::string::npos || space + 4 > received.size()) {
        return reply;
    }
    int status = 0;
    for (std::size_t i = space + 1; i < space + 4; ++i) {
        char digit = received[i];
        if (digit < '0' || digit > '9') {
            return reply;
        }
        status = status * 10 + (digit - '0');
    }
    std::size_t headersEnd = received.find("\r\n\r\n");
    reply.status = status;
    if (headersEnd == std::string::npos) {
        reply.headers = received;
    } else {
        reply.headers = received.substr(0, headersEnd);
        reply.body = received.substr(headersEnd + 4);
    }
    return reply;
}

std::string configuration(std::uint16_t port, const std::filesystem::path& storage) {
    // auth "none" takes any user name; "owner_only" gives each user exactly
    // its own collections, as a real account would.
    return "[server]\n"
           "hosts = 127.0.0.1:" +
           std::to_string(port) +
           "\n"
           "[auth]\n"
           "type = none\n"
           "[rights]\n"
           "type = owner_only\n"
           "[storage]\n"
           "filesystem_folder = " +
           storage.string() +
           "\n"
           "[web]\n"
           "type = none\n"
           "[logging]\n"
           "level = warning\n";
}

} // namespace

Result<std::unique_ptr<CardDavServer>, std::string>
CardDavServer::start(const std::filesystem::path& folder) {
    if (!findExecutable("radicale")) {
        return failure(std::string("the CardDAV server program \"radicale\" is not installed "
                                   "(scripts/setup.sh installs it)"));
    }
    const std::filesystem::path configFile = folder / "radicale.conf";
    const std::filesystem::path logFile = folder / "radicale.log";
    std::string lastProblem = "no free port on 127.0.0.1";
    for (int attempt = 0; attempt < startAttempts; ++attempt) {
        std::uint16_t port = pickFreePort();
        if (port == 0) {
            continue;
        }
        if (!writeText(configFile, configuration(port, folder / "collections"))) {
            return failure("cannot write " + configFile.string());
        }
        auto pid = startBackgroundProcess({"radicale", "--config", configFile.string()}, logFile);
        if (!pid) {
            return failure(std::string("cannot start radicale"));
        }
        std::unique_ptr<CardDavServer> server(new CardDavServer(folder, port, *pid));
        for (int poll = 0; poll < readinessPolls; ++poll) {
            int exitCode = -1;
            if (!isProcessRunning(*pid, &exitCode)) {
                server->m_pid = -1;
                lastProblem =
                    "radicale exited with status " + std::to_string(exitCode) + ":\n" + readText(logFile);
                break;
            }
            if (server->request("OPTIONS", "/").status != 0) {
                return server;
            }
            std::this_thread::sleep_for(readinessInterval);
        }
        if (server->m_pid > 0) {
            lastProblem =
                "radicale did not answer on port " + std::to_string(port) + ":\n" + readText(logFile);
        }
        // The destructor stops a server that never answered; the next
        // attempt takes another port.
    }
    return failure(lastProblem);
}

CardDavServer::~CardDavServer() {
    stopProcess(m_pid, std::chrono::seconds(5));
}

std::string CardDavServer::url() const {
    return "http://127.0.0.1:" + std::to_string(m_port) + "/";
}

std::string CardDavServer::collectionPath(std::string_view name) {
    return "/" + std::string(user) + "/" + std::string(name) + "/";
}

Result<void, std::string> CardDavServer::createAddressBook(std::string_view name) {
    static constexpr std::string_view body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<D:mkcol xmlns:D=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:carddav\">\n"
        "  <D:set><D:prop>\n"
        "    <D:resourcetype><D:collection/><C:addressbook/></D:resourcetype>\n"
        "  </D:prop></D:set>\n"
        "</D:mkcol>\n";
    HttpReply reply = request("MKCOL", collectionPath(name), body, "application/xml; charset=utf-8");
    if (reply.status != 201) {
        return failure("MKCOL " + collectionPath(name) + " answered " + std::to_string(reply.status) + "\n" +
                       reply.headers + "\n" + reply.body);
    }
    return {};
}

HttpReply CardDavServer::request(std::string_view method, std::string_view path, std::string_view body,
                                 std::string_view contentType, std::string_view extraHeaders) const {
    std::string text;
    text.append(method).append(" ").append(path).append(" HTTP/1.0\r\n");
    text.append("Host: 127.0.0.1:").append(std::to_string(m_port)).append("\r\n");
    text.append("Authorization: Basic ").append(basicCredentials).append("\r\n");
    if (!contentType.empty()) {
        text.append("Content-Type: ").append(contentType).append("\r\n");
    }
    text.append(extraHeaders);
    text.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n");
    text.append(body);
    return sendRequest(m_port, text);
}

std::string CardDavServer::log() const {
    return readText(m_folder / "radicale.log");
}

} // namespace kinbook::testing
