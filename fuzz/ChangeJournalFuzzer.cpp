// Reads arbitrary bytes as the change journal, a file in the user's state
// folder that a crash can tear and anything can damage. Opening the journal
// on it must either take its records or start a new journal; either way the
// journal must then answer for changes since any token, and what it appends
// must read back when it is opened again.
//
// Records carry a checksum, so random bytes would almost never reach the
// record reader: unless the input's first byte is odd (then the rest is the
// file as it is), the input is a list of records (a length byte, then that
// many bytes) that the harness frames behind a valid header.
//
//   build/fuzz/fuzz/ChangeJournalFuzzer -max_total_time=60 fuzz/corpus/ChangeJournalFuzzer

#include "KinbookKit/addressbook/ChangeJournal.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace fs = std::filesystem;
using kinbook::ChangeJournal;

namespace {

std::uint32_t crc32(std::string_view bytes) {
    static const auto table = [] {
        std::array<std::uint32_t, 256> made{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int bit = 0; bit < 8; ++bit) {
                c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            made[n] = c;
        }
        return made;
    }();
    std::uint32_t c = 0xFFFFFFFFu;
    for (unsigned char byte : bytes) {
        c = table[(c ^ byte) & 0xFF] ^ (c >> 8);
    }
    return c ^ 0xFFFFFFFFu;
}

void putU32(std::string& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct Place {
    fs::path state;
    fs::path root;
    fs::path journal;
    std::string header; // a new journal's file: its header record
};

// A state folder and an empty address book, made once per process.
const Place& place() {
    static const Place made = [] {
        Place place;
        const fs::path base =
            fs::temp_directory_path() / ("kinbook-journal-fuzz-" + std::to_string(::getpid()));
        place.state = base / "state";
        place.root = base / "book";
        fs::create_directories(place.root / "account");
        {
            ChangeJournal journal(place.state, place.root, [](const fs::path&) { return std::nullopt; });
        }
        for (const auto& entry : fs::directory_iterator(place.state)) {
            if (entry.path().extension() != ".lock") {
                place.journal = entry.path();
            }
        }
        place.header = readAll(place.journal);
        return place;
    }();
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Place& at = place();
    if (at.journal.empty()) {
        std::abort();
    }
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string file;
    if (!input.empty() && (input.front() & 1) != 0) {
        file = input.substr(1);
    } else {
        file = at.header;
        std::string_view rest = input.empty() ? input : input.substr(1);
        while (!rest.empty()) {
            const std::size_t length =
                std::min<std::size_t>(static_cast<unsigned char>(rest.front()), rest.size() - 1);
            const std::string_view payload = rest.substr(1, length);
            putU32(file, static_cast<std::uint32_t>(payload.size()));
            putU32(file, crc32(payload));
            file.append(payload);
            rest.remove_prefix(1 + length);
        }
    }
    std::ofstream(at.journal, std::ios::binary | std::ios::trunc)
        .write(file.data(), static_cast<std::streamsize>(file.size()));

    const auto noCard = [](const fs::path&) { return std::optional<std::string>(); };
    std::vector<std::uint8_t> token;
    {
        ChangeJournal journal(at.state, at.root, noCard);
        (void)journal.changesSince(std::vector<std::uint8_t>(input.begin(), input.end()));
        token = journal.currentToken();
    }
    // What the journal kept must open again, and serve its own token.
    ChangeJournal again(at.state, at.root, noCard);
    if (again.changesSince(token).dropEverything()) {
        std::abort();
    }
    return 0;
}
