#include "Kinbook/ContactPage.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/PhotoGrid.h"
#include "Kinbook/PosterHeader.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/CodePoints.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QVBoxLayout>
#include <algorithm>
#include <set>

namespace kinbook {
namespace {

constexpr int kPictureSize = 72;

QString joinNonEmpty(std::initializer_list<std::string_view> parts, const char* separator) {
    QStringList kept;
    for (std::string_view part : parts) {
        if (!part.empty()) {
            kept << qt(part);
        }
    }
    return kept.join(separator);
}

QString folded(std::string_view text) {
    return qt(text).toLower();
}

} // namespace

ContactFields::ContactFields(QWidget* parent) : QTreeWidget(parent) {
    setObjectName("ContactFields");
    setAccessibleName("Contact details");
    setColumnCount(2);
    setHeaderHidden(true);
    setRootIsDecorated(false);
    setIndentation(0);
    setUniformRowHeights(false);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setFrameShape(QFrame::NoFrame);
    setWordWrap(true);
    setContextMenuPolicy(Qt::CustomContextMenu);
    header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    header()->setStretchLastSection(true);
}

void ContactFields::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Left && event->modifiers() == Qt::NoModifier) {
        Q_EMIT leaveLeftRequested();
        event->accept();
        return;
    }
    if (event->key() == Qt::Key_F2 && event->modifiers() == Qt::NoModifier) {
        Q_EMIT editRowRequested(currentItem());
        event->accept();
        return;
    }
    // Enter in the list opens the page; Enter on the page edits the person.
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) &&
        (event->modifiers() == Qt::NoModifier || event->modifiers() == Qt::KeypadModifier)) {
        Q_EMIT editPersonRequested();
        event->accept();
        return;
    }
    QTreeWidget::keyPressEvent(event);
}

ContactPage::ContactPage(QWidget* parent) : QWidget(parent) {
    setObjectName("ContactPage");
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);

    m_empty = new QLabel("No one selected", this);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setEnabled(false);
    outer->addWidget(m_empty);

    m_body = new QWidget(this);
    auto* layout = new QVBoxLayout(m_body);
    layout->setContentsMargins(20, 16, 20, 8);
    layout->setSpacing(8);

    m_poster = new PosterHeader(m_body);
    auto* top = new QHBoxLayout(m_poster);
    m_picture = new QLabel(m_body);
    m_picture->setFixedSize(kPictureSize, kPictureSize);
    top->addWidget(m_picture, 0, Qt::AlignTop);
    auto* names = new QVBoxLayout;
    m_name = new QLabel(m_body);
    m_name->setObjectName("ContactName");
    QFont big = m_name->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    m_name->setFont(big);
    m_name->setWordWrap(true);
    m_name->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_details = new QLabel(m_body);
    m_details->setObjectName("ContactNameDetails");
    m_details->setWordWrap(true);
    m_work = new QLabel(m_body);
    m_work->setObjectName("ContactWork");
    m_work->setWordWrap(true);
    names->addWidget(m_name);
    names->addWidget(m_details);
    names->addWidget(m_work);
    names->addStretch(1);
    top->addLayout(names, 1);
    m_hide = new QPushButton("Hide", m_body);
    m_hide->setObjectName("HideButton");
    m_hide->setToolTip("Leave this person out of the list; they stay in your accounts");
    connect(m_hide, &QPushButton::clicked, this, [this] {
        if (m_person) {
            Q_EMIT hiddenChangeRequested(qt(m_person->id), !m_person->hidden);
        }
    });
    auto* edit = new QPushButton("Edit", m_body);
    edit->setObjectName("EditButton");
    connect(edit, &QPushButton::clicked, this, [this] {
        if (m_person) {
            Q_EMIT editRequested(qt(m_person->id));
        }
    });
    top->addWidget(edit, 0, Qt::AlignTop);
    top->addWidget(m_hide, 0, Qt::AlignTop);
    layout->addWidget(m_poster);

    m_picker = new CirclePicker(m_body);
    layout->addWidget(m_picker);

    m_fields = new ContactFields(m_body);
    connect(m_fields, &ContactFields::leaveLeftRequested, this, &ContactPage::leaveLeftRequested);
    connect(m_fields, &ContactFields::editPersonRequested, edit, &QPushButton::click);
    connect(m_fields, &QWidget::customContextMenuRequested, this, &ContactPage::showEntryMenu);
    // Double-click or F2 edits an entry in place.
    auto quickEdit = [this](QTreeWidgetItem* row) {
        if (row != nullptr && !row->data(0, ContactFields::EntryIDRole).toString().isEmpty()) {
            Q_EMIT quickEditRequested(row->data(0, CardIDRole).toString(),
                                      row->data(0, ContactFields::EntryIDRole).toString());
        }
    };
    connect(m_fields, &QTreeWidget::itemDoubleClicked, this,
            [quickEdit](QTreeWidgetItem* row) { quickEdit(row); });
    connect(m_fields, &ContactFields::editRowRequested, this,
            [quickEdit](QTreeWidgetItem* row) { quickEdit(row); });
    layout->addWidget(m_fields, 1);
    m_photos = new PhotoGrid(*m_poster, *m_picker, m_body);
    layout->addWidget(m_photos);
    outer->addWidget(m_body);
    setFocusProxy(m_fields);
    showNobody();
}

