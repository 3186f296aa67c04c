#include "KinbookKit/people/ShownPeople.h"

#include "KinbookKit/text/Fold.h"
#include "KinbookKit/text/LogMessage.h"

#include <fmt/core.h>

#include <algorithm>

namespace kinbook {
namespace {

// A rebuild of the shown list at least this slow is logged.
constexpr long long kSlowRebuildMs = 8;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\n\r\f\v";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The people of a shown list that `keep(person, position)` accepts, in the
// same sections and order, with their positions when the list has them,
// held by `people`, which holds everyone in the list. Each person is asked
// once; the kept ones are counted before they are copied, so that every
// section is allocated once at its size.
template <typename List, typename Keep>
List keepOnly(const List& list, const std::shared_ptr<const JoinedPeople>& people, Keep&& keep) {
    const auto* from = list.positions.get();
    std::vector<std::uint8_t> kept;
    kept.reserve(from ? from->size() : 0);
    std::vector<std::uint32_t> counts;
    counts.reserve(list.sections->size());
    std::size_t flat = 0;
    std::size_t total = 0;
    for (const auto& section : *list.sections) {
        std::uint32_t count = 0;
        for (const auto* person : section.people) {
            const bool keepIt = keep(*person, from ? (*from)[flat] : 0u);
            kept.push_back(keepIt ? 1 : 0);
            count += keepIt ? 1 : 0;
            ++flat;
        }
        counts.push_back(count);
        total += count;
    }
    std::vector<Section> sections;
    std::vector<std::uint32_t> positions;
    if (from) {
        positions.reserve(total);
    }
    flat = 0;
    for (std::size_t index = 0; index < list.sections->size(); ++index) {
        const auto& section = (*list.sections)[index];
        if (counts[index] == 0) {
            flat += section.people.size();
            continue;
        }
        Section narrowed{section.letter, {}};
        narrowed.people.reserve(counts[index]);
        for (const auto* person : section.people) {
            if (kept[flat] != 0) {
                narrowed.people.push_back(person);
                if (from) {
                    positions.push_back((*from)[flat]);
                }
            }
            ++flat;
        }
        sections.push_back(std::move(narrowed));
    }
    List result{SectionList(std::move(sections), people), nullptr};
    if (from) {
        result.positions = std::make_shared<const std::vector<std::uint32_t>>(std::move(positions));
    }
    return result;
}

} // namespace

struct ShownPeople::FilterFacts {
    std::vector<std::uint8_t> hidden;
    std::vector<std::uint8_t> circle;                    // the raw value; 0 for none
    std::vector<std::uint64_t> accounts;                 // one bit per account of accountBits
    std::map<std::string, int, std::less<>> accountBits; // the first 64 accounts met

