#pragma once

#include "KinbookKit/records/ContactDraft.h"

#include <QDialog>
#include <QString>
#include <optional>
#include <string>

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace kinbook {

class PeopleList;

// Edits one entry of a card in place (a phone, e-mail, web address or
// address), from the person's page: double-click or F2 on its row. Only that
// entry's value changes; its label and identity stay. The card is read afresh
// when saving, so an entry that went meanwhile is said to be gone rather than
// brought back.
class QuickEditor final : public QDialog {
    Q_OBJECT
public:
    static constexpr const char* contactGone = "This contact is gone.";
    static constexpr const char* addressGone = "This address is gone. It may have changed elsewhere.";

    QuickEditor(PeopleList& list, std::string cardID, std::string entryID, QWidget* parent = nullptr);

    bool isLoaded() const { return m_loaded; }
    // The text shown when the entry or contact can't be edited; empty when none.
    QString errorText() const;
    // The value of a phone, e-mail or web address; null for an address.
    QLineEdit* valueEdit() const { return m_value; }
    // An address's street (a whole pasted address is split into its parts)
    // and its city, state, postal code and country.
    QPlainTextEdit* streetEdit() const { return m_street; }
    QLineEdit* addressPart(int part) const;

    void save();

Q_SIGNALS:
    void loaded();

private:
    enum class Kind { field, address };
    void showDraft(const ContactDraft& draft);
    void showError(const QString& text);
    // Puts the edit into a fresh draft; false when the entry is gone from it.
    bool apply(ContactDraft& draft) const;

    PeopleList& m_list;
    std::string m_cardID;
    std::string m_entryID;
    Kind m_kind = Kind::field;
    int m_fieldList = 0; // phones, e-mails or web addresses
    std::string m_label;
    bool m_loaded = false;
    QLineEdit* m_value = nullptr;
    QPlainTextEdit* m_street = nullptr;
    QLineEdit* m_parts[4] = {};
    QLabel* m_error = nullptr;
    QPushButton* m_save = nullptr;
};

} // namespace kinbook
