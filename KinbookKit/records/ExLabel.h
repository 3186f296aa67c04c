#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Former ("ex-") marking of phones, e-mails and addresses. An entry that is
// no longer in use keeps its value, so mail and calls are still recognised and
// search still finds the person, but its label gains the prefix "ex-", which
// every other application shows as plain label text ("ex-work"). The label is
// the only mark: there is no separate flag to lose in a sync.
namespace ExLabel {

inline constexpr std::string_view prefix = "ex-";

// True when the label begins with "ex-", ignoring case.
bool isFormer(std::string_view label);

// The former form of a label: unchanged when already former, "ex-other" for
// an empty label, otherwise "ex-" and the label's display name ("ex-mobile",
// "ex-Acme").
std::string former(std::string_view label);

// The current form of a former label: a stock label's display name turns back
// into its constant, anything else into the custom text after the prefix. A
// label that is not former is returned unchanged.
std::string current(std::string_view label);

// Current entries first, then former ones, each group in its given order.
// Works on any entry type with a `label` member.
template <typename Entry>
std::vector<Entry> formerLast(std::vector<Entry> entries) {
    std::stable_partition(entries.begin(), entries.end(),
                          [](const Entry& entry) { return !isFormer(entry.label); });
    return entries;
}

// The menu item on a current entry: "Mark as Former (ex-work)".
std::string markAsFormerTitle(std::string_view label);
// The field panel's row menu, which shows the row's own label text.
std::string markAsFormerRowTitle(std::string_view displayedLabel);
inline constexpr std::string_view markAsCurrentTitle = "Mark as Current";
inline constexpr std::string_view deletionHint =
    "To keep it but stop using it, choose Mark as Former instead.";

} // namespace ExLabel
} // namespace kinbook
