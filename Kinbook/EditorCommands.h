#pragma once

#include "Kinbook/ContactEditor.h"
#include "Kinbook/QuickEditor.h"
#include "KinbookKit/people/PeopleOperations.h"

#include <QObject>
#include <QPointer>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class QAction;
class QWidget;

namespace kinbook {

class KinbookSession;
class PeopleList;

// The window's editing commands: File ▸ New Contact (Ctrl+N), Edit Contact
// (Ctrl+E), and Edit ▸ Undo and Redo (Ctrl+Z, Ctrl+Shift+Z), whose texts
// name what they take back. The list's own actions (former marks, circles,
// hiding) go through here so that they can be undone too.
class EditorCommands final : public QObject {
    Q_OBJECT
public:
    struct Hooks {
        std::function<std::string()> shownPersonID;                // the person on the page; empty: none
        std::function<std::optional<std::string>()> chosenAccount; // the sidebar's account, if one is chosen
        std::function<void(const std::string& personID)> select;   // selects and shows a person
        std::function<void(const ActionResult&)> report;           // shows a failure
    };

    EditorCommands(PeopleList& list, QWidget* window, Hooks hooks);

    QAction* newContactAction() const { return m_new; }
    QAction* editContactAction() const { return m_edit; }
    QAction* undoAction() const { return m_undo; }
    QAction* redoAction() const { return m_redo; }
    // The open editor, if any.
    ContactEditor* editor() const { return m_editor; }
    // Where the keep-job question's past jobs are written (none: not kept).
    void setSession(KinbookSession* session) { m_session = session; }

    void newContact();
    // Opens the editor on the person's cards, primary first.
    void editPerson(const std::string& personID);

    // Edits one entry of a card in place.
    void quickEdit(const std::string& cardID, const std::string& entryID);
    QuickEditor* quickEditor() const { return m_quick; }

    // The list's actions, kept for undo.
    void markFormer(const std::string& cardID, const std::string& entryID, bool former);
    void setCircle(const std::string& personID, std::optional<ContactCircle> circle);
    void setHidden(const std::string& personID, bool hidden);

private:
    void open(ContactEditor* editor);
    void refreshTitles();
    // Shows the person's past jobs in the editor, when there is a sidecar.
    void loadPastJobs(ContactEditor* editor, const std::string& personID);
    void savePastJobs(const std::string& cardID, std::vector<PastJob> jobs);
    void saveContactPhoto(const std::string& cardID, const QString& file);
    std::vector<std::string> cardIDsOf(const std::string& personID) const;

    PeopleList& m_list;
    QWidget* m_window;
    Hooks m_hooks;
    KinbookSession* m_session = nullptr;
    QAction* m_new;
    QAction* m_edit;
    QAction* m_undo;
    QAction* m_redo;
    QPointer<ContactEditor> m_editor;
    QPointer<QuickEditor> m_quick;
};

} // namespace kinbook
