#include "KinbookKit/people/PeopleList.h"

#include <algorithm>

namespace kinbook {

PeopleList::PeopleList(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
                       PeopleListOptions options)
    : m_context(main, background, std::move(addressBook), std::move(options)), m_shown(m_context),
      m_loader(m_context, m_shown), m_operations(m_context, m_loader), m_trash(m_context, m_loader, m_shown),
      m_accounts(m_context, m_loader, m_trash), m_editing(m_context, m_loader, m_trash) {}

PeopleList::~PeopleList() = default;

void PeopleList::setPastJobs(std::string_view personID, const std::vector<PastJob>& jobs) {
    if (const auto found = m_loader.person(personID)) {
        m_shown.setPastJobs(*found, jobs);
    }
}

void PeopleList::notes(std::vector<std::string> cardIDs,
                       std::function<void(std::map<std::string, std::string>)> done) {
    const auto& reader = m_context.options().readNotes;
    if (!reader || cardIDs.empty()) {
        m_context.onMain([done = std::move(done)] { done({}); });
        return;
    }
    m_context.runOn(
        m_context.background(),
        [reader, cardIDs] {
            std::map<std::string, std::string> notes;
            const auto texts = reader(cardIDs);
            for (std::size_t i = 0; i < cardIDs.size() && i < texts.size(); ++i) {
                if (!texts[i].empty()) {
                    notes.emplace(cardIDs[i], texts[i]);
                }
            }
            return notes;
        },
        std::move(done));
}

std::map<std::string, std::string> PeopleList::cardAccounts(const Person& person) const {
    std::map<std::string, std::string> accounts;
    if (person.memberIDs.size() < 2) {
        if (!person.accountIDs.empty()) {
            accounts.emplace(person.id, std::string(person.accountIDs.front()));
        }
        return accounts;
    }
    // Each card's own person of the last read says where the card is.
    for (const auto& card : raw()) {
        if (std::find(person.memberIDs.begin(), person.memberIDs.end(), card->id) != person.memberIDs.end() &&
            !card->accountIDs.empty()) {
            accounts.emplace(card->id, std::string(card->accountIDs.front()));
            if (accounts.size() == person.memberIDs.size()) {
                break;
            }
        }
    }
    return accounts;
}

} // namespace kinbook