// The rows of the page as they are added, section after section, keeping
// the row the keyboard was on.
class ContactPage::Rows {
public:
    Rows(ContactFields* fields, const QPalette& palette, QString currentEntry)
        : m_fields(fields), m_palette(palette), m_currentEntry(std::move(currentEntry)) {}

    void addTitle(const QString& title) {
        auto* row = new QTreeWidgetItem(m_fields, QStringList{title});
        QFont font = m_fields->font();
        font.setBold(true);
        row->setFont(0, font);
        row->setFlags(Qt::ItemIsEnabled);
        row->setFirstColumnSpanned(true);
        row->setForeground(0, m_palette.color(QPalette::PlaceholderText));
    }

    QTreeWidgetItem* addRow(const QString& label, const QString& value) {
        auto* row = new QTreeWidgetItem(m_fields, QStringList{label, value});
        row->setTextAlignment(0, Qt::AlignRight | Qt::AlignTop);
        row->setForeground(0, m_palette.color(QPalette::PlaceholderText));
        return row;
    }

    // A phone, e-mail or address of a card, which can be marked former.
    QTreeWidgetItem* addEntry(const QString& label, const QString& value, const QString& cardID,
                              const ContactCard::Item& item) {
        auto* row = addRow(label, value);
        const QString entryID = qt(item.id);
        row->setData(0, ContactFields::EntryIDRole, entryID);
        row->setData(0, ContactFields::MarkableRole, true);
        row->setData(0, ContactFields::LabelRole, qt(item.label));
        row->setData(0, ContactPage::CardIDRole, cardID);
        if (!entryID.isEmpty() && entryID == m_currentEntry) {
            m_restore = row;
        }
        return row;
    }

    const QPalette& palette() const { return m_palette; }
    QFont font() const { return m_fields->font(); }
    QTreeWidgetItem* restore() const { return m_restore; }

private:
    ContactFields* m_fields;
    const QPalette& m_palette;
    QString m_currentEntry;
    QTreeWidgetItem* m_restore = nullptr;
};

namespace {

// What makes two entries of one kind the same for the page: a phone by its
// digits, anything else by its text without case.
std::string sameness(const std::string& value, bool phone) {
    if (phone) {
        const std::string digits = numberCharacters(value);
        if (!digits.empty()) {
            return digits;
        }
    }
    return utf8(qt(value).simplified().toCaseFolded());
}

QString withMark(const QString& text, const QString& mark) {
    if (mark.isEmpty()) {
        return text;
    }
    return text.isEmpty() ? mark : QString("%1 \u00B7 %2").arg(text, mark);
}

} // namespace

void ContactPage::addSection(QWidget* section) {
    auto* layout = qobject_cast<QVBoxLayout*>(m_body->layout());
    layout->insertWidget(layout->indexOf(m_photos), section);
}

void ContactPage::showNobody() {
    m_person.reset();
    m_cards.clear();
    m_notes.clear();
    m_photos->showNobody();
    m_body->hide();
    m_empty->show();
}

void ContactPage::showPerson(const Person& person, const std::map<std::string, std::string>& accountNames,
                             const std::map<std::string, std::string>& cardAccounts) {
    const bool samePerson = m_person && m_person->id == person.id;
    m_person = person;
    m_accountNames = accountNames;
    m_cardAccounts = cardAccounts;
    if (!samePerson) {
        m_cards.clear();
        m_notes.clear();
        m_pictureImage = QImage();
    }
    // A card that left the person (unlinked, deleted) leaves the page too.
    std::erase_if(m_cards, [&](const auto& entry) {
        return std::find(person.memberIDs.begin(), person.memberIDs.end(), entry.first) ==
                   person.memberIDs.end() &&
               entry.first != person.id;
    });
    m_empty->hide();
    m_body->show();
    m_hide->setText(person.hidden ? "Unhide" : "Hide");
    m_photos->showPerson(person);
    rebuildFields();
}

