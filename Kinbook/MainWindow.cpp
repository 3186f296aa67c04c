#include "Kinbook/MainWindow.h"

#include "Kinbook/HelpCommands.h"
#include "KinbookKit/text/AppLog.h"

#include <QMenuBar>

namespace kinbook {

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent) {
    setObjectName("People");
    setWindowTitle("People");
    resize(1100, 720);
    m_help = new HelpCommands(menuBar()->addMenu("&Help"), this, AppLog::shared());
}

} // namespace kinbook
