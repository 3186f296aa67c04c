// The people list's pure parts at 1k, 10k and 100k people: the cards of a
// cached start joined into people, sections for each sort order and the index
// of all seven, a search keystroke and a narrowing one, and the snapshot cache
// written and read.

#include "KinbookKit/people/PersonJoin.h"
#include "KinbookKit/people/SearchQuery.h"
#include "KinbookKit/people/Sections.h"
#include "KinbookKit/people/SnapshotCache.h"
#include "bench/SplitMix64.h"

#include <fmt/core.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>

namespace kinbook {
namespace {

struct Name {
    std::string_view text;
    std::string_view ascii; // for e-mail addresses
};

constexpr Name kGiven[] = {
    {"Anna", "anna"},   {"José", "jose"},     {"Émile", "emile"},     {"Zoë", "zoe"},
    {"Mark", "mark"},   {"María", "maria"},   {"Søren", "soren"},     {"Łukasz", "lukasz"},
    {"James", "james"}, {"Olivia", "olivia"}, {"Noah", "noah"},       {"Amélie", "amelie"},
    {"Иван", "ivan"},   {"Мария", "maria"},   {"Γιώργος", "giorgos"}, {"Ελένη", "eleni"},
    {"伟", "wei"},      {"花子", "hanako"},   {"محمد", "mohammed"},   {"ليلى", "layla"},
    {"Chloé", "chloe"}, {"Björn", "bjorn"},   {"Ingrid", "ingrid"},   {"Mateo", "mateo"},
};
constexpr Name kFamily[] = {
    {"Smith", "smith"},
    {"Schröder", "schroder"},
    {"Fernández", "fernandez"},
    {"O'Brien", "obrien"},
    {"Kowalski", "kowalski"},
    {"Jørgensen", "jorgensen"},
    {"Dubois", "dubois"},
    {"van der Berg", "vanderberg"},
    {"Martin", "martin"},
    {"Nguyễn", "nguyen"},
    {"Lindqvist", "lindqvist"},
    {"Williams", "williams"},
    {"Иванов", "ivanov"},
    {"Петрова", "petrova"},
    {"Παπαδόπουλος", "papadopoulos"},
    {"王", "wang"},
    {"佐藤", "sato"},
    {"العلي", "alali"},
    {"Müller", "muller"},
    {"Łopez", "lopez"},
    {"Álvarez", "alvarez"},
    {"Quinn", "quinn"},
    {"Yilmaz", "yilmaz"},
};
constexpr std::string_view kCompanies[] = {
    "Acme Corporation", "Globex",           "Initech",           "Umbrella GmbH", "Société Générale", "Hooli",
    "Nakatomi Trading", "Stark Industries", "Wayne Enterprises", "Ørsted A/S",
};
constexpr std::string_view kJobs[] = {"Engineer", "Designer", "Manager", "Nurse",
                                      "Teacher",  "Lawyer",   "Chef"};
constexpr std::string_view kPhoneForms[] = {
    "+1 (###) 555-01##", "(###) 555-01##",    "###-555-01##",    "+44 20 7946 0###",
    "+49 30 #######",    "+33 6 ## ## ## ##", "+81 3-####-####", "0###", // the last has no area code
};
constexpr std::string_view kZipForms[] = {"#####", "#####-####", "SW1A #AA", "75###", "1####"};
constexpr std::string_view kPlaces[] = {"Springfield", "Portland", "Berlin", "München",
                                        "Paris",       "London",   "東京"};

std::string fillDigits(std::string_view form, SplitMix64& random) {
    std::string text(form);
    for (auto& c : text) {
        if (c == '#') {
            c = static_cast<char>('0' + random.below(10));
        }
    }
    return text;
}

// People as the address book makes them: derived keys worked out, the list
// sorted by sort key as the people list keeps it.
std::vector<PersonPtr> makePeople(std::size_t count) {
    SplitMix64 random(count);
    std::vector<Person> people;
    people.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        Person person;
        person.id = fmt::format("{:08X}-{:04X}-4{:03X}-A{:03X}-{:012X}", random.next() & 0xffffffff,
                                random.below(0x10000), random.below(0x1000), random.below(0x1000),
                                random.next() & 0xffffffffffff);
        const auto& given = random.pick(kGiven);
        const auto& family = random.pick(kFamily);
        if (!random.percent(3)) {
            person.givenName = given.text;
        }
        if (!random.percent(5)) {
            person.familyName = family.text;
        }
        if (random.percent(35)) {
            person.organization = random.pick(kCompanies);
        }
        if (random.percent(25)) {
            person.jobTitle = random.pick(kJobs);
        }
        std::vector<std::string> phones(static_cast<std::size_t>(random.between(0, 3)));
        for (auto& phone : phones) {
            phone = fillDigits(random.pick(kPhoneForms), random);
        }
        person.phoneNumbers = phones;
        std::vector<std::string> emails;
        for (int e = random.between(0, 2); e > 0; --e) {
            emails.push_back(fmt::format("{}.{}{}@example.{}", given.ascii, family.ascii,
                                         emails.empty() ? "" : "2", emails.empty() ? "com" : "org"));
        }
        person.emailAddresses = emails;
        if (random.percent(60)) {
            person.postalCodes = {fillDigits(random.pick(kZipForms), random)};
            person.places = {random.pick(kPlaces)};
        }
        person.accountIDs = {fmt::format("account-{}", random.below(3))};
        if (random.percent(20)) {
            person.kinID = fmt::format("kinbook://c/{:08x}", random.next() & 0xffffffff);
        }
        if (random.percent(15)) {
            person.circle = circleFromRawValue(random.between(1, 6));
        }
        person.hasImage = random.percent(10);
        person.hidden = random.percent(1);
        person.detailed = true;
        person.isPrimaryCard = true;
        person.memberIDs = {person.id};
        person.filledCount =
            static_cast<int>(!person.givenName.empty()) + static_cast<int>(!person.familyName.empty()) +
            static_cast<int>(!person.organization.empty()) + static_cast<int>(!person.jobTitle.empty()) +
            static_cast<int>(phones.size() + emails.size() + person.postalCodes.size());
        person.derive();
        people.push_back(std::move(person));
    }
    // Allocated in the order they were read, then sorted by sort key as the
    // people list keeps them: neighbours in the list are not neighbours in
    // memory, as in the application.
    std::vector<PersonPtr> shared;
    shared.reserve(count);
    for (auto& person : people) {
        shared.push_back(std::make_shared<const Person>(std::move(person)));
    }
    std::stable_sort(shared.begin(), shared.end(),
                     [](const PersonPtr& a, const PersonPtr& b) { return a->sortKey() < b->sortKey(); });
    return shared;
}

const std::vector<PersonPtr>& peopleOf(std::int64_t count) {
    static std::map<std::int64_t, std::vector<PersonPtr>> made;
    auto& people = made[count];
    if (people.empty()) {
        people = makePeople(static_cast<std::size_t>(count));
    }
    return people;
}

AddressBookSnapshot snapshotOf(std::int64_t count) {
    AddressBookSnapshot snapshot;
    for (const auto& person : peopleOf(count)) {
        snapshot.people.push_back(*person);
    }
    snapshot.accounts = {{"account-0", "iCloud"}, {"account-1", "Google"}, {"account-2", "Work"}};
    snapshot.historyToken = std::vector<std::uint8_t>(40, 7);
    snapshot.fullReadAt =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    return snapshot;
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
}

// The cards of a start from the cache joined into people, as the list joins
// them: every card points into the one snapshot read, in the order the store
// gave them rather than the list's, and one card in five shares a KinID with
// the card before it.
void BM_JoinPeople(benchmark::State& state) {
    auto snapshot = std::make_shared<AddressBookSnapshot>(snapshotOf(state.range(0)));
    SplitMix64 random(42);
    for (std::size_t i = snapshot->people.size(); i > 1; --i) {
        std::swap(snapshot->people[i - 1], snapshot->people[random.below(i)]);
    }
    for (std::size_t i = 0; i < snapshot->people.size(); ++i) {
        auto& card = snapshot->people[i];
        card.kinID.reset();
        if (i % 5 >= 3) {
            card.kinID = fmt::format("kinbook://c/{}", i / 5);
            card.isPrimaryCard = i % 5 == 3;
        }
    }
    std::vector<PersonPtr> raw;
    for (const auto& card : snapshot->people) {
        raw.emplace_back(snapshot, &card);
    }
    for (auto _ : state) {
        auto joined = joinPeople(raw);
        benchmark::DoNotOptimize(joined);
        state.PauseTiming(); // letting go of the people is not part of the start
        joined = {};
        state.ResumeTiming();
    }
}
BENCHMARK(BM_JoinPeople)->Apply(sizes)->UseRealTime();

void BM_BuildSections(benchmark::State& state, SortOrder order) {
    const auto& people = peopleOf(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(buildSections(order, people));
    }
}
BENCHMARK_CAPTURE(BM_BuildSections, lastName, SortOrder::lastName)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, firstName, SortOrder::firstName)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, circle, SortOrder::circle)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, areaCode, SortOrder::areaCode)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, zip, SortOrder::zip)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, completeness, SortOrder::completeness)->Apply(sizes);
BENCHMARK_CAPTURE(BM_BuildSections, photo, SortOrder::photo)->Apply(sizes);

