#pragma once

#include "KinbookKit/records/Person.h"

#include <QMessageBox>
#include <QPointer>
#include <QWidget>
#include <optional>
#include <string>

class QLabel;
class QListWidget;
class QListWidgetItem;

class QPushButton;

namespace kinbook {

class PeopleList;

// The accounts on a person's page as a check list: every account, checked
// where the person has a card. Checking one adds a copy of the person there;
// unchecking one, once confirmed, deletes their card there. The last checked
// account can't be unchecked. With several accounts, "Sync from Primary"
// copies the primary card's details over the others.
class AccountsSection final : public QWidget {
    Q_OBJECT
public:
    static constexpr const char* kHint =
        "Uncheck an account to take this person out of it. They stay in the others.";
    static constexpr const char* kLastAccount = "A contact has to stay in at least one account.";
    static constexpr const char* kRemoveText =
        "This person's card in that account is deleted. They stay in your other accounts.";
    static constexpr const char* kSyncHelp =
        "Copy the primary card's details to the other accounts' cards. Names, work, phones, e-mails, "
        "addresses, links, the birthday and other dates are copied; what the primary card leaves empty stays "
        "as each "
        "card has it.";

    explicit AccountsSection(PeopleList& list, QWidget* parent = nullptr);

    // Shows the person's accounts; none: nobody is shown.
    void showPerson(const Person* person);

    QListWidget* checkList() const { return m_checks; }
    QPushButton* syncButton() const { return m_sync; }
    // The open question before a card is deleted; null when none.
    QMessageBox* confirmation() const { return m_confirm; }
    // What the last change said: a failure, or fields an account left out.
    QString message() const;

Q_SIGNALS:
    void changeFinished();

private:
    void itemChanged(QListWidgetItem* item);
    void add(const std::string& accountID);
    void remove(const std::string& accountID);
    void sync();
    void finished(const QString& message);

    PeopleList& m_list;
    std::optional<Person> m_person;
    QLabel* m_hint = nullptr;
    QListWidget* m_checks = nullptr;
    QPushButton* m_sync = nullptr;
    QLabel* m_message = nullptr;
    QPointer<QMessageBox> m_confirm;
    bool m_rebuilding = false;
    bool m_busy = false;
};

} // namespace kinbook
