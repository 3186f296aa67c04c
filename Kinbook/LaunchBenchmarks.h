#pragma once

#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/KinLog.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <functional>
#include <vector>

class QTimer;

namespace kinbook {

class MainThreadWatcher;
class MainWindow;

// -KinSearchBench: types a query into the search field key by key, at a
// typist's pace, then deletes it again, and logs how long each key kept the
// GUI thread and how long the list took to show its results:
//
//     search bench: start, 100000 people
//     search bench: "mar" 2113 matches
//     search bench: done, 22 keys, median 0 ms per key, median 68 ms to results, 0 stalls
//
// Calls `done` when finished.
class SearchBench final : public QObject {
    Q_OBJECT
public:
    SearchBench(MainWindow& window, PeopleList& list, const MainThreadWatcher& watcher, KinLog log,
                std::function<void()> done);
    ~SearchBench() override;

    void start();

    // What is typed: each text is typed key by key, then deleted key by key.
    static constexpr const char* kQueries[] = {"maria", "smith", "555"};

private:
    void nextKey();
    void listChanged(PeopleList::Changes changes);
    void finish();

    MainWindow& m_window;
    PeopleList& m_list;
    const MainThreadWatcher& m_watcher;
    KinLog m_log;
    std::function<void()> m_done;
    std::uint64_t m_observer = 0;
    QTimer* m_timer;

    std::vector<QString> m_keys; // each typed key; "\b" deletes
    std::size_t m_next = 0;
    QString m_expected; // what the field holds after the last key
    QElapsedTimer m_sinceKey;
    bool m_waiting = false; // for the list to show the results of m_expected
    std::vector<long long> m_keyMilliseconds;
    std::vector<long long> m_resultMilliseconds;
    int m_stallsBefore = 0;
};

// -KinScrollBench: scrolls the list at a fixed rate of steps per second and
// logs how late the steps came on average, which is how long the rows took
// to draw beyond the frame's time:
//
//     scroll bench: start, 60 steps per second, 100000 people
//     scroll bench: done, 300 steps, average lateness 1 ms, worst 9 ms, 0 stalls
class ScrollBench final : public QObject {
    Q_OBJECT
public:
    ScrollBench(MainWindow& window, const MainThreadWatcher& watcher, KinLog log, std::function<void()> done);

    void start();

    static constexpr int kStepsPerSecond = 60;
    static constexpr int kSteps = 300;
    static constexpr int kRowsPerStep = 3;

private:
    void step();

    MainWindow& m_window;
    const MainThreadWatcher& m_watcher;
    KinLog m_log;
    std::function<void()> m_done;
    QTimer* m_timer;
    QElapsedTimer m_clock;
    int m_taken = 0;
    long long m_previous = 0; // when the last step came, from the start
    long long m_totalLateness = 0;
    long long m_worstLateness = 0;
    int m_stallsBefore = 0;
};

} // namespace kinbook
