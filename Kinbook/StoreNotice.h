#pragma once

#include "KinbookKit/addressbook/LoadReport.h"

#include <QString>
#include <QToolBar>
#include <filesystem>

namespace kinbook {

class Executor;

// The strip across the top of the window, once per start, when reading the
// address book passed files over (unreadable, too large, not cards) or found
// one UID on several cards. Its "Check…" button runs the health check (the
// one `kinbook check` runs) off the main thread and shows what it found, and
// what to do, in a dialog.
class StoreNotice final : public QToolBar {
    Q_OBJECT
public:
    // None when the read had nothing to say. `background` runs the check;
    // its report comes back on `main`, the GUI thread's executor.
    static StoreNotice* make(const LoadReport& report, std::filesystem::path root, Executor& main,
                             Executor& background, QWidget* parent = nullptr);

    // What the strip says; empty when there is nothing to say.
    static QString text(const LoadReport& report);

private:
    StoreNotice(const QString& text, std::filesystem::path root, Executor& main, Executor& background,
                QWidget* parent);
    void check();
    void showReport(const QString& report);

    std::filesystem::path m_root;
    Executor& m_main;
    Executor& m_background;
};

} // namespace kinbook
