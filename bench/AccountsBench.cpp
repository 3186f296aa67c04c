// Moving 1,000 people from one account of the generated address book to
// another, in the real application on Qt's offscreen platform, the way a
// drop on the sidebar does it: every card written atomically, the moved
// cards in the Trash, the list read again once at the end. Reports how long
// the batch took (goal: under 20 s), how often the list was rebuilt, and the
// longest the GUI thread was held meanwhile (goal: never 100 ms or more; the
// window's own watcher counts such stalls too).
//
//     kinbook-bench-accounts [--people 5000] [--move 1000] [--copy] [--folder DIR]

#include "Kinbook/KinbookApp.h"
#include "Kinbook/KinbookApplication.h"
#include "Kinbook/MainThreadWatcher.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/MoveToAccount.h"
#include "KinbookKit/people/PeopleList.h"
#include "bench/VdirGenerator.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

// Runs events until `done`, noting the longest gap between two ticks of a
// 2 ms timer: how long the GUI thread was held at a stretch.
template <typename Done>
long long runMeasuring(Done done) {
    QElapsedTimer clock;
    clock.start();
    long long last = 0;
    long long longest = 0;
    QTimer ticks;
    ticks.setInterval(2);
    QObject::connect(&ticks, &QTimer::timeout, [&] {
        const long long now = clock.elapsed();
        longest = std::max(longest, now - last);
        last = now;
    });
    ticks.start();
    while (!done()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    return std::max(longest, clock.elapsed() - last);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App cli("Moving many people between two accounts in the window");
    std::size_t people = 5000;
    std::size_t moved = 1000;
    bool copy = false;
    std::string folderOption = (fs::temp_directory_path() / "kinbook-bench" / "accounts").string();
    cli.add_option("--people", people, "How many people the address book holds")
        ->check(CLI::Range(10, 1000000));
    cli.add_option("--move", moved, "How many of them are moved")->check(CLI::Range(1, 1000000));
    cli.add_flag("--copy", copy, "Copy them instead (Ctrl while dropping)");
    cli.add_option("--folder", folderOption, "Where the address book is made (emptied first)");
    CLI11_PARSE(cli, argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);

    const fs::path folder = folderOption;
    fs::remove_all(folder);
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        fs::create_directories(folder / "home" / name);
        ::setenv(name, (folder / "home" / name).c_str(), 1);
    }
    ::setenv("KINBOOK_SIDECAR", (folder / "Sidecar").c_str(), 1);
    kinbook::VdirGeneratorOptions generated;
    generated.people = people;
    generated.accounts = 2;
    const auto report = kinbook::VdirGenerator(generated).write(folder / "book");
    if (!report) {
        fmt::print(stderr, "accounts bench: {}\n", report.error());
        return 1;
    }
    fmt::print("accounts bench: {} people ({} in both accounts), {} cards\n", report->people,
               report->linkedPeople, report->cards);

    kinbook::KinbookApplication application(argc, argv);
    kinbook::LaunchOptions options;
    options.contactsRoot = folder / "book";
    kinbook::KinbookApp app(options);
    if (!app.start()) {
        return 1;
    }
    runMeasuring([&] { return app.isLoaded(); });
    kinbook::PeopleList& list = *app.list();
    if (list.accounts().size() < 2 || !list.trash().trash()) {
        fmt::print(stderr, "accounts bench: needs two accounts and a sidecar folder\n");
        return 1;
    }
    const std::string from = list.accounts()[0].id;
    const std::string to = list.accounts()[1].id;
    std::vector<std::string> ids;
    for (const auto& person : list.people()) {
        const auto& accounts = person->accountIDs;
        if (ids.size() < moved && std::find(accounts.begin(), accounts.end(), from) != accounts.end()) {
            ids.push_back(person->id);
        }
    }

    kinbook::MainThreadWatcher watcher(kinbook::KinLog("bench"));
    int rebuilds = 0;
    const auto watch = list.observe([&](kinbook::PeopleChanges changes) {
        rebuilds += changes.contains(kinbook::PeopleChange::people) ? 1 : 0;
    });
    bool finished = false;
    QObject::connect(app.window()->moveBar(), &kinbook::MoveToAccount::batchFinished,
                     [&] { finished = true; });
    QElapsedTimer clock;
    clock.start();
    app.window()->moveBar()->start(ids, to, copy);
    const long long held = runMeasuring([&] { return finished; });
    const long long elapsed = clock.elapsed();
    list.unobserve(watch);
    fmt::print("accounts bench: {} {} people from {} to {} in {} ms ({:.1f} ms a person); \"{}\"\n",
               copy ? "copied" : "moved", ids.size(), list.accounts()[0].name, list.accounts()[1].name,
               elapsed,
               static_cast<double>(elapsed) / static_cast<double>(std::max<std::size_t>(ids.size(), 1)),
               app.window()->moveBar()->text().toStdString());
    fmt::print(
        "accounts bench: the list rebuilt {} times, GUI thread held at most {} ms, {} stalls of 100 ms or "
        "more, {} Trash entries\n",
        rebuilds, held, watcher.stallCount(), list.trash().items().size());
    return 0;
}
