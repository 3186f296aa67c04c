#pragma once

#include <QApplication>

namespace kinbook {

// The Qt application object. It differs from QApplication only in telling the
// main-thread watcher which event the GUI thread is delivering, so that a
// stall names its cause.
class KinbookApplication final : public QApplication {
    Q_OBJECT
public:
    KinbookApplication(int& argc, char** argv);

    bool notify(QObject* receiver, QEvent* event) override;

private:
    int m_depth = 0; // GUI thread only: nesting of notify()
};

} // namespace kinbook
