#include "cli/InspectCommands.h"

#include "KinbookKit/addressbook/CardBatchReader.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/platform/DlibFaceDetector.h"
#include "KinbookKit/platform/VipsPictureCodec.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/sidecar/HeadCrop.h"
#include "KinbookKit/text/AddressParser.h"
#include "KinbookKit/text/AreaCodes.h"
#include "KinbookKit/text/Fold.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"
#include "cli/Failure.h"
#include "cli/Terminal.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

using nlohmann::json;

void printJson(const json& document) {
    // Cards may hold text that is not valid UTF-8; show it replaced rather
    // than fail to show anything.
    fmt::print("{}\n", document.dump(2, ' ', false, json::error_handler_t::replace));
}

json optionalJson(const std::optional<std::string>& value) {
    return value ? json(*value) : json(nullptr);
}

json anchorJson(const std::string& url) {
    const auto anchor = KinID::Anchor::read(std::vector<std::string>{url});
    if (!anchor) {
        return nullptr;
    }
    auto other = json::array();
    for (const auto& item : anchor->other) {
        other.push_back({{"name", item.name}, {"value", optionalJson(item.value)}});
    }
    return {
        {"id", anchor->id},
        {"hidden", anchor->hidden},
        {"circle", anchor->circle ? json(rawValue(*anchor->circle)) : json(nullptr)},
        {"primary", anchor->primary},
        {"other", std::move(other)},
        {"url", anchor->url()},
    };
}

// A service named on the command line: its case name ("x"), the name stored
// in cards ("twitter") or its display name ("LinkedIn").
std::optional<LinkService> serviceFromArgument(const std::string& name) {
    if (auto service = linkServiceFromCaseName(name)) {
        return service;
    }
    return serviceNamed(name);
}

json linkJson(const std::string& text, const std::optional<std::string>& serviceArgument) {
    if (!serviceArgument) {
        const auto recognised = recognise(text);
        if (!recognised) {
            return nullptr;
        }
        return {{"service", caseName(recognised->service)}, {"handle", recognised->handle}};
    }
    const auto service = serviceFromArgument(*serviceArgument);
    if (!service) {
        throw CLI::ValidationError("--service", fmt::format("unknown service \"{}\"", *serviceArgument));
    }
    const LinkedAccount link{"", *service, cleanHandle(text, *service), false};
    return {
        {"service", caseName(*service)},
        {"handle", link.handle},
        {"webURL", optionalJson(webURL(link))},
        {"appURL", optionalJson(appURL(link))},
    };
}

json areaCodeJson(const std::string& phone) {
    const auto code = AreaCodes::areaCode(phone);
    if (!code) {
        return {{"code", nullptr}, {"label", nullptr}};
    }
    return {{"code", *code}, {"label", AreaCodes::label(*code)}};
}

json addressJson(const std::string& text) {
    const auto parsed = AddressParser::parse(text);
    if (!parsed) {
        return nullptr;
    }
    return {
        {"street", parsed->street},         {"city", parsed->city},       {"state", parsed->state},
        {"postalCode", parsed->postalCode}, {"country", parsed->country},
    };
}

// The whole of a regular file of at most `limit` bytes; fails the command
// otherwise. A pipe or a device named by mistake would be read without end
// (or, opened the ordinary way, wait for a writer for ever): it is turned
// away before a byte is read.
std::string readRegularFile(const std::string& file, std::uint64_t limit, std::string_view what) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        fail(fmt::format("can't read {}: {}", file, std::strerror(errno)));
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        const char* kind = S_ISDIR(info.st_mode)    ? "a folder"
                           : S_ISFIFO(info.st_mode) ? "a pipe"
                           : S_ISSOCK(info.st_mode) ? "a socket"
                                                    : "a device";
        ::close(fd);
        fail(fmt::format("can't read {}: it is {}, not {}", file, kind, what));
    }
    if (static_cast<std::uint64_t>(info.st_size) > limit) {
        ::close(fd);
        fail(fmt::format("can't read {}: it is larger than the {} MB {} may have", file, limit >> 20, what));
    }
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    bytes.resize(got);
    return bytes;
}

