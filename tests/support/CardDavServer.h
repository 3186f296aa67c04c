#pragma once

#include "KinbookKit/Result.h"

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace kinbook::testing {

// One answer of the server over plain HTTP.
struct HttpReply {
    int status = 0; // 0 when no answer came
    std::string headers;
    std::string body;

    bool operator==(const HttpReply&) const = default;
};

// A real CardDAV server (Radicale) for tests, listening on 127.0.0.1 only,
// on a free port, with its configuration and its storage in a folder the
// test owns. Any user name and password are accepted; each user sees only
// its own collections, under "/<user>/".
//
// `start` fails, with a message meant for the test log, when the radicale
// program is missing (scripts/setup.sh installs it) or the server does not
// answer within a few seconds. The destructor stops the server (SIGTERM,
// then SIGKILL) and waits for it. One thread uses an instance at a time.
class CardDavServer {
public:
    static constexpr std::string_view user = "kinbook";
    static constexpr std::string_view password = "kinbook";

    // Starts a server in `folder`, which must exist and outlive the server.
    static Result<std::unique_ptr<CardDavServer>, std::string> start(const std::filesystem::path& folder);
    ~CardDavServer();
    CardDavServer(const CardDavServer&) = delete;
    CardDavServer& operator=(const CardDavServer&) = delete;

    std::uint16_t port() const { return m_port; }
    // "http://127.0.0.1:<port>/"
    std::string url() const;
    // The path of the user's collection `name`: "/kinbook/<name>/".
    static std::string collectionPath(std::string_view name);

    // Creates an address book collection named `name` for the user (an
    // extended MKCOL).
    Result<void, std::string> createAddressBook(std::string_view name);

    // Sends one request as the user. `path` starts with '/'. Bounded by a
    // socket timeout of ten seconds.
    HttpReply request(std::string_view method, std::string_view path, std::string_view body = {},
                      std::string_view contentType = {}, std::string_view extraHeaders = {}) const;

    // The server's own log, for failure messages.
    std::string log() const;

private:
    CardDavServer(std::filesystem::path folder, std::uint16_t port, pid_t pid)
        : m_folder(std::move(folder)), m_port(port), m_pid(pid) {}

    std::filesystem::path m_folder;
    std::uint16_t m_port = 0;
    pid_t m_pid = -1;
};

} // namespace kinbook::testing
