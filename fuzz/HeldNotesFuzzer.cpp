// Reads arbitrary bytes as the held-notes file, which a crash leaves behind
// and which may have been damaged or crafted since. The guard must read it
// without fail, and holding and releasing a note over it must keep every
// note it held before, for this address book and for every other.
//
//   build/fuzz/fuzz/HeldNotesFuzzer -max_total_time=60 fuzz/corpus/HeldNotesFuzzer

#include "KinbookKit/addressbook/NoteGuard.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace fs = std::filesystem;
using kinbook::NoteGuard;

namespace {

struct Place {
    fs::path file;
    std::shared_ptr<kinbook::KinLog> log;
};

const Place& place() {
    static const Place made = [] {
        const fs::path base =
            fs::temp_directory_path() / ("kinbook-notes-fuzz-" + std::to_string(::getpid()));
        fs::create_directories(base);
        // The guard logs what it restores; the log goes to the temporary
        // folder, not to the user's.
        ::setenv("XDG_STATE_HOME", base.c_str(), 1);
        ::setenv("XDG_DATA_HOME", base.c_str(), 1);
        return Place{base / std::string(NoteGuard::fileName), std::make_shared<kinbook::KinLog>("fuzz")};
    }();
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Place& at = place();
    std::ofstream(at.file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

    NoteGuard guard(at.file, at.log, {}, "/book");
    NoteGuard other(at.file, at.log, {}, "/other");
    const auto before = guard.held();
    const auto otherBefore = other.held();

    if (!guard.hold({{"fuzz-card", "a note"}})) {
        return 0; // the file could not be written: it stays as it was
    }
    auto expected = before;
    expected["fuzz-card"] = "a note";
    if (guard.held() != expected || other.held() != otherBefore) {
        std::abort();
    }
    const std::vector<std::string> released{"fuzz-card"};
    if (guard.release(released)) {
        expected.erase("fuzz-card");
        if (guard.held() != expected || other.held() != otherBefore) {
            std::abort();
        }
    }
    return 0;
}
