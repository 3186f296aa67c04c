#pragma once

#include <QMessageBox>
#include <QPointer>
#include <QWidget>
#include <string>
#include <vector>

class QLabel;

class QMimeData;
class QProgressBar;
class QTimer;

namespace kinbook {

class PeopleList;
class Sidebar;

// Moving people between accounts by dragging them from the list onto an
// account in the sidebar: the drop asks first, then moves them (Ctrl while
// dropping copies instead, as file managers do). The bar under the list
// shows the batch's progress, then what came of it, naming the people that
// couldn't be moved.
class MoveToAccount final : public QWidget {
    Q_OBJECT
public:
    MoveToAccount(PeopleList& list, Sidebar& sidebar, QWidget* parent = nullptr);

    // The question a drop asks: "Move this person to Work?" and what it does.
    static QString question(std::size_t count, const QString& account, bool copy);
    static QString explanation(const QString& account, bool copy);

    // What a drop of `data` on the sidebar's row `row` does: asks, then
    // moves or copies. False when it is no drop of people on an account.
    bool drop(const QMimeData& dropped, int row, bool copy);
    // Moves or copies without asking.
    void start(std::vector<std::string> personIDs, const std::string& accountID, bool copy);
    // Follows the list's batch progress.
    void refresh();

    QMessageBox* confirmation() const { return m_confirm; }
    QProgressBar* progressBar() const { return m_progress; }
    QString text() const;

Q_SIGNALS:
    void batchFinished();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // The account id of the sidebar's row, when it is an account.
    std::string accountAt(int row) const;

    PeopleList& m_list;
    Sidebar& m_sidebar;
    QLabel* m_text = nullptr;
    QProgressBar* m_progress = nullptr;
    QTimer* m_timer = nullptr;
    QPointer<QMessageBox> m_confirm;
};

} // namespace kinbook
