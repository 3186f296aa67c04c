// The people list's costs on generated vdirs of several sizes, as one table:
//
//   kinbook-bench-people [--sizes 1000,10000,100000] [--folder DIR]
//
// Each size runs in child processes of its own, so that its peak memory is
// its own: one for the first start, which writes the snapshot cache, and a
// fresh one for the next start from that cache, as a launch of the
// application is (a process that has just freed a whole list allocates
// differently from one that starts). The list runs as in the tool: a run loop as its main executor on
// this thread, a two-thread pool behind it. For each size it times, with a
// warm page cache: the first load (names pass, then the full read, to the
// people applied), the cached start to the first sections shown (the median
// of three starts, each in a fresh process), the index of
// all seven orders, one keystroke of search and one narrowing keystroke, a
// rebuild with each filter, and switching the sort order; then the memory
// the list and its index hold. The load and the cached start are wall time
// (they span threads); the steps on the main thread alone are its CPU time.

#include "KinbookKit/RunLoop.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/platform/UringCardBatchReader.h"
#include "KinbookKit/text/AppLog.h"
#include "bench/HeapStats.h"
#include "bench/VdirGenerator.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace {

using namespace kinbook;
using bench::liveHeapMB;
using bench::releaseFreeMemory;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

double peakMemoryMB() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

double residentMemoryMB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double threadCPUMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// The CPU time this thread spends on a step that runs on it alone (a
// keystroke, a filter, an order switch): on a machine shared with builds,
// wall time would mostly measure the neighbours.
template <typename Function>
double timed(Function function) {
    const double start = threadCPUMilliseconds();
    function();
    return threadCPUMilliseconds() - start;
}

using Figures = std::map<std::string, double>;

// Reads every card file once, so that the loads time the list, not the disk.
void warmPageCache(const fs::path& root) {
    std::vector<char> buffer(1 << 16);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            std::ifstream in(entry.path(), std::ios::binary);
            while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
            }
        }
    }
}

// What both starts of one size share: the paths, the log, the address
// book, the executors.
struct Bench {
    explicit Bench(const fs::path& base)
        : root(base / "vdir"), state(base / "people-state"),
          cacheFile(base / "people-cache" / "kinbook-snapshot.json"), appLog(base / "people-app.log"),
          log(std::make_shared<KinLog>("list", appLog)) {
        options.log = log;
        options.cache = std::make_shared<SnapshotCache>(cacheFile);
    }

    std::shared_ptr<VdirAddressBook> makeBook() {
        VdirAddressBook::Options bookOptions;
        bookOptions.root = root;
        bookOptions.stateFolder = state;
        bookOptions.log = std::make_shared<KinLog>("store", appLog);
        bookOptions.cardReaders = UringCardBatchReader::factory();
        return std::make_shared<VdirAddressBook>(bookOptions);
    }

    fs::path root;
    fs::path state;
    fs::path cacheFile;
    AppLog appLog;
    std::shared_ptr<KinLog> log;
    RunLoop main;
    ThreadPool pool{2};
    PeopleListOptions options;
};

