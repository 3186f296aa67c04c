#pragma once

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/support/TempFolder.h"

#include <filesystem>
#include <memory>
#include <string>

namespace kinbook::testing {

// A vdir in a fresh temporary folder ("contacts", one subfolder per
// account), Kinbook's state and held notes beside it, and a log the test
// can read: what every test of the store on disk starts from.
class TempVdir {
public:
    std::filesystem::path root() const { return m_folder / "contacts"; }
    std::filesystem::path heldNotesFile() const { return m_folder / "data" / "notes-in-flight.json"; }

    // Writes a card file into an account folder, made when missing.
    std::filesystem::path write(const std::string& account, const std::string& fileName,
                                const std::string& bytes) const {
        std::filesystem::create_directories(root() / account);
        const auto file = root() / account / fileName;
        writeFile(file, bytes);
        return file;
    }

    // The store's options for this vdir, logging into log().
    VdirAddressBook::Options options() const {
        VdirAddressBook::Options options;
        options.root = root();
        options.stateFolder = m_folder / "state";
        options.heldNotesFile = heldNotesFile();
        options.log = m_log;
        return options;
    }

    const std::shared_ptr<KinLog>& kinLog() const { return m_log; }
    // Everything logged so far, as the app log file holds it.
    std::string log() {
        m_appLog.flush();
        return readFile(m_folder / "log" / "app.log");
    }

private:
    TempFolder m_folder;
    AppLog m_appLog{m_folder / "log" / "app.log"};
    std::shared_ptr<KinLog> m_log = std::make_shared<KinLog>("store", m_appLog);
};

} // namespace kinbook::testing
