#include "Kinbook/TrashView.h"

#include "Kinbook/QtText.h"
#include "KinbookKit/people/PeopleList.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QMessageBox>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <set>

namespace kinbook {
namespace {

constexpr int kItemIDRole = Qt::UserRole + 1;

QString shownDate(std::chrono::system_clock::time_point when) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    return QLocale().toString(QDateTime::fromMSecsSinceEpoch(ms), QLocale::ShortFormat);
}

QString people(std::size_t count) {
    return count == 1 ? QString("1 person") : QString("%1 people").arg(count);
}

} // namespace

TrashView::TrashView(PeopleList& list, QWidget* parent) : QWidget(parent), m_list(list) {
    setObjectName("TrashView");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 12, 16, 12);

    m_title = new QLabel;
    m_title->setObjectName("TrashTitle");
    QFont big = m_title->font();
    big.setPointSizeF(big.pointSizeF() * 1.4);
    big.setBold(true);
    m_title->setFont(big);
    m_explanation = new QLabel;
    m_explanation->setObjectName("TrashExplanation");
    m_explanation->setWordWrap(true);
    layout->addWidget(m_title);
    layout->addWidget(m_explanation);

    m_entries = new QListWidget;
    m_entries->setObjectName("TrashEntries");
    m_entries->setAccessibleName("Trash");
    m_entries->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_entries->setAlternatingRowColors(true);
    layout->addWidget(m_entries, 1);

    m_message = new QLabel;
    m_message->setObjectName("TrashMessage");
    m_message->setWordWrap(true);
    m_message->hide();
    layout->addWidget(m_message);

    auto* buttons = new QHBoxLayout;
    m_restore = new QPushButton("Restore");
    m_restore->setObjectName("TrashRestore");
    m_forever = new QPushButton("Delete Forever");
    m_forever->setObjectName("TrashDeleteForever");
    m_empty = new QPushButton("Empty Trash");
    m_empty->setObjectName("TrashEmpty");
    buttons->addWidget(m_restore);
    buttons->addWidget(m_forever);
    buttons->addStretch(1);
    buttons->addWidget(m_empty);
    layout->addLayout(buttons);

    connect(m_restore, &QPushButton::clicked, this, &TrashView::restoreSelected);
    connect(m_forever, &QPushButton::clicked, this, &TrashView::deleteSelectedForever);
    connect(m_empty, &QPushButton::clicked, this, &TrashView::confirmEmpty);
    connect(m_entries, &QListWidget::itemSelectionChanged, this, [this] { setBusy(m_busy); });
    connect(m_entries, &QListWidget::itemDoubleClicked, this, &TrashView::restoreSelected);
    refresh();
}

QString TrashView::rowText(const std::string& name, const QString& date,
                           const std::vector<std::string>& accounts) {
    QStringList names;
    for (const auto& account : accounts) {
        names << qt(account);
    }
    return QString("%1\n%2 \u00B7 %3").arg(qt(name), date, names.join(", "));
}

void TrashView::refresh() {
    const PeopleTrash& trash = m_list.trash();
    if (!trash.trash()) {
        // The sidecar folder is where the way back is kept; without it
        // nothing is deleted, so there is nothing here either.
        m_title->setText("Trash Needs a Sidecar Folder");
        m_explanation->setText("Deleted contacts are kept in the sidecar folder.");
        m_entries->clear();
        m_entries->hide();
        m_restore->hide();
        m_forever->hide();
        m_empty->hide();
        return;
    }
    const auto& items = trash.items();
    m_title->setText(items.empty() ? QString("Trash Is Empty") : QString("%1 in Trash").arg(items.size()));
    m_explanation->setText("Deleted contacts wait here until you empty the Trash.");
    m_entries->show();
    m_restore->show();
    m_forever->show();
    m_empty->show();

    // The selection survives a reread: entries are named by their file.
    std::set<QString> selected;
    for (const auto* item : m_entries->selectedItems()) {
        selected.insert(item->data(kItemIDRole).toString());
    }
    const QSignalBlocker quiet(m_entries);
    m_entries->clear();
    for (const TrashItem& entry : items) {
        auto* row =
            new QListWidgetItem(rowText(entry.name, shownDate(entry.deletedAt), entry.accounts), m_entries);
        row->setData(kItemIDRole, qt(entry.id));
        row->setSelected(selected.contains(qt(entry.id)));
    }
    setBusy(m_busy);
}

