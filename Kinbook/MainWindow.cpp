#include "Kinbook/MainWindow.h"

#include "Kinbook/AccountsSection.h"
#include "Kinbook/CirclePicker.h"
#include "Kinbook/ContactPage.h"
#include "Kinbook/DuplicatesWindow.h"
#include "Kinbook/EditorCommands.h"
#include "Kinbook/HeadingsColumn.h"
#include "Kinbook/HelpCommands.h"
#include "Kinbook/MergeSheet.h"
#include "Kinbook/MoveToAccount.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/QtText.h"
#include "Kinbook/Sidebar.h"
#include "Kinbook/SortMenu.h"
#include "Kinbook/ThumbnailImages.h"
#include "Kinbook/TrashView.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSettings>
#include <QSplitter>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

namespace kinbook {
namespace {

// The rows' pictures are drawn 26 points wide; twice that keeps them sharp
// on a high-density screen.
constexpr int kRowPicturePixels = 52;
constexpr int kPagePicturePixels = 144;

PeopleList::Changes everything() {
    using C = PeopleList::Change;
    return C::access | C::people | C::sections | C::loading | C::filters | C::search | C::cards |
           C::thumbnails | C::trash | C::accounts;
}

} // namespace

MainWindow::MainWindow(PeopleList& list, Executor& main, Executor& background, QSettings& settings,
                       AppLog& log, QWidget* parent)
    : QMainWindow(parent), m_list(list), m_settings(settings), m_mainExecutor(main),
      m_backgroundExecutor(background) {
    setObjectName("People");
    setWindowTitle("People");
    resize(1180, 760);
    m_showHeadings = m_settings.value(kShowHeadingsKey, true).toBool();

    m_images = std::make_unique<ThumbnailImages>(
        [this](const std::string& cardID) { return m_list.thumbnail(cardID); }, main, background,
        kRowPicturePixels);

    m_sidebar = new Sidebar;
    m_headings = new HeadingsColumn;
    m_page = new ContactPage;
    m_accounts = new AccountsSection(m_list);
    m_page->addSection(m_accounts);
    m_splitter = new QSplitter(Qt::Horizontal);
    m_splitter->setObjectName("MainSplitter");
    m_splitter->setChildrenCollapsible(false);
    m_splitter->addWidget(m_sidebar);
    m_splitter->addWidget(m_headings);
    m_listPane = buildListPane();
    m_splitter->addWidget(m_listPane);
    m_splitter->addWidget(m_page);
    // In place of the headings, the list and the page while the Trash shows.
    m_trashView = new TrashView(m_list);
    m_trashView->hide();
    m_splitter->addWidget(m_trashView);
    m_splitter->setStretchFactor(4, 5);
    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 0);
    m_splitter->setStretchFactor(2, 2);
    m_splitter->setStretchFactor(3, 3);
    m_splitter->setSizes({200, 130, 360, 490});

    m_stack = new QStackedWidget;
    m_stack->addWidget(m_splitter);
    m_stack->addWidget(buildStatePane());
    setCentralWidget(m_stack);
    m_help = new HelpCommands(this, log);
    buildMenus();

