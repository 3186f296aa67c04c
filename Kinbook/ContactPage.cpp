#include "Kinbook/ContactPage.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/PhotoGrid.h"
#include "Kinbook/PosterHeader.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/records/StockLabel.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QVBoxLayout>
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
    top->addWidget(m_hide, 0, Qt::AlignTop);
    layout->addWidget(m_poster);

    m_picker = new CirclePicker(m_body);
    layout->addWidget(m_picker);

    m_fields = new ContactFields(m_body);
    connect(m_fields, &ContactFields::leaveLeftRequested, this, &ContactPage::leaveLeftRequested);
    connect(m_fields, &QWidget::customContextMenuRequested, this, &ContactPage::showEntryMenu);
    layout->addWidget(m_fields, 1);
    m_photos = new PhotoGrid(*m_poster, *m_picker, m_body);
    layout->addWidget(m_photos);
    outer->addWidget(m_body);
    setFocusProxy(m_fields);
    showNobody();
}

void ContactPage::showNobody() {
    m_person.reset();
    m_card.reset();
    m_photos->showNobody();
    m_body->hide();
    m_empty->show();
}

void ContactPage::showPerson(const Person& person, const std::map<std::string, std::string>& accountNames) {
    const bool samePerson = m_person && m_person->id == person.id;
    m_person = person;
    m_accountNames = accountNames;
    if (!samePerson) {
        m_card.reset();
        m_pictureImage = QImage();
    }
    m_empty->hide();
    m_body->show();
    m_hide->setText(person.hidden ? "Unhide" : "Hide");
    m_photos->showPerson(person);
    rebuildFields();
}

void ContactPage::showCard(const ContactCard& card) {
    if (!m_person || card.id != m_person->id) {
        return;
    }
    m_card = card;
    rebuildFields();
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

void ContactPage::rebuildFields() {
    if (!m_person) {
        return;
    }
    const Person& person = *m_person;
    const ContactCard* card = m_card ? &*m_card : nullptr;

    // Names: the card's full name when it is here, else the list's.
    if (card != nullptr) {
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

    drawPicture();

    // Keep the row the keyboard is on, by its entry, across a rebuild.
    const QString currentEntry = m_fields->currentItem() != nullptr
                                     ? m_fields->currentItem()->data(0, ContactFields::EntryIDRole).toString()
                                     : QString();
    m_fields->clear();
    QTreeWidgetItem* restore = nullptr;

    auto addTitle = [&](const QString& title) {
        auto* row = new QTreeWidgetItem(m_fields, QStringList{title});
        QFont font = m_fields->font();
        font.setBold(true);
        row->setFont(0, font);
        row->setFlags(Qt::ItemIsEnabled);
        row->setFirstColumnSpanned(true);
        row->setForeground(0, palette().color(QPalette::PlaceholderText));
    };
    auto addRow = [&](const QString& label, const QString& value, const QString& entryID = {},
                      bool markable = false, const QString& storedLabel = {}) {
        auto* row = new QTreeWidgetItem(m_fields, QStringList{label, value});
        row->setTextAlignment(0, Qt::AlignRight | Qt::AlignTop);
        row->setForeground(0, palette().color(QPalette::PlaceholderText));
        row->setData(0, ContactFields::EntryIDRole, entryID);
        if (markable) {
            row->setData(0, ContactFields::MarkableRole, true);
            row->setData(0, ContactFields::LabelRole, storedLabel);
        }
        if (!entryID.isEmpty() && entryID == currentEntry) {
            restore = row;
        }
        return row;
    };
    // Phones, e-mails and addresses: former entries after the current ones,
    // drawn quieter, their label saying "ex-".
    auto addEntries = [&](const QString& title, const std::vector<ContactCard::Item>& items) {
        if (items.empty()) {
            return;
        }
        addTitle(title);
        for (const auto& item : ExLabel::formerLast(items)) {
            const QString label = qt(item.label.empty() ? std::string() : localizedLabel(item.label));
            auto* row = addRow(label, qt(item.value), qt(item.id), true, qt(item.label));
            if (ExLabel::isFormer(item.label)) {
                QFont font = m_fields->font();
                font.setItalic(true);
                row->setFont(1, font);
                row->setForeground(1, palette().color(QPalette::PlaceholderText));
                row->setToolTip(1, "A former entry: kept so mail and calls are still recognized");
                row->setData(1, Qt::AccessibleTextRole, QString("%1, former").arg(qt(item.value)));
            }
        }
    };

    if (card != nullptr) {
        addEntries("Phone", card->phones);
        addEntries("E-mail", card->emails);
        addEntries("Address", card->addresses);

        // Links: the recognised profiles first, then other web addresses and
        // any profile not already shown as a link.
        std::set<QString> shown;
        const bool anyLinks =
            !card->links.empty() || !card->urls.empty() || !card->social.empty() || !card->messaging.empty();
        if (anyLinks) {
            addTitle("Links");
        }
        for (const auto& link : card->links) {
            auto* row = addRow(qt(displayName(link.service)), qt(link.handle));
            if (auto url = webURL(link)) {
                row->setToolTip(1, qt(*url));
            }
            shown.insert(folded(displayName(link.service)) + "\n" + folded(link.handle));
        }
        for (const auto& url : card->urls) {
            addRow(qt(localizedLabel(url.label)), qt(url.value));
        }
        for (const auto* items : {&card->social, &card->messaging}) {
            for (const auto& item : *items) {
                if (shown.insert(folded(item.label) + "\n" + folded(item.value)).second) {
                    addRow(qt(item.label), qt(item.value));
                }
            }
        }

        if (card->birthday || !card->dates.empty()) {
            addTitle("Dates");
            if (card->birthday) {
                addRow("birthday", qt(*card->birthday));
            }
            for (const auto& date : card->dates) {
                addRow(qt(localizedLabel(date.label)), qt(date.value));
            }
        }
        if (!card->relations.empty()) {
            addTitle("Related");
            for (const auto& relation : card->relations) {
                addRow(qt(localizedLabel(relation.label)), qt(relation.value));
            }
        }
    } else {
        // Until the card is read, what the list knows.
        if (!person.phoneNumbers.empty()) {
            addTitle("Phone");
            for (const auto& phone : person.phoneNumbers) {
                addRow({}, qt(phone));
            }
        }
        if (!person.emailAddresses.empty()) {
            addTitle("E-mail");
            for (const auto& email : person.emailAddresses) {
                addRow({}, qt(email));
            }
        }
    }

    addTitle("Accounts");
    for (const auto& accountID : person.accountIDs) {
        const auto found = m_accountNames.find(std::string(accountID));
        addRow({}, qt(found != m_accountNames.end() ? found->second : accountID));
    }
    addTitle("Circle");
    addRow({}, person.circle
                   ? QString("%1 (%2)").arg(qt(circleTitle(*person.circle)), qt(circleBadge(*person.circle)))
                   : QString("No circle"));

    if (restore != nullptr) {
        m_fields->setCurrentItem(restore);
    }
}

QList<QAction*> ContactPage::entryActions(QTreeWidgetItem* row, QObject* parent) {
    if (row == nullptr || !m_card || !row->data(0, ContactFields::MarkableRole).toBool()) {
        return {};
    }
    const QString entryID = row->data(0, ContactFields::EntryIDRole).toString();
    const QString label = row->data(0, ContactFields::LabelRole).toString();
    const QString cardID = qt(m_card->id);
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
