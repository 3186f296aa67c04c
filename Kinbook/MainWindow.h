#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/people/PeopleList.h"

#include <QMainWindow>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

class QAction;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QSettings;
class QSplitter;
class QStackedWidget;
class QToolButton;

namespace kinbook {

class AccountsSection;
class AppLog;
class MoveToAccount;
class ContactPage;
class DuplicatesWindow;
class EditorCommands;
class MergeSheet;
class HeadingsColumn;
class HelpCommands;
class PeopleTable;
class PeopleTableModel;
class Sidebar;
class SortMenu;
class ThumbnailImages;
class TrashBar;
class TrashView;
struct SidebarChoice;

// The main window, "People": the sidebar, the headings column, the people
// list under its search field and sort menu, and the page of the selected
// person. It shows what the people list publishes and calls its operations;
// it never touches the address book.
//
// Keyboard: the arrow keys move within a column, and right and left move
// between the columns (sidebar, headings, list, page); up and down in the
// search field move the list's selection while the typing goes on.
//
// Lives on the GUI thread, which is the list's main executor. The list and
// the executors must outlive it.
class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    MainWindow(PeopleList& list, Executor& main, Executor& background, QSettings& settings, AppLog& log,
               QWidget* parent = nullptr);
    ~MainWindow() override;

    // Shown instead of the list when there is no address book yet: a
    // button creates it.
    void showWelcome(const QString& text, const QString& buttonText);
    // Shown instead of the list when nothing can be shown.
    void showProblem(const QString& message);
    // The empty state of an address book that holds no cards anywhere.
    void showNoCards(const QString& message);
    bool isShowingList() const;
    // The title and text shown instead of the list, for tests.
    QString stateTitle() const;
    QString stateText() const;

    // Selects the person that any of their ids names and shows their page;
    // false when they are not in the shown list.
    bool selectPerson(std::string_view id);

    // Whether the headings column should show (the stored preference), and
    // whether it does (it steps aside when the window is narrow).
    bool headingsPreferred() const { return m_showHeadings; }
    void setHeadingsPreferred(bool show);
    bool headingsShown() const;

    PeopleTable* table() const { return m_table; }
    PeopleTableModel* tableModel() const { return m_model; }
    Sidebar* sidebar() const { return m_sidebar; }
    HeadingsColumn* headingsColumn() const { return m_headings; }
    ContactPage* page() const { return m_page; }
    QLineEdit* searchField() const { return m_search; }
    SortMenu* sortMenu() const { return m_sortMenu; }
    HelpCommands* helpCommands() const { return m_help; }

    // What "Find Duplicates…" needs of the sidecar: where "Not Duplicates"
    // answers are kept and how a merge keeps the photos (none: no sidecar).
    void setDuplicatesSupport(std::optional<std::filesystem::path> answersFile, MergePhotoKeeper keepPhotos);
    // Opens the duplicates list ("Find Duplicates…"); the window, for tests.
    DuplicatesWindow* findDuplicates();
    // The merge sheet for the people selected in the list ("Merge"); null
    // with fewer than two selected.
    MergeSheet* mergeSelected();
    QAction* headingsAction() const { return m_headingsAction; }
    QLabel* statusLabel() const { return m_status; }
    TrashView* trashView() const { return m_trashView; }
    TrashBar* trashBar() const { return m_trashBar; }
    MoveToAccount* moveBar() const { return m_moveBar; }
    AccountsSection* accountsSection() const { return m_accounts; }
    // Delete: the selected people go to the Trash at once (none without a
    // sidecar folder, when it is not offered).
    QAction* trashAction() const { return m_trashAction; }
    // The File menu, for the actions others add to it (Import…, Export…).
    QMenu* fileMenu() const { return m_fileMenu; }
    // New Contact, Edit Contact, Undo and Redo.
    EditorCommands* editorCommands() const { return m_editing; }

    // Narrower than this, the headings column steps aside.
    static constexpr int kHeadingsMinimumWidth = 860;
    // The stored preference's key.
    static constexpr const char* kShowHeadingsKey = "showHeadings";

Q_SIGNALS:
    void createAddressBookRequested();
    void retryRequested();
    // The selected person's page has their card (or the card is gone).
    void pageCardShown();

protected:
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void buildMenus();
    QWidget* buildListPane();
    QWidget* buildStatePane();
    void listChanged(PeopleList::Changes changes);
    void showSections();
    void refreshSidebar();
    void refreshFilters();
    void refreshStatus();
    void refreshPage();
    void showPagePicture();
    // Announces pageCardShown once the page holds every card of its person.
    void pageCardsArrived();
    void personSelected(const QString& id);
    void sidebarChosen(const SidebarChoice& choice);
    void updateHeadingsVisibility();
    void reportAction(const ActionResult& result);
    // Clears what the last action left to say before the next one runs.
    void beginAction();
    void focusLeftOfList();
    void focusPage();
    void trashSelected();
    // The Trash's entries or progress changed, or it was chosen or left.
    void refreshTrash();

    PeopleList& m_list;
    QSettings& m_settings;
    Executor& m_mainExecutor;
    Executor& m_backgroundExecutor;
    std::optional<std::filesystem::path> m_notDuplicatesFile;
    MergePhotoKeeper m_keepMergedPhotos;
    std::uint64_t m_observer = 0;
    std::unique_ptr<ThumbnailImages> m_images;

    QStackedWidget* m_stack = nullptr;
    QSplitter* m_splitter = nullptr;
    Sidebar* m_sidebar = nullptr;
    HeadingsColumn* m_headings = nullptr;
    PeopleTable* m_table = nullptr;
    PeopleTableModel* m_model = nullptr;
    ContactPage* m_page = nullptr;
    QLineEdit* m_search = nullptr;
    QToolButton* m_sortButton = nullptr;
    SortMenu* m_sortMenu = nullptr;
    QLabel* m_status = nullptr;
    HelpCommands* m_help = nullptr;
    QAction* m_headingsAction = nullptr;
    QLabel* m_stateTitle = nullptr;
    QLabel* m_stateText = nullptr;
    QPushButton* m_stateButton = nullptr;
    QWidget* m_listPane = nullptr;
    TrashView* m_trashView = nullptr;
    TrashBar* m_trashBar = nullptr;
    MoveToAccount* m_moveBar = nullptr;
    AccountsSection* m_accounts = nullptr;
    QAction* m_trashAction = nullptr;
    QMenu* m_fileMenu = nullptr;
    EditorCommands* m_editing = nullptr;

    bool m_showHeadings = true;
    std::string m_pagePersonID;     // the person the page shows
    std::string m_keptAfterHiding;  // hidden from the page, and kept on it for Unhide
    bool m_pageCardPending = false; // pageCardShown is owed once the page has every card
    std::pair<std::string, std::uint64_t> m_pageNotesKey; // person id and cards version of the notes read
    // The thumbnail the page's picture was made from.
    std::shared_ptr<const std::vector<std::uint8_t>> m_pagePictureBytes;
    std::string m_pagePictureID;
    std::uint64_t m_scrollToTopToken = 0;
    std::uint64_t m_peopleVersion = 0;
};

} // namespace kinbook
