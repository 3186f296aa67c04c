#include "Kinbook/KinbookApplication.h"

#include "Kinbook/MainThreadWatcher.h"
#include "KinbookKit/Version.h"

#include <QIcon>
#include <QThread>

// The resources (the icon) are compiled into the static library; naming
// their initialiser here is what makes the linker keep them.
static void initResources() {
    Q_INIT_RESOURCE(kinbook);
}

namespace kinbook {

KinbookApplication::KinbookApplication(int& argc, char** argv) : QApplication(argc, argv) {
    initResources();
    setWindowIcon(QIcon(":/kinbook/vellumary-contacts.svg"));
    setApplicationName("vellumary-contacts");
    setApplicationDisplayName(kProductName);
    setApplicationVersion(kVersion);
    setDesktopFileName("vellumary-contacts");
}

bool KinbookApplication::notify(QObject* receiver, QEvent* event) {
    // Events for objects of other threads pass through here too; only the
    // GUI thread's outermost delivery names what the GUI thread is doing.
    if (QThread::currentThread() != thread()) {
        return QApplication::notify(receiver, event);
    }
    const bool outermost = m_depth++ == 0;
    if (outermost) {
        MainThreadWatcher::noteEventStart(receiver, event);
    }
    struct Leave {
        KinbookApplication& app;
        bool outermost;
        ~Leave() {
            if (--app.m_depth == 0 && outermost) {
                MainThreadWatcher::noteEventEnd();
            }
        }
    } leave{*this, outermost};
    return QApplication::notify(receiver, event);
}

} // namespace kinbook
