#include "KinbookKit/people/PeopleList.h"

namespace kinbook {

PeopleList::PeopleList(Executor& main, Executor& background, std::shared_ptr<AddressBook> addressBook,
                       PeopleListOptions options)
    : m_context(main, background, std::move(addressBook), std::move(options)), m_shown(m_context),
      m_loader(m_context, m_shown), m_operations(m_context, m_loader) {}

PeopleList::~PeopleList() = default;

void PeopleList::setPastJobs(std::string_view personID, const std::vector<PastJob>& jobs) {
    if (const auto found = m_loader.person(personID)) {
        m_shown.setPastJobs(*found, jobs);
    }
}

} // namespace kinbook
