#include "Kinbook/HelpCommands.h"

#include "Kinbook/CirclesHelpWindow.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QMenu>
#include <QWidget>

namespace kinbook {
namespace {

QAction* actionNamed(QMenu& menu, const QString& text) {
    for (QAction* action : menu.actions()) {
        if (action->text() == text) {
            return action;
        }
    }
    return nullptr;
}

class HelpCommandsTest : public ::testing::Test {
protected:
    testing::TempFolder folder;
    AppLog log{folder / "logs" / "app.log"};
    QWidget window;
    QMenu menu{"Help"};
    std::vector<QUrl> opened;
    bool openSucceeds = true;
    HelpCommands commands{&window, log, [this](const QUrl& url) {
                              opened.push_back(url);
                              return openSucceeds;
                          }};

    void SetUp() override { commands.addTo(&menu); }
};

TEST_F(HelpCommandsTest, CirclesOpensOneHelpWindowAndRaisesItAgain) {
    QAction* circles = actionNamed(menu, "Circles");
    ASSERT_NE(circles, nullptr);

    circles->trigger();
    CirclesHelpWindow* first = commands.circlesWindow();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->objectName(), "circles-help");
    EXPECT_EQ(first->windowTitle(), "Circles");
    EXPECT_TRUE(first->isVisible());

    circles->trigger();
    EXPECT_EQ(commands.circlesWindow(), first);
    EXPECT_EQ(window.findChildren<CirclesHelpWindow*>().size(), 1);
}

TEST_F(HelpCommandsTest, TheCirclesWindowExplainsEveryCircle) {
    commands.showCircles();
    QStringList texts;
    for (QLabel* label : commands.circlesWindow()->findChildren<QLabel*>()) {
        texts << label->text();
    }
    for (const char* expected :
         {"What are circles?", "How it works here", "Archive is separate", "Closest", "Acquaintance",
          "Close friends and the colleagues you value most.", "Faces you can put a name to."}) {
        EXPECT_TRUE(texts.contains(expected)) << expected;
    }
    auto* diagram = commands.circlesWindow()->findChild<CirclesDiagram*>();
    ASSERT_NE(diagram, nullptr);
    EXPECT_EQ(diagram->accessibleDescription(),
              "Circles: closest 5, good friends 15, friends 50, meaningful 150, people you know 500, "
              "acquaintances 1,500, around you.");
}

TEST_F(HelpCommandsTest, ShowAppLogOpensTheLogFileWithWhatWasLogged) {
    log.write("app", "a line before the menu was chosen");
    QAction* showLog = actionNamed(menu, "Show App Log");
    ASSERT_NE(showLog, nullptr);

    showLog->trigger();

    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], QUrl::fromLocalFile(QString::fromStdString((folder / "logs" / "app.log").string())));
    EXPECT_NE(testing::readFile(folder / "logs" / "app.log").find("a line before the menu was chosen"),
              std::string::npos);
}

} // namespace
} // namespace kinbook
