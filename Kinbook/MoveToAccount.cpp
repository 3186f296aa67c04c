#include "Kinbook/MoveToAccount.h"

#include "Kinbook/QtText.h"
#include "Kinbook/Sidebar.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/records/KinID.h"

#include <QDragMoveEvent>
#include <QDropEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>

namespace kinbook {
namespace {

// How long the summary of a batch stays.
constexpr int kSummaryMilliseconds = 10000;

QString people(std::size_t count) {
    return count == 1 ? QString("1 person") : QString("%1 people").arg(count);
}

std::vector<std::string> droppedPeople(const QMimeData& data) {
    if (!data.hasText()) {
        return {};
    }
    std::vector<std::string> lines;
    for (const QString& line : data.text().split('\n')) {
        lines.push_back(utf8(line.trimmed()));
    }
    return KinID::personIDsFromDrop(lines);
}

} // namespace

MoveToAccount::MoveToAccount(PeopleList& list, Sidebar& sidebar, QWidget* parent)
    : QWidget(parent), m_list(list), m_sidebar(sidebar) {
    setObjectName("MoveBar");
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 2, 10, 2);
    m_text = new QLabel;
    m_text->setObjectName("MoveBarText");
    m_text->setWordWrap(true);
    m_progress = new QProgressBar;
    m_progress->setObjectName("MoveProgress");
    m_progress->setMaximumWidth(160);
    m_progress->setTextVisible(false);
    layout->addWidget(m_text, 1);
    layout->addWidget(m_progress);
    m_timer = new QTimer(this);
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, &QWidget::hide);
    m_sidebar.setAcceptDrops(true);
    m_sidebar.viewport()->setAcceptDrops(true);
    m_sidebar.viewport()->installEventFilter(this);
    hide();
}

QString MoveToAccount::question(std::size_t count, const QString& account, bool copy) {
    const QString who = count == 1 ? QString("this person") : QString("these %1 people").arg(count);
    return QString("%1 %2 to %3?").arg(copy ? "Copy" : "Move", who, account);
}

QString MoveToAccount::explanation(const QString& account, bool copy) {
    if (copy) {
        return QString("They get a card in %1 with everything from their other cards, notes included, and "
                       "stay where they are.")
            .arg(account);
    }
    return QString(
               "They'll be only in %1, with everything from their other cards, notes included. Their cards "
               "in other accounts go to the Trash, so you can restore them.\n\nTo add a copy and leave them "
               "where they are, hold Ctrl while you drop.")
        .arg(account);
}

QString MoveToAccount::text() const {
    return isVisibleTo(parentWidget()) ? m_text->text() : QString();
}

std::string MoveToAccount::accountAt(int row) const {
    const QListWidgetItem* item = m_sidebar.item(row);
    if (item == nullptr ||
        item->data(Sidebar::KindRole).toInt() != static_cast<int>(SidebarChoice::Kind::account)) {
        return {};
    }
    return utf8(item->data(Sidebar::KeyRole).toString());
}

bool MoveToAccount::eventFilter(QObject* watched, QEvent* event) {
    const auto type = event->type();
    if (watched != m_sidebar.viewport() ||
        (type != QEvent::DragEnter && type != QEvent::DragMove && type != QEvent::Drop)) {
        return QWidget::eventFilter(watched, event);
    }
    auto* drag = static_cast<QDropEvent*>(event);
    const bool people = !droppedPeople(*drag->mimeData()).empty();
    if (type == QEvent::DragEnter) {
        if (people) {
            drag->acceptProposedAction();
        }
        return people;
    }
    const int row = m_sidebar.row(m_sidebar.itemAt(drag->position().toPoint()));
    const bool onAccount = people && !accountAt(row).empty() && !m_list.bulkProgress();
    const bool copy = (drag->modifiers() & Qt::ControlModifier) != 0;
    if (!onAccount) {
        drag->ignore();
        return true;
    }
    drag->setDropAction(copy ? Qt::CopyAction : Qt::MoveAction);
    drag->accept();
    if (type == QEvent::Drop) {
        drop(*drag->mimeData(), row, copy);
    }
    return true;
}

bool MoveToAccount::drop(const QMimeData& dropped, int row, bool copy) {
    auto ids = droppedPeople(dropped);
    const std::string accountID = accountAt(row);
    if (ids.empty() || accountID.empty() || m_list.bulkProgress() || m_confirm) {
        return false;
    }
    const QString account = qt(m_list.membership().accountName(accountID));
    m_confirm = new QMessageBox(QMessageBox::Question, copy ? "Copy to Account" : "Move to Account",
                                question(ids.size(), account, copy), QMessageBox::NoButton, this);
    m_confirm->setObjectName("MoveToAccountConfirmation");
    m_confirm->setInformativeText(explanation(account, copy));
    QPushButton* go = m_confirm->addButton(copy ? "Copy" : "Move", QMessageBox::AcceptRole);
    go->setObjectName("ConfirmMoveToAccount");
    m_confirm->addButton(QMessageBox::Cancel);
    m_confirm->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_confirm, &QMessageBox::finished, this,
            [this, go, box = QPointer(m_confirm), ids = std::move(ids), accountID, copy]() mutable {
                if (box && box->clickedButton() == go) {
                    start(std::move(ids), accountID, copy);
                }
            });
    m_confirm->open();
    return true;
}

void MoveToAccount::start(std::vector<std::string> personIDs, const std::string& accountID, bool copy) {
    const QString account = qt(m_list.membership().accountName(accountID));
    m_list.moveToAccount(
        personIDs, accountID, copy, [self = QPointer(this), account, copy](MoveOutcome outcome) {
            if (!self) {
                return;
            }
            QString text =
                QString("%1 %2 to %3.").arg(copy ? "Copied" : "Moved", people(outcome.moved), account);
            if (!outcome.failures.empty()) {
                QStringList failures;
                for (const auto& failure : outcome.failures) {
                    failures << qt(failure);
                }
                text +=
                    QString(" %1 couldn't be %2: %3")
                        .arg(people(outcome.failures.size()), copy ? "copied" : "moved", failures.join("; "));
            }
            if (!outcome.leftOut.empty()) {
                QStringList leftOut;
                for (const auto& field : outcome.leftOut) {
                    leftOut << qt(field);
                }
                text += QString(" %1 doesn't take everything, so some copies lack details: %2")
                            .arg(account, leftOut.join("; "));
            }
            self->m_text->setText(text);
            self->m_progress->hide();
            self->show();
            self->m_timer->start(kSummaryMilliseconds);
            Q_EMIT self->batchFinished();
        });
}

void MoveToAccount::refresh() {
    const auto& progress = m_list.bulkProgress();
    if (!progress) {
        m_progress->hide();
        return;
    }
    m_text->setText(qt(progress->label) + QString("\u2026"));
    m_progress->setRange(0, static_cast<int>(progress->total));
    m_progress->setValue(static_cast<int>(progress->done));
    m_progress->show();
    m_timer->stop();
    show();
}

} // namespace kinbook
