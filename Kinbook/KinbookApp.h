#pragma once

#include "Kinbook/LaunchOptions.h"
#include "Kinbook/MainThreadWatcher.h"
#include "Kinbook/QtMainExecutor.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "KinbookKit/text/KinLog.h"

#include <QObject>
#include <memory>
#include <optional>

class QSettings;

namespace kinbook {

class ImportExport;
class MainWindow;
class PeopleList;
class ScrollBench;
class SearchBench;

// The application: opens the session (the configuration, the address book
// and the one people list, with its main executor on the GUI thread), shows
// the main window over it and starts the first load (the cached people show
// at once). It watches the GUI thread for stalls, offers to create the address
// book on a first run, and runs the diagnostic launch switches.
//
// Lives on the GUI thread for the process's life.
class KinbookApp final : public QObject {
    Q_OBJECT
public:
    explicit KinbookApp(LaunchOptions options);
    ~KinbookApp() override;

    // Opens the address book, then shows the main window and starts the
    // first load. False when the application cannot run (the configuration
    // is unreadable; the message has been shown).
    bool start();

    // The main window; null until the address book is open (windowShown).
    MainWindow* window() const { return m_window.get(); }
    // File ▸ Import… and Export…; null until the main window shows.
    ImportExport* importExport() const { return m_importExport; }
    PeopleList* list() const { return m_list; }
    KinbookSession* session() const { return m_session.get(); }
    // Whether the first load has finished.
    bool isLoaded() const { return m_loaded; }

Q_SIGNALS:
    void windowShown();
    void firstLoadFinished();

private:
    void opened();
    void load();
    void loaded();
    void offerToCreate();
    void createAddressBook();
    void afterLaunchSwitches();
    void takeScreenshot();
    void runBenchmarks();

    LaunchOptions m_options;
    KinLog m_log{"app"};
    // Declared before everything that posts to them, so that they outlive it.
    QtMainExecutor m_main;
    ThreadPool m_background{2};
    std::unique_ptr<KinbookSession> m_session;
    PeopleList* m_list = nullptr; // the session's; null until the address book is open
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<MainWindow> m_window;
    ImportExport* m_importExport = nullptr; // the window's child
    std::unique_ptr<MainThreadWatcher> m_watcher;
    std::unique_ptr<SearchBench> m_searchBench;
    std::unique_ptr<ScrollBench> m_scrollBench;
    // The user made the address book in this run: an empty one is expected.
    bool m_createdNow = false;
    bool m_loaded = false;
    bool m_screenshotTaken = false;
};

} // namespace kinbook