// The first card of a card file; fails the command when there is none.
Result<VCard, VCardError> readCardFile(const std::string& file) {
    const std::string bytes = readRegularFile(file, CardBatchReader::kLargestCard, "a card file");
    auto card = VCard::parse(bytes);
    if (!card) {
        fail(fmt::format("{} is not a vCard: {}", file, describe(card.error())));
    }
    return card;
}

// What Kinbook reads from one card file: the card as the person page shows
// it, the raw list row, and what the reader had to tolerate.
json cardJson(const std::string& file) {
    const std::filesystem::path path(file);
    const auto card = readCardFile(file);
    const std::string fileName = path.filename().string();
    const std::string cardID = cardIDOf(card.value(), fileName);
    // Entry identities as a first read gives them; nothing is remembered.
    EntryRegistry registry;
    const std::string accountID =
        path.has_parent_path() ? path.parent_path().filename().string() : std::string();
    auto warnings = json::array();
    for (const auto& warning : card.value().warnings()) {
        warnings.push_back({{"line", warning.line}, {"message", warning.message}});
    }
    return {
        {"card", readContactCard(card.value(), cardID, registry).toJSON()},
        {"person", readPerson(card.value(), cardID, accountID, true).toJSON()},
        {"warnings", std::move(warnings)},
        {"isGroup", isGroupCard(card.value())},
    };
}

// The update script Kinbook would send the Contacts application for the
// card in a file, writing the chosen groups.
// What the head crop decides for a picture, so that anyone can see why a
// contact photo came out as it did.
json headCropJson(const std::string& file, int maxPixels) {
    const std::string bytes = readRegularFile(file, 256ull << 20, "a picture");
    const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    VipsPictureCodec codec;
    DlibFaceDetector detector;
    const auto decision = HeadCrop(codec, detector).decide(data, maxPixels);
    if (!decision) {
        fail(fmt::format("{}: That wasn't a picture.", file));
    }
    const auto& square = decision->square;
    json face = nullptr;
    if (decision->face) {
        face = {{"x", decision->face->x},
                {"y", decision->face->y},
                {"width", decision->face->width},
                {"height", decision->face->height}};
    }
    json focus = nullptr;
    if (decision->focus) {
        focus = {{"x", decision->focus->x}, {"y", decision->focus->y}};
    }
    return {
        {"width", decision->width},
        {"height", decision->height},
        {"face", face},
        {"square", {{"x", square.x}, {"y", square.y}, {"width", square.width}, {"height", square.height}}},
        {"focus", focus}};
}

std::string updateScriptFor(const std::string& file, int fields) {
    const auto card = readCardFile(file);
    const std::string cardID = cardIDOf(card.value(), std::filesystem::path(file).filename().string());
    const ContactsAppScript::Fields chosen{static_cast<std::uint8_t>(fields)};
    return ContactsAppScript::updateScript(
        ContactsAppScript::lines(ContactsAppScript::Card::read(card.value(), cardID), chosen));
}

} // namespace

