// The contact editor in the real application on Qt's offscreen platform, on
// a person with 50 entries: how long until the editor shows their card
// (goal under 50 ms), how long a save takes until it is written and the card
// read again (goal under 30 ms; no scripting path here), and how long until
// the list and the page show the result.
//
//     kinbook-bench-editor [--entries 50] [--runs 5] [--folder DIR]

#include "Kinbook/ContactEditor.h"
#include "Kinbook/ContactPage.h"
#include "Kinbook/EditorCommands.h"
#include "Kinbook/KinbookApp.h"
#include "Kinbook/KinbookApplication.h"
#include "Kinbook/MainWindow.h"
#include "KinbookKit/people/PeopleList.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

namespace fs = std::filesystem;

template <typename Done>
void runUntil(Done done) {
    while (!done()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// A card with `entries` entries: phones, e-mails, web addresses and addresses
// in turn, labelled the way an iPhone writes them.
std::string bigCard(int entries) {
    std::string card = "BEGIN:VCARD\r\nVERSION:3.0\r\nPRODID:-//Apple Inc.//iOS 17.4//EN\r\n"
                       "N:Lee;Ann;;;\r\nFN:Ann Lee\r\nORG:Acme;\r\n";
    for (int i = 0; i < entries; ++i) {
        switch (i % 4) {
        case 0:
            card += fmt::format("TEL;type=CELL;type=VOICE:+1 212 555 {:04}\r\n", i);
            break;
        case 1:
            card += fmt::format(
                "item{}.EMAIL;type=INTERNET:ann{}@example.org\r\nitem{}.X-ABLabel:_$!<Work>!$_\r\n", i, i, i);
            break;
        case 2:
            card += fmt::format("URL;type=HOME:https://ann{}.example.org\r\n", i);
            break;
        default:
            card += fmt::format("ADR;type=HOME:;;{} Main St;Springfield;IL;62701;USA\r\n", i);
            break;
        }
    }
    return card + "UID:ANN\r\nEND:VCARD\r\n";
}

} // namespace

int main(int argc, char** argv) {
    CLI::App cli("The contact editor on a person with many entries");
    int entries = 50;
    int runs = 5;
    std::string folderOption = (fs::temp_directory_path() / "kinbook-bench" / "editor").string();
    cli.add_option("--entries", entries, "How many entries the person's card has")
        ->check(CLI::Range(1, 10000));
    cli.add_option("--runs", runs, "How many times the editor is opened and saved")
        ->check(CLI::Range(1, 100));
    cli.add_option("--folder", folderOption, "Where the address book is made");
    CLI11_PARSE(cli, argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);

    const fs::path home = fs::path(folderOption) / "home";
    fs::remove_all(home);
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        fs::create_directories(home / name);
        ::setenv(name, (home / name).c_str(), 1);
    }
    const fs::path book = home / "book" / "home";
    fs::create_directories(book);
    std::ofstream(book / "displayname", std::ios::binary) << "On My Computer\n";
    std::ofstream(book / "ANN.vcf", std::ios::binary) << bigCard(entries);
    ::setenv("KINBOOK_SIDECAR", (fs::path(folderOption) / "Sidecar").c_str(), 1);

    kinbook::KinbookApplication application(argc, argv);
    kinbook::LaunchOptions options;
    options.contactsRoot = home / "book";
    kinbook::KinbookApp app(options);
    if (!app.start()) {
        return 1;
    }
    runUntil([&] { return app.isLoaded(); });
    kinbook::MainWindow& window = *app.window();
    kinbook::EditorCommands& commands = *window.editorCommands();
    window.selectPerson("ANN");

    std::vector<double> opened;
    std::vector<double> saved;
    std::vector<double> shown;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer clock;
        clock.start();
        commands.editPerson("ANN");
        kinbook::ContactEditor* editor = commands.editor();
        runUntil([&] { return editor->isLoaded(); });
        opened.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);

        const std::string title = fmt::format("Engineer {}", run);
        editor->field("JobTitle")->setText(QString::fromStdString(title));
        bool isSaved = false;
        QObject::connect(editor, &kinbook::ContactEditor::saved, [&] {
            isSaved = true;
            saved.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
        });
        clock.restart();
        editor->save();
        runUntil([&] {
            const auto& person = window.page()->person();
            return isSaved && person && person->jobTitle == title;
        });
        shown.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
        runUntil([&] { return commands.editor() == nullptr; });
        fmt::print("editor bench: run {}: opened in {:.1f} ms, saved in {:.1f} ms, shown after {:.1f} ms\n",
                   run + 1, opened.back(), saved.back(), shown.back());
    }
    fmt::print("editor bench: done, {} entries, median {:.1f} ms to open (goal < 50), {:.1f} ms to save "
               "(goal < 30), {:.1f} ms until the list and page show it\n",
               entries, median(opened), median(saved), median(shown));
    return 0;
}
