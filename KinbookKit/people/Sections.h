#pragma once

#include "KinbookKit/people/SortOrder.h"
#include "KinbookKit/records/Person.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kinbook {

// People are shared, never copied, between the list, the index of every sort
// order, the shown sections and the views: at 100,000 people a copy per order
// would cost gigabytes.
using PersonPtr = std::shared_ptr<const Person>;

// One titled run of the list: a letter, a circle's name, "No Phone", "3 fields", …
//
// A section names its people by address and holds none of them: whoever
// made the sections keeps the people alive (a SectionList does, for the
// list's own). Taking a share of each person would be an atomic write to a
// count beside each one, far apart in memory; at 100,000 people those
// writes cost a keystroke more than its search does.
struct Section {
    std::string letter;
    std::vector<const Person*> people;

    // Equal when the titles are and the people are, person by person (by value).
    bool operator==(const Section& other) const;
};

// One entry of the headings column: a section's title and how many people it holds.
struct Heading {
    std::string title;
    int count = 0;

    bool operator==(const Heading&) const = default;
};

// Sections together with the people they name: the list holds everyone its
// sections list, so a person read from a section lives as long as the list
// it came from. Keep the list, or look the person up again, to keep a person
// longer. Shared, never copied, between the index, the shown list and the
// last search: switching the sort order is then a look-up. Null until made.
class SectionList {
public:
    SectionList() = default;
    // `people` keeps alive everyone the sections name; none for no sections.
    SectionList(std::vector<Section> sections, std::shared_ptr<const void> people)
        : m_held(std::make_shared<const Held>(Held{std::move(people), std::move(sections)})) {}

    explicit operator bool() const { return m_held != nullptr; }
    const std::vector<Section>& operator*() const { return m_held->sections; }
    const std::vector<Section>* operator->() const { return &m_held->sections; }
    const std::vector<Section>* get() const { return m_held ? &m_held->sections : nullptr; }
    // How many hold this list: the last holder may free it elsewhere.
    long holders() const { return m_held.use_count(); }

    // The same list, not merely equal sections.
    bool operator==(const SectionList& other) const { return m_held == other.m_held; }
    bool operator==(std::nullptr_t) const { return m_held == nullptr; }

private:
    struct Held {
        std::shared_ptr<const void> people;
        std::vector<Section> sections;
    };
    std::shared_ptr<const Held> m_held;
};

// Sorts `people` in `order` (ascending) and cuts them into sections, each
// created when its title is first met. The sections name the people of
// `people`, which must outlive them. Stable: people with equal keys keep
// the order they came in. Quickest when the people come in sort-key order,
// as the list keeps them. Reads the people only, so it may run on any
// thread while nobody changes them.
std::vector<Section> buildSections(SortOrder order, std::span<const PersonPtr> people);

// The sections of every sort order, as the list's index keeps them: the same
// as buildSections for each, with each person's keys read once for all
// seven. `shouldStop` is asked between orders (a newer list supersedes the
// index being built); the orders built until then are returned.
std::map<SortOrder, std::vector<Section>> buildIndex(std::span<const PersonPtr> people,
                                                     const std::function<bool()>& shouldStop = {});

// The sections as shown in the given direction. Descending reverses the
// sections and the people inside them, except that the photo order keeps
// "Picture" before "No Picture" and reverses only the names.
std::vector<Section> inDirection(std::vector<Section> sections, bool descending);

// One heading per section, in order.
std::vector<Heading> headingsOf(std::span<const Section> sections);

// How many people the sections hold.
int peopleCount(std::span<const Section> sections);

// The sections with only the people `keep` accepts, in the same order,
// sections left empty dropped: what the list's filters and its search show.
// The kept sections name the same people, who must outlive them.
std::vector<Section> filterSections(std::span<const Section> sections,
                                    const std::function<bool(const Person&)>& keep);

} // namespace kinbook
