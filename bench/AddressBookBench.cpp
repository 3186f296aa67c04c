// The address book's costs on a large generated vdir, as one table:
//
//   kinbook-bench-addressbook [--people N] [--folder DIR]
//
// It times, on the same folder and the same warm page cache: a raw read of
// every card file (open and read, nothing parsed, two threads), the list's
// names-only pass, the full read (without and with the history token), the
// stat scan that finds changes made while Kinbook was not running, the first
// refresh after the watch starts (which scans everything, since nothing was
// watched before), and the refresh after one outside edit while it runs
// (from the write to the changed person being read, through inotify).

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/platform/InotifyFolderWatcher.h"
#include "KinbookKit/platform/UringCardBatchReader.h"
#include "KinbookKit/text/AppLog.h"
#include "bench/VdirGenerator.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>

namespace {

using namespace kinbook;
namespace fs = std::filesystem;
const Clock& systemClock = Clock::system();

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(systemClock.monotonicNow() - start).count();
}

long peakMemoryMB() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

// Opens and reads every card file, nothing more: the floor under any read.
std::uint64_t rawRead(const fs::path& root) {
    std::vector<fs::path> files;
    for (const auto& account : fs::directory_iterator(root)) {
        if (!account.is_directory() || account.path().filename().string().starts_with(".")) {
            continue;
        }
        for (const auto& file : fs::directory_iterator(account.path())) {
            if (file.path().extension() == ".vcf") {
                files.push_back(file.path());
            }
        }
    }
    std::atomic<std::size_t> next{0};
    std::atomic<std::uint64_t> bytes{0};
    auto work = [&] {
        std::vector<char> buffer(1 << 16);
        for (std::size_t i = next++; i < files.size(); i = next++) {
            const int fd = ::open(files[i].c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                continue;
            }
            ssize_t got = 0;
            while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
                bytes += static_cast<std::uint64_t>(got);
            }
            ::close(fd);
        }
    };
    runInParallel(2, [&](unsigned) { work(); });
    return bytes;
}