    connect(m_sidebar, &Sidebar::choiceChanged, this, &MainWindow::sidebarChosen);
    connect(m_sidebar, &Sidebar::leaveRightRequested, this, [this] {
        if (headingsShown()) {
            m_headings->setFocus();
        } else {
            m_table->setFocus();
        }
    });
    connect(m_headings, &HeadingsColumn::headingChosen, this,
            [this](const std::optional<std::string>& title) {
                beginAction();
                m_list.setHeadingFilter(title);
            });
    connect(m_headings, &HeadingsColumn::leaveLeftRequested, this, [this] { m_sidebar->setFocus(); });
    connect(m_headings, &HeadingsColumn::leaveRightRequested, this, [this] { m_table->setFocus(); });
    connect(m_table, &PeopleTable::selectedPersonChanged, this, &MainWindow::personSelected);
    connect(m_table, &PeopleTable::enterPageRequested, this, &MainWindow::focusPage);
    connect(m_table, &PeopleTable::leaveLeftRequested, this, &MainWindow::focusLeftOfList);
    connect(m_page, &ContactPage::leaveLeftRequested, this, [this] { m_table->setFocus(); });
    connect(m_page, &ContactPage::markFormerRequested, this,
            [this](const QString& cardID, const QString& entryID) {
                beginAction();
                m_editing->markFormer(utf8(cardID), utf8(entryID), true);
            });
    connect(m_page, &ContactPage::markCurrentRequested, this,
            [this](const QString& cardID, const QString& entryID) {
                beginAction();
                m_editing->markFormer(utf8(cardID), utf8(entryID), false);
            });
    connect(m_page, &ContactPage::editRequested, this,
            [this](const QString& personID) { m_editing->editPerson(utf8(personID)); });
    connect(m_page, &ContactPage::quickEditRequested, this,
            [this](const QString& cardID, const QString& entryID) {
                m_editing->quickEdit(utf8(cardID), utf8(entryID));
            });
    connect(m_page, &ContactPage::hiddenChangeRequested, this, [this](const QString& personID, bool hidden) {
        beginAction();
        // Hidden from the page, the person stays on it, so that Unhide is at hand.
        m_keptAfterHiding = hidden ? utf8(personID) : std::string();
        m_editing->setHidden(utf8(personID), hidden);
    });
    connect(m_page->circlePicker(), &CirclePicker::circleChosen, this,
            [this](std::optional<ContactCircle> circle) {
                if (m_pagePersonID.empty()) {
                    return;
                }
                m_list.clearActionError();
                m_editing->setCircle(m_pagePersonID, circle);
            });
    connect(m_sortMenu, &SortMenu::orderChosen, this, [this](SortOrder order) {
        beginAction();
        m_list.setSortOrder(order);
    });
    connect(m_sortMenu, &SortMenu::directionChosen, this, [this](bool descending) {
        beginAction();
        m_list.setDescending(descending);
    });
    connect(m_images.get(), &ThumbnailImages::imagesReady, m_table->viewport(),
            qOverload<>(&QWidget::update));

    m_observer = m_list.observe([this](PeopleList::Changes changes) { listChanged(changes); });
    listChanged(everything());
    updateHeadingsVisibility();
    m_table->setFocus();
}

MainWindow::~MainWindow() {
    m_list.unobserve(m_observer);
}

QWidget* MainWindow::buildListPane() {
    auto* pane = new QWidget;
    pane->setObjectName("ListPane");
    auto* layout = new QVBoxLayout(pane);
    layout->setContentsMargins(0, 6, 0, 0);
    layout->setSpacing(4);

    auto* bar = new QHBoxLayout;
    bar->setContentsMargins(8, 0, 8, 0);
    m_search = new QLineEdit;
    m_search->setObjectName("SearchField");
    m_search->setPlaceholderText("Search");
    m_search->setClearButtonEnabled(true);
    m_search->setAccessibleName("Search");
    m_search->installEventFilter(this);
    // The list waits for typing to settle before it searches.
    connect(m_search, &QLineEdit::textChanged, this, [this](const QString& text) {
        if (utf8(text) != m_list.searchInput()) {
            m_list.setSearchInput(utf8(text));
        }
    });
    m_sortMenu = new SortMenu(this);
    m_sortButton = new QToolButton;
    m_sortButton->setObjectName("SortButton");
    m_sortButton->setPopupMode(QToolButton::InstantPopup);
    m_sortButton->setMenu(m_sortMenu);
    m_sortButton->setToolTip("Sort By");
    bar->addWidget(m_search, 1);
    bar->addWidget(m_sortButton);
    layout->addLayout(bar);

    m_model = new PeopleTableModel(this);
    m_model->setThumbnailSource([this](const Person& person) { return m_images->image(person.id); });
    m_table = new PeopleTable;
    m_table->setPeopleModel(m_model);
    layout->addWidget(m_table, 1);
    m_trashBar = new TrashBar(m_list);
    layout->addWidget(m_trashBar);
    m_moveBar = new MoveToAccount(m_list, *m_sidebar);
    layout->addWidget(m_moveBar);

    m_status = new QLabel;
    m_status->setObjectName("ListStatus");
    m_status->setContentsMargins(10, 2, 10, 4);
    m_status->setEnabled(false);
    layout->addWidget(m_status);
    return pane;
}