void TrashView::setBusy(bool busy) {
    m_busy = busy;
    const bool chosen = !m_entries->selectedItems().isEmpty();
    m_restore->setEnabled(!busy && chosen);
    m_forever->setEnabled(!busy && chosen);
    m_empty->setEnabled(!busy && m_entries->count() > 0);
}

void TrashView::showMessage(const QString& text) {
    m_message->setText(text);
    m_message->setVisible(!text.isEmpty());
}

QString TrashView::titleText() const {
    return m_title->text();
}

QString TrashView::explanationText() const {
    return m_explanation->text();
}

QString TrashView::messageText() const {
    return m_message->isVisibleTo(this) ? m_message->text() : QString();
}

void TrashView::restoreSelected() {
    const auto rows = m_entries->selectedItems();
    if (m_busy || rows.size() != 1) {
        if (rows.size() > 1) {
            showMessage("Choose one entry to restore.");
        }
        return;
    }
    const std::string id = utf8(rows.front()->data(kItemIDRole).toString());
    showMessage({});
    setBusy(true);
    m_list.restore(id, [self = QPointer(this)](Result<RestoreOutcome, ActionError> result) {
        if (!self) {
            return;
        }
        self->setBusy(false);
        if (!result.ok()) {
            self->showMessage("Couldn't restore: " + qt(result.error().description()));
        } else if (!result->movedToDefault.empty()) {
            // Their account is gone; they are back, but not where they were.
            QStringList gone;
            for (const auto& name : result->movedToDefault) {
                gone << qt(name);
            }
            gone.removeDuplicates();
            self->showMessage(
                QString("Restored to the default account: %1 is no longer there.").arg(gone.join(", ")));
        }
        Q_EMIT self->actionFinished();
    });
}

void TrashView::deleteSelectedForever() {
    std::vector<std::string> ids;
    for (const auto* row : m_entries->selectedItems()) {
        ids.push_back(utf8(row->data(kItemIDRole).toString()));
    }
    if (m_busy || ids.empty()) {
        return;
    }
    showMessage({});
    setBusy(true);
    removeNext(std::move(ids), 0);
}

void TrashView::removeNext(std::vector<std::string> ids, std::size_t at) {
    // One entry after the other; the first failure stops and says so.
    if (at == ids.size()) {
        setBusy(false);
        Q_EMIT actionFinished();
        return;
    }
    const std::string id = ids[at];
    m_list.trash().remove(
        id, [self = QPointer(this), ids = std::move(ids), at](Result<void, std::string> result) mutable {
            if (!self) {
                return;
            }
            if (!result.ok()) {
                self->setBusy(false);
                self->showMessage("Couldn't delete: " + qt(result.error()));
                Q_EMIT self->actionFinished();
                return;
            }
            self->removeNext(std::move(ids), at + 1);
        });
}

void TrashView::confirmEmpty() {
    const std::size_t count = m_list.trash().items().size();
    if (m_busy || count == 0 || m_confirm) {
        return;
    }
    m_confirm = new QMessageBox(QMessageBox::Warning, "Empty the Trash?", "Empty the Trash?",
                                QMessageBox::NoButton, this);
    m_confirm->setObjectName("EmptyTrashConfirmation");
    m_confirm->setInformativeText(QString("%1 contacts will be gone for good.").arg(count));
    QPushButton* empty = m_confirm->addButton("Empty Trash", QMessageBox::DestructiveRole);
    empty->setObjectName("ConfirmEmptyTrash");
    m_confirm->addButton(QMessageBox::Cancel);
    m_confirm->setDefaultButton(QMessageBox::Cancel);
    m_confirm->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_confirm, &QMessageBox::finished, this, [this, empty] {
        const bool agreed = m_confirm->clickedButton() == empty;
        m_confirm = nullptr;
        if (!agreed) {
            return;
        }
        showMessage({});
        setBusy(true);
        m_list.emptyTrash([self = QPointer(this)](Result<std::size_t, std::string> result) {
            if (!self) {
                return;
            }
            self->setBusy(false);
            if (!result.ok()) {
                self->showMessage("Couldn't empty the Trash: " + qt(result.error()));
            }
            Q_EMIT self->actionFinished();
        });
    });
    m_confirm->open();
}