    explicit FilterFacts(const std::vector<PersonPtr>& people) {
        hidden.reserve(people.size());
        circle.reserve(people.size());
        accounts.reserve(people.size());
        for (const auto& person : people) {
            hidden.push_back(person->hidden ? 1 : 0);
            circle.push_back(person->circle ? static_cast<std::uint8_t>(rawValue(*person->circle)) : 0);
            std::uint64_t mask = 0;
            for (const auto& account : person->accountIDs) {
                auto bit = accountBits.find(account);
                if (bit == accountBits.end() && accountBits.size() < 64) {
                    bit = accountBits.emplace(account, static_cast<int>(accountBits.size())).first;
                }
                if (bit != accountBits.end()) {
                    mask |= std::uint64_t{1} << bit->second;
                }
            }
            accounts.push_back(mask);
        }
    }
};

ShownPeople::ShownPeople(PeopleListContext& context)
    : m_context(context), m_joined(std::make_shared<const JoinedPeople>()), m_sections(share({})) {}

ShownPeople::~ShownPeople() {
    if (m_indexCancel) {
        *m_indexCancel = true;
    }
}

SectionList ShownPeople::share(std::vector<Section> sections) const {
    return SectionList(std::move(sections), m_joined);
}

// --- New people ----------------------------------------------------------------

PeopleChanges ShownPeople::replacePeople(std::shared_ptr<const JoinedPeople> joined,
                                         std::uint64_t peopleVersion, const std::vector<Account>* accounts,
                                         SortOrder order, SectionList sections) {
    PeopleChanges changes;
    if (accounts && m_view.accountID &&
        std::none_of(accounts->begin(), accounts->end(),
                     [&](const Account& account) { return account.id == *m_view.accountID; })) {
        m_view.accountID.reset();
        changes |= PeopleChange::filters;
    }
    m_joined = std::move(joined);
    m_peopleVersion = peopleVersion;

    m_index.clear();
    m_descendingIndex.clear();
    m_visibleIndex.clear();
    m_filtered.clear();
    m_searchIndex.reset();
    m_facts.reset();
    m_index[order] = ShownList{std::move(sections), nullptr};
    m_lastSearch.reset();
    if (recomputePastJobText()) {
        changes |= PeopleChange::pastJobs;
    }
    rebuild();
    return changes;
}

void ShownPeople::startIndex() {
    if (m_indexCancel) {
        *m_indexCancel = true;
    }
    auto cancel = std::make_shared<std::atomic<bool>>(false);
    m_indexCancel = cancel;
    struct Built {
        std::map<SortOrder, ShownList> index;
        std::map<SortOrder, ShownList> visible;
        std::shared_ptr<const SearchIndex> searchIndex;
        std::shared_ptr<const FilterFacts> facts;
        long long milliseconds = 0;
        bool complete = false;
    };
    std::map<SortOrder, SectionList> ready;
    for (const auto& [order, list] : m_index) {
        ready.emplace(order, list.sections);
    }
    m_context.runOn(
        m_context.background(),
        [joined = m_joined, ready, cancel, clock = &m_context.clock()]() mutable {
            Built built;
            const auto start = clock->monotonicNow();
            auto searchIndex = std::make_shared<const SearchIndex>(joined->people);
            auto orders = buildIndex(joined->people, [&] { return cancel->load(); });
            if (*cancel || orders.size() != allSortOrders().size()) {
                return built;
            }
            for (auto& [order, sections] : orders) {
                auto& list = built.index[order];
                // The order already shown keeps its sections, so that the
                // view's list stays the same one.
                list.sections =
                    ready.contains(order) ? ready[order] : SectionList(std::move(sections), joined);
                if (auto positions = searchIndex->positionsOf(*list.sections)) {
                    list.positions =
                        std::make_shared<const std::vector<std::uint32_t>>(std::move(*positions));
                }
                if (joined->hiddenCount > 0) {
                    // Hidden people are left out unless asked for: have that
                    // list ready too, so that switching orders stays a look-up.
                    built.visible[order] = keepOnly(
                        list, joined, [](const Person& person, std::uint32_t) { return !person.hidden; });
                }
            }
            built.searchIndex = std::move(searchIndex);
            built.facts = std::make_shared<const FilterFacts>(joined->people);
            built.milliseconds = clock->millisecondsSince(start);
            built.complete = true;
            return built;
        },
        [this, cancel, joined = m_joined](Built built) {
            if (!built.complete || *cancel || m_joined != joined) {
                return;
            }
            m_indexCancel.reset();
            m_searchIndex = std::move(built.searchIndex);
            m_facts = std::move(built.facts);
            m_matched.assign(m_searchIndex->size(), 0);
            m_index = std::move(built.index);
            m_visibleIndex = std::move(built.visible);
            // Lists made before the index lack positions; they are made again on demand.
            // So is the last result: a search narrowing it would pass the index by.
            m_descendingIndex.clear();
            m_filtered.clear();
            if (m_lastSearch && !m_lastSearch->positions) {
                m_lastSearch.reset();
            }
            placePastJobs();
            m_context.log().info(fmt::format("index: {} sorts in {} ms", m_index.size(), built.milliseconds));
            m_context.notify(PeopleChange::index);
        });
}

// --- The shown list --------------------------------------------------------------

SectionList ShownPeople::indexed(SortOrder order) const {
    const auto found = m_index.find(order);
    return found == m_index.end() ? SectionList() : found->second.sections;
}

std::shared_ptr<const std::vector<std::uint32_t>>
ShownPeople::positionsFor(const std::vector<Section>& sections) const {
    if (!m_searchIndex) {
        return nullptr;
    }
    auto positions = m_searchIndex->positionsOf(sections);
    return positions ? std::make_shared<const std::vector<std::uint32_t>>(std::move(*positions)) : nullptr;
}

ShownPeople::ShownList ShownPeople::directedList(SortOrder order) {
    auto& ascending = m_index[order];
    if (!ascending.sections) {
        // A cold order (the index is still being built): build just this one.
        ascending.sections = share(buildSections(order, m_joined->people));
        ascending.positions = positionsFor(*ascending.sections);
    }
    if (!m_view.descending) {
        return ascending;
    }
    auto& descending = m_descendingIndex[order];
    if (!descending.sections) {
        descending.sections = share(inDirection(*ascending.sections, true));
        descending.positions = positionsFor(*descending.sections);
    }
    return descending;
}

std::string ShownPeople::filterKey() const {
    return fmt::format("{} descending={} hidden={} account={}:{} circle={}:{} trash={}",
                       rawValue(m_view.order), m_view.descending, m_view.showingHidden,
                       m_view.accountID.has_value(), m_view.accountID.value_or(""), m_view.circle.has_value(),
                       m_view.circle ? rawValue(*m_view.circle) : 0, m_pendingTrashVersion);
}

ShownPeople::ShownList ShownPeople::filteredList() {
    const auto& accountFilter = m_view.accountID;
    const auto& circleFilter = m_view.circle;
    const bool showingHidden = m_view.showingHidden;
    const bool onlyHidden = !accountFilter && !circleFilter && m_pendingTrash.empty();
    if (onlyHidden && m_joined->hiddenCount == 0 && !showingHidden) {
        return directedList(m_view.order);
    }
    if (onlyHidden && !showingHidden && !m_view.descending) {
        if (const auto found = m_visibleIndex.find(m_view.order); found != m_visibleIndex.end()) {
            return found->second;
        }
    }
    auto key = filterKey();
    if (const auto found = m_filtered.find(key); found != m_filtered.end()) {
        return found->second;
    }
    // The tests in the order of their cost; the search comes after, on
    // whoever is left.
    const auto source = directedList(m_view.order);
    ShownList list;
    if (m_facts && source.positions) {
        const auto& facts = *m_facts;
        std::vector<std::uint8_t> trashed;
        if (!m_pendingTrash.empty()) {
            trashed.assign(facts.hidden.size(), 0);
            for (const auto& id : m_pendingTrash) {
                if (const auto person = m_joined->personWithID(id)) {
                    if (const auto position = m_searchIndex->positionOf(person.get())) {
                        trashed[*position] = 1;
                    }
                }
            }
        }
        const std::uint8_t circle = circleFilter ? static_cast<std::uint8_t>(rawValue(*circleFilter)) : 0;
        std::optional<std::uint64_t> accountMask;
        if (accountFilter) {
            const auto bit = facts.accountBits.find(*accountFilter);
            // An account beyond the first 64 is tested on the person itself.
            accountMask = bit == facts.accountBits.end() ? 0 : std::uint64_t{1} << bit->second;
        }
        list = keepOnly(source, m_joined, [&](const Person& person, std::uint32_t position) {
            if ((facts.hidden[position] != 0) != showingHidden) {
                return false;
            }
            if (!trashed.empty() && trashed[position] != 0) {
                return false;
            }
            if (circleFilter && facts.circle[position] != circle) {
                return false;
            }
            if (!accountMask) {
                return true;
            }
            if (*accountMask != 0) {
                return (facts.accounts[position] & *accountMask) != 0;
            }
            return std::find(person.accountIDs.begin(), person.accountIDs.end(), *accountFilter) !=
                   person.accountIDs.end();
        });
    } else {
        list = keepOnly(source, m_joined, [&](const Person& person, std::uint32_t) {
            if (person.hidden != showingHidden) {
                return false;
            }
            if (!m_pendingTrash.empty() && m_pendingTrash.contains(person.id)) {
                return false;
            }
            if (circleFilter && person.circle != circleFilter) {
                return false;
            }
            return !accountFilter || std::find(person.accountIDs.begin(), person.accountIDs.end(),
                                               *accountFilter) != person.accountIDs.end();
        });
    }
    if (m_filtered.size() >= 16) {
        m_filtered.clear(); // a handful of filter states are ever in use at once
    }
    m_filtered.emplace(std::move(key), list);
    return list;
}

ShownPeople::ShownList ShownPeople::searched(const ShownList& source, const SearchQuery& query) {
    if (!m_searchIndex || !source.positions) {
        return keepOnly(source, m_joined, [&](const Person& person, std::uint32_t) {
            return query.matches(person, pastJobsOf(person));
        });
    }
    std::fill(m_matched.begin(), m_matched.end(), std::uint8_t{0});
    // Over most people, one pass over everyone's text beats visiting each.
    const bool everyone = source.positions->size() * 4 > m_searchIndex->size();
    m_searchIndex->match(query, *source.positions, everyone, m_pastJobsByPosition, m_matched);
    return keepOnly(source, m_joined,
                    [&](const Person&, std::uint32_t position) { return m_matched[position] != 0; });
}

std::string ShownPeople::lastSearchKey() const {
    return fmt::format("{} people={} jobs={}", filterKey(), m_peopleVersion, m_pastJobsVersion);
}

const std::string* ShownPeople::pastJobsOf(const Person& person) const {
    if (m_pastJobLookup.empty()) {
        return nullptr;
    }
    const auto found = m_pastJobLookup.find(&person);
    return found == m_pastJobLookup.end() ? nullptr : found->second;
}

void ShownPeople::rebuild() {
    const auto start = m_context.clock().monotonicNow();
    const auto text = trimmed(m_view.searchText);
    const auto query = SearchQuery::parse(text);

    SectionList shown;
    const bool filtering = !query.isEmpty() || m_view.accountID || m_view.circle ||
                           m_joined->hiddenCount > 0 || m_view.showingHidden || !m_pendingTrash.empty();
    if (!filtering) {
        shown = directedList(m_view.order).sections;
    } else {
        auto key = lastSearchKey();
        ShownList result;
        if (query.isEmpty()) {
            result = filteredList();
        } else if (m_lastSearch && m_lastSearch->key == key && query.narrows(m_lastSearch->query)) {
            // Typing more under the same order and filters can only narrow
            // the last result, unless a word became a phone number: search
            // just that.
            result = searched(ShownList{m_lastSearch->sections, m_lastSearch->positions}, query);
        } else {
            result = searched(filteredList(), query);
        }
        shown = result.sections;
        if (m_lastSearch) {
            releaseLater(std::move(m_lastSearch->sections));
        }
        m_lastSearch = LastSearch{std::move(key), query, result.sections, result.positions};
    }

    m_matchCount = peopleCount(*shown);
    m_headings = headingsOf(*shown);
    // A heading the list no longer has (another account or circle was
    // chosen, or a search left no one under it) filters no more: the list
    // shows what the other filters leave rather than nothing at all.
    if (m_view.heading && std::none_of(m_headings.begin(), m_headings.end(), [&](const Heading& heading) {
            return heading.title == *m_view.heading;
        })) {
        m_view.heading.reset();
    }
    if (m_view.heading) {
        std::vector<Section> chosen;
        for (const auto& section : *shown) {
            if (section.letter == *m_view.heading) {
                chosen.push_back(section);
            }
        }
        shown = share(std::move(chosen));
    }
    releaseLater(std::exchange(m_sections, std::move(shown)));
    ++m_listID;

    const auto milliseconds = m_context.clock().millisecondsSince(start);
    if (!query.isEmpty()) {
        m_context.log().info(
            LogMessage("search \"")
                .privateText(text)
                .publicText(fmt::format("\": {} ms, {} matches", milliseconds, m_matchCount)));
    } else if (milliseconds >= kSlowRebuildMs) {
        m_context.log().info(fmt::format("slow rebuild ({}){} ms for {} people", rawValue(m_view.order),
                                         milliseconds, m_joined->people.size()));
    }
}

void ShownPeople::releaseLater(SectionList list) {
    if (list && list.holders() == 1) {
        m_context.background().post([list = std::move(list)] {});
    }
}

const std::vector<std::string>& ShownPeople::flatIDs() {
    if (m_flatListID != static_cast<std::int64_t>(m_listID)) {
        m_flatPos.clear();
        m_flatIDs.clear();
        for (const auto& section : *m_sections) {
            for (const auto* person : section.people) {
                m_flatIDs.push_back(person->id);
            }
        }
        // Filled only now that the ids no longer move.
        m_flatPos.reserve(m_flatIDs.size());
        for (std::size_t i = 0; i < m_flatIDs.size(); ++i) {
            m_flatPos.try_emplace(m_flatIDs[i], i);
        }
        m_flatListID = static_cast<std::int64_t>(m_listID);
    }
    return m_flatIDs;
}

std::optional<std::size_t> ShownPeople::flatPosition(std::string_view id) {
    flatIDs();
    const auto found = m_flatPos.find(id);
    if (found == m_flatPos.end()) {
        return std::nullopt;
    }
    return found->second;
}

// --- The view ----------------------------------------------------------------------

void ShownPeople::setView(ViewSettings view) {
    if (view == m_view) {
        return;
    }
    PeopleChanges changes = PeopleChange::sections;
    if (view.searchText != m_view.searchText) {
        changes |= PeopleChange::search;
    }
    ViewSettings filters = view;
    filters.searchText = m_view.searchText;
    if (filters != m_view) {
        changes |= PeopleChange::filters;
    }
    if (view.heading && view.heading != m_view.heading) {
        m_context.log().info("heading filter: " + *view.heading);
    }
    if (changes.contains(PeopleChange::search)) {
        m_searchInput = view.searchText;
    }
    m_view = std::move(view);
    ++m_scrollToTopToken;
    rebuild();
    m_context.notify(changes);
}

void ShownPeople::setSortOrder(SortOrder order) {
    if (order == m_view.order) {
        return;
    }
    auto view = m_view;
    view.order = order;
    // Headings are the titles of one order's sections.
    view.heading.reset();
    setView(std::move(view));
}

void ShownPeople::setDescending(bool descending) {
    auto view = m_view;
    view.descending = descending;
    setView(std::move(view));
}

void ShownPeople::setAccountFilter(std::optional<std::string> accountID) {
    auto view = m_view;
    view.accountID = std::move(accountID);
    setView(std::move(view));
}

void ShownPeople::setCircleFilter(std::optional<ContactCircle> circle) {
    auto view = m_view;
    view.circle = circle;
    setView(std::move(view));
}

void ShownPeople::setShowingHidden(bool showing) {
    auto view = m_view;
    view.showingHidden = showing;
    setView(std::move(view));
}

void ShownPeople::setHeadingFilter(std::optional<std::string> title) {
    auto view = m_view;
    view.heading = std::move(title);
    setView(std::move(view));
}

void ShownPeople::setPendingTrash(std::set<std::string> personIDs) {
    if (personIDs == m_pendingTrash) {
        return;
    }
    m_pendingTrash = std::move(personIDs);
    ++m_pendingTrashVersion;
    rebuild();
    m_context.notify(PeopleChange::sections);
}

// --- Search --------------------------------------------------------------------------

void ShownPeople::setSearchInput(std::string text) {
    if (text == m_searchInput) {
        return;
    }
    m_searchInput = std::move(text);
    m_context.notify(PeopleChange::search);
    if (m_searchTaskPending) {
        return; // the pending search carries the latest input when it runs
    }
    m_searchTaskPending = true;
    m_context.onMain(
        [this] {
            m_searchTaskPending = false;
            if (m_view.searchText == m_searchInput) {
                return;
            }
            m_view.searchText = m_searchInput;
            ++m_scrollToTopToken;
            rebuild();
            m_context.notify(PeopleChange::search | PeopleChange::sections);
        },
        m_context.options().searchDelay);
}

void ShownPeople::setSearchText(std::string text) {
    // Searched again even when the text is the same: the tool asks for the
    // list as it is now.
    m_searchInput = text;
    m_view.searchText = std::move(text);
    ++m_scrollToTopToken;
    rebuild();
    m_context.notify(PeopleChange::search | PeopleChange::sections);
}

// --- Past jobs -------------------------------------------------------------------------

bool ShownPeople::recomputePastJobText() {
    std::map<std::string, std::string> text;
    m_pastJobLookup.clear();
    if (!m_pastJobsByKey.empty()) {
        for (const auto& person : m_joined->people) {
            const auto found = m_pastJobsByKey.find(person->kinID.value_or(person->id));
            if (found != m_pastJobsByKey.end()) {
                text.emplace(person->id, found->second);
            }
        }
    }
    const bool changed = text != m_pastJobText;
    if (changed) {
        m_pastJobText = std::move(text);
        ++m_pastJobsVersion;
        m_lastSearch.reset();
    }
    for (const auto& person : m_joined->people) {
        if (m_pastJobText.empty()) {
            break;
        }
        if (const auto found = m_pastJobText.find(person->id); found != m_pastJobText.end()) {
            m_pastJobLookup.emplace(person.get(), &found->second);
        }
    }
    placePastJobs();
    return changed;
}

void ShownPeople::placePastJobs() {
    m_pastJobsByPosition.clear();
    if (!m_searchIndex || m_pastJobLookup.empty()) {
        return;
    }
    m_pastJobsByPosition.assign(m_searchIndex->size(), nullptr);
    for (const auto& [person, text] : m_pastJobLookup) {
        if (const auto position = m_searchIndex->positionOf(person)) {
            m_pastJobsByPosition[*position] = text;
        }
    }
}

void ShownPeople::reloadPastJobs(std::function<void()> done) {
    const auto& source = m_context.options().pastJobs;
    if (!source) {
        if (done) {
            m_context.onMain(std::move(done));
        }
        return;
    }
    m_pastJobsRead = true;
    m_context.runOn(
        m_context.background(),
        [source] {
            std::map<std::string, std::string> texts;
            for (const auto& [key, jobs] : source->allJobs()) {
                auto text = fold(pastJobsSearchText(jobs));
                if (!text.empty()) {
                    texts.emplace(key, std::move(text));
                }
            }
            return texts;
        },
        [this, done = std::move(done)](std::map<std::string, std::string> texts) {
            m_pastJobsByKey = std::move(texts);
            if (recomputePastJobText()) {
                rebuild();
                m_context.notify(PeopleChange::pastJobs | PeopleChange::sections);
            }
            if (done) {
                done();
            }
        });
}

void ShownPeople::setPastJobs(const Person& person, const std::vector<PastJob>& jobs) {
    const auto key = person.kinID.value_or(person.id);
    auto text = fold(pastJobsSearchText(jobs));
    if (text.empty()) {
        m_pastJobsByKey.erase(key);
    } else {
        m_pastJobsByKey.insert_or_assign(key, std::move(text));
    }
    if (recomputePastJobText()) {
        rebuild();
        m_context.notify(PeopleChange::pastJobs | PeopleChange::sections);
    }
}

} // namespace kinbook