QWidget* MainWindow::buildStatePane() {
    auto* pane = new QWidget;
    pane->setObjectName("StatePane");
    auto* layout = new QVBoxLayout(pane);
    layout->addStretch(1);
    m_stateTitle = new QLabel;
    m_stateTitle->setObjectName("StateTitle");
    QFont big = m_stateTitle->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    m_stateTitle->setFont(big);
    m_stateTitle->setAlignment(Qt::AlignCenter);
    m_stateText = new QLabel;
    m_stateText->setObjectName("StateText");
    m_stateText->setWordWrap(true);
    m_stateText->setAlignment(Qt::AlignCenter);
    // A wrapped label is only as tall as the layout asks; in a centred
    // column of its own width it gets the height its lines need.
    m_stateText->setMaximumWidth(560);
    m_stateText->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::MinimumExpanding);
    m_stateText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_stateButton = new QPushButton;
    m_stateButton->setObjectName("StateButton");
    connect(m_stateButton, &QPushButton::clicked, this, [this] {
        if (m_stateTitle->text() == "Couldn't Load Contacts") {
            Q_EMIT retryRequested();
        } else {
            Q_EMIT createAddressBookRequested();
        }
    });
    layout->addWidget(m_stateTitle);
    auto* textRow = new QHBoxLayout;
    textRow->addStretch(1);
    textRow->addWidget(m_stateText, 4);
    textRow->addStretch(1);
    layout->addLayout(textRow);
    layout->addSpacing(12);
    layout->addWidget(m_stateButton, 0, Qt::AlignHCenter);
    layout->addStretch(2);
    return pane;
}

void MainWindow::buildMenus() {
    m_editing =
        new EditorCommands(m_list, this,
                           {[this] { return m_pagePersonID; }, [this] { return m_list.accountFilter(); },
                            [this](const std::string& id) { selectPerson(id); },
                            [self = QPointer(this)](const ActionResult& result) {
                                if (self) {
                                    self->reportAction(result);
                                }
                            }});
    QMenu* file = menuBar()->addMenu("&File");
    m_fileMenu = file;
    file->addAction(m_editing->newContactAction());
    QAction* quit = file->addAction("Quit", qApp, &QApplication::quit);
    quit->setShortcut(QKeySequence::Quit);

    QMenu* edit = menuBar()->addMenu("&Edit");
    edit->addAction(m_editing->undoAction());
    edit->addAction(m_editing->redoAction());
    edit->addSeparator();
    edit->addAction(m_editing->editContactAction());
    m_trashAction = edit->addAction("Move to Trash", this, &MainWindow::trashSelected);
    m_trashAction->setObjectName("TrashAction");
    m_trashAction->setShortcut(QKeySequence::Delete);
    // The key deletes people only from the list: on the page it belongs to
    // what has the focus there (a photo, a field).
    m_trashAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    m_listPane->addAction(m_trashAction);

    QMenu* view = menuBar()->addMenu("&View");
    QAction* find = view->addAction("Find", this, [this] {
        m_search->setFocus();
        m_search->selectAll();
    });
    find->setShortcut(QKeySequence::Find);
    view->addMenu(m_sortMenu);
    view->addAction("Find Duplicates…", this, [this] { findDuplicates()->open(); });
    QAction* merge = view->addAction("Merge", this, [this] {
        if (auto* sheet = mergeSelected()) {
            sheet->open();
        }
    });
    merge->setObjectName("MergeAction");
    view->addSeparator();
    m_headingsAction = view->addAction(QString(), this, [this] { setHeadingsPreferred(!m_showHeadings); });
    m_headingsAction->setObjectName("HeadingsAction");

    QMenu* help = menuBar()->addMenu("&Help");
    m_help->addTo(help);
}

