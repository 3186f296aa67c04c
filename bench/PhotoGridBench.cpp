// The contact page's photo grid opening on a person with 500 photos, in the
// real application on Qt's offscreen platform: how long until the rows are
// listed and until every thumbnail is drawn, and the longest the GUI thread
// was held meanwhile (goal: never 100 ms or more; the window's own watcher
// counts such stalls).
//
//     kinbook-bench-photogrid [--photos 500] [--runs 3] [--folder DIR]
//
// The photos (2000 × 1500 JPEGs made from the public-domain portrait, each
// tinted differently) are written once into DIR and reused.

#include "Kinbook/ContactPage.h"
#include "Kinbook/KinbookApp.h"
#include "Kinbook/KinbookApplication.h"
#include "Kinbook/MainThreadWatcher.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PhotoGrid.h"
#include "KinbookKit/setup/KinbookSession.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

namespace fs = std::filesystem;

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

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

long long median(std::vector<long long> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    CLI::App cli("The photo grid opening on a person with many photos");
    int photoCount = 500;
    int runs = 3;
    std::string folderOption = (fs::temp_directory_path() / "kinbook-bench" / "photogrid").string();
    cli.add_option("--photos", photoCount, "How many photos the person has")->check(CLI::Range(1, 100000));
    cli.add_option("--runs", runs, "How many times the grid is opened")->check(CLI::Range(1, 100));
    cli.add_option("--folder", folderOption, "Where the photos are made and kept");
    CLI11_PARSE(cli, argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);

    const fs::path folder = folderOption;
    const fs::path home = folder / "home";
    fs::remove_all(home);
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        fs::create_directories(home / name);
        ::setenv(name, (home / name).c_str(), 1);
    }
    const fs::path book = home / "book" / "home";
    fs::create_directories(book);
    writeText(book / "displayname", "On My Computer\n");
    writeText(book / "ANN.vcf", "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lee;Ann;;;\r\nFN:Ann Lee\r\n"
                                "URL:kinbook://c/B0000001?r=3\r\nUID:ANN\r\nEND:VCARD\r\n");
    writeText(book / "BO.vcf",
              "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Brown;Bo;;;\r\nFN:Bo Brown\r\nUID:BO\r\nEND:VCARD\r\n");
    const fs::path sidecar = folder / "Sidecar";
    ::setenv("KINBOOK_SIDECAR", sidecar.c_str(), 1);

    // The photos, once.
    const fs::path photos = sidecar / "Documents" / "People" / "Ann Lee B0000001" / "photos";
    fs::create_directories(photos);
    const QImage portrait(KINBOOK_TESTDATA_DIR "/photos/astronaut.png");
    if (portrait.isNull()) {
        fmt::print(stderr, "photo grid bench: the sample portrait is missing\n");
        return 1;
    }
    int made = 0;
    for (int i = 0; i < photoCount; ++i) {
        const fs::path file = photos / fmt::format("2024-01-01 {:06}.jpg", i);
        if (fs::exists(file)) {
            continue;
        }
        QImage photo(2000, 1500, QImage::Format_RGB32);
        photo.fill(QColor::fromHsv((i * 37) % 360, 60, 200));
        QPainter(&photo).drawImage(QRect(500, 0, 1000, 1500), portrait);
        photo.save(QString::fromStdString(file.string()), "JPEG", 88);
        ++made;
    }
    fmt::print("photo grid bench: {} photos of 2000 x 1500 ({} made now) in {}\n", photoCount, made,
               photos.string());

    kinbook::KinbookApplication application(argc, argv);
    kinbook::LaunchOptions options;
    options.contactsRoot = home / "book";
    kinbook::KinbookApp app(options);
    if (!app.start()) {
        return 1;
    }
    runMeasuring([&] { return app.isLoaded(); });
    kinbook::MainWindow& window = *app.window();
    kinbook::PhotoGrid& grid = *window.page()->photoGrid();
    kinbook::MainThreadWatcher watcher(kinbook::KinLog("bench"));

    std::vector<long long> listed;
    std::vector<long long> drawn;
    std::vector<long long> held;
    for (int run = 0; run < runs; ++run) {
        window.selectPerson("BO");
        bool isListed = false;
        bool isDrawn = false;
        QElapsedTimer clock;
        auto a = QObject::connect(&grid, &kinbook::PhotoGrid::photosListed, [&] {
            isListed = true;
            listed.push_back(clock.elapsed());
        });
        auto b = QObject::connect(&grid, &kinbook::PhotoGrid::thumbnailsDone, [&] {
            isDrawn = true;
            drawn.push_back(clock.elapsed());
        });
        clock.start();
        window.selectPerson("ANN");
        held.push_back(runMeasuring([&] { return isListed && isDrawn; }));
        QObject::disconnect(a);
        QObject::disconnect(b);
        fmt::print(
            "photo grid bench: run {}: {} rows listed after {} ms, {} thumbnails drawn after {} ms, GUI "
            "thread held at most {} ms\n",
            run + 1, grid.photoList()->count(), listed.back(), grid.thumbnailsShown(), drawn.back(),
            held.back());
    }
    fmt::print(
        "photo grid bench: done, {} photos, median {} ms to rows, {} ms to every thumbnail, GUI thread "
        "held at most {} ms, {} stalls of 100 ms or more\n",
        photoCount, median(listed), median(drawn), *std::max_element(held.begin(), held.end()),
        watcher.stallCount());
    return 0;
}