void ContactPage::showCard(const ContactCard& card) {
    if (!m_person) {
        return;
    }
    const auto& members = m_person->memberIDs;
    if (card.id != m_person->id && std::find(members.begin(), members.end(), card.id) == members.end()) {
        return;
    }
    m_cards.insert_or_assign(card.id, card);
    rebuildFields();
}

void ContactPage::showNotes(const std::map<std::string, std::string>& notes) {
    if (notes == m_notes) {
        return;
    }
    m_notes = notes;
    std::erase_if(m_notes, [](const auto& entry) { return entry.second.empty(); });
    rebuildFields();
}

bool ContactPage::hasAllCards() const {
    if (!m_person) {
        return false;
    }
    if (m_person->memberIDs.empty()) {
        return m_cards.contains(m_person->id);
    }
    return std::all_of(m_person->memberIDs.begin(), m_person->memberIDs.end(),
                       [&](std::string_view id) { return m_cards.contains(std::string(id)); });
}

void ContactPage::showPicture(const QImage& picture) {
    m_pictureImage = picture;
    drawPicture();
}

QString ContactPage::formerMenuText(const QString& label) {
    const std::string stored = utf8(label);
    return ExLabel::isFormer(stored) ? qt(ExLabel::markAsCurrentTitle)
                                     : qt(ExLabel::markAsFormerTitle(stored));
}

// The picture, round, or the initials on a disc.
void ContactPage::drawPicture() {
    if (!m_person) {
        return;
    }
    const int side = qRound(kPictureSize * devicePixelRatio());
    QPixmap picture(side, side);
    picture.setDevicePixelRatio(devicePixelRatio());
    picture.fill(Qt::transparent);
    {
        QPainter painter(&picture);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF disc(0, 0, kPictureSize, kPictureSize);
        if (!m_pictureImage.isNull()) {
            QPainterPath clip;
            clip.addEllipse(disc);
            painter.setClipPath(clip);
            painter.drawImage(disc, m_pictureImage);
        } else {
            painter.setPen(Qt::NoPen);
            painter.setBrush(palette().color(QPalette::Mid));
            painter.drawEllipse(disc);
            QFont font = this->font();
            font.setPointSizeF(font.pointSizeF() * 1.8);
            font.setBold(true);
            painter.setFont(font);
            painter.setPen(Qt::white);
            painter.drawText(disc, Qt::AlignCenter, initialsOf(*m_person));
        }
    }
    m_picture->setPixmap(picture);
}

std::vector<const ContactCard*> ContactPage::shownCards() const {
    std::vector<const ContactCard*> cards;
    if (!m_person) {
        return cards;
    }
    const auto add = [&](const std::string& id) {
        const auto found = m_cards.find(id);
        if (found != m_cards.end() && std::find(cards.begin(), cards.end(), &found->second) == cards.end()) {
            cards.push_back(&found->second);
        }
    };
    add(m_person->id);
    for (const auto& id : m_person->memberIDs) {
        add(std::string(id));
    }
    return cards;
}

const ContactCard* ContactPage::leadingCard() const {
    if (!m_person) {
        return nullptr;
    }
    const auto found = m_cards.find(m_person->id);
    return found == m_cards.end() ? nullptr : &found->second;
}

QString ContactPage::accountMark(const std::string& cardID) const {
    if (!m_person || m_person->accountIDs.size() < 2) {
        return {};
    }
    const auto account = m_cardAccounts.find(cardID);
    if (account == m_cardAccounts.end()) {
        return {};
    }
    const auto name = m_accountNames.find(account->second);
    return qt(name != m_accountNames.end() ? name->second : account->second);
}

void ContactPage::showHeader() {
    const Person& person = *m_person;
    // Names: the leading card's full name when it is here, else the list's.
    if (const ContactCard* card = leadingCard()) {
        const QString full = joinNonEmpty(
            {card->namePrefix, card->givenName, card->middleName, card->familyName, card->nameSuffix}, " ");
        m_name->setText(full.isEmpty() ? qt(person.displayName()) : full);
        QStringList details;
        if (!card->nickname.empty()) {
            details << QString("\u201C%1\u201D").arg(qt(card->nickname));
        }
        if (!card->phoneticName.empty()) {
            details << qt(card->phoneticName);
        }
        m_details->setText(details.join("  ·  "));
        m_work->setText(joinNonEmpty({card->jobTitle, card->department, card->organization}, " · "));
    } else {
        m_name->setText(qt(person.displayName()));
        m_details->setText(person.nickname.empty() ? QString()
                                                   : QString("\u201C%1\u201D").arg(qt(person.nickname)));
        m_work->setText(joinNonEmpty({person.jobTitle, person.department, person.organization}, " · "));
    }
    if (m_name->text() == m_work->text()) {
        m_work->clear();
    }
    m_details->setVisible(!m_details->text().isEmpty());
    m_work->setVisible(!m_work->text().isEmpty());
}

