#include "KinbookKit/addressbook/DraftMerge.h"

#include <algorithm>

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

template <typename Entry>
std::vector<Entry> mergeEntries(const std::vector<Entry>& base, const std::vector<Entry>& edited,
                                const std::vector<Entry>& current) {
    std::vector<Entry> merged;
    for (const Entry& now : current) {
        const Entry* before = withID(base, now.id);
        const Entry* after = withID(edited, now.id);
        if (before != nullptr && after == nullptr) {
            continue; // the user removed it
        }
        merged.push_back(before != nullptr && after != nullptr && !(*after == *before) ? *after : now);
    }
    // A user who moved entries gets their order; entries added meanwhile by
    // someone else follow.
    std::vector<std::string> baseOrder;
    std::vector<std::string> editedOrder;
    for (const Entry& entry : base) {
        baseOrder.push_back(entry.id);
    }
    for (const Entry& entry : edited) {
        if (withID(base, entry.id) != nullptr) {
            editedOrder.push_back(entry.id);
        }
    }
    std::erase_if(baseOrder, [&](const std::string& id) { return withID(edited, id) == nullptr; });
    if (editedOrder != baseOrder) {
        std::stable_sort(merged.begin(), merged.end(), [&](const Entry& a, const Entry& b) {
            const auto rank = [&](const Entry& entry) {
                const auto at = std::find(editedOrder.begin(), editedOrder.end(), entry.id);
                return at == editedOrder.end() ? editedOrder.size()
                                               : static_cast<std::size_t>(at - editedOrder.begin());
            };
            return rank(a) < rank(b);
        });
    }
    for (const Entry& entry : edited) {
        if (withID(current, entry.id) != nullptr) {
            continue;
        }
        const Entry* before = withID(base, entry.id);
        if (before == nullptr || !(entry == *before)) {
            merged.push_back(entry); // new, or changed by the user after someone else removed it
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
    merged.phoneticGivenName = pick(base.phoneticGivenName, edited.phoneticGivenName, current.phoneticGivenName);
    merged.phoneticFamilyName = pick(base.phoneticFamilyName, edited.phoneticFamilyName, current.phoneticFamilyName);
    merged.dates = mergeEntries(base.dates, edited.dates, current.dates);
    merged.note = pick(base.note, edited.note, current.note);
    return merged;
}

} // namespace kinbook
