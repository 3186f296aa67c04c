#include "KinbookKit/addressbook/VCardImport.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"
#include "KinbookKit/vcard/VCardProperty.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kinbook::VCardImport {
namespace {

bool lacksEnd(const VCard& card) {
    for (const auto& warning : card.warnings()) {
        if (warning.message.starts_with("no END:VCARD")) {
            return true;
        }
    }
    return false;
}

std::string nameOf(const VCard& card) {
    if (const auto* fn = card.first("FN")) {
        if (auto text = std::string(trimAsciiSpace(fn->text())); !text.empty()) {
            return text;
        }
    }
    return card.uid().value_or("");
}

// A card with nothing but its header lines would be an empty row nobody can find.
bool holdsNothing(const VCard& card) {
    for (const auto* property : card.properties()) {
        const auto& name = property->name();
        if (!name.empty() && !equalsIgnoringAsciiCase(name, "VERSION") &&
            !equalsIgnoringAsciiCase(name, "UID") && !equalsIgnoringAsciiCase(name, "PRODID") &&
            !equalsIgnoringAsciiCase(name, "REV")) {
            return false;
        }
    }
    return true;
}

std::string plural(std::size_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

} // namespace

Result<std::string, std::string> readFile(const std::filesystem::path& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) {
        return failure(fmt::format("{} is a folder, not a vCard file", file.string()));
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return failure(fmt::format("can't read {}: {}", file.string(), std::strerror(errno)));
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) {
        return failure(fmt::format("can't read {}: {}", file.string(), std::strerror(errno)));
    }
    return bytes.str();
}

Result<Plan, std::string> plan(std::span<const Source> sources, const std::set<std::string>& knownUIDs) {
    Plan plan;
    std::set<std::string> taken = knownUIDs;
    for (const auto& source : sources) {
        auto cards = VCard::parseAll(source.bytes);
        if (!cards.ok()) {
            return failure(fmt::format("{} holds no vCard ({})", source.name, describe(cards.error())));
        }
        std::size_t index = 0;
        for (const auto& card : cards.value()) {
            ++index;
            Skipped skipped{source.name, index, nameOf(card), {}};
            if (lacksEnd(card)) {
                skipped.reason = "it is cut off (no END:VCARD)";
                plan.malformed.push_back(std::move(skipped));
                continue;
            }
            if (holdsNothing(card)) {
                skipped.reason = "it holds nothing";
                plan.malformed.push_back(std::move(skipped));
                continue;
            }
            // A card without a UID is known by its bytes, so that importing
            // the same file again finds it.
            VCard added = card;
            auto uid = card.uid();
            if (!uid || uid->empty()) {
                uid = "kinbook-import-" + EntryRegistry::fingerprintOf(card.serialize());
                added.setUid(*uid);
            }
            if (!taken.insert(*uid).second) {
                skipped.reason =
                    knownUIDs.contains(*uid) ? "already in the address book" : "in the import twice";
                plan.duplicates.push_back(std::move(skipped));
                continue;
            }
            // A file's last card may end without a line break; the cards
            // are read back one after another, so each ends its own line.
            std::string bytes = added.serialize();
            if (!bytes.ends_with('\n') && !bytes.ends_with('\r')) {
                bytes += added.lineEnding();
            }
            plan.vcards += bytes;
            plan.names.push_back(nameOf(card));
        }
    }
    return plan;
}

std::string Summary::text() const {
    std::string text = addedIDs.empty()
                           ? "Added nothing"
                           : fmt::format("Added {}", plural(addedIDs.size(), "contact", "contacts"));
    if (!duplicates.empty()) {
        text += fmt::format("; skipped {} already there", plural(duplicates.size(), "card", "cards"));
    }
    text += ".";
    for (const auto& card : malformed) {
        text += fmt::format("\nSkipped card {} of {}{}: {}.", card.index, card.source,
                            card.name.empty() ? "" : " (" + card.name + ")", card.reason);
    }
    return text;
}

Result<Summary, std::string> run(AddressBook& book, std::span<const Source> sources,
                                 std::optional<std::string> accountID) {
    auto known = book.allCardIDs();
    if (!known.ok()) {
        return failure(known.error().description());
    }
    auto planned = plan(sources, std::set<std::string>(known->begin(), known->end()));
    if (!planned.ok()) {
        return failure(planned.error());
    }
    Summary summary;
    summary.duplicates = std::move(planned->duplicates);
    summary.malformed = std::move(planned->malformed);
    if (planned->names.empty()) {
        return summary;
    }
    auto added = book.importVCards(planned->vcards, std::move(accountID));
    if (!added.ok()) {
        return failure(added.error().description());
    }
    summary.addedIDs = std::move(added.value());
    summary.addedNames = std::move(planned->names);
    return summary;
}

} // namespace kinbook::VCardImport
