#pragma once

#include <QMainWindow>

namespace kinbook {

class HelpCommands;

// The main window, "People": the sidebar, the people list with its headings
// column, and the page of the selected person.
class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);

    HelpCommands* helpCommands() const { return m_help; }

private:
    HelpCommands* m_help = nullptr;
};

} // namespace kinbook
