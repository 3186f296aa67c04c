#include "Kinbook/LaunchBenchmarks.h"

#include "Kinbook/MainThreadWatcher.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/QtText.h"

#include <fmt/format.h>

#include <QCoreApplication>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLineEdit>
#include <QScrollBar>
#include <QTimer>
#include <algorithm>

namespace kinbook {
namespace {

// A quick typist: about eight keys a second.
constexpr int kKeyInterval = 120;

long long median(std::vector<long long> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

SearchBench::SearchBench(MainWindow& window, PeopleList& list, const MainThreadWatcher& watcher, KinLog log,
                         std::function<void()> done)
    : m_window(window), m_list(list), m_watcher(watcher), m_log(std::move(log)), m_done(std::move(done)),
      m_timer(new QTimer(this)) {
    m_timer->setInterval(kKeyInterval);
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &SearchBench::nextKey);
    for (const char* query : kQueries) {
        const QString text = QString::fromUtf8(query);
        for (const QChar character : text) {
            m_keys.emplace_back(character);
        }
        for (qsizetype i = 0; i < text.size(); ++i) {
            m_keys.emplace_back("\b");
        }
    }
}

SearchBench::~SearchBench() {
    if (m_observer != 0) {
        m_list.unobserve(m_observer);
    }
}

void SearchBench::start() {
    m_log.info(fmt::format("search bench: start, {} people", m_list.people().size()));
    m_stallsBefore = m_watcher.stallCount();
    m_observer = m_list.observe([this](PeopleList::Changes changes) { listChanged(changes); });
    m_window.searchField()->clear();
    m_window.searchField()->setFocus();
    m_timer->start();
}

void SearchBench::nextKey() {
    if (m_next >= m_keys.size()) {
        // The last results may still be on their way.
        if (!m_waiting) {
            finish();
        }
        return;
    }
    const QString key = m_keys[m_next++];
    const bool erase = key == "\b";
    QLineEdit* field = m_window.searchField();
    QKeyEvent press(QEvent::KeyPress, erase ? Qt::Key_Backspace : 0, Qt::NoModifier, erase ? QString() : key);
    QKeyEvent release(QEvent::KeyRelease, erase ? Qt::Key_Backspace : 0, Qt::NoModifier,
                      erase ? QString() : key);
    m_sinceKey.start();
    QCoreApplication::sendEvent(field, &press);
    QCoreApplication::sendEvent(field, &release);
    m_keyMilliseconds.push_back(m_sinceKey.elapsed());
    m_expected = field->text();
    m_waiting = true;
}

void SearchBench::listChanged(PeopleList::Changes changes) {
    if (!m_waiting || !changes.contains(PeopleList::Change::sections) ||
        qt(m_list.searchText()).trimmed() != m_expected.trimmed()) {
        return;
    }
    m_waiting = false;
    m_resultMilliseconds.push_back(m_sinceKey.elapsed());
    if (!m_expected.isEmpty()) {
        m_log.info(fmt::format("search bench: \"{}\" {} matches", utf8(m_expected), m_list.matchCount()));
    }
}

void SearchBench::finish() {
    m_timer->stop();
    m_list.unobserve(m_observer);
    m_observer = 0;
    m_log.info(
        fmt::format("search bench: done, {} keys, median {} ms per key, median {} ms to results, {} stalls",
                    m_keyMilliseconds.size(), median(m_keyMilliseconds), median(m_resultMilliseconds),
                    m_watcher.stallCount() - m_stallsBefore));
    if (m_done) {
        QTimer::singleShot(0, this, m_done);
    }
}

ScrollBench::ScrollBench(MainWindow& window, const MainThreadWatcher& watcher, KinLog log,
                         std::function<void()> done)
    : m_window(window), m_watcher(watcher), m_log(std::move(log)), m_done(std::move(done)),
      m_timer(new QTimer(this)) {
    m_timer->setTimerType(Qt::PreciseTimer);
    m_timer->setInterval(1000 / kStepsPerSecond);
    connect(m_timer, &QTimer::timeout, this, &ScrollBench::step);
}

void ScrollBench::start() {
    m_log.info(fmt::format("scroll bench: start, {} steps per second, {} rows", kStepsPerSecond,
                           m_window.table()->model()->rowCount()));
    m_stallsBefore = m_watcher.stallCount();
    m_window.table()->scrollToTop();
    m_clock.start();
    m_timer->start();
}

void ScrollBench::step() {
    // Each step is due one interval after the one before; a step that comes
    // late was kept waiting by the drawing of the rows the one before
    // brought into view.
    const long long now = m_clock.elapsed();
    const long long lateness = m_taken == 0 ? 0 : std::max(0LL, now - m_previous - m_timer->interval());
    m_previous = now;
    m_totalLateness += lateness;
    m_worstLateness = std::max(m_worstLateness, lateness);
    ++m_taken;

    QScrollBar* bar = m_window.table()->verticalScrollBar();
    const int rowHeight = std::max(1, m_window.table()->verticalHeader()->defaultSectionSize());
    bar->setValue(bar->value() + kRowsPerStep * rowHeight);

    if (m_taken >= kSteps) {
        m_timer->stop();
        m_log.info(fmt::format("scroll bench: done, {} steps, average lateness {} ms, worst {} ms, {} stalls",
                               m_taken, m_totalLateness / m_taken, m_worstLateness,
                               m_watcher.stallCount() - m_stallsBefore));
        if (m_done) {
            QTimer::singleShot(0, this, m_done);
        }
    }
}

} // namespace kinbook
