#include "KinbookKit/sidecar/ContactTrash.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/Base64.h"
#include "KinbookKit/text/KinLog.h"
#include "KinbookKit/text/Lzfse.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kinbook {

namespace fs = std::filesystem;

namespace {

const KinLog& trashLog() {
    static const KinLog log("trash");
    return log;
}

// Room for the name in a file name of at most 255 bytes, after the time,
// the space, a " 99999" and the extension, and for the 14 bytes the atomic
// write's hidden temporary name adds.
constexpr std::size_t kMaxNameBytes = 255 - 14 - 17 - 1 - 6 - ContactTrash::extension.size();

std::string safeName(std::string_view name) {
    std::string safe;
    safe.reserve(name.size());
    for (char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        // The separators of every platform's paths, and control characters
        // no file name should carry.
        safe += (c == '/' || c == ':' || c == '\\' || byte < 0x20 || byte == 0x7f) ? '-' : c;
    }
    if (safe.size() > kMaxNameBytes) {
        std::size_t cut = kMaxNameBytes;
        while (cut > 0 && (static_cast<unsigned char>(safe[cut]) & 0xC0) == 0x80) {
            --cut;
        }
        safe.resize(cut);
    }
    return safe;
}

bool isTrashFileName(const std::string& name) {
    return name.size() > ContactTrash::extension.size() && name.ends_with(ContactTrash::extension) &&
           !name.starts_with(".");
}

std::optional<std::string> readWhole(const fs::path& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string bytes;
    char buffer[65536];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        bytes.append(buffer, static_cast<std::size_t>(in.gcount()));
        if (bytes.size() > limit) {
            return std::nullopt;
        }
    }
    if (in.bad()) {
        return std::nullopt;
    }
    return bytes;
}

} // namespace

std::string TrashFile::toJSON() const {
    nlohmann::json cardList = nlohmann::json::array();
    for (const auto& card : cards) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(card.vcard.data());
        nlohmann::json entry = {{"accountID", card.accountID},
                                {"accountName", card.accountName},
                                {"vcard", base64Encode({bytes, card.vcard.size()})}};
        if (card.note) {
            entry["note"] = *card.note;
        }
        cardList.push_back(std::move(entry));
    }
    const nlohmann::json document = {{"version", version},
                                     {"name", name},
                                     {"deletedAt", secondsSinceReferenceDate(deletedAt)},
                                     {"cards", std::move(cardList)}};
    // Names and notes are the user's text: anything not UTF-8 is kept as
    // U+FFFD rather than making the whole file unwritable.
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Result<TrashFile, std::string> TrashFile::fromJSON(std::string_view json) {
    const auto document = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return failure(std::string("it is not JSON"));
    }
    try {
        TrashFile file;
        // Only a whole number is a version: converting 1e111 to one would
        // overflow.
        const auto& version = document.at("version");
        if (!version.is_number_integer() || version.get<std::int64_t>() != 1) {
            return failure(fmt::format("it is of version {}, which this version can't read", version.dump()));
        }
        file.version = 1;
        file.name = document.at("name").get<std::string>();
        file.deletedAt = dateFromReferenceSeconds(document.at("deletedAt").get<double>());
        for (const auto& entry : document.at("cards")) {
            Card card;
            card.accountID = entry.at("accountID").get<std::string>();
            card.accountName = entry.at("accountName").get<std::string>();
            const auto bytes = base64Decode(entry.at("vcard").get<std::string>());
            if (!bytes) {
                return failure(std::string("a card's vCard is not Base64"));
            }
            card.vcard.assign(bytes->begin(), bytes->end());
            if (const auto note = entry.find("note"); note != entry.end() && !note->is_null()) {
                card.note = note->get<std::string>();
            }
            file.cards.push_back(std::move(card));
        }
        return file;
    } catch (const nlohmann::json::exception& error) {
        return failure(fmt::format("a field is missing or of the wrong type ({})", error.what()));
    }
}

ContactTrash::ContactTrash(fs::path documents) : m_root(std::move(documents) / "Trash") {}

std::string ContactTrash::baseName(const TrashFile& file) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(file.deletedAt);
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H%M%S", &local);
    return std::string(stamp) + " " + safeName(file.name);
}

std::string ContactTrash::encode(const TrashFile& file) {
    const std::string json = file.toJSON();
    const auto compressed = lzfseCompress({reinterpret_cast<const std::uint8_t*>(json.data()), json.size()});
    return {reinterpret_cast<const char*>(compressed.data()), compressed.size()};
}