void ContactPage::rebuildFields() {
    if (!m_person) {
        return;
    }
    showHeader();
    drawPicture();

    // Keep the row the keyboard is on, by its entry, across a rebuild.
    const QString currentEntry = m_fields->currentItem() != nullptr
                                     ? m_fields->currentItem()->data(0, ContactFields::EntryIDRole).toString()
                                     : QString();
    m_fields->clear();
    Rows rows(m_fields, palette(), currentEntry);
    addEntrySections(rows);
    addWorkSection(rows);
    addLinksSection(rows);
    addDatesSection(rows);
    addRelatedSection(rows);
    addNotesSection(rows);
    addCircleSection(rows);
    if (rows.restore() != nullptr) {
        m_fields->setCurrentItem(rows.restore());
    }
}

// Phones, e-mails and addresses of every card: a value two cards hold is
// shown once, from the first card; former entries come after the current
// ones, drawn quieter, their label saying "ex-".
void ContactPage::addEntrySections(Rows& rows) const {
    const auto cards = shownCards();
    if (cards.empty()) {
        // Until the cards are read, what the list knows.
        const Person& person = *m_person;
        if (!person.phoneNumbers.empty()) {
            rows.addTitle("Phone");
            for (const auto& phone : person.phoneNumbers) {
                rows.addRow({}, qt(phone));
            }
        }
        if (!person.emailAddresses.empty()) {
            rows.addTitle("E-mail");
            for (const auto& email : person.emailAddresses) {
                rows.addRow({}, qt(email));
            }
        }
        return;
    }
    struct Kind {
        const char* title;
        std::vector<ContactCard::Item> ContactCard::*items;
        bool phone;
    };
    for (const Kind kind :
         {Kind{"Phone", &ContactCard::phones, true}, Kind{"E-mail", &ContactCard::emails, false},
          Kind{"Address", &ContactCard::addresses, false}}) {
        struct Shown {
            const ContactCard* card;
            ContactCard::Item item;
        };
        std::vector<Shown> current;
        std::vector<Shown> former;
        std::set<std::string> seen;
        for (const ContactCard* card : cards) {
            for (const auto& item : card->*kind.items) {
                if (!seen.insert(sameness(item.value, kind.phone)).second) {
                    continue;
                }
                (ExLabel::isFormer(item.label) ? former : current).push_back({card, item});
            }
        }
        if (current.empty() && former.empty()) {
            continue;
        }
        rows.addTitle(kind.title);
        current.insert(current.end(), former.begin(), former.end());
        for (const auto& [card, item] : current) {
            const QString label = withMark(
                qt(item.label.empty() ? std::string() : localizedLabel(item.label)), accountMark(card->id));
            auto* row = rows.addEntry(label, qt(item.value), qt(card->id), item);
            if (ExLabel::isFormer(item.label)) {
                QFont font = rows.font();
                font.setItalic(true);
                row->setFont(1, font);
                row->setForeground(1, rows.palette().color(QPalette::PlaceholderText));
                row->setToolTip(1, "A former entry: kept so mail and calls are still recognized");
                row->setData(1, Qt::AccessibleTextRole, QString("%1, former").arg(qt(item.value)));
            }
        }
    }
}

// The work of the other cards, where it is not what the header shows.
void ContactPage::addWorkSection(Rows& rows) const {
    const ContactCard* leading = leadingCard();
    std::set<QString> seen;
    if (leading != nullptr) {
        seen.insert(joinNonEmpty({leading->jobTitle, leading->department, leading->organization}, " · "));
    }
    bool titled = false;
    for (const ContactCard* card : shownCards()) {
        if (card == leading) {
            continue;
        }
        const QString work = joinNonEmpty({card->jobTitle, card->department, card->organization}, " · ");
        if (work.isEmpty() || !seen.insert(work).second) {
            continue;
        }
        if (!titled) {
            rows.addTitle("Work");
            titled = true;
        }
        rows.addRow(accountMark(card->id), work);
    }
}

