#include "KinbookKit/people/PeopleListContext.h"

#include <vector>

namespace kinbook {

PeopleListContext::PeopleListContext(Executor& main, Executor& background,
                                     std::shared_ptr<AddressBook> addressBook, PeopleListOptions options)
    : m_main(main), m_background(background), m_cacheQueue(background), m_book(std::move(addressBook)),
      m_options(std::move(options)), m_log(m_options.log ? m_options.log : std::make_shared<KinLog>("list")),
      m_clock(m_options.clock ? m_options.clock : &Clock::system()) {}

std::uint64_t PeopleListContext::observe(Observer observer) {
    const auto handle = m_nextObserver++;
    m_observers.emplace(handle, std::move(observer));
    return handle;
}

void PeopleListContext::unobserve(std::uint64_t handle) {
    m_observers.erase(handle);
}

void PeopleListContext::notify(PeopleChanges changes) {
    if (changes.empty()) {
        return;
    }
    // An observer may remove itself, or another, while being told.
    std::vector<std::uint64_t> handles;
    for (const auto& [handle, observer] : m_observers) {
        handles.push_back(handle);
    }
    for (const auto handle : handles) {
        const auto found = m_observers.find(handle);
        if (found != m_observers.end()) {
            auto observer = found->second;
            observer(changes);
        }
    }
}

} // namespace kinbook
