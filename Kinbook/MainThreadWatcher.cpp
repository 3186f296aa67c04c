#include "Kinbook/MainThreadWatcher.h"

#include <fmt/format.h>

#include <QEvent>
#include <QMetaEnum>
#include <QMetaObject>
#include <QObject>
#include <memory>
#include <optional>

namespace kinbook {
namespace {

// What the GUI thread is delivering; written on the GUI thread, read by the
// watcher. Class names are static strings of the meta-object system.
std::atomic<const char*> g_receiverClass{nullptr};
std::atomic<int> g_eventType{0};

// One probe: posted by the watcher, answered by the GUI thread.
struct Probe {
    std::optional<std::chrono::steady_clock::time_point> answeredAt; // guarded by the watcher's mutex
};

} // namespace

MainThreadWatcher::MainThreadWatcher(KinLog log, Options options)
    : m_log(std::move(log)), m_options(options), m_context(new QObject), m_thread([this] { run(); }) {}

MainThreadWatcher::~MainThreadWatcher() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
    // Drops a probe still queued for it.
    delete m_context;
}

void MainThreadWatcher::noteEventStart(const QObject* receiver, const QEvent* event) {
    g_receiverClass.store(receiver != nullptr ? receiver->metaObject()->className() : "no receiver",
                          std::memory_order_relaxed);
    g_eventType.store(static_cast<int>(event->type()), std::memory_order_relaxed);
}

void MainThreadWatcher::noteEventEnd() {
    g_receiverClass.store(nullptr, std::memory_order_relaxed);
}

std::string MainThreadWatcher::currentActivity() {
    const char* receiver = g_receiverClass.load(std::memory_order_relaxed);
    if (receiver == nullptr) {
        return "no event";
    }
    const int type = g_eventType.load(std::memory_order_relaxed);
    const char* typeName = QMetaEnum::fromType<QEvent::Type>().valueToKey(type);
    if (typeName != nullptr) {
        return fmt::format("{} {}", receiver, typeName);
    }
    return fmt::format("{} event {}", receiver, type);
}

void MainThreadWatcher::run() {
    std::unique_lock lock(m_mutex);
    const Clock& clock = *m_options.clock;
    while (!m_stopping) {
        auto probe = std::make_shared<Probe>();
        const auto sentAt = clock.monotonicNow();
        lock.unlock();
        QMetaObject::invokeMethod(
            m_context,
            [this, probe] {
                {
                    std::lock_guard answered(m_mutex);
                    probe->answeredAt = m_options.clock->monotonicNow();
                }
                m_wake.notify_all();
            },
            Qt::QueuedConnection);
        lock.lock();

        // Name the culprit while it is still running: once the probe is
        // answered, the GUI thread has moved on. The wait is woken by the
        // answer, or when the threshold should have passed; the clock then
        // says whether it has.
        std::string activity;
        const auto answered = [&] { return m_stopping || probe->answeredAt.has_value(); };
        std::chrono::steady_clock::duration remaining = m_options.threshold;
        while (!m_wake.wait_for(lock, remaining, answered)) {
            // Read before the clock, so that a wait found past the threshold
            // names what was running during it.
            std::string running = currentActivity();
            const auto waited = clock.monotonicNow() - sentAt;
            if (waited >= m_options.threshold) {
                activity = std::move(running);
                m_wake.wait(lock, answered);
                break;
            }
            remaining = m_options.threshold - waited;
        }
        if (m_stopping) {
            return;
        }

        const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(*probe->answeredAt - sentAt);
        if (delay >= m_options.threshold) {
            m_stallCount.fetch_add(1);
            if (delay.count() > m_longestStall.load()) {
                m_longestStall.store(delay.count());
            }
            m_log.info(fmt::format("main thread stalled {} ms ({})", delay.count(),
                                   activity.empty() ? currentActivity() : activity));
        }
        m_wake.wait_for(lock, m_options.interval, [&] { return m_stopping; });
    }
}

} // namespace kinbook
