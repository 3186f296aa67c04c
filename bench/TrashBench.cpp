// The Trash at size: listing a Trash of 5,000 entries (what the Trash view
// reads when it opens; goal under 300 ms), trashing 1,000 people in one
// batch and restoring one, on a real vdir and a real Trash folder.

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/sidecar/ContactTrash.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/TempFolder.h"

#include <fmt/core.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

std::string card(int i) {
    return fmt::format("BEGIN:VCARD\r\nVERSION:3.0\r\nN:Person{0};Given;;;\r\nFN:Given Person{0}\r\n"
                       "TEL;type=CELL:+1 212 555 {1:04}\r\nEMAIL;type=HOME:given{0}@example.com\r\n"
                       "ADR;type=HOME:;;{0} Main Street;Springfield;IL;62701;USA\r\n"
                       "URL:kinbook://c/K{0:07}\r\nUID:P{0}\r\nEND:VCARD\r\n",
                       i, i % 10000);
}

void BM_ListTrashOf5000(benchmark::State& state) {
    testing::TempFolder folder;
    ContactTrash trash(folder.path());
    const auto now = std::chrono::system_clock::now();
    for (int i = 0; i < 5000; ++i) {
        TrashFile file{
            1,
            fmt::format("Given Person{}", i),
            now - std::chrono::seconds(i),
            {{"home", "iCloud", card(i), i % 3 == 0 ? std::optional<std::string>("a note") : std::nullopt},
             {"work", "Gmail", card(i), std::nullopt}}};
        if (!trash.write(file).ok()) {
            state.SkipWithError("couldn't write the Trash");
            return;
        }
    }
    for (auto _ : state) {
        const auto items = trash.list();
        benchmark::DoNotOptimize(items.data());
        if (items.size() != 5000) {
            state.SkipWithError("the list is incomplete");
        }
    }
}
BENCHMARK(BM_ListTrashOf5000)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void run(testing::ManualExecutor& main, testing::ManualExecutor& background) {
    while (main.runUntilIdle() + background.runUntilIdle() > 0) {
    }
}

// One batch of 1,000 people to the Trash, then one of them back.
void BM_Trash1000ThenRestoreOne(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        testing::TempFolder folder;
        fs::create_directories(folder / "contacts" / "home");
        std::vector<std::string> ids;
        for (int i = 0; i < 1000; ++i) {
            std::ofstream(folder / "contacts" / "home" / fmt::format("P{}.vcf", i)) << card(i);
            ids.push_back(fmt::format("P{}", i));
        }
        VdirAddressBook::Options options;
        options.root = folder / "contacts";
        options.stateFolder = folder / "state";
        options.heldNotesFile = folder / "held.json";
        auto book = std::make_shared<VdirAddressBook>(options);
        testing::ManualExecutor main;
        testing::ManualExecutor background;
        PeopleList list(main, background, book);
        list.trash().setTrash(std::make_shared<ContactTrash>(folder / "Documents"));
        list.load();
        run(main, background);
        state.ResumeTiming();

        const auto start = std::chrono::steady_clock::now();
        std::size_t trashed = 0;
        list.trash(ids, [&](TrashOutcome outcome) { trashed = outcome.trashed; });
        run(main, background);
        const auto trashedAt = std::chrono::steady_clock::now();
        bool restored = false;
        list.restore(list.trash().items().front().id, [&](auto result) { restored = result.ok(); });
        run(main, background);
        const auto end = std::chrono::steady_clock::now();
        if (trashed != 1000 || !restored) {
            state.SkipWithError("the batch or the restore failed");
        }
        state.counters["trash1000_ms"] = std::chrono::duration<double, std::milli>(trashedAt - start).count();
        state.counters["restore1_ms"] = std::chrono::duration<double, std::milli>(end - trashedAt).count();
    }
}
BENCHMARK(BM_Trash1000ThenRestoreOne)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
} // namespace kinbook