// What the people list builds in the background after each apply.
void BM_IndexOfAllOrders(benchmark::State& state) {
    const auto& people = peopleOf(state.range(0));
    std::map<SortOrder, std::vector<Section>> index;
    for (auto _ : state) {
        index = buildIndex(people);
    }
    // What the index holds beside the people it names.
    std::size_t bytes = 0;
    std::size_t sections = 0;
    for (const auto& [order, orderSections] : index) {
        bytes += orderSections.capacity() * sizeof(Section);
        sections += orderSections.size();
        for (const auto& section : orderSections) {
            bytes += section.people.capacity() * sizeof(const Person*) + section.letter.capacity();
        }
    }
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["sections"] = static_cast<double>(sections);
}
BENCHMARK(BM_IndexOfAllOrders)->Apply(sizes);

std::vector<Section> search(std::span<const Section> sections, std::string_view text) {
    const auto query = SearchQuery::parse(text);
    return filterSections(sections, [&](const Person& person) { return query.matches(person, nullptr); });
}

void reportMatches(benchmark::State& state, const std::vector<Section>& result) {
    state.counters["matches"] = peopleCount(result);
}

// The first letter typed: every person is searched.
void BM_SearchKeystroke(benchmark::State& state) {
    const auto sections = buildSections(SortOrder::lastName, peopleOf(state.range(0)));
    std::vector<Section> result;
    for (auto _ : state) {
        result = search(sections, "m");
    }
    reportMatches(state, result);
}
BENCHMARK(BM_SearchKeystroke)->Apply(sizes);