void MainWindow::setDuplicatesSupport(std::optional<std::filesystem::path> answersFile,
                                      MergePhotoKeeper keepPhotos) {
    m_notDuplicatesFile = std::move(answersFile);
    m_keepMergedPhotos = std::move(keepPhotos);
}

DuplicatesWindow* MainWindow::findDuplicates() {
    auto* window = new DuplicatesWindow(m_list, m_mainExecutor, m_backgroundExecutor, m_notDuplicatesFile,
                                        m_keepMergedPhotos, this);
    window->setAttribute(Qt::WA_DeleteOnClose);
    return window;
}

MergeSheet* MainWindow::mergeSelected() {
    std::vector<std::string> ids;
    for (const QString& id : m_table->selectedIDs()) {
        ids.push_back(id.toStdString());
    }
    if (ids.size() < 2) {
        return nullptr;
    }
    auto* sheet = new MergeSheet(m_list, std::move(ids), m_keepMergedPhotos, this);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    return sheet;
}

void MainWindow::showWelcome(const QString& text, const QString& buttonText) {
    m_stateTitle->setText("Welcome to Vellumary Contacts");
    m_stateText->setText(text);
    m_stateButton->setText(buttonText);
    m_stateButton->show();
    m_stack->setCurrentIndex(1);
}

void MainWindow::showProblem(const QString& message) {
    m_stateTitle->setText("Couldn't Load Contacts");
    m_stateText->setText(message);
    m_stateButton->setText("Try Again");
    m_stateButton->show();
    m_stack->setCurrentIndex(1);
}

void MainWindow::showNoCards(const QString& message) {
    m_stateTitle->setText("No Cards Found");
    m_stateText->setText(message);
    m_stateButton->hide();
    m_stack->setCurrentIndex(1);
}

bool MainWindow::isShowingList() const {
    return m_stack->currentIndex() == 0;
}

QString MainWindow::stateTitle() const {
    return isShowingList() ? QString() : m_stateTitle->text();
}

QString MainWindow::stateText() const {
    return isShowingList() ? QString() : m_stateText->text();
}

void MainWindow::listChanged(PeopleList::Changes changes) {
    using C = PeopleList::Change;
    if (changes.contains(C::people)) {
        if (m_list.peopleVersion() != m_peopleVersion) {
            m_peopleVersion = m_list.peopleVersion();
            m_images->clear();
        }
        refreshSidebar();
    }
    if (changes.contains(C::sections)) {
        showSections();
    }
    if (changes.contains(C::filters) || changes.contains(C::sections)) {
        refreshFilters();
    }
    if (changes.contains(C::search) && utf8(m_search->text()) != m_list.searchInput()) {
        m_search->setText(qt(m_list.searchInput()));
    }
    if (changes.contains(C::people) || changes.contains(C::loading) || changes.contains(C::access)) {
        // Nothing to show and a reason why: say so in place of the list. A
        // welcome stays until the address book is made.
        const bool failed = m_list.errorMessage() && m_list.people().empty();
        if (failed) {
            showProblem(qt(*m_list.errorMessage()));
        } else if (!isShowingList() && (m_stateTitle->text() == "Couldn't Load Contacts" ||
                                        !m_list.people().empty() || m_list.isLoading())) {
            m_stack->setCurrentIndex(0);
        }
    }
    if (changes.contains(C::people) || changes.contains(C::sections) || changes.contains(C::loading)) {
        refreshStatus();
    }
    if (changes.contains(C::people) || changes.contains(C::cards)) {
        refreshPage();
    }
    if (changes.contains(C::thumbnails)) {
        m_images->refresh();
        showPagePicture();
    }
    if (changes.contains(C::trash)) {
        refreshTrash();
    }
    if (changes.contains(C::accounts)) {
        m_moveBar->refresh();
    }
}

