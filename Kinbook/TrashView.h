#pragma once

#include <QString>
#include <QWidget>
#include <string>
#include <vector>

class QLabel;
class QListWidget;
class QMessageBox;
class QProgressBar;
class QPushButton;
class QTimer;

namespace kinbook {

class PeopleList;

// The Trash, shown in place of the list and the page when its sidebar entry
// is chosen: the people deleted, newest first, each with the date and the
// accounts they were in, to restore or to delete for good. Without a
// sidecar folder there is no Trash, and the view says where it would be.
//
// Reads everything from the list's Trash and refreshes on its notice; lives
// on the GUI thread, and the list must outlive it.
class TrashView final : public QWidget {
    Q_OBJECT
public:
    explicit TrashView(PeopleList& list, QWidget* parent = nullptr);

    // Reads the entries, the batch's progress and whether there is a Trash.
    void refresh();

    // Asks "Empty the Trash?" and empties it when the user agrees.
    void confirmEmpty();
    void restoreSelected();
    void deleteSelectedForever();

    // For tests: what the view says, the entries' rows, the open question.
    QString titleText() const;
    QString explanationText() const;
    QString messageText() const;
    QListWidget* entries() const { return m_entries; }
    QMessageBox* confirmation() const { return m_confirm; }
    QPushButton* emptyButton() const { return m_empty; }

    // One entry's row: the name, then the date and the accounts.
    static QString rowText(const std::string& name, const QString& date,
                           const std::vector<std::string>& accounts);

Q_SIGNALS:
    // A restore, a deletion for good or emptying finished (or failed, with a
    // message shown).
    void actionFinished();

private:
    void setBusy(bool busy);
    void showMessage(const QString& text);
    void removeNext(std::vector<std::string> ids, std::size_t at);

    PeopleList& m_list;
    QLabel* m_title = nullptr;
    QLabel* m_explanation = nullptr;
    QListWidget* m_entries = nullptr;
    QPushButton* m_restore = nullptr;
    QPushButton* m_forever = nullptr;
    QPushButton* m_empty = nullptr;
    QLabel* m_message = nullptr;
    QMessageBox* m_confirm = nullptr;
    bool m_busy = false;
};

// The strip under the people list after people went to the Trash: a progress
// bar while a batch runs, then what happened, with Undo, for a little while.
// Undo brings back exactly the entries the batch added.
class TrashBar final : public QWidget {
    Q_OBJECT
public:
    explicit TrashBar(PeopleList& list, QWidget* parent = nullptr);

    // Moves these people to the Trash at once and offers to undo it.
    void trashPeople(std::vector<std::string> personIDs);
    // Follows the list's batch progress.
    void refresh();
    void undo();

    QString text() const;
    QPushButton* undoButton() const { return m_undo; }
    QProgressBar* progressBar() const { return m_progress; }

    // How long Undo stays offered.
    static constexpr int kUndoMilliseconds = 10000;

Q_SIGNALS:
    void trashFinished();
    void undoFinished();

private:
    void undoNext(std::vector<std::string> ids, std::size_t next, std::size_t restored, QString failure);

    PeopleList& m_list;
    QLabel* m_text = nullptr;
    QProgressBar* m_progress = nullptr;
    QPushButton* m_undo = nullptr;
    QTimer* m_timer = nullptr;
    std::vector<std::string> m_undoIDs; // the entries the last batch added
};

} // namespace kinbook