TrashBar::TrashBar(PeopleList& list, QWidget* parent) : QWidget(parent), m_list(list) {
    setObjectName("TrashBar");
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 2, 10, 2);
    m_text = new QLabel;
    m_text->setObjectName("TrashBarText");
    m_progress = new QProgressBar;
    m_progress->setObjectName("TrashProgress");
    m_progress->setMaximumWidth(160);
    m_progress->setTextVisible(false);
    m_undo = new QPushButton("Undo");
    m_undo->setObjectName("TrashUndo");
    layout->addWidget(m_text, 1);
    layout->addWidget(m_progress);
    layout->addWidget(m_undo);
    m_timer = new QTimer(this);
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, [this] {
        m_undoIDs.clear();
        hide();
    });
    connect(m_undo, &QPushButton::clicked, this, &TrashBar::undo);
    hide();
}

QString TrashBar::text() const {
    return isVisibleTo(parentWidget()) ? m_text->text() : QString();
}

void TrashBar::refresh() {
    const auto& progress = m_list.trash().progress();
    if (!progress) {
        m_progress->hide();
        return;
    }
    // A batch of one is over before a bar would mean anything.
    if (progress->second > 1) {
        m_text->setText(QString("Moving %1 to the Trash\u2026").arg(people(progress->second)));
        m_progress->setRange(0, static_cast<int>(progress->second));
        m_progress->setValue(static_cast<int>(progress->first));
        m_progress->show();
        m_undo->hide();
        m_timer->stop();
        show();
    }
}

void TrashBar::trashPeople(std::vector<std::string> personIDs) {
    if (personIDs.empty() || !m_list.trash().trash()) {
        return;
    }
    std::set<std::string> before;
    for (const auto& item : m_list.trash().items()) {
        before.insert(item.id);
    }
    m_list.trash(std::move(personIDs), [self = QPointer(this), before](TrashOutcome outcome) {
        if (!self) {
            return;
        }
        // The entries this batch wrote: what Undo brings back.
        self->m_undoIDs.clear();
        for (const auto& item : self->m_list.trash().items()) {
            if (!before.contains(item.id)) {
                self->m_undoIDs.push_back(item.id);
            }
        }
        QString text = QString("Moved %1 to the Trash.").arg(people(outcome.trashed));
        if (outcome.failed > 0) {
            text += QString(" %1 couldn't be moved; the log says why.").arg(people(outcome.failed));
        }
        self->m_text->setText(text);
        self->m_progress->hide();
        self->m_undo->setVisible(!self->m_undoIDs.empty());
        self->m_list.editing().recordTrash(self->m_undoIDs);
        self->show();
        self->m_timer->start(kUndoMilliseconds);
        Q_EMIT self->trashFinished();
    });
}

void TrashBar::undo() {
    if (m_undoIDs.empty()) {
        return;
    }
    m_timer->stop();
    m_undo->hide();
    m_text->setText("Restoring\u2026");
    undoNext(std::exchange(m_undoIDs, {}), 0, 0, {});
}

void TrashBar::undoNext(std::vector<std::string> ids, std::size_t next, std::size_t restored,
                        QString failure) {
    if (next == ids.size()) {
        m_text->setText(failure.isEmpty() ? QString("Restored %1.").arg(people(restored)) : failure);
        m_timer->start(kUndoMilliseconds);
        Q_EMIT undoFinished();
        return;
    }
    const std::string id = ids[next];
    m_list.restore(id, [self = QPointer(this), ids = std::move(ids), next, restored,
                        failure](Result<RestoreOutcome, ActionError> result) mutable {
        if (!self) {
            return;
        }
        // One entry that won't come back stays in the Trash; the rest go on.
        if (!result.ok()) {
            failure = "Couldn't restore everyone: " + qt(result.error().description());
        } else if (!result->movedToDefault.empty() && failure.isEmpty()) {
            failure = "Restored; some cards went to the default account, as their account is gone.";
        }
        self->undoNext(std::move(ids), next + 1, restored + (result.ok() ? 1 : 0), std::move(failure));
    });
}

} // namespace kinbook
