#include "Kinbook/HelpCommands.h"

#include "Kinbook/CirclesHelpWindow.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/text/AppLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <QDesktopServices>
#include <QMenu>
#include <QMessageBox>

namespace kinbook {

HelpCommands::HelpCommands(QWidget* window, AppLog& log, OpenURL openURL)
    : QObject(window), m_window(window), m_log(log), m_openURL(std::move(openURL)) {}

void HelpCommands::addTo(QMenu* helpMenu) {
    helpMenu->addAction("Circles", this, &HelpCommands::showCircles);
    helpMenu->addAction("Show App Log", this, &HelpCommands::showAppLog);
}

HelpCommands::OpenURL HelpCommands::defaultOpenURL() {
    return [](const QUrl& url) { return QDesktopServices::openUrl(url); };
}

void HelpCommands::showCircles() {
    if (m_circles == nullptr) {
        m_circles = new CirclesHelpWindow(m_window);
        m_circles->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_circles->show();
    m_circles->raise();
    m_circles->activateWindow();
}

void HelpCommands::showAppLog() {
    // Lines still queued belong in what the user is about to read, and a
    // viewer asked to open a missing file shows an error instead of a log.
    m_log.flush();
    const auto& file = m_log.fileLocation();
    if (::access(file.c_str(), F_OK) != 0) {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
        }
    }
    if (!m_openURL(QUrl::fromLocalFile(qt(file.string())))) {
        QMessageBox::information(
            m_window, "Show App Log",
            QString("No program is set up to open the app log. It is at %1.").arg(qt(file.string())));
    }
}

} // namespace kinbook