void MainWindow::refreshTrash() {
    const PeopleTrash& trash = m_list.trash();
    m_trashView->refresh();
    m_trashBar->refresh();
    // Without a sidecar folder nothing is deleted: there is no way back.
    m_trashAction->setVisible(trash.trash() != nullptr);
    m_trashAction->setEnabled(trash.trash() != nullptr);
    const bool showing = trash.showing();
    m_trashView->setVisible(showing);
    m_listPane->setVisible(!showing);
    m_page->setVisible(!showing);
    updateHeadingsVisibility();
    refreshSidebar();
    refreshFilters();
}

void MainWindow::trashSelected() {
    if (!m_list.trash().trash() || m_list.trash().showing()) {
        return;
    }
    beginAction();
    std::vector<std::string> ids;
    for (const QString& id : m_table->selectedIDs()) {
        ids.push_back(utf8(id));
    }
    m_trashBar->trashPeople(std::move(ids));
}

void MainWindow::beginAction() {
    // A refusal or an error is about the action just tried; the next one
    // makes it stale.
    m_page->circlePicker()->clearRefusal();
    m_list.clearActionError();
}

void MainWindow::showSections() {
    // The model is reset; the person on the page is chosen again when they
    // are still in the list, and stays on the page when not (after Hide, so
    // that Unhide is at hand).
    const std::string keep = m_pagePersonID;
    bool left = false;
    {
        const QSignalBlocker quiet(m_table);
        m_model->setSections(m_list.sharedSections());
        if (!keep.empty()) {
            if (auto row = m_model->rowOf(keep)) {
                m_table->selectPersonRow(*row);
            } else {
                left = keep != m_keptAfterHiding;
            }
        }
    }
    // A person the list no longer shows (a filter, a search, another
    // program's change) leaves the page too, but for one the page itself
    // just hid, whom Unhide is to bring back.
    if (left) {
        m_pagePersonID.clear();
        m_page->showNobody();
    }
    if (m_list.scrollToTopToken() != m_scrollToTopToken) {
        m_scrollToTopToken = m_list.scrollToTopToken();
        m_table->scrollToTop();
    }
}

void MainWindow::refreshSidebar() {
    SidebarCounts counts;
    counts.everyone = static_cast<int>(m_list.people().size()) - m_list.hiddenCount();
    counts.accounts = m_list.accounts();
    counts.accountCounts = m_list.accountCounts();
    counts.circleCounts = m_list.circleCounts();
    counts.hidden = m_list.hiddenCount();
    counts.trash = static_cast<int>(m_list.trash().items().size());
    m_sidebar->setCounts(counts);
}

void MainWindow::refreshFilters() {
    m_sortMenu->setState(m_list.sortOrder(), m_list.descending());
    m_sortButton->setText(m_sortMenu->summary());
    // Room for the menu's arrow beside the longest words ("Pictures First, Z to A").
    m_sortButton->setMinimumWidth(m_sortButton->fontMetrics().horizontalAdvance(m_sortButton->text()) + 36);
    SidebarChoice choice;
    if (m_list.trash().showing()) {
        choice.kind = SidebarChoice::Kind::trash;
    } else if (m_list.showingHidden()) {
        choice.kind = SidebarChoice::Kind::hidden;
    } else if (m_list.circleFilter()) {
        choice = {SidebarChoice::Kind::circle, {}, m_list.circleFilter()};
    } else if (m_list.accountFilter()) {
        choice = {SidebarChoice::Kind::account, *m_list.accountFilter(), std::nullopt};
    }
    m_sidebar->showChoice(choice);
    m_headings->setHeadings(m_list.headings(), m_list.headingFilter());
}

