#include "KinbookKit/addressbook/DraftMerge.h"

#include <algorithm>
#include <optional>

namespace kinbook {
namespace {

template <typename T>
const T& pick(const T& base, const T& edited, const T& current) {
    return edited == base ? current : edited;
}

template <typename Entry>
const Entry* withID(const std::vector<Entry>& entries, const std::string& id) {
    const auto found =
        std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.id == id; });
    return found == entries.end() ? nullptr : &*found;
}

// True when the user moved entries, or put a new one before one the card
// had: then the user's order is the one to save.
template <typename Entry>
bool userArranged(const std::vector<Entry>& base, const std::vector<Entry>& edited) {
    std::vector<std::string> baseOrder;
    for (const Entry& entry : base) {
        if (withID(edited, entry.id) != nullptr) {
            baseOrder.push_back(entry.id);
        }
    }
    std::vector<std::string> editedOrder;
    bool newSeen = false;
    for (const Entry& entry : edited) {
        if (withID(base, entry.id) == nullptr) {
            newSeen = true;
        } else if (newSeen) {
            return true;
        } else {
            editedOrder.push_back(entry.id);
        }
    }
    return editedOrder != baseOrder;
}

template <typename Entry>
std::vector<Entry> mergeEntries(const std::vector<Entry>& base, const std::vector<Entry>& edited,
                                const std::vector<Entry>& current) {
    // What one entry becomes: the user's version where the user changed it
    // (or it is new), the card's where the user left it alone; none where
    // the user removed it, or someone else did and the user didn't touch it.
    const auto resolve = [&](const std::string& id) -> std::optional<Entry> {
        const Entry* before = withID(base, id);
        const Entry* after = withID(edited, id);
        const Entry* now = withID(current, id);
        if (after == nullptr) {
            return before == nullptr && now != nullptr ? std::optional<Entry>(*now) : std::nullopt;
        }
        const bool changed = before == nullptr || !(*after == *before);
        if (changed) {
            return *after;
        }
        return now != nullptr ? std::optional<Entry>(*now) : std::nullopt;
    };
    std::vector<Entry> merged;
    const auto add = [&](const std::string& id) {
        if (auto entry = resolve(id)) {
            merged.push_back(std::move(*entry));
        }
    };
    if (userArranged(base, edited)) {
        // The user's order; entries someone else added meanwhile follow.
        for (const Entry& entry : edited) {
            add(entry.id);
        }
        for (const Entry& now : current) {
            if (withID(edited, now.id) == nullptr) {
                add(now.id);
            }
        }
    } else {
        // The card's order now, which may be someone else's; the user's new
        // entries follow.
        for (const Entry& now : current) {
            add(now.id);
        }
        for (const Entry& entry : edited) {
            if (withID(current, entry.id) == nullptr) {
                add(entry.id);
            }
        }
    }
    return merged;
}

} // namespace

ContactDraft mergeDraft(const ContactDraft& base, const ContactDraft& edited, const ContactDraft& current) {
    ContactDraft merged = edited;
    merged.namePrefix = pick(base.namePrefix, edited.namePrefix, current.namePrefix);
    merged.givenName = pick(base.givenName, edited.givenName, current.givenName);
    merged.middleName = pick(base.middleName, edited.middleName, current.middleName);
    merged.familyName = pick(base.familyName, edited.familyName, current.familyName);
    merged.nameSuffix = pick(base.nameSuffix, edited.nameSuffix, current.nameSuffix);
    merged.nickname = pick(base.nickname, edited.nickname, current.nickname);
    merged.organization = pick(base.organization, edited.organization, current.organization);
    merged.department = pick(base.department, edited.department, current.department);
    merged.jobTitle = pick(base.jobTitle, edited.jobTitle, current.jobTitle);
    merged.phones = mergeEntries(base.phones, edited.phones, current.phones);
    merged.emails = mergeEntries(base.emails, edited.emails, current.emails);
    merged.urls = mergeEntries(base.urls, edited.urls, current.urls);
    merged.addresses = mergeEntries(base.addresses, edited.addresses, current.addresses);
    merged.birthday = pick(base.birthday, edited.birthday, current.birthday);
    merged.links = pick(base.links, edited.links, current.links);
    merged.messageLinkIDs = pick(base.messageLinkIDs, edited.messageLinkIDs, current.messageLinkIDs);
    merged.anchorURL = pick(base.anchorURL, edited.anchorURL, current.anchorURL);
    merged.phoneticGivenName =
        pick(base.phoneticGivenName, edited.phoneticGivenName, current.phoneticGivenName);
    merged.phoneticFamilyName =
        pick(base.phoneticFamilyName, edited.phoneticFamilyName, current.phoneticFamilyName);
    merged.dates = mergeEntries(base.dates, edited.dates, current.dates);
    merged.note = pick(base.note, edited.note, current.note);
    return merged;
}

} // namespace kinbook
