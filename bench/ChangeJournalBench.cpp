// How long the change journal's scan of a whole vdir takes: the cost of every
// refresh after a store notice. Unchanged files must cost one stat each.
//
// The tree has 10,000 cards by default; set KINBOOK_JOURNAL_BENCH_FILES (for
// example to 120000, the largest address book we plan for) to measure another
// size. Building a large tree takes a while; it is built once per run.

#include "KinbookKit/addressbook/ChangeJournal.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int accountCount = 4;

// A vdir of `count` cards in four accounts, with its journal's state folder
// beside it; removed at exit.
struct Tree {
    fs::path folder;
    fs::path root() const { return folder / "vdir"; }
    fs::path state() const { return folder / "state"; }
    fs::path card(std::int64_t index) const {
        return root() / ("account-" + std::to_string(index % accountCount)) /
               ("7F3E2A10-" + std::to_string(1'000'000 + index) + "-4C1B-9D55-0A1B2C3D4E5F.vcf");
    }
    ~Tree() {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }
};

const Tree& treeOf(std::int64_t count) {
    static std::map<std::int64_t, std::unique_ptr<Tree>> trees;
    auto& tree = trees[count];
    if (!tree) {
        tree = std::make_unique<Tree>();
        std::string pattern = (fs::temp_directory_path() / "kinbook-bench-XXXXXX").string();
        tree->folder = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
        for (int account = 0; account < accountCount; ++account) {
            fs::create_directories(tree->root() / ("account-" + std::to_string(account)));
        }
        for (std::int64_t index = 0; index < count; ++index) {
            std::ofstream(tree->card(index), std::ios::binary)
                << "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:" << index << "\r\nFN:Person " << index
                << "\r\nTEL:+1 555 0100\r\nEND:VCARD\r\n";
        }
    }
    return *tree;
}

// Reads the file, as the vCard layer's UID reader would.
std::optional<std::string> readCardID(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("UID:", 0) == 0) {
            return line.substr(4);
        }
    }
    return std::nullopt;
}

void BM_ScanUnchangedTree(benchmark::State& state) {
    const Tree& tree = treeOf(state.range(0));
    fs::remove_all(tree.state());
    kinbook::ChangeJournal journal(tree.state(), tree.root(), readCardID);
    journal.scan(); // learns the tree
    for (auto _ : state) {
        benchmark::DoNotOptimize(journal.scan());
    }
    state.counters["files"] = static_cast<double>(state.range(0));
}

void BM_ScanWithOneChangedFile(benchmark::State& state) {
    const Tree& tree = treeOf(state.range(0));
    fs::remove_all(tree.state());
    kinbook::ChangeJournal journal(tree.state(), tree.root(), readCardID);
    journal.scan();
    const fs::path changed = tree.card(state.range(0) / 2);
    static std::int64_t second = 1'000'000'000; // never repeats a time between runs
    for (auto _ : state) {
        state.PauseTiming();
        // A new time stamp is a new state, as a sync run's rewrite would give.
        struct timespec times[2] = {{second, 0}, {second, 0}};
        ::utimensat(AT_FDCWD, changed.c_str(), times, 0);
        ++second;
        state.ResumeTiming();
        if (journal.scan() != 1) {
            state.SkipWithError("the changed file was not found");
            break;
        }
    }
    state.counters["files"] = static_cast<double>(state.range(0));
}

void treeSizes(benchmark::internal::Benchmark* benchmark) {
    const char* files = std::getenv("KINBOOK_JOURNAL_BENCH_FILES");
    std::int64_t count = files != nullptr ? std::atoll(files) : 0;
    benchmark->Arg(count > 0 ? count : 10'000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_ScanUnchangedTree)->Apply(treeSizes);
BENCHMARK(BM_ScanWithOneChangedFile)->Apply(treeSizes);

} // namespace