template <typename Function>
double bestOf(int runs, Function function) {
    double best = 1e9;
    for (int i = 0; i < runs; ++i) {
        const auto start = systemClock.monotonicNow();
        function();
        best = std::min(best, secondsSince(start));
    }
    return best;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Times the address book on a generated vdir"};
    std::size_t people = 100'000;
    std::string folder;
    app.add_option("--people", people, "People in the generated address book");
    app.add_option("--folder", folder, "Where to keep the generated vdir (reused when it exists)");
    CLI11_PARSE(app, argc, argv);

    const fs::path base = folder.empty() ? fs::temp_directory_path() / fmt::format("kinbook-bench-{}", people)
                                         : fs::path(folder);
    const fs::path root = base / "vdir";
    if (!fs::exists(root)) {
        fmt::print("generating {} people in {} …\n", people, root.string());
        auto report = VdirGenerator({people, 1, 4}).write(root);
        if (!report.ok()) {
            fmt::print(stderr, "generation failed: {}\n", report.error());
            return 1;
        }
    }
    fs::remove_all(base / "state");
    AppLog appLog(base / "app.log");
    VdirAddressBook::Options options;
    options.root = root;
    options.stateFolder = base / "state";
    options.log = std::make_shared<KinLog>("store", appLog);
    options.watcher = std::make_shared<InotifyFolderWatcher>();
    options.cardReaders = UringCardBatchReader::factory();
    fmt::print("card files read {}\n",
               UringCardBatchReader(false).batched() ? "in io_uring batches" : "one by one (no io_uring)");
    VdirAddressBook book(options);

    std::uint64_t bytes = 0;
    rawRead(root); // warm the page cache
    const double raw = bestOf(3, [&] { bytes = rawRead(root); });
    std::size_t count = 0;
    const long memoryBefore = peakMemoryMB();
    const double namesOnly = bestOf(3, [&] {
        count =
            book.readAll({.details = false, .takeToken = false, .membership = false})->snapshot.people.size();
    });
    const double full =
        bestOf(3, [&] { (void)book.readAll({.details = true, .takeToken = false, .membership = true}); });
    const long memoryAfter = peakMemoryMB();
    // The read the list makes at launch: the journal learns every file from
    // it, so the token costs no second pass.
    std::vector<std::uint8_t> token;
    const double fullWithToken = bestOf(3, [&] {
        token =
            *book.readAll({.details = true, .takeToken = true, .membership = true})->snapshot.historyToken;
    });

    // Changes made while Kinbook was not running are found by comparing every
    // file's state: time a refresh over an unchanged tree.
    const double scan = bestOf(3, [&] { (void)book.changesSince(token); });

    ThreadPool pool(1);
    std::mutex mutex;
    std::condition_variable noticed;
    bool changed = false;
    auto waitForNotice = [&] {
        std::unique_lock lock(mutex);
        noticed.wait_for(lock, std::chrono::seconds(10), [&] { return changed; });
        changed = false;
    };
    // A watch that starts can't know what changed before it: its first
    // notice leads to a scan of everything, once.
    const auto observer = book.observeChanges(pool, [&] {
        std::lock_guard lock(mutex);
        changed = true;
        noticed.notify_all();
    });
    waitForNotice();
    const auto firstStart = systemClock.monotonicNow();
    (void)book.changesSince(token);
    const double firstRefresh = secondsSince(firstStart);

    // One outside edit while running: from the write to the changed person.
    fs::path victim;
    for (const auto& account : fs::directory_iterator(root)) {
        if (account.is_directory()) {
            for (const auto& file : fs::directory_iterator(account.path())) {
                if (file.path().extension() == ".vcf") {
                    victim = file.path();
                    break;
                }
            }
        }
        if (!victim.empty()) {
            break;
        }
    }
    std::string text;
    {
        std::ifstream in(victim, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const auto at = text.find("\r\nEND:VCARD");
    text.insert(at, "\r\nNOTE:edited while Kinbook runs");
    const auto editStart = systemClock.monotonicNow();
    {
        std::ofstream(victim.string() + ".part", std::ios::binary) << text;
        fs::rename(victim.string() + ".part", victim);
    }
    waitForNotice();
    const double notice = secondsSince(editStart);
    const auto changes = book.changesSince(token);
    const double refresh = secondsSince(editStart);
    if (observer.ok()) {
        book.stopObserving(*observer);
    }

    const double megabytes = static_cast<double>(bytes) / 1e6;
    fmt::print("\naddress book: {} people, {} cards, {:.1f} MB\n", people, count, megabytes);
    fmt::print("{:<44} {:>9} {:>9}\n", "step", "seconds", "× raw");
    fmt::print("{:<44} {:>9.3f} {:>9.2f}\n", "raw read (open + read, 2 threads)", raw, 1.0);
    fmt::print("{:<44} {:>9.3f} {:>9.2f}\n", "names-only pass", namesOnly, namesOnly / raw);
    fmt::print("{:<44} {:>9.3f} {:>9.2f}\n", "full read", full, full / raw);
    fmt::print("{:<44} {:>9.3f} {:>9.2f}\n", "full read, token taken", fullWithToken, fullWithToken / raw);
    fmt::print("{:<44} {:>9.3f} {:>9}\n", "stat scan, nothing changed", scan, "");
    fmt::print("{:<44} {:>9.3f} {:>9}\n", "first refresh after the watch starts", firstRefresh, "");
    fmt::print("{:<44} {:>9.3f} {:>9}\n", "outside edit: inotify notice", notice, "");
    fmt::print("{:<44} {:>9.3f} {:>9}\n", "outside edit: notice + changed person read", refresh, "");
    fmt::print("changed people reported: {}\n", changes.ok() ? changes->changed.size() : 0);
    fmt::print(
        "peak memory: {} MB before the reads, {} MB after them ({:.0f} bytes per card), {} MB at the end "
        "(the journal's table of files included)\n",
        memoryBefore, memoryAfter,
        static_cast<double>(memoryAfter - memoryBefore) * 1024 * 1024 / static_cast<double>(count),
        peakMemoryMB());
    return 0;
}
