#include "Kinbook/QtMainExecutor.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QTimer>

namespace kinbook {

// A class of its own so that the main-thread watcher can name a stalled
// executor task by its receiver.
class MainExecutorContext final : public QObject {
    Q_OBJECT
};

QtMainExecutor::QtMainExecutor() : m_context(new MainExecutorContext) {}

QtMainExecutor::~QtMainExecutor() {
    // Deleting the receiver drops its pending calls and timers with it.
    delete m_context;
}

void QtMainExecutor::post(Task task) {
    QMetaObject::invokeMethod(m_context, std::move(task), Qt::QueuedConnection);
}

void QtMainExecutor::postAfter(std::chrono::milliseconds delay, Task task) {
    QObject* context = m_context;
    post([context, delay, task = std::move(task)]() mutable {
        QTimer::singleShot(delay, context, std::move(task));
    });
}

} // namespace kinbook

#include "QtMainExecutor.moc"