void MainWindow::refreshStatus() {
    QString text;
    // What the list shows, the heading filter included.
    int shown = 0;
    for (const auto& section : m_list.sections()) {
        shown += static_cast<int>(section.people.size());
    }
    if (m_list.people().empty() && m_list.isLoading()) {
        text = "Loading…";
    } else if (!m_list.searchText().empty()) {
        text = shown == 1 ? "1 match" : QString("%1 matches").arg(shown);
    } else {
        text = shown == 1 ? "1 person" : QString("%1 people").arg(shown);
    }
    if (!m_list.people().empty() && m_list.isLoading()) {
        text += " · Refreshing…";
    }
    m_status->setText(text);
}

void MainWindow::personSelected(const QString& id) {
    if (id.isEmpty()) {
        return;
    }
    const PersonPtr person = m_list.person(utf8(id));
    if (!person) {
        return;
    }
    if (person->id != m_pagePersonID) {
        m_pagePersonID = person->id;
        m_pageCardPending = true;
        m_keptAfterHiding.clear();
    }
    refreshPage();
}

void MainWindow::refreshPage() {
    if (m_pagePersonID.empty()) {
        m_page->showNobody();
        return;
    }
    const PersonPtr person = m_list.person(m_pagePersonID);
    if (!person) {
        m_pagePersonID.clear();
        m_page->showNobody();
        return;
    }
    // A merge or a re-read may give the person another id.
    m_pagePersonID = person->id;
    std::map<std::string, std::string> accountNames;
    for (const Account& account : m_list.accounts()) {
        accountNames[account.id] = account.name;
    }
    if (person->id != m_pagePictureID) {
        m_pagePictureBytes.reset();
    }
    m_page->showPerson(*person, accountNames, m_list.cardAccounts(*person));
    m_accounts->showPerson(person.get());
    m_page->circlePicker()->setPerson(person->circle, m_list.circleCounts(), std::nullopt);

    // Every card of the person: those read lately at once, the others from
    // the store. A card another program changed was dropped from the cache
    // and is read again here.
    std::vector<std::string> cardIDs;
    for (const auto& member : person->memberIDs) {
        cardIDs.emplace_back(member);
    }
    if (cardIDs.empty()) {
        cardIDs.push_back(person->id);
    }
    for (const auto& cardID : cardIDs) {
        if (const ContactCard* card = m_list.cachedCard(cardID)) {
            m_page->showCard(*card);
            continue;
        }
        m_list.card(cardID, [self = QPointer(this), id = person->id](std::optional<ContactCard> card) {
            if (self && self->m_pagePersonID == id) {
                if (card) {
                    self->m_page->showCard(*card);
                    self->pageCardsArrived();
                } else if (std::exchange(self->m_pageCardPending, false)) {
                    Q_EMIT self->pageCardShown(); // the card is gone: nothing more will come
                }
            }
        });
    }
    pageCardsArrived();

    // The notes, once per person and again whenever the cards change.
    const auto notesKey = std::make_pair(person->id, m_list.cardsVersion());
    if (notesKey != m_pageNotesKey) {
        m_pageNotesKey = notesKey;
        m_list.notes(cardIDs,
                     [self = QPointer(this), id = person->id](std::map<std::string, std::string> notes) {
                         if (self && self->m_pagePersonID == id) {
                             self->m_page->showNotes(notes);
                         }
                     });
    }
    showPagePicture();
}

void MainWindow::pageCardsArrived() {
    if (m_pageCardPending && m_page->hasAllCards()) {
        m_pageCardPending = false;
        Q_EMIT pageCardShown();
    }
}

void MainWindow::showPagePicture() {
    const PersonPtr person = m_pagePersonID.empty() ? nullptr : m_list.person(m_pagePersonID);
    if (!person || !person->hasImage) {
        return;
    }
    // Thumbnails arrive in batches for the rows; the page's own is decoded
    // once, and again only when its bytes change.
    const auto bytes = m_list.thumbnail(person->id);
    if (bytes && (bytes != m_pagePictureBytes || person->id != m_pagePictureID)) {
        m_pagePictureBytes = bytes;
        m_pagePictureID = person->id;
        m_page->showPicture(ThumbnailImages::decodeSquare(*bytes, kPagePicturePixels));
    }
}

