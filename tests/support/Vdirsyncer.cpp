#include "tests/support/Vdirsyncer.h"

#include <fstream>

namespace kinbook::testing {

namespace {

// A TOML-ish string as vdirsyncer's configuration reads it (JSON rules).
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

} // namespace

Vdirsyncer::Vdirsyncer(std::filesystem::path folder, std::filesystem::path localRoot,
                       const CardDavServer& server, std::string collection)
    : m_folder(std::move(folder)), m_localRoot(std::move(localRoot)), m_collection(std::move(collection)),
      m_configFile(m_folder / "vdirsyncer.conf") {
    std::string local = m_localRoot.string();
    if (local.empty() || local.back() != '/') {
        local += '/';
    }
    std::ofstream(m_configFile, std::ios::binary | std::ios::trunc)
        << "[general]\n"
        << "status_path = " << quoted((m_folder / "status").string() + "/") << "\n"
        << "\n"
        << "[pair kinbook]\n"
        << "a = \"kinbook_local\"\n"
        << "b = \"kinbook_remote\"\n"
        << "collections = [" << quoted(m_collection) << "]\n"
        << "\n"
        << "[storage kinbook_local]\n"
        << "type = \"filesystem\"\n"
        << "path = " << quoted(local) << "\n"
        << "fileext = \".vcf\"\n"
        << "\n"
        << "[storage kinbook_remote]\n"
        << "type = \"carddav\"\n"
        << "url = " << quoted(server.url()) << "\n"
        << "username = " << quoted(std::string(CardDavServer::user)) << "\n"
        << "password = " << quoted(std::string(CardDavServer::password)) << "\n";
}

bool Vdirsyncer::isInstalled() {
    return findExecutable("vdirsyncer").has_value();
}

ProcessOutcome Vdirsyncer::discover() const {
    return run("discover");
}

ProcessOutcome Vdirsyncer::sync() const {
    return run("sync");
}

ProcessOutcome Vdirsyncer::run(const std::string& command) const {
    // discover asks before creating a missing collection; a few answers
    // more than it can ask for.
    return runProcess({"vdirsyncer", "--config", m_configFile.string(), command}, "y\ny\ny\ny\n", timeout);
}

} // namespace kinbook::testing
