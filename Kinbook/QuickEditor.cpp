#include "Kinbook/QuickEditor.h"

#include "Kinbook/QtText.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AddressParser.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

namespace kinbook {
namespace {

std::vector<ContactDraft::Field>* fieldList(ContactDraft& draft, int which) {
    std::vector<ContactDraft::Field>* lists[] = {&draft.phones, &draft.emails, &draft.urls};
    return lists[which];
}

// The field with this identity and the list it is in.
ContactDraft::Field* findField(ContactDraft& draft, const std::string& id, int* which = nullptr) {
    for (int list = 0; list < 3; ++list) {
        for (auto& field : *fieldList(draft, list)) {
            if (field.id == id) {
                if (which != nullptr) {
                    *which = list;
                }
                return &field;
            }
        }
    }
    return nullptr;
}

ContactDraft::Address* findAddress(ContactDraft& draft, const std::string& id) {
    for (auto& address : draft.addresses) {
        if (address.id == id) {
            return &address;
        }
    }
    return nullptr;
}

// The store's answer as the quick editor says it: a card that is gone is the
// contact gone.
QString failureText(const ActionError& error) {
    if (const auto* store = std::get_if<AddressBookError>(&error.error);
        store != nullptr && store->code == AddressBookError::Code::notFound) {
        return QuickEditor::contactGone;
    }
    return qt(error.description());
}

} // namespace

QuickEditor::QuickEditor(PeopleList& list, std::string cardID, std::string entryID, QWidget* parent)
    : QDialog(parent), m_list(list), m_cardID(std::move(cardID)), m_entryID(std::move(entryID)) {
    setObjectName("QuickEditor");
    setWindowTitle("Edit");
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout();
    layout->addLayout(form);
    m_value = new QLineEdit(this);
    m_value->setObjectName("QuickValue");
    form->addRow(m_value);
    m_street = new QPlainTextEdit(this);
    m_street->setObjectName("QuickStreet");
    m_street->setTabChangesFocus(true);
    m_street->setFixedHeight(m_street->fontMetrics().lineSpacing() * 3);
    form->addRow("Street", m_street);
    const char* names[] = {"City", "State", "Postal code", "Country"};
    for (int i = 0; i < 4; ++i) {
        m_parts[i] = new QLineEdit(this);
        m_parts[i]->setObjectName(QString("Quick") + QString(names[i]).remove(' '));
        form->addRow(names[i], m_parts[i]);
    }
    // A whole address pasted into the street is split into its parts, the
    // unit (apartment, suite) on the street's second line.
    connect(m_street, &QPlainTextEdit::textChanged, this, [this] {
        const QString text = m_street->toPlainText();
        if (!(text.contains(',') || text.contains('\n'))) {
            return;
        }
        for (QLineEdit* part : m_parts) {
            if (!part->text().isEmpty()) {
                return;
            }
        }
        const auto parsed = AddressParser::parse(utf8(text));
        if (!parsed) {
            return;
        }
        const QSignalBlocker blocker(m_street);
        m_street->setPlainText(qt(parsed->street));
        m_parts[0]->setText(qt(parsed->city));
        m_parts[1]->setText(qt(parsed->state));
        m_parts[2]->setText(qt(parsed->postalCode));
        m_parts[3]->setText(qt(parsed->country));
    });
    m_error = new QLabel(this);
    m_error->setObjectName("QuickError");
    m_error->setWordWrap(true);
    m_error->hide();
    layout->addWidget(m_error);
    auto* buttons = new QDialogButtonBox(this);
    m_save = buttons->addButton("Save", QDialogButtonBox::AcceptRole);
    m_save->setDefault(true);
    m_save->setEnabled(false);
    connect(m_save, &QPushButton::clicked, this, &QuickEditor::save);
    connect(buttons->addButton(QDialogButtonBox::Cancel), &QPushButton::clicked, this, &QDialog::reject);
    layout->addWidget(buttons);

    m_list.editing().draft(m_cardID, [self = QPointer(this)](Result<ContactDraft, ActionError> read) {
        if (!self) {
            return;
        }
        if (!read.ok()) {
            self->showError(failureText(read.error()));
            return;
        }
        self->showDraft(read.value());
    });
}

void QuickEditor::showDraft(const ContactDraft& draft) {
    ContactDraft copy = draft;
    if (const auto* field = findField(copy, m_entryID, &m_fieldList)) {
        m_kind = Kind::field;
        m_label = field->label;
        m_value->setText(qt(field->value));
    } else if (const auto* address = findAddress(copy, m_entryID)) {
        m_kind = Kind::address;
        const QSignalBlocker blocker(m_street);
        m_street->setPlainText(qt(address->street));
        m_parts[0]->setText(qt(address->city));
        m_parts[1]->setText(qt(address->state));
        m_parts[2]->setText(qt(address->postalCode));
        m_parts[3]->setText(qt(address->country));
    } else {
        showError(addressGone);
        return;
    }
    const bool isAddress = m_kind == Kind::address;
    m_value->setVisible(!isAddress);
    m_street->setVisible(isAddress);
    for (QLineEdit* part : m_parts) {
        part->setVisible(isAddress);
    }
    auto* form = static_cast<QFormLayout*>(layout()->itemAt(0)->layout());
    for (QWidget* widget : {static_cast<QWidget*>(m_street), static_cast<QWidget*>(m_parts[0]),
                            static_cast<QWidget*>(m_parts[1]), static_cast<QWidget*>(m_parts[2]),
                            static_cast<QWidget*>(m_parts[3])}) {
        if (QWidget* label = form->labelForField(widget)) {
            label->setVisible(isAddress);
        }
    }
    (isAddress ? static_cast<QWidget*>(m_street) : m_value)->setFocus();
    m_loaded = true;
    m_save->setEnabled(true);
    Q_EMIT loaded();
}

QLineEdit* QuickEditor::addressPart(int part) const {
    return part >= 0 && part < 4 ? m_parts[part] : nullptr;
}

QString QuickEditor::errorText() const {
    return m_error->isVisible() ? m_error->text() : QString();
}

void QuickEditor::showError(const QString& text) {
    m_error->setText(text);
    m_error->show();
}

bool QuickEditor::apply(ContactDraft& draft) const {
    if (m_kind == Kind::field) {
        if (auto* field = findField(draft, m_entryID)) {
            field->value = utf8(m_value->text());
        } else {
            // A number or e-mail that went meanwhile is saved as a new entry.
            fieldList(draft, m_fieldList)->push_back({m_entryID, m_label, utf8(m_value->text()), true});
        }
        return true;
    }
    auto* address = findAddress(draft, m_entryID);
    if (address == nullptr) {
        return false;
    }
    address->street = utf8(m_street->toPlainText());
    address->city = utf8(m_parts[0]->text());
    address->state = utf8(m_parts[1]->text());
    address->postalCode = utf8(m_parts[2]->text());
    address->country = utf8(m_parts[3]->text());
    return true;
}

void QuickEditor::save() {
    if (!m_loaded) {
        return;
    }
    m_save->setEnabled(false);
    // The card as it is now: the edit goes onto what the store holds.
    m_list.editing().draft(m_cardID, [self = QPointer(this)](Result<ContactDraft, ActionError> read) {
        if (!self) {
            return;
        }
        if (!read.ok()) {
            self->showError(failureText(read.error()));
            return;
        }
        ContactDraft draft = std::move(read.value());
        if (!self->apply(draft)) {
            self->showError(addressGone);
            return;
        }
        self->m_list.editing().save(std::move(draft), [self](Result<SavedContact, ActionError> saved) {
            if (!self) {
                return;
            }
            if (!saved.ok()) {
                self->m_save->setEnabled(true);
                self->showError(failureText(saved.error()));
                return;
            }
            self->accept();
        });
    });
}

} // namespace kinbook