Result<TrashFile, std::string> ContactTrash::decode(std::string_view bytes) {
    auto json =
        lzfseDecompress({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, maxContentSize);
    if (!json.ok()) {
        return failure(fmt::format("it can't be decompressed: {}", describe(json.error())));
    }
    return TrashFile::fromJSON({reinterpret_cast<const char*>(json->data()), json->size()});
}

Result<std::string, std::string> ContactTrash::write(const TrashFile& file) {
    const std::string bytes = encode(file);
    const std::lock_guard lock(m_mutex);
    std::error_code error;
    fs::create_directories(m_root, error);
    if (error) {
        return failure(
            fmt::format("couldn't make the Trash folder {}: {}", m_root.string(), error.message()));
    }
    const std::string base = baseName(file);
    std::string name = base + std::string(extension);
    for (int n = 2; fs::exists(fs::symlink_status(m_root / name, error)); ++n) {
        name = fmt::format("{} {}{}", base, n, extension);
    }
    // Synced to disk before this returns: the person's cards are deleted
    // only once the way back is safe.
    if (!writeFileAtomically(m_root / name, bytes)) {
        return failure(fmt::format("couldn't write the Trash file \"{}\"", name));
    }
    return name;
}

std::optional<fs::path> ContactTrash::pathOf(std::string_view id) const {
    const fs::path name(id);
    // A name from a command line or a synced folder: one file of this folder, nothing else.
    if (id.empty() || name.has_parent_path() || !isTrashFileName(std::string(id)) ||
        id.find('/') != std::string_view::npos) {
        return std::nullopt;
    }
    return m_root / name;
}

Result<TrashFile, std::string> ContactTrash::readLocked(const fs::path& path) {
    // A compressed file larger than its largest content is no Trash file.
    const auto bytes = readWhole(path, maxContentSize);
    if (!bytes) {
        return failure(std::string("it can't be read, or is too large to be a Trash file"));
    }
    return decode(*bytes);
}

std::vector<TrashItem> ContactTrash::list() {
    const std::lock_guard lock(m_mutex);
    std::vector<TrashItem> items;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(m_root, error)) {
        const std::string name = entry.path().filename().string();
        if (!isTrashFileName(name) || !entry.is_regular_file(error)) {
            continue;
        }
        auto file = readLocked(entry.path());
        if (!file.ok()) {
            trashLog().error(fmt::format("trash: skipped \"{}\": {}", name, file.error()));
            continue;
        }
        TrashItem item{name, std::move(file->name), file->deletedAt, {}};
        for (const auto& card : file->cards) {
            if (std::find(item.accounts.begin(), item.accounts.end(), card.accountName) ==
                item.accounts.end()) {
                item.accounts.push_back(card.accountName);
            }
        }
        items.push_back(std::move(item));
    }
    std::sort(items.begin(), items.end(), [](const TrashItem& a, const TrashItem& b) {
        return a.deletedAt != b.deletedAt ? a.deletedAt > b.deletedAt : a.id > b.id;
    });
    return items;
}

Result<TrashFile, std::string> ContactTrash::read(std::string_view id) {
    const auto path = pathOf(id);
    if (!path) {
        return failure(fmt::format("\"{}\" is not the name of a Trash file", id));
    }
    const std::lock_guard lock(m_mutex);
    auto file = readLocked(*path);
    if (!file.ok()) {
        return failure(fmt::format("the Trash file \"{}\" can't be used: {}", id, file.error()));
    }
    return file;
}

Result<void, std::string> ContactTrash::remove(std::string_view id) {
    const auto path = pathOf(id);
    if (!path) {
        return failure(fmt::format("\"{}\" is not the name of a Trash file", id));
    }
    const std::lock_guard lock(m_mutex);
    std::error_code error;
    if (!fs::remove(*path, error)) {
        return failure(error ? fmt::format("couldn't delete \"{}\": {}", id, error.message())
                             : fmt::format("\"{}\" is not in the Trash", id));
    }
    return {};
}

Result<std::size_t, std::string> ContactTrash::empty() {
    const std::lock_guard lock(m_mutex);
    std::error_code error;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(m_root, error)) {
        if (isTrashFileName(entry.path().filename().string())) {
            files.push_back(entry.path());
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        return failure(fmt::format("couldn't read the Trash folder: {}", error.message()));
    }
    std::size_t removed = 0;
    for (const auto& file : files) {
        if (fs::remove(file, error)) {
            ++removed;
        } else if (error) {
            return failure(
                fmt::format("couldn't delete \"{}\": {}", file.filename().string(), error.message()));
        }
    }
    return removed;
}

} // namespace kinbook
