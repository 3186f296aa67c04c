#pragma once

#include "Kinbook/LaunchOptions.h"
#include "Kinbook/MainThreadWatcher.h"
#include "Kinbook/QtMainExecutor.h"
#include "KinbookKit/text/KinLog.h"

#include <QObject>
#include <memory>

namespace kinbook {

class MainWindow;

// The application: starts the system and holds it for the process's life.
class KinbookApp final : public QObject {
    Q_OBJECT
public:
    explicit KinbookApp(LaunchOptions options);
    ~KinbookApp() override;

    // Shows the main window and starts the first load. False when the
    // application cannot run (the message has been shown).
    bool start();

    MainWindow* window() const { return m_window.get(); }

private:
    void takeScreenshot();

    LaunchOptions m_options;
    KinLog m_log{"app"};
    QtMainExecutor m_main;
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<MainThreadWatcher> m_watcher;
};

} // namespace kinbook