bool MainWindow::selectPerson(std::string_view id) {
    const PersonPtr person = m_list.person(id);
    if (!person) {
        return false;
    }
    const auto row = m_model->rowOf(person->id);
    if (!row) {
        return false;
    }
    m_table->selectPersonRow(*row);
    return true;
}

void MainWindow::sidebarChosen(const SidebarChoice& choice) {
    beginAction();
    // The Trash takes the list's place and leaves its filters as they were.
    m_list.trash().setShowing(choice.kind == SidebarChoice::Kind::trash);
    if (choice.kind == SidebarChoice::Kind::trash) {
        return;
    }
    // One choice may clear one filter and set another: the list is rebuilt
    // once for both, and not at all when the choice is the one shown.
    auto view = m_list.view();
    view.showingHidden = choice.kind == SidebarChoice::Kind::hidden;
    view.circle = choice.kind == SidebarChoice::Kind::circle ? choice.circle : std::nullopt;
    view.accountID =
        choice.kind == SidebarChoice::Kind::account ? std::optional(choice.accountID) : std::nullopt;
    m_list.setView(std::move(view));
}

void MainWindow::setHeadingsPreferred(bool show) {
    m_showHeadings = show;
    m_settings.setValue(kShowHeadingsKey, show);
    updateHeadingsVisibility();
}

bool MainWindow::headingsShown() const {
    return m_headings->isVisibleTo(this);
}

void MainWindow::updateHeadingsVisibility() {
    m_headings->setVisible(m_showHeadings && width() >= kHeadingsMinimumWidth && !m_list.trash().showing());
    m_headingsAction->setText(m_showHeadings ? HeadingsColumn::kHideText : HeadingsColumn::kShowText);
}

void MainWindow::resizeEvent(QResizeEvent* event) {
    QMainWindow::resizeEvent(event);
    updateHeadingsVisibility();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_search && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        switch (key->key()) {
        case Qt::Key_Down:
            m_table->moveSelection(1);
            return true;
        case Qt::Key_Up:
            m_table->moveSelection(-1);
            return true;
        case Qt::Key_PageDown:
            m_table->moveSelection(10);
            return true;
        case Qt::Key_PageUp:
            m_table->moveSelection(-10);
            return true;
        case Qt::Key_Return:
        case Qt::Key_Enter:
            m_table->setFocus();
            if (m_table->selectedID().isEmpty()) {
                m_table->moveSelection(1);
            }
            return true;
        case Qt::Key_Escape:
            m_search->clear();
            return true;
        default:
            break;
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

void MainWindow::focusLeftOfList() {
    if (headingsShown()) {
        m_headings->setFocus();
    } else {
        m_sidebar->setFocus();
    }
}

void MainWindow::focusPage() {
    if (m_pagePersonID.empty()) {
        return;
    }
    ContactFields* fields = m_page->fields();
    fields->setFocus();
    if (fields->currentItem() == nullptr && fields->topLevelItemCount() > 1) {
        // The first entry under the first title.
        fields->setCurrentItem(fields->topLevelItem(1));
    }
}

void MainWindow::reportAction(const ActionResult& result) {
    if (!result.ok()) {
        if (const auto* full = std::get_if<CircleError>(&result.error().error)) {
            m_page->circlePicker()->showRefusal(*full);
        } else {
            auto* alert = new QMessageBox(QMessageBox::Warning, "Vellumary Contacts",
                                          qt(result.error().description()), QMessageBox::Ok, this);
            alert->setAttribute(Qt::WA_DeleteOnClose);
            alert->open();
        }
    }
    m_list.clearActionError();
}

} // namespace kinbook
