#pragma once

#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PersonJoin.h"
#include "KinbookKit/people/SearchIndex.h"
#include "KinbookKit/people/SearchQuery.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/people/SortOrder.h"
#include "KinbookKit/records/ContactCircle.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kinbook {

// How the user has the list shown: what the sort menu, the sidebar, the
// headings column and the search field set.
struct ViewSettings {
    SortOrder order = SortOrder::lastName;
    bool descending = false;
    std::optional<std::string> accountID;
    std::optional<ContactCircle> circle;
    bool showingHidden = false;
    // The one heading shown; none shows them all.
    std::optional<std::string> heading;
    // Searched as given; trimmed before it is parsed.
    std::string searchText;

    bool operator==(const ViewSettings&) const = default;
};

// The people as shown: the index of every sort order, the filters, the
// search and its debounce, the sections with their headings, and the flat
// order the selection moves through. Rebuilt whenever the people or the
// view change; reads the people it is given and never the store.
//
// Threads. As the people list: every member on the main executor; the index
// is built on the background executor and dropped when newer people arrive.
class ShownPeople {
public:
    // The last search's result, which the next keystroke narrows when the
    // user typed more under the same order, direction and filters.
    struct LastSearch {
        std::string key;
        SearchQuery query;
        SectionList sections;
        // Where each of those people is in the search index, in order; null
        // when the result was made before the index.
        std::shared_ptr<const std::vector<std::uint32_t>> positions;
    };

    explicit ShownPeople(PeopleListContext& context);
    ~ShownPeople();

    ShownPeople(const ShownPeople&) = delete;
    ShownPeople& operator=(const ShownPeople&) = delete;

    // --- New people ------------------------------------------------------------

    // Puts newly joined people in place of the old: drops the index, the
    // filtered lists and the last search, which all name the old people,
    // and rebuilds. `sections` are those of `order`, ascending, made with
    // the people. Returns what changed beyond the people and sections (a
    // filter on an account that is gone is cleared; past jobs may move).
    PeopleChanges replacePeople(std::shared_ptr<const JoinedPeople> joined, std::uint64_t peopleVersion,
                                const std::vector<Account>* accounts, SortOrder order, SectionList sections);
    // Builds the index of every order and the search index for the people
    // in place, in the background; observers hear `index` when it is in.
    void startIndex();

    // --- What is shown -----------------------------------------------------------

    const SectionList& sections() const { return m_sections; }
    const std::vector<Heading>& headings() const { return m_headings; }
    int matchCount() const { return m_matchCount; }
    std::uint64_t listID() const { return m_listID; }
    std::uint64_t scrollToTopToken() const { return m_scrollToTopToken; }
    const std::vector<std::string>& flatIDs();
    std::optional<std::size_t> flatPosition(std::string_view id);
    SectionList indexed(SortOrder order) const;
    bool isIndexing() const { return m_indexCancel != nullptr; }

    // --- The view ----------------------------------------------------------------

    const ViewSettings& view() const { return m_view; }
    // Shows the list as `view` says, rebuilt once however much changed, and
    // scrolled to the top; nothing happens when nothing changed. A new
    // search text is searched at once and becomes the search field's input.
    void setView(ViewSettings view);
    // One setting at a time, as the menus change them. A new sort order
    // clears the heading filter: headings are one order's titles.
    void setSortOrder(SortOrder order);
    void setDescending(bool descending);
    void setAccountFilter(std::optional<std::string> accountID);
    void setCircleFilter(std::optional<ContactCircle> circle);
    void setShowingHidden(bool showing);
    void setHeadingFilter(std::optional<std::string> title);
    const std::set<std::string>& pendingTrash() const { return m_pendingTrash; }
    void setPendingTrash(std::set<std::string> personIDs);

    // --- Search --------------------------------------------------------------------

    const std::string& searchInput() const { return m_searchInput; }
    const std::string& searchText() const { return m_view.searchText; }
    void setSearchInput(std::string text);
    void setSearchText(std::string text);
    const std::optional<LastSearch>& lastSearch() const { return m_lastSearch; }

    // --- Past jobs -------------------------------------------------------------------

    const std::map<std::string, std::string>& pastJobText() const { return m_pastJobText; }
    std::uint64_t pastJobsVersion() const { return m_pastJobsVersion; }
    // Reads them from the source, once, after the first people arrive.
    bool pastJobsRead() const { return m_pastJobsRead; }
    void reloadPastJobs(std::function<void()> done);
    void setPastJobs(const Person& person, const std::vector<PastJob>& jobs);

private:
    // Sections with each person's position in the search index, in display
    // order; positions are null until the index is built.
    struct ShownList {
        SectionList sections;
        std::shared_ptr<const std::vector<std::uint32_t>> positions;
    };
    // What the filters test of each person, by search-index position, so
    // that filtering reads a few flat arrays instead of every person.
    struct FilterFacts;

    SectionList share(std::vector<Section> sections) const;
    std::shared_ptr<const std::vector<std::uint32_t>>
    positionsFor(const std::vector<Section>& sections) const;
    ShownList directedList(SortOrder order);
    ShownList filteredList();
    ShownList searched(const ShownList& source, const SearchQuery& query);
    std::string filterKey() const;
    std::string lastSearchKey() const;
    void rebuild();
    // Lets a list go on the background executor when this was its last
    // holder: freeing the sections of 100,000 people is not the keystroke's work.
    void releaseLater(SectionList list);
    bool recomputePastJobText(); // true when the text changed
    void placePastJobs();
    const std::string* pastJobsOf(const Person& person) const;

    PeopleListContext& m_context;

    // Everything below belongs to the main executor.
    std::shared_ptr<const JoinedPeople> m_joined;
    std::uint64_t m_peopleVersion = 0;

    ViewSettings m_view;
    std::string m_searchInput;
    bool m_searchTaskPending = false;
    std::set<std::string> m_pendingTrash;
    std::uint64_t m_pendingTrashVersion = 0;

    SectionList m_sections;
    std::vector<Heading> m_headings;
    int m_matchCount = 0;
    std::uint64_t m_listID = 0;
    std::uint64_t m_scrollToTopToken = 0;
    std::optional<LastSearch> m_lastSearch;

    std::map<std::string, std::string> m_pastJobText;
    std::map<std::string, std::string> m_pastJobsByKey; // KinID (else person id) -> folded text
    std::unordered_map<const Person*, const std::string*> m_pastJobLookup;
    std::vector<const std::string*> m_pastJobsByPosition; // by search-index position, when anyone has some
    std::uint64_t m_pastJobsVersion = 0;
    bool m_pastJobsRead = false;

    std::map<SortOrder, ShownList> m_index;           // ascending, per order
    std::map<SortOrder, ShownList> m_descendingIndex; // made on first use
    std::map<SortOrder, ShownList> m_visibleIndex;    // ascending, hidden people left out
    std::map<std::string, ShownList> m_filtered;      // by filterKey(), made on first use
    std::shared_ptr<const SearchIndex> m_searchIndex;
    std::shared_ptr<const FilterFacts> m_facts; // with the search index
    std::vector<std::uint8_t> m_matched;        // one flag per search-index position, reused by each search
    std::shared_ptr<std::atomic<bool>> m_indexCancel; // the running index task's

    std::vector<std::string> m_flatIDs;
    std::unordered_map<std::string_view, std::size_t> m_flatPos;
    std::int64_t m_flatListID = -1;
};

} // namespace kinbook