void addInspectCommands(CLI::App& app) {
    auto* inspect = app.add_subcommand("inspect", "Show what Kinbook reads from a piece of data, as JSON");
    inspect->require_subcommand(1);

    auto text = std::make_shared<std::string>();
    auto service = std::make_shared<std::optional<std::string>>();

    auto* anchor = inspect->add_subcommand(
        "anchor", "The KinID anchor read from a card URL, and how it is written back");
    anchor->add_option("URL", *text, "A URL from a card, such as kinbook://c/AB12CD34?r=3")->required();
    anchor->callback([text] { printJson(anchorJson(*text)); });

    auto* link = inspect->add_subcommand("link", "The social or messaging link in a web address or handle");
    link->add_option("TEXT", *text, "A profile address, or a handle with --service")->required();
    link->add_option_function<std::string>(
        "--service", [service](const std::string& name) { *service = name; },
        "Read TEXT as a handle for this service (instagram, x, mastodon, …)");
    link->callback([text, service] { printJson(linkJson(*text, *service)); });

    auto* foldCommand = inspect->add_subcommand("fold", "The folded form used by search and sorting");
    foldCommand->add_option("TEXT", *text, "Any text")->required();
    foldCommand->callback([text] { printJson({{"folded", fold(*text)}}); });

    auto* label = inspect->add_subcommand("label", "How a label reads as former (\"ex-\") and as current");
    label->add_option("LABEL", *text, "A card label, such as work or ex-mobile")->required();
    label->callback([text] {
        printJson({{"isFormer", ExLabel::isFormer(*text)},
                   {"former", ExLabel::former(*text)},
                   {"current", ExLabel::current(*text)}});
    });

    auto* phone =
        inspect->add_subcommand("phone", "Whether a text is a phone number, and its messaging form");
    phone->add_option("TEXT", *text, "A phone number as typed")->required();
    phone->callback([text] {
        printJson(
            {{"looksLikePhone", looksLikePhone(*text)}, {"phoneForLink", optionalJson(phoneForLink(*text))}});
    });

    auto* areaCode =
        inspect->add_subcommand("areacode", "The area or country code a phone number sorts under");
    areaCode->add_option("PHONE", *text, "A phone number as typed")->required();
    areaCode->callback([text] { printJson(areaCodeJson(*text)); });

    auto* address = inspect->add_subcommand("address", "The parts of a pasted postal address");
    address->add_option("TEXT", *text, "An address on one line or several")->required();
    address->callback([text] { printJson(addressJson(*text)); });

    auto* card = inspect->add_subcommand("card", "What Kinbook reads from a card file (.vcf)");
    card->add_option("FILE", *text, "A vCard file, such as one card of a vdir account folder")->required();
    card->callback([text] { printJson(cardJson(*text)); });

    auto* headcrop = inspect->add_subcommand(
        "headcrop", "The square the contact photo is cut from, around the largest face, and the focus");
    auto maxPixels = std::make_shared<int>(HeadCrop::contactPhotoPixels);
    headcrop->add_option("FILE", *text, "A picture: JPEG, PNG, WebP, HEIC where libvips reads it")
        ->required();
    headcrop->add_option("--max", *maxPixels, "The longest side of the picture the square is cut from")
        ->default_val(HeadCrop::contactPhotoPixels)
        ->check(CLI::Range(16, 16384));
    headcrop->callback([text, maxPixels] { printJson(headCropJson(*text, *maxPixels)); });

    // Plain text rather than JSON: the script exactly as it would be sent.
    auto* script = inspect->add_subcommand(
        "script", "The script Kinbook would send the Contacts application for a card with a note (text)");
    auto fields = std::make_shared<int>(ContactsAppScript::Fields::all);
    auto deleteID = std::make_shared<std::string>();
    auto readIDs = std::make_shared<std::vector<std::string>>();
    auto* cardFile = script->add_option("CARD", *text, "A vCard file: prints the script that writes it");
    script
        ->add_option("--fields", *fields,
                     "The groups to write, added up: 1 name and work, 2 phones, 4 e-mails, 8 URLs, "
                     "16 addresses, 32 social profiles, 64 birthday (default 127, all)")
        ->check(CLI::Range(1, 127))
        ->needs(cardFile);
    auto* deleteOption =
        script->add_option("--delete", *deleteID, "Print the script that deletes the card with this id");
    auto* readOption = script->add_option(
        "--read-notes", *readIDs, "Print the script that reads the notes of the cards with these ids");
    cardFile->excludes(deleteOption)->excludes(readOption);
    deleteOption->excludes(readOption);
    script->callback([text, fields, deleteID, readIDs, cardFile, deleteOption] {
        if (deleteOption->count() > 0) {
            fmt::print("{}\n", terminalText(ContactsAppScript::deleteScript(*deleteID), TextLines::several));
        } else if (!readIDs->empty()) {
            fmt::print("{}\n",
                       terminalText(ContactsAppScript::readNotesScript(*readIDs), TextLines::several));
        } else if (cardFile->count() > 0) {
            fmt::print("{}\n", terminalText(updateScriptFor(*text, *fields), TextLines::several));
        } else {
            throw CLI::ValidationError("script", "give a card file, --delete ID or --read-notes ID…");
        }
    });
}

} // namespace kinbook::cli
