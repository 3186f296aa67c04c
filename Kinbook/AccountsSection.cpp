#include "Kinbook/AccountsSection.h"

#include "Kinbook/QtText.h"
#include "KinbookKit/people/PeopleList.h"

#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

namespace kinbook {

namespace {
constexpr int kAccountRole = Qt::UserRole + 1;
} // namespace

AccountsSection::AccountsSection(PeopleList& list, QWidget* parent) : QWidget(parent), m_list(list) {
    setObjectName("AccountsSection");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* title = new QLabel("Accounts");
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    m_hint = new QLabel(kHint);
    m_hint->setObjectName("AccountsHint");
    m_hint->setWordWrap(true);
    m_hint->setEnabled(false);
    m_checks = new QListWidget;
    m_checks->setObjectName("AccountChecks");
    m_checks->setFrameShape(QFrame::NoFrame);
    m_checks->setAccessibleName("Accounts");
    m_sync = new QPushButton("Sync from Primary");
    m_sync->setObjectName("SyncFromPrimary");
    m_sync->setToolTip(kSyncHelp);
    m_message = new QLabel;
    m_message->setObjectName("AccountsMessage");
    m_message->setWordWrap(true);
    m_message->hide();
    layout->addWidget(title);
    layout->addWidget(m_hint);
    layout->addWidget(m_checks);
    layout->addWidget(m_sync, 0, Qt::AlignLeft);
    layout->addWidget(m_message);
    connect(m_checks, &QListWidget::itemChanged, this, &AccountsSection::itemChanged);
    connect(m_sync, &QPushButton::clicked, this, &AccountsSection::sync);
}

QString AccountsSection::message() const {
    return m_message->isHidden() ? QString() : m_message->text();
}

void AccountsSection::showPerson(const Person* person) {
    if (!person || !m_person || m_person->id != person->id) {
        m_message->hide();
        if (m_confirm) {
            m_confirm->close();
        }
    }
    m_person = person ? std::optional<Person>(*person) : std::nullopt;
    m_rebuilding = true;
    m_checks->clear();
    if (m_person) {
        const auto& held = m_person->accountIDs;
        const bool last = held.size() == 1;
        for (const Account& account : m_list.accounts()) {
            auto* item = new QListWidgetItem(qt(account.name), m_checks);
            item->setData(kAccountRole, qt(account.id));
            const bool in = std::find(held.begin(), held.end(), account.id) != held.end();
            Qt::ItemFlags flags = Qt::ItemIsUserCheckable | Qt::ItemIsEnabled;
            if ((in && last) || m_busy) {
                flags &= ~Qt::ItemIsEnabled;
            }
            item->setFlags(flags);
            item->setCheckState(in ? Qt::Checked : Qt::Unchecked);
            if (in && last) {
                item->setToolTip(kLastAccount);
            }
        }
        m_checks->setFixedHeight(m_checks->sizeHintForRow(0) * m_checks->count() + 4);
        m_sync->setVisible(held.size() > 1);
        m_sync->setEnabled(!m_busy);
    }
    m_rebuilding = false;
}

void AccountsSection::itemChanged(QListWidgetItem* item) {
    if (m_rebuilding || !m_person || m_busy) {
        return;
    }
    const std::string accountID = utf8(item->data(kAccountRole).toString());
    if (item->checkState() == Qt::Checked) {
        add(accountID);
        return;
    }
    // Taking a card away deletes it: ask first, and put the tick back when not.
    m_confirm = new QMessageBox(QMessageBox::Question, "Remove from Account",
                                QString("Take %1 out of %2?").arg(qt(m_person->displayName()), item->text()),
                                QMessageBox::NoButton, this);
    m_confirm->setObjectName("RemoveFromAccountConfirmation");
    m_confirm->setInformativeText(kRemoveText);
    QPushButton* remove = m_confirm->addButton("Remove", QMessageBox::DestructiveRole);
    remove->setObjectName("ConfirmRemoveFromAccount");
    m_confirm->addButton(QMessageBox::Cancel);
    m_confirm->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_confirm, &QMessageBox::finished, this, [this, remove, accountID, item = QPointer(m_confirm)] {
        if (item && item->clickedButton() == remove) {
            this->remove(accountID);
        } else if (m_person) {
            showPerson(&*m_person);
        }
    });
    m_confirm->open();
}

void AccountsSection::add(const std::string& accountID) {
    m_busy = true;
    m_checks->setEnabled(false);
    const auto name = m_list.membership().accountName(accountID);
    m_list.addToAccount(
        m_person->id, accountID, [self = QPointer(this), name](Result<AddedCopy, AccountError> result) {
            if (!self) {
                return;
            }
            QString message;
            if (!result.ok()) {
                message = QString("Couldn't add to %1: %2").arg(qt(name), qt(result.error().description()));
            } else if (!result->leftOut.empty()) {
                QStringList fields;
                for (const auto& field : result->leftOut) {
                    fields << qt(field);
                }
                message = QString("%1 doesn't take some details, so the copy there has no %2.")
                              .arg(qt(name), fields.join(" and "));
            }
            self->finished(message);
        });
}

void AccountsSection::remove(const std::string& accountID) {
    if (!m_person) {
        return;
    }
    m_busy = true;
    m_checks->setEnabled(false);
    m_list.removeFromAccount(
        m_person->id, accountID, [self = QPointer(this)](Result<void, AccountError> result) {
            if (self) {
                self->finished(result.ok() ? QString() : qt(result.error().description()));
            }
        });
}

void AccountsSection::sync() {
    if (!m_person || m_busy) {
        return;
    }
    m_busy = true;
    m_sync->setEnabled(false);
    m_list.syncFromPrimary(m_person->id, [self = QPointer(this)](Result<std::size_t, AccountError> result) {
        if (self) {
            self->finished(result.ok() ? QString() : qt(result.error().description()));
        }
    });
}

void AccountsSection::finished(const QString& message) {
    m_busy = false;
    m_checks->setEnabled(true);
    m_message->setText(message);
    m_message->setVisible(!message.isEmpty());
    // The list has read the cards again: show where the person is now.
    const auto person = m_person ? m_list.person(m_person->id) : nullptr;
    showPerson(person.get());
    if (!message.isEmpty()) {
        m_message->setText(message);
        m_message->show();
    }
    Q_EMIT changeFinished();
}

} // namespace kinbook