// Links: the recognised profiles first, then other web addresses and any
// profile not already shown as a link, each once across the cards.
void ContactPage::addLinksSection(Rows& rows) const {
    std::set<QString> shown;
    bool titled = false;
    const auto title = [&] {
        if (!titled) {
            rows.addTitle("Links");
            titled = true;
        }
    };
    const auto cards = shownCards();
    for (const ContactCard* card : cards) {
        for (const auto& link : card->links) {
            if (!shown.insert(folded(displayName(link.service)) + "\n" + folded(link.handle)).second) {
                continue;
            }
            title();
            auto* row = rows.addRow(qt(displayName(link.service)), qt(link.handle));
            if (auto url = webURL(link)) {
                row->setToolTip(1, qt(*url));
            }
        }
    }
    for (const ContactCard* card : cards) {
        for (const auto& url : card->urls) {
            if (shown.insert("\n" + folded(url.value)).second) {
                title();
                rows.addRow(qt(localizedLabel(url.label)), qt(url.value));
            }
        }
    }
    for (const ContactCard* card : cards) {
        for (const auto* items : {&card->social, &card->messaging}) {
            for (const auto& item : *items) {
                if (shown.insert(folded(item.label) + "\n" + folded(item.value)).second) {
                    title();
                    rows.addRow(qt(item.label), qt(item.value));
                }
            }
        }
    }
}

void ContactPage::addDatesSection(Rows& rows) const {
    std::set<QString> shown;
    bool titled = false;
    const auto add = [&](const QString& label, const QString& value) {
        if (!shown.insert(label + "\n" + value).second) {
            return;
        }
        if (!titled) {
            rows.addTitle("Dates");
            titled = true;
        }
        rows.addRow(label, value);
    };
    for (const ContactCard* card : shownCards()) {
        if (card->birthday) {
            add("birthday", qt(*card->birthday));
        }
        for (const auto& date : card->dates) {
            add(qt(localizedLabel(date.label)), qt(date.value));
        }
    }
}

void ContactPage::addRelatedSection(Rows& rows) const {
    std::set<QString> shown;
    bool titled = false;
    for (const ContactCard* card : shownCards()) {
        for (const auto& relation : card->relations) {
            const QString label = qt(localizedLabel(relation.label));
            if (!shown.insert(label + "\n" + qt(relation.value)).second) {
                continue;
            }
            if (!titled) {
                rows.addTitle("Related");
                titled = true;
            }
            rows.addRow(label, qt(relation.value));
        }
    }
}

// Each card's note, once where two cards say the same.
void ContactPage::addNotesSection(Rows& rows) const {
    std::set<std::string> shown;
    bool titled = false;
    for (const ContactCard* card : shownCards()) {
        const auto note = m_notes.find(card->id);
        if (note == m_notes.end() || !shown.insert(note->second).second) {
            continue;
        }
        if (!titled) {
            rows.addTitle("Note");
            titled = true;
        }
        auto* row = rows.addRow(accountMark(card->id), qt(note->second));
        row->setData(1, Qt::AccessibleTextRole, QString("Note: %1").arg(qt(note->second)));
    }
}

void ContactPage::addCircleSection(Rows& rows) const {
    const Person& person = *m_person;
    rows.addTitle("Circle");
    rows.addRow({}, person.circle ? QString("%1 (%2)").arg(qt(circleTitle(*person.circle)),
                                                           qt(circleBadge(*person.circle)))
                                  : QString("No circle"));
}

QList<QAction*> ContactPage::entryActions(QTreeWidgetItem* row, QObject* parent) {
    if (row == nullptr || !row->data(0, ContactFields::MarkableRole).toBool()) {
        return {};
    }
    const QString entryID = row->data(0, ContactFields::EntryIDRole).toString();
    const QString label = row->data(0, ContactFields::LabelRole).toString();
    const QString cardID = row->data(0, CardIDRole).toString();
    const bool former = ExLabel::isFormer(utf8(label));
    auto* action = new QAction(formerMenuText(label), parent);
    connect(action, &QAction::triggered, this, [this, cardID, entryID, former] {
        if (former) {
            Q_EMIT markCurrentRequested(cardID, entryID);
        } else {
            Q_EMIT markFormerRequested(cardID, entryID);
        }
    });
    return {action};
}

void ContactPage::showEntryMenu(const QPoint& position) {
    QTreeWidgetItem* row = m_fields->itemAt(position);
    if (row == nullptr) {
        row = m_fields->currentItem();
    }
    QMenu menu(this);
    const auto actions = entryActions(row, &menu);
    if (actions.isEmpty()) {
        return;
    }
    menu.addActions(actions);
    menu.exec(m_fields->viewport()->mapToGlobal(position));
}

} // namespace kinbook