// The first start of one size, in this process: no cache yet; it leaves the
// snapshot cache and the address book's state for the next start.
Figures measureFirstStart(const fs::path& base) {
    Figures figures;
    fs::remove_all(base / "people-state");
    fs::remove_all(base / "people-cache");
    Bench bench(base);
    auto& main = bench.main;
    auto& pool = bench.pool;
    const auto& options = bench.options;
    const auto& cacheFile = bench.cacheFile;
    const auto makeBook = [&] { return bench.makeBook(); };
    warmPageCache(bench.root);

    // The first start: no cache yet. The address book has looked at every
    // file once already, so that what it keeps is not counted as the list's.
    {
        auto book = makeBook();
        (void)book->readAll({.details = false, .takeToken = true, .membership = false});
        releaseFreeMemory();
        const double heapBefore = liveHeapMB();
        const double residentBefore = residentMemoryMB();
        PeopleList list(main, pool, book, options);
        std::optional<double> firstSections;
        std::optional<double> detailed;
        const auto start = SteadyClock::now();
        list.observe([&](PeopleList::Changes changes) {
            if (changes.contains(PeopleList::Change::sections) && !firstSections &&
                !list.sections().empty()) {
                firstSections = millisecondsSince(start);
            }
            if (changes.contains(PeopleList::Change::people) && !detailed && !list.people().empty() &&
                list.people().front()->detailed) {
                detailed = millisecondsSince(start);
            }
        });
        bool loaded = false;
        list.load([&] { loaded = true; });
        main.runUntil([&] { return loaded && !list.isIndexing(); });
        figures["names pass to first sections"] = firstSections.value_or(0);
        figures["full read to applied people"] = detailed.value_or(0);
        figures["people"] = static_cast<double>(list.people().size());
        figures["cards"] = static_cast<double>(list.raw().size());
        // The cache is written on its own queue after the read.
        while (!fs::exists(cacheFile)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        // What the list and its index hold, without what the reads and the
        // cache writer let go.
        releaseFreeMemory();
        figures["list + index, live heap MB"] = liveHeapMB() - heapBefore;
        figures["list + index, resident MB"] = residentMemoryMB() - residentBefore;
    }
    figures["peak MB"] = peakMemoryMB();
    return figures;
}

// Loads the list of a next start: the cache first, then the changes since
// it. Times the cache read and the first sections shown from it.
void startFromCache(Bench& bench, PeopleList& list, Figures& figures) {
    std::optional<double> cachedSections;
    const auto start = SteadyClock::now();
    const auto watcher = list.observe([&](PeopleList::Changes changes) {
        if (changes.contains(PeopleList::Change::sections) && !cachedSections && !list.sections().empty()) {
            cachedSections = millisecondsSince(start);
        }
    });
    bool loaded = false;
    list.load([&] { loaded = true; });
    bench.main.runUntil([&] { return loaded && !list.isIndexing(); });
    list.unobserve(watcher);
    figures["cached start to first sections"] = cachedSections.value_or(0);
    figures["cache read"] = static_cast<double>(list.timings().cacheMs.value_or(0));
}

// One more next start, in a fresh process, timed only to its first
// sections: a single start on a shared machine swings by a third either way.
Figures measureCachedStart(const fs::path& base) {
    Figures figures;
    Bench bench(base);
    warmPageCache(bench.root);
    PeopleList list(bench.main, bench.pool, bench.makeBook(), bench.options);
    startFromCache(bench, list, figures);
    return figures;
}

// The next start of one size, in a fresh process: the cache first, then the
// changes since it; then everything timed on the list it shows.
Figures measureNextStart(const fs::path& base) {
    Figures figures;
    Bench bench(base);
    auto& main = bench.main;
    auto& pool = bench.pool;
    const auto& options = bench.options;
    warmPageCache(bench.root);
    PeopleList list(main, pool, bench.makeBook(), options);
    startFromCache(bench, list, figures);

    std::vector<double> index;
    for (int run = 0; run < 3; ++run) {
        index.push_back(timed([&] { (void)buildIndex(list.people()); }));
    }
    figures["index, all seven orders"] = *std::min_element(index.begin(), index.end());

    // Keystrokes: typing the first four letters of real names.
    std::vector<std::string> prefixes;
    const std::size_t step = list.people().size() / 25 + 1;
    for (std::size_t i = 0; i < list.people().size() && prefixes.size() < 25; i += step) {
        const auto& key = list.people()[i]->sortKey();
        if (key.size() >= 4 &&
            std::all_of(key.begin(), key.begin() + 4, [](char c) { return c >= 'a' && c <= 'z'; })) {
            prefixes.emplace_back(key.substr(0, 4));
        }
    }
    std::vector<double> first;
    std::vector<double> narrowing;
    std::vector<double> fourth;
    std::vector<double> matches;
    for (const auto& prefix : prefixes) {
        list.setSearchText("");
        first.push_back(timed([&] { list.setSearchText(prefix.substr(0, 1)); }));
        narrowing.push_back(timed([&] { list.setSearchText(prefix.substr(0, 2)); }));
        matches.push_back(list.matchCount());
        list.setSearchText(prefix.substr(0, 3));
        fourth.push_back(timed([&] { list.setSearchText(prefix); }));
    }
    list.setSearchText("");
    figures["keystroke, first letter (median)"] = median(first);
    figures["keystroke, 2nd letter, narrowing (median)"] = median(narrowing);
    figures["keystroke, 4th letter, narrowing (median)"] = median(fourth);
    figures["people left after two letters (median)"] = median(matches);
    std::vector<double> missing;
    for (int run = 0; run < 5; ++run) {
        list.setSearchText("");
        missing.push_back(timed([&] { list.setSearchText("zqx"); }));
    }
    list.setSearchText("");
    figures["keystroke, no match anywhere (median)"] = median(missing);

    // A rebuild with each filter, from the unfiltered list.
    const auto accountID = list.accounts().empty() ? std::string() : list.accounts().front().id;
    figures["filter: account"] = timed([&] { list.setAccountFilter(accountID); });
    list.setAccountFilter(std::nullopt);
    figures["filter: circle"] = timed([&] { list.setCircleFilter(ContactCircle::friends); });
    list.setCircleFilter(std::nullopt);
    figures["filter: hidden people"] = timed([&] { list.setShowingHidden(true); });
    list.setShowingHidden(false);
    figures["filter: heading"] = timed([&] { list.setHeadingFilter("M"); });
    list.setHeadingFilter(std::nullopt);
    std::set<std::string> trash;
    for (std::size_t i = 0; i < list.people().size() && trash.size() < 10; i += 97) {
        trash.insert(list.people()[i]->id);
    }
    figures["filter: pending trash"] = timed([&] { list.setPendingTrash(trash); });
    list.setPendingTrash({});

    std::vector<double> switches;
    for (int round = 0; round < 3; ++round) {
        for (const auto order : allSortOrders()) {
            switches.push_back(timed([&] { list.setSortOrder(order); }));
        }
    }
    figures["sort order switch (median)"] = median(switches);
    figures["sort order switch (slowest)"] = *std::max_element(switches.begin(), switches.end());
    figures["descending, first time"] = timed([&] { list.setDescending(true); });
    figures["descending, again"] = timed([&] {
        list.setDescending(false);
        list.setDescending(true);
    });
    figures["peak MB"] = peakMemoryMB();
    return figures;
}

const std::vector<std::string> kRows = {
    "names pass to first sections",
    "full read to applied people",
    "cache read",
    "cached start to first sections",
    "index, all seven orders",
    "keystroke, first letter (median)",
    "keystroke, 2nd letter, narrowing (median)",
    "keystroke, 4th letter, narrowing (median)",
    "people left after two letters (median)",
    "keystroke, no match anywhere (median)",
    "filter: account",
    "filter: circle",
    "filter: hidden people",
    "filter: heading",
    "filter: pending trash",
    "sort order switch (median)",
    "sort order switch (slowest)",
    "descending, first time",
    "descending, again",
    "list + index, live heap MB",
    "list + index, resident MB",
    "peak MB",
};

// Runs one start of one size in a child process and reads its figures back.
std::optional<Figures> measureInChild(const fs::path& base, Figures (*measure)(const fs::path&)) {
    int channel[2];
    if (pipe(channel) != 0) {
        return std::nullopt;
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        const auto figures = measure(base);
        std::string text;
        for (const auto& [name, value] : figures) {
            text += fmt::format("{}\t{}\n", name, value);
        }
        const char* data = text.data();
        std::size_t left = text.size();
        while (left > 0) {
            const auto written = write(channel[1], data, left);
            if (written <= 0) {
                break;
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        close(channel[1]);
        _exit(0);
    }
    close(channel[1]);
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = read(channel[0], buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    Figures figures;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const auto tab = line.find('\t');
        if (tab != std::string::npos) {
            figures[line.substr(0, tab)] = std::stod(line.substr(tab + 1));
        }
    }
    return figures;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Times the people list on generated vdirs"};
    std::vector<std::size_t> sizes = {1'000, 10'000, 100'000};
    std::string folder;
    app.add_option("--sizes", sizes, "People in each generated address book")->delimiter(',');
    app.add_option("--folder", folder, "Where to keep the generated vdirs (reused when they exist)");
    CLI11_PARSE(app, argc, argv);

    std::vector<Figures> results;
    for (const auto people : sizes) {
        const fs::path base = (folder.empty() ? fs::temp_directory_path() : fs::path(folder)) /
                              fmt::format("kinbook-bench-{}", people);
        if (!fs::exists(base / "vdir")) {
            fmt::print("generating {} people in {} …\n", people, (base / "vdir").string());
            auto report = VdirGenerator({people, 1, 4}).write(base / "vdir");
            if (!report.ok()) {
                fmt::print(stderr, "generation failed: {}\n", report.error());
                return 1;
            }
        }
        auto figures = measureInChild(base, measureFirstStart);
        const auto next = figures ? measureInChild(base, measureNextStart) : std::nullopt;
        if (!figures || !next) {
            fmt::print(stderr, "the run for {} people failed\n", people);
            return 1;
        }
        // The cached start and the cache read as the median of three starts.
        std::vector<double> starts = {next->at("cached start to first sections")};
        std::vector<double> reads = {next->at("cache read")};
        for (int again = 0; again < 2; ++again) {
            if (const auto start = measureInChild(base, measureCachedStart)) {
                starts.push_back(start->at("cached start to first sections"));
                reads.push_back(start->at("cache read"));
            }
        }
        const double firstPeak = figures->at("peak MB");
        figures->merge(Figures(*next));
        (*figures)["cached start to first sections"] = median(starts);
        (*figures)["cache read"] = median(reads);
        (*figures)["peak MB"] = std::max(firstPeak, next->at("peak MB"));
        results.push_back(std::move(*figures));
    }

    fmt::print("\n{:<40}", "people list, milliseconds or MB");
    for (const auto people : sizes) {
        fmt::print(" {:>10}", fmt::format("{}k", people / 1000));
    }
    const bool ratio = sizes.size() >= 2;
    if (ratio) {
        fmt::print(" {:>8}", "ratio");
    }
    fmt::print("\n{:<40}", "cards / people");
    for (const auto& figures : results) {
        fmt::print(" {:>10}", fmt::format("{:.0f}/{:.0f}", figures.at("cards"), figures.at("people")));
    }
    fmt::print("\n");
    for (const auto& row : kRows) {
        fmt::print("{:<40}", row);
        for (const auto& figures : results) {
            const auto found = figures.find(row);
            fmt::print(" {:>10.2f}", found == figures.end() ? 0.0 : found->second);
        }
        if (ratio) {
            // How the cost grows from the second-largest size to the largest.
            const auto& last = results.back();
            const auto& before = results[results.size() - 2];
            const double denominator = before.count(row) ? before.at(row) : 0;
            if (denominator > 0.05) {
                fmt::print(" {:>8.1f}", last.at(row) / denominator);
            }
        }
        fmt::print("\n");
    }
    if (ratio) {
        fmt::print("ratio: the largest size's figure over the one before it ({}× the people)\n",
                   sizes.back() / std::max<std::size_t>(1, sizes[sizes.size() - 2]));
    }
    return 0;
}