// The first letter in the zip order, whose sections hold one or two people each.
void BM_SearchKeystrokeZipOrder(benchmark::State& state) {
    const auto sections = buildSections(SortOrder::zip, peopleOf(state.range(0)));
    std::vector<Section> result;
    for (auto _ : state) {
        result = search(sections, "m");
    }
    reportMatches(state, result);
    state.counters["sections"] = static_cast<double>(sections.size());
}
BENCHMARK(BM_SearchKeystrokeZipOrder)->Apply(sizes);

// A second letter: only the first letter's matches are searched.
void BM_SearchNarrowingKeystroke(benchmark::State& state) {
    const auto sections = buildSections(SortOrder::lastName, peopleOf(state.range(0)));
    const auto previous = search(sections, "m");
    std::vector<Section> result;
    for (auto _ : state) {
        result = search(previous, "ma");
    }
    reportMatches(state, result);
}
BENCHMARK(BM_SearchNarrowingKeystroke)->Apply(sizes);

// A query that matches nobody reads every person's whole search text, and
// its phone-like word every number's digits.
void BM_SearchNoMatch(benchmark::State& state) {
    const auto sections = buildSections(SortOrder::lastName, peopleOf(state.range(0)));
    std::vector<Section> result;
    for (auto _ : state) {
        result = search(sections, "zq 999-99");
    }
    reportMatches(state, result);
}
BENCHMARK(BM_SearchNoMatch)->Apply(sizes);

void BM_CacheEncode(benchmark::State& state) {
    const auto snapshot = snapshotOf(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto json = SnapshotCache::encode(snapshot);
        bytes = json ? json->size() : 0;
        benchmark::DoNotOptimize(json);
    }
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_CacheEncode)->Apply(sizes);

// A temporary folder for the cache files, removed when the benchmarks end.
class BenchFolder {
public:
    BenchFolder() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kinbook-people-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        m_path = pattern;
    }
    ~BenchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    BenchFolder(const BenchFolder&) = delete;
    BenchFolder& operator=(const BenchFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

const std::filesystem::path& benchFolder() {
    static const BenchFolder folder;
    return folder.path();
}

// Encoding, the atomic write and its flush to disk.
void BM_CacheWrite(benchmark::State& state) {
    const auto snapshot = snapshotOf(state.range(0));
    const SnapshotCache cache(benchFolder() / "write" / "kinbook-snapshot.json");
    for (auto _ : state) {
        cache.write(snapshot);
    }
}
BENCHMARK(BM_CacheWrite)->Apply(sizes);

// From the file to people with their keys, as a start shows them.
void BM_CacheRead(benchmark::State& state) {
    const SnapshotCache cache(benchFolder() / fmt::format("read-{}", state.range(0)) /
                              "kinbook-snapshot.json");
    cache.write(snapshotOf(state.range(0)));
    std::size_t people = 0;
    for (auto _ : state) {
        auto snapshot = cache.read();
        people = snapshot ? snapshot->people.size() : 0;
        benchmark::DoNotOptimize(snapshot);
    }
    if (people != static_cast<std::size_t>(state.range(0))) {
        state.SkipWithError("the cache did not read back");
    }
}
BENCHMARK(BM_CacheRead)->Apply(sizes);

} // namespace
} // namespace kinbook
