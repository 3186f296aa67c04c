#include "Kinbook/KinbookApp.h"

#include "Kinbook/MainWindow.h"
#include "Kinbook/QtText.h"

#include <fmt/format.h>

#include <QApplication>
#include <QTimer>

namespace kinbook {

KinbookApp::KinbookApp(LaunchOptions options) : m_options(std::move(options)) {}

KinbookApp::~KinbookApp() = default;

bool KinbookApp::start() {
    m_watcher = std::make_unique<MainThreadWatcher>(m_log);
    m_window = std::make_unique<MainWindow>();
    if (m_options.windowWidth) {
        m_window->resize(*m_options.windowWidth, m_window->height());
    }
    m_window->show();
    if (m_options.screenshot) {
        QTimer::singleShot(0, this, &KinbookApp::takeScreenshot);
    }
    return true;
}

void KinbookApp::takeScreenshot() {
    const QPixmap picture = m_window->grab();
    const bool saved = picture.save(qt(m_options.screenshot->string()), "PNG");
    if (saved) {
        m_log.info(fmt::format("screenshot: {}x{} to {}", picture.width(), picture.height(),
                               m_options.screenshot->string()));
    } else {
        m_log.error(fmt::format("screenshot: couldn't write {}", m_options.screenshot->string()));
    }
    QApplication::exit(saved ? 0 : 1);
}

} // namespace kinbook
