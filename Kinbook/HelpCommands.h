#pragma once

#include "Kinbook/CirclesHelpWindow.h"

#include <QObject>
#include <QPointer>
#include <QUrl>
#include <functional>

class QMenu;
class QWidget;

namespace kinbook {

class AppLog;

// The Help menu's own items: "Circles", which opens the circles help window,
// and "Show App Log", which opens the application log in the user's text
// viewer.
class HelpCommands final : public QObject {
    Q_OBJECT
public:
    // Opens a URL with the desktop's handler; false when none took it.
    using OpenURL = std::function<bool(const QUrl&)>;

    // `window` parents the help window and any message. The log must
    // outlive this object.
    HelpCommands(QWidget* window, AppLog& log, OpenURL openURL = defaultOpenURL());

    // Adds "Circles" and "Show App Log" to the menu.
    void addTo(QMenu* helpMenu);

    static OpenURL defaultOpenURL();

    // Opens the circles help window, or brings it to the front.
    void showCircles();
    // Opens the log file; when the desktop can't, says where it is.
    void showAppLog();

    // The circles window, once opened.
    CirclesHelpWindow* circlesWindow() const { return m_circles; }

private:
    QWidget* m_window;
    AppLog& m_log;
    OpenURL m_openURL;
    QPointer<CirclesHelpWindow> m_circles;
};

} // namespace kinbook
