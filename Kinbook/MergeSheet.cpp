#include "Kinbook/MergeSheet.h"

#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/LinkService.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace kinbook {
namespace {

QString qt(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

const QString kHint = "The first is the main one other apps use.";

struct NameField {
    const char* title;
    std::string ContactDraft::*member;
};
constexpr NameField kNameFields[] = {
    {"First", &ContactDraft::givenName},       {"Middle", &ContactDraft::middleName},
    {"Last", &ContactDraft::familyName},       {"Prefix", &ContactDraft::namePrefix},
    {"Suffix", &ContactDraft::nameSuffix},     {"Nickname", &ContactDraft::nickname},
    {"Company", &ContactDraft::organization},  {"Job Title", &ContactDraft::jobTitle},
    {"Department", &ContactDraft::department},
};

QString fieldText(const ContactDraft::Field& field) {
    return qt(ContactDraft::labelDisplay(field.label)) + ": " + qt(field.value);
}

QString addressText(const ContactDraft::Address& address) {
    QStringList parts;
    for (const auto* part :
         {&address.street, &address.city, &address.state, &address.postalCode, &address.country}) {
        if (!part->empty()) {
            parts << qt(*part);
        }
    }
    return qt(ContactDraft::labelDisplay(address.label)) + ": " + parts.join(", ");
}

QString linkText(const LinkedAccount& link) {
    return qt(displayName(link.service)) + ": " + qt(link.handle);
}

template <typename Entry>
std::vector<Entry> chosen(const QListWidget* list, const std::vector<Entry>& candidates) {
    std::vector<Entry> entries;
    for (int row = 0; row < list->count(); ++row) {
        const auto* item = list->item(row);
        if (item->checkState() == Qt::Checked) {
            entries.push_back(candidates.at(static_cast<std::size_t>(item->data(Qt::UserRole).toInt())));
        }
    }
    return entries;
}

} // namespace

MergeSheet::MergeSheet(PeopleList& list, std::vector<std::string> selectedIDs, MergePhotoKeeper keepPhotos,
                       QWidget* parent)
    : QDialog(parent), m_list(list), m_selected(std::move(selectedIDs)), m_keepPhotos(std::move(keepPhotos)) {
    setWindowTitle("Merge");
    setObjectName("MergeSheet");
    auto* outer = new QVBoxLayout(this);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    auto* content = new QWidget(scroll);
    m_layout = new QVBoxLayout(content);
    scroll->setWidget(content);
    outer->addWidget(scroll);

    auto* intro = new QLabel(
        "Choose the primary card, then check the result below: pick any card's name or company, or type your "
        "own. Untick anything you don't want, reorder with the arrows, and use a label's menu to mark an "
        "entry "
        "former (ex-). Every card gets the result. The cards stay in their accounts and show as one person.",
        content);
    intro->setWordWrap(true);
    m_layout->addWidget(intro);
    // Circles are not one card's field to pick: the merged person keeps the
    // closest circle any of them was in, and the sheet says so beforehand.
    auto* circleRule = new QLabel("The person keeps the closest circle any of these people was in.", content);
    circleRule->setWordWrap(true);
    m_layout->addWidget(circleRule);

    m_error = new QLabel(this);
    m_error->setWordWrap(true);
    m_error->hide();
    outer->addWidget(m_error);
    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton("Cancel", QDialogButtonBox::RejectRole);
    m_merge = buttons->addButton("Merge", QDialogButtonBox::AcceptRole);
    m_merge->setEnabled(false);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(m_merge, &QPushButton::clicked, this, &MergeSheet::startMerge);
    outer->addWidget(buttons);
    resize(640, 760);
    read();
}

void MergeSheet::read() {
    m_cards = m_list.mergeOrder(m_selected.empty() ? std::string() : m_selected.front(), m_selected);
    auto remaining = std::make_shared<std::size_t>(m_cards.size());
    QPointer<MergeSheet> self(this);
    std::vector<std::string> ids;
    for (const auto& card : m_cards) {
        ids.push_back(card.id);
    }
    const auto readNotes = [this, self, ids] {
        m_list.notes(ids, [this, self](std::map<std::string, std::string> notes) {
            if (!self) {
                return;
            }
            m_notes = std::move(notes);
            fill();
        });
    };
    if (m_cards.empty()) {
        fill();
        return;
    }
    for (const auto& card : m_cards) {
        m_list.card(
            card.id, [this, self, id = card.id, remaining, readNotes](std::optional<ContactCard> read) {
                if (!self) {
                    return;
                }
                if (read) {
                    m_hasPicture[id] = read->image.has_value();
                    auto draft = ContactDraft::fromCard(*read);
                    const std::string name =
                        draft.givenName.empty() && draft.familyName.empty()
                            ? draft.organization
                            : draft.givenName + (draft.givenName.empty() ? "" : " ") + draft.familyName;
                    m_names[id] = name;
                    m_drafts.emplace(id, std::move(draft));
                }
                if (--*remaining == 0) {
                    // A card that is gone by now is left out of the merge.
                    std::erase_if(m_cards, [this](const auto& kept) { return !m_drafts.contains(kept.id); });
                    readNotes();
                }
            });
    }
}

QWidget* MergeSheet::entriesSection(Entries kind, const QString& title) {
    auto* section = new QWidget(this);
    auto* layout = new QVBoxLayout(section);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* heading = new QLabel("<b>Result: " + title + "</b>", section);
    layout->addWidget(heading);
    auto* row = new QHBoxLayout();
    auto* list = new QListWidget(section);
    list->setObjectName("Result" + QString(title).remove(' '));
    m_lists[kind] = list;
    row->addWidget(list);
    auto* arrows = new QVBoxLayout();
    auto* up = new QPushButton("Move up", section);
    auto* down = new QPushButton("Move down", section);
    connect(up, &QPushButton::clicked, this, [this, kind] { moveEntry(kind, -1); });
    connect(down, &QPushButton::clicked, this, [this, kind] { moveEntry(kind, 1); });
    arrows->addWidget(up);
    arrows->addWidget(down);
    if (kind != Entries::links) {
        // The label's menu: mark the entry former (ex-), or current again.
        auto* label = new QPushButton("Label", section);
        auto* menu = new QMenu(label);
        menu->addAction("Former (ex-)", this, [this, kind] { toggleFormer(kind); });
        label->setMenu(menu);
        arrows->addWidget(label);
    }
    arrows->addStretch();
    row->addLayout(arrows);
    layout->addLayout(row);
    layout->addWidget(new QLabel(kHint, section));
    return section;
}

void MergeSheet::fill() {
    m_ready = true;
    if (m_cards.size() < 2) {
        m_error->setText("That contact no longer exists.");
        m_error->show();
        return;
    }

    m_layout->addWidget(new QLabel("<b>Primary Card</b>", this));
    m_primary = new QButtonGroup(this);
    for (std::size_t i = 0; i < m_cards.size(); ++i) {
        auto* choice = new QRadioButton(this);
        choice->setObjectName(qt("Primary-" + m_cards[i].id));
        m_primary->addButton(choice, static_cast<int>(i));
        m_layout->addWidget(choice);
    }
    auto* help =
        new QLabel("The card whose name and photo lead when the cards disagree, and the one \"Sync from "
                   "Primary\" copies from later. It isn't a location: every card stays in its own "
                   "account.",
                   this);
    help->setWordWrap(true);
    m_layout->addWidget(help);
    m_plan = new QLabel(this);
    m_plan->setWordWrap(true);
    m_layout->addWidget(m_plan);

    m_layout->addWidget(new QLabel("<b>Result: Name and Work</b>", this));
    auto* form = new QFormLayout();
    for (const auto& field : kNameFields) {
        auto* combo = new QComboBox(this);
        combo->setEditable(true);
        combo->setToolTip("Pick another card's");
        combo->lineEdit()->setPlaceholderText(field.title);
        m_fields[field.title] = combo;
        form->addRow(field.title, combo);
    }
    m_layout->addLayout(form);

    m_layout->addWidget(entriesSection(Entries::phones, "Phones"));
    m_layout->addWidget(entriesSection(Entries::emails, "Emails"));
    m_layout->addWidget(entriesSection(Entries::addresses, "Addresses"));
    m_layout->addWidget(entriesSection(Entries::links, "Linked Accounts"));

    m_layout->addWidget(new QLabel("<b>Note</b>", this));
    m_note = new QPlainTextEdit(this);
    m_layout->addWidget(m_note);
    m_layout->addWidget(
        new QLabel("Every card's note, together. Edit it here; every card gets this note.", this));

    m_layout->addWidget(new QLabel("<b>Result: Contact Photo</b>", this));
    std::vector<std::string> pictures;
    for (const auto& card : m_cards) {
        if (m_hasPicture[card.id]) {
            pictures.push_back(card.id);
        }
    }
    m_photos = new QButtonGroup(this);
    if (pictures.size() > 1) {
        for (std::size_t i = 0; i < pictures.size(); ++i) {
            auto* choice = new QRadioButton(qt(m_names[pictures[i]]), this);
            choice->setObjectName(qt("Photo-" + pictures[i]));
            choice->setChecked(i == 0);
            m_photos->addButton(choice, static_cast<int>(i));
            m_layout->addWidget(choice);
        }
        m_layout->addWidget(new QLabel("The middle one becomes the contact photo. All " +
                                           QString::number(pictures.size()) + " are kept in their photos.",
                                       this));
    } else {
        m_layout->addWidget(new QLabel("The cards' photo stays their contact photo.", this));
    }
    m_layout->addStretch();

    m_primary->button(0)->setChecked(true);
    connect(m_primary, &QButtonGroup::idClicked, this, [this](int id) {
        const auto name = m_primary->button(id)->objectName();
        choosePrimary(name.mid(int(std::string_view("Primary-").size())).toStdString());
    });
    updatePlan();
    fillEntries();

    std::vector<std::string> notes;
    for (const auto& card : m_cards) {
        const auto found = m_notes.find(card.id);
        notes.push_back(found == m_notes.end() ? std::string() : found->second);
    }
    m_note->setPlainText(qt(Duplicates::combineNotes(notes)));
    m_merge->setEnabled(true);
}

void MergeSheet::choosePrimary(const std::string& cardID) {
    if (!m_ready || m_cards.size() < 2) {
        return;
    }
    auto ordered = m_list.mergeOrder(cardID, m_selected);
    std::erase_if(ordered, [this](const auto& card) { return !m_drafts.contains(card.id); });
    if (ordered.size() < 2) {
        return;
    }
    // The buttons keep their cards: the one for this card is checked.
    for (auto* button : m_primary->buttons()) {
        if (button->objectName() == qt("Primary-" + cardID)) {
            button->setChecked(true);
        }
    }
    m_cards = std::move(ordered);
    updatePlan();
    fillEntries();
}

void MergeSheet::updatePlan() {
    const auto primaryID = m_cards.front().id;
    for (auto* button : m_primary->buttons()) {
        const auto id = button->objectName().mid(int(std::string_view("Primary-").size())).toStdString();
        std::string accounts;
        for (const auto& card : m_cards) {
            if (card.id == id) {
                for (const auto& account : card.accountIDs) {
                    accounts += (accounts.empty() ? "" : ", ") + account;
                }
            }
        }
        button->setText(qt(m_names[id]) + " — " + qt(accounts) + (id == primaryID ? "   Primary" : ""));
    }
    const auto plan = Duplicates::mergePlan(m_cards);
    if (plan.removed.empty()) {
        m_plan->hide();
        return;
    }
    QString text = "<b>One Card per Account</b><br>" + QString::number(plan.removed.size()) + " extra " +
                   (plan.removed.size() == 1 ? "card is" : "cards are") +
                   " in an account that already has one. Their details are copied into the kept card, then "
                   "they are deleted:";
    for (const auto& card : plan.removed) {
        QString accounts;
        for (const auto& account : card.accountIDs) {
            accounts += qt(account);
        }
        text += "<br>• " + qt(m_names[card.id]).toHtmlEscaped() + " (" + accounts.toHtmlEscaped() + ")";
    }
    m_plan->setText(text);
    m_plan->show();
}

void MergeSheet::fillEntries() {
    std::vector<ContactDraft> drafts;
    for (const auto& card : m_cards) {
        drafts.push_back(m_drafts.at(card.id));
    }
    m_entries = Duplicates::mergePrefill(drafts);
    for (const auto& field : kNameFields) {
        auto* combo = m_fields.at(field.title);
        combo->clear();
        for (const auto& draft : drafts) {
            const auto value = qt(draft.*field.member);
            if (!value.isEmpty() && combo->findText(value) < 0) {
                combo->addItem(value);
            }
        }
        combo->setCurrentText(qt(m_entries.*field.member));
    }
    const auto add = [](QListWidget* list, const QString& text, int index) {
        auto* item = new QListWidgetItem(text, list);
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(Qt::Checked);
        item->setData(Qt::UserRole, index);
    };
    for (auto& [kind, list] : m_lists) {
        list->clear();
    }
    for (std::size_t i = 0; i < m_entries.phones.size(); ++i) {
        add(m_lists[Entries::phones], fieldText(m_entries.phones[i]), int(i));
    }
    for (std::size_t i = 0; i < m_entries.emails.size(); ++i) {
        add(m_lists[Entries::emails], fieldText(m_entries.emails[i]), int(i));
    }
    for (std::size_t i = 0; i < m_entries.addresses.size(); ++i) {
        add(m_lists[Entries::addresses], addressText(m_entries.addresses[i]), int(i));
    }
    for (std::size_t i = 0; i < m_entries.links.size(); ++i) {
        add(m_lists[Entries::links], linkText(m_entries.links[i]), int(i));
    }
}

QComboBox* MergeSheet::field(const QString& title) const {
    const auto found = m_fields.find(title);
    return found == m_fields.end() ? nullptr : found->second;
}

QListWidget* MergeSheet::entries(Entries kind) const {
    const auto found = m_lists.find(kind);
    return found == m_lists.end() ? nullptr : found->second;
}

void MergeSheet::moveEntry(Entries kind, int steps) {
    auto* list = entries(kind);
    const int row = list ? list->currentRow() : -1;
    const int target = row + steps;
    if (row < 0 || target < 0 || target >= list->count()) {
        return;
    }
    auto* item = list->takeItem(row);
    list->insertItem(target, item);
    list->setCurrentRow(target);
}

void MergeSheet::toggleFormer(Entries kind) {
    auto* list = entries(kind);
    auto* item = list ? list->currentItem() : nullptr;
    if (item == nullptr) {
        return;
    }
    const auto index = static_cast<std::size_t>(item->data(Qt::UserRole).toInt());
    const auto relabel = [](std::string& label) {
        label = ExLabel::isFormer(label) ? ExLabel::current(label) : ExLabel::former(label);
    };
    if (kind == Entries::phones) {
        relabel(m_entries.phones.at(index).label);
        item->setText(fieldText(m_entries.phones[index]));
    } else if (kind == Entries::emails) {
        relabel(m_entries.emails.at(index).label);
        item->setText(fieldText(m_entries.emails[index]));
    } else if (kind == Entries::addresses) {
        relabel(m_entries.addresses.at(index).label);
        item->setText(addressText(m_entries.addresses[index]));
    }
}

ContactDraft MergeSheet::result() const {
    ContactDraft result;
    for (const auto& field : kNameFields) {
        result.*field.member = m_fields.at(field.title)->currentText().trimmed().toStdString();
    }
    result.phones = chosen(m_lists.at(Entries::phones), m_entries.phones);
    result.emails = chosen(m_lists.at(Entries::emails), m_entries.emails);
    result.addresses = chosen(m_lists.at(Entries::addresses), m_entries.addresses);
    result.links = chosen(m_lists.at(Entries::links), m_entries.links);
    return result;
}

void MergeSheet::startMerge() {
    MergeChoices choices;
    choices.result = result();
    choices.note = m_note->toPlainText().toStdString();
    choices.cardNotes = m_notes;
    choices.keepPhotos = m_keepPhotos;
    if (auto* photo = m_photos->checkedButton()) {
        choices.photoCardID = photo->objectName().mid(int(std::string_view("Photo-").size())).toStdString();
    }
    m_merge->setText("Merging");
    m_merge->setEnabled(false);
    m_error->hide();
    QPointer<MergeSheet> self(this);
    m_list.merge(m_selected, m_cards.front().id, std::move(choices),
                 [this, self](Result<MergeResult, MergeFailure> merged) {
                     if (!self) {
                         return;
                     }
                     if (!merged.ok()) {
                         m_error->setText(qt(merged.error().description()));
                         m_error->show();
                         m_merge->setText("Merge");
                         m_merge->setEnabled(true);
                         return;
                     }
                     Q_EMIT this->merged(qt(merged->id));
                     accept();
                 });
}

} // namespace kinbook
