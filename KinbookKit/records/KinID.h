#pragma once

#include "KinbookKit/records/ContactCircle.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Kinbook's own identifier for one human, written into every card of the
// person as a hidden anchor URL ("kinbook://c/AB12CD34?h=1&r=3&p=1") so that
// it travels with the card through every sync and account. Linked cards,
// sidecar folders, Trash entries and cached people find their person through
// it. The same anchor carries the per-card settings that must live in the
// contact itself: hidden, circle and primary.
namespace KinID {

inline constexpr std::string_view scheme = "kinbook://c/";
// The label of the card entry that holds the anchor: the product's name.
inline constexpr std::string_view anchorLabel = "Vellumary Contacts";
inline constexpr std::string_view alphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

// A fresh 8-character ID from the operating system's random source. No check
// against existing IDs is made: 32^8 values make a collision negligible.
std::string makeID();

// True when the text begins with "kinbook://c/", ignoring case.
bool isAnchorURL(std::string_view text);

// The ID of the first anchor URL in the list that has one: the run of letters
// and digits after the prefix, upper-cased. Anchors with an empty run are
// passed over.
std::optional<std::string> readID(std::span<const std::string> urls);

// "kinbook://c/" + id, with no query.
std::string anchorURL(std::string_view id);

struct QueryItem {
    std::string name;
    std::optional<std::string> value;

    bool operator==(const QueryItem&) const = default;
};

// The parsed anchor of a card.
struct Anchor {
    std::string id;
    bool hidden = false;
    std::optional<ContactCircle> circle;
    bool primary = false;
    std::vector<QueryItem> other; // items Kinbook doesn't know, kept in order and written back

    bool operator==(const Anchor&) const = default;

    // Reads the first anchor URL in the list. When that URL has no ID the
    // result is none, even if a later anchor has one. Unreadable query items
    // fall back to the defaults: a bad "r" is no circle, bad percent-encoding
    // is no items at all.
    static std::optional<Anchor> read(std::span<const std::string> urls);

    // The anchor URL: items only when set, always in the order h, r, p, then
    // the other items.
    std::string url() const;
};

// The text a dragged person row puts on the clipboard.
inline constexpr std::string_view dragPrefix = "kinbook-person:";
std::string dragText(std::string_view personID);

// The person IDs named by dropped texts: every line beginning with
// "kinbook-person:", in order. Other lines are ignored.
std::vector<std::string> personIDsFromDrop(std::span<const std::string> texts);

} // namespace KinID

// Percent-encoding for URL query names and values: everything but the
// unreserved characters and a few safe delimiters is encoded, and always
// "&", "=", "+", "#" and "%", so every value reads back exactly.
std::string percentEncodeQueryComponent(std::string_view text);

// Decodes %XX escapes. None when an escape is malformed or the result is not
// valid UTF-8.
std::optional<std::string> percentDecode(std::string_view text);

} // namespace kinbook
