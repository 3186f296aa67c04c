#include "KinbookKit/vcard/CardEntries.h"

#include "KinbookKit/text/Ascii.h"

#include <array>

namespace kinbook {
namespace {

struct KindByName {
    std::string_view name;
    EntryKind kind;
};

// Older cards carry each messaging service as its own property.
constexpr std::array<KindByName, 27> kKinds{{
    {"TEL", EntryKind::phone},
    {"EMAIL", EntryKind::email},
    {"ADR", EntryKind::address},
    {"URL", EntryKind::url},
    {"ANNIVERSARY", EntryKind::date},
    {"X-ABDATE", EntryKind::date},
    {"X-ANNIVERSARY", EntryKind::date},
    {"X-MS-ANNIVERSARY", EntryKind::date},
    {"X-EVOLUTION-ANNIVERSARY", EntryKind::date},
    {"X-ABRELATEDNAMES", EntryKind::relation},
    {"RELATED", EntryKind::relation},
    {"X-SOCIALPROFILE", EntryKind::social},
    {"SOCIALPROFILE", EntryKind::social},
    {"IMPP", EntryKind::messaging},
    {"X-AIM", EntryKind::messaging},
    {"X-ICQ", EntryKind::messaging},
    {"X-JABBER", EntryKind::messaging},
    {"X-MSN", EntryKind::messaging},
    {"X-YAHOO", EntryKind::messaging},
    {"X-SKYPE", EntryKind::messaging},
    {"X-SKYPE-USERNAME", EntryKind::messaging},
    {"X-GTALK", EntryKind::messaging},
    {"X-GOOGLE-TALK", EntryKind::messaging},
    {"X-QQ", EntryKind::messaging},
    {"X-GADUGADU", EntryKind::messaging},
    {"X-TWITTER", EntryKind::messaging},
    {"X-GROUPWISE", EntryKind::messaging},
}};

template <typename Card, typename Property>
std::vector<BasicCardEntry<Property>> entriesOf(Card& card, std::string_view cardID,
                                                EntryRegistry& registry) {
    std::vector<BasicCardEntry<Property>> entries;
    std::vector<EntryRegistry::Entry> keys;
    for (Property* property : card.properties()) {
        if (const auto kind = entryKind(*property)) {
            entries.push_back({*kind, property, {}});
            keys.push_back(entryKey(*property));
        }
    }
    auto ids = registry.identify(cardID, keys);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[i].id = std::move(ids[i]);
    }
    return entries;
}

// The components of one structured field, each trimmed, non-empty ones
// joined by `separator`.
std::string joinedComponents(const std::vector<std::vector<std::string>>& fields, std::size_t index,
                             std::string_view separator) {
    std::string joined;
    if (index >= fields.size()) {
        return joined;
    }
    for (const auto& component : fields[index]) {
        const std::string_view trimmed = trimAsciiSpace(component);
        if (trimmed.empty()) {
            continue;
        }
        if (!joined.empty()) {
            joined += separator;
        }
        joined += trimmed;
    }
    return joined;
}

} // namespace

std::string phoneNumberOf(const VCardProperty& property) {
    const std::string text = property.text();
    std::string_view number = trimAsciiSpace(text);
    if (startsWithIgnoringAsciiCase(number, "tel:")) {
        number = trimAsciiSpace(number.substr(4));
    }
    return std::string(number);
}

ContactDraft::Address addressPartsOf(const VCardProperty& property) {
    constexpr std::size_t kPostOfficeBox = 0;
    constexpr std::size_t kExtended = 1;
    constexpr std::size_t kStreet = 2;
    const auto fields = property.components();
    ContactDraft::Address address;
    for (const std::size_t index : {kStreet, kExtended, kPostOfficeBox}) {
        const std::string lines = joinedComponents(fields, index, "\n");
        if (lines.empty()) {
            continue;
        }
        if (!address.street.empty()) {
            address.street.push_back('\n');
        }
        address.street += lines;
    }
    address.city = joinedComponents(fields, 3, " ");
    address.state = joinedComponents(fields, 4, " ");
    address.postalCode = joinedComponents(fields, 5, " ");
    address.country = joinedComponents(fields, 6, " ");
    return address;
}

std::optional<EntryKind> entryKind(const VCardProperty& property) {
    if (property.isMalformed()) {
        return std::nullopt;
    }
    for (const auto& [name, kind] : kKinds) {
        if (equalsIgnoringAsciiCase(property.name(), name)) {
            return kind;
        }
    }
    return std::nullopt;
}

EntryRegistry::Entry entryKey(const VCardProperty& property) {
    const std::string name = [&] {
        std::string upper(property.name());
        for (auto& c : upper) {
            c = asciiUpper(c);
        }
        return upper;
    }();
    EntryRegistry::Entry key;
    key.property = name;
    key.fingerprint = EntryRegistry::fingerprintOf(property.lineWithoutGroup());
    key.normalizedValue = normalizedEntryValue(name, property.text());
    key.pid = property.parameter("PID");
    return key;
}

std::vector<CardEntry> cardEntries(VCard& card, std::string_view cardID, EntryRegistry& registry) {
    return entriesOf<VCard, VCardProperty>(card, cardID, registry);
}

std::vector<ConstCardEntry> cardEntries(const VCard& card, std::string_view cardID, EntryRegistry& registry) {
    return entriesOf<const VCard, const VCardProperty>(card, cardID, registry);
}

void recordCardEntries(const VCard& card, std::string_view cardID, EntryRegistry& registry,
                       const std::vector<std::pair<const VCardProperty*, std::string>>& wanted) {
    std::vector<EntryRegistry::Entry> keys;
    std::vector<std::string> ids;
    for (const VCardProperty* property : card.properties()) {
        if (!entryKind(*property)) {
            continue;
        }
        keys.push_back(entryKey(*property));
        std::string id;
        for (const auto& [wantedProperty, wantedID] : wanted) {
            if (wantedProperty == property) {
                id = wantedID;
                break;
            }
        }
        ids.push_back(std::move(id));
    }
    // Entries the caller did not name keep their current identity: what the
    // registry says for the card as it now stands.
    const auto current = registry.identify(cardID, keys);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (ids[i].empty()) {
            ids[i] = current[i];
        }
    }
    registry.record(cardID, keys, ids);
}

} // namespace kinbook
