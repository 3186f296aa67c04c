#include "Kinbook/ContactEditor.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/text/AddressParser.h"

#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QImageReader>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

namespace kinbook {

namespace {

// The side of the editor's photo preview, in pixels.
constexpr int kPhotoPreview = 72;

constexpr int kAddressParts = 5;

// A text line of the name and work block: its object name, its label, and
// the draft member it edits.
struct TextField {
    const char* name;
    const char* label;
    std::string ContactDraft::*member;
};

constexpr TextField kTextFields[] = {
    {"NamePrefix", "Prefix", &ContactDraft::namePrefix},
    {"GivenName", "First", &ContactDraft::givenName},
    {"MiddleName", "Middle", &ContactDraft::middleName},
    {"FamilyName", "Last", &ContactDraft::familyName},
    {"NameSuffix", "Suffix", &ContactDraft::nameSuffix},
    {"PhoneticGivenName", "Phonetic first", &ContactDraft::phoneticGivenName},
    {"PhoneticFamilyName", "Phonetic last", &ContactDraft::phoneticFamilyName},
    {"Nickname", "Nickname", &ContactDraft::nickname},
    {"Organization", "Company", &ContactDraft::organization},
    {"Department", "Department", &ContactDraft::department},
    {"JobTitle", "Job title", &ContactDraft::jobTitle},
};

// Entries in the card's order: those the card has where it has them, new
// ones after, unless the user reordered the list.
template <typename Entry>
std::vector<Entry> inCardOrder(const EntryRows* rows, std::vector<Entry> entries,
                               const std::vector<Entry>& card) {
    if (rows->isReordered()) {
        return entries;
    }
    auto place = [&](const Entry& entry) {
        const auto found =
            std::find_if(card.begin(), card.end(), [&](const Entry& c) { return c.id == entry.id; });
        return static_cast<std::size_t>(found - card.begin());
    };
    std::stable_sort(entries.begin(), entries.end(),
                     [&](const Entry& a, const Entry& b) { return place(a) < place(b); });
    return entries;
}

QString trimmedCompany(const std::string& text) {
    return qt(text).trimmed();
}

std::string labelConstantOf(StockLabel label) {
    return std::string(labelConstant(label));
}

} // namespace

std::optional<DateComponents> parseEditorDate(const QString& text) {
    static const QRegularExpression form(R"(^\s*(\d{4}|-)-(\d{1,2})-(\d{1,2})\s*$)");
    const auto match = form.match(text);
    if (!match.hasMatch()) {
        return std::nullopt;
    }
    std::optional<int> year;
    if (match.captured(1) != "-") {
        year = match.captured(1).toInt();
    }
    return DateComponents::make(year, match.captured(2).toInt(), match.captured(3).toInt());
}

QString editorDateText(const DateComponents& date) {
    const QString monthDay =
        QString("%1-%2").arg(date.month, 2, 10, QChar('0')).arg(date.day, 2, 10, QChar('0'));
    return date.year ? QString("%1-%2").arg(*date.year, 4, 10, QChar('0')).arg(monthDay) : "--" + monthDay;
}

// ---------------------------------------------------------------------------
// EntryRows

struct EntryRows::Row {
    QWidget* widget = nullptr;
    std::string id;
    std::string originalLabel;
    bool isNew = false;
    // The entry's own texts and how the fields showed them: a field the user
    // left alone gives back the entry's text exactly.
    std::vector<std::string> originals;
    std::vector<QString> shown;
    QComboBox* label = nullptr; // the label, or the service of a link
    std::vector<QLineEdit*> values;
    QPlainTextEdit* street = nullptr;
    QLabel* service = nullptr;
};

namespace {

// A row's text: the entry's own when the field still shows what it showed.
template <typename Row>
std::string keptText(const Row& row, std::size_t part, const QString& now) {
    if (part < row.shown.size() && now == row.shown[part]) {
        return row.originals[part];
    }
    return utf8(now);
}

} // namespace

std::vector<std::pair<QString, std::string>> EntryRows::stockLabels(Kind kind) {
    std::vector<StockLabel> labels;
    switch (kind) {
    case Kind::phone:
        labels = {StockLabel::mobile,  StockLabel::iPhone, StockLabel::home,
                  StockLabel::work,    StockLabel::main,   StockLabel::homeFax,
                  StockLabel::workFax, StockLabel::pager,  StockLabel::other};
        break;
    case Kind::email:
        labels = {StockLabel::home, StockLabel::work, StockLabel::school, StockLabel::iCloud,
                  StockLabel::other};
        break;
    case Kind::url:
        labels = {StockLabel::homepage, StockLabel::home, StockLabel::work, StockLabel::school,
                  StockLabel::other};
        break;
    case Kind::address:
        labels = {StockLabel::home, StockLabel::work, StockLabel::school, StockLabel::other};
        break;
    case Kind::date:
        return {{"no label", ""},
                {"anniversary", "_$!<Anniversary>!$_"},
                {"other", labelConstantOf(StockLabel::other)}};
    case Kind::link:
        return {};
    }
    std::vector<std::pair<QString, std::string>> items{{"no label", ""}};
    for (const StockLabel label : labels) {
        items.emplace_back(qt(labelDisplayName(label)), labelConstantOf(label));
    }
    return items;
}

EntryRows::EntryRows(Kind kind, const QString& title, const QString& addText, QWidget* parent)
    : QWidget(parent), m_kind(kind) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* heading = new QLabel("<b>" + title + "</b>", this);
    layout->addWidget(heading);
    auto* rows = new QWidget(this);
    m_list = new QVBoxLayout(rows);
    m_list->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(rows);
    auto* add = new QPushButton(addText, this);
    add->setObjectName("Add" + QString(title).remove(' '));
    connect(add, &QPushButton::clicked, this, [this] { addRow(); });
    layout->addWidget(add, 0, Qt::AlignLeft);
}

EntryRows::Row& EntryRows::makeRow(std::string id, std::string label, bool isNew) {
    auto* row = new Row;
    row->id = std::move(id);
    row->originalLabel = label;
    row->isNew = isNew;
    row->widget = new QWidget(this);
    auto* line = new QHBoxLayout(row->widget);
    line->setContentsMargins(0, 0, 0, 0);

    row->label = new QComboBox(row->widget);
    row->label->setObjectName("EntryLabel");
    if (m_kind == Kind::link) {
        for (const LinkService service : allLinkServices()) {
            row->label->addItem(qt(displayName(service)), static_cast<int>(service));
        }
    } else {
        // Any text is a custom label; the stock ones are offered.
        row->label->setEditable(true);
        for (const auto& [text, constant] : stockLabels(m_kind)) {
            row->label->addItem(text, qt(constant));
        }
        row->label->setEditText(qt(ContactDraft::labelDisplay(label)));
    }
    line->addWidget(row->label);

    if (m_kind == Kind::address) {
        auto* parts = new QFormLayout();
        row->street = new QPlainTextEdit(row->widget);
        row->street->setObjectName("Street");
        row->street->setTabChangesFocus(true);
        row->street->setFixedHeight(row->street->fontMetrics().lineSpacing() * 3);
        parts->addRow("Street", row->street);
        for (const char* part : {"City", "State", "Postal code", "Country"}) {
            auto* edit = new QLineEdit(row->widget);
            edit->setObjectName(QString(part).remove(' '));
            parts->addRow(part, edit);
            row->values.push_back(edit);
        }
        line->addLayout(parts, 1);
        // A whole address pasted into the street is split into its parts,
        // while the others are still empty.
        connect(row->street, &QPlainTextEdit::textChanged, row->widget, [row] {
            const QString text = row->street->toPlainText();
            const bool othersEmpty = std::all_of(row->values.begin(), row->values.end(),
                                                 [](QLineEdit* edit) { return edit->text().isEmpty(); });
            if (!othersEmpty || !(text.contains(',') || text.contains('\n'))) {
                return;
            }
            const auto parsed = AddressParser::parse(utf8(text));
            if (!parsed) {
                return;
            }
            const QSignalBlocker blocker(row->street);
            row->street->setPlainText(qt(parsed->street));
            row->values[0]->setText(qt(parsed->city));
            row->values[1]->setText(qt(parsed->state));
            row->values[2]->setText(qt(parsed->postalCode));
            row->values[3]->setText(qt(parsed->country));
        });
    } else {
        auto* value = new QLineEdit(row->widget);
        value->setObjectName("EntryValue");
        if (m_kind == Kind::date) {
            value->setPlaceholderText("1987-03-14, or --03-14 without a year");
        }
        line->addWidget(value, 1);
        row->values.push_back(value);
        if (m_kind == Kind::link) {
            // A pasted profile address becomes its service and handle at once.
            connect(value, &QLineEdit::textChanged, row->widget, [row](const QString& text) {
                const auto found = recognise(utf8(text.trimmed()));
                if (!found) {
                    return;
                }
                row->label->setCurrentIndex(row->label->findData(static_cast<int>(found->service)));
                const QSignalBlocker blocker(row->values[0]);
                row->values[0]->setText(qt(found->handle));
            });
        }
    }

    auto* menuButton = new QToolButton(row->widget);
    menuButton->setText("\u22ef");
    menuButton->setObjectName("EntryMenu");
    menuButton->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(menuButton);
    connect(menu, &QMenu::aboutToShow, menu, [this, menu, row] {
        menu->clear();
        const auto index = static_cast<int>(std::find(m_rows.begin(), m_rows.end(), row) - m_rows.begin());
        if (markable()) {
            const std::string shown = rowLabel(index);
            if (ExLabel::isFormer(shown)) {
                menu->addAction(qt(ExLabel::markAsCurrentTitle),
                                [this, index, shown] { setRowLabel(index, ExLabel::current(shown)); });
            } else {
                menu->addAction(qt(ExLabel::markAsFormerTitle(shown)),
                                [this, index, shown] { setRowLabel(index, ExLabel::former(shown)); });
            }
        }
        menu->addAction("Move Up", [this, index] { moveRow(index, -1); })->setEnabled(index > 0);
        menu->addAction("Move Down", [this, index] { moveRow(index, 1); })->setEnabled(index + 1 < count());
    });
    menuButton->setMenu(menu);
    line->addWidget(menuButton);

    auto* remove = new QToolButton(row->widget);
    remove->setText("\u2212");
    remove->setObjectName("EntryRemove");
    remove->setToolTip("Remove");
    connect(remove, &QToolButton::clicked, this, [this, row] {
        requestRemove(static_cast<int>(std::find(m_rows.begin(), m_rows.end(), row) - m_rows.begin()));
    });
    line->addWidget(remove);

    // The row lives as long as its widgets, whose signals reach it.
    connect(row->widget, &QObject::destroyed, [row] { delete row; });
    m_rows.push_back(row);
    m_list->addWidget(row->widget);
    return *row;
}

void EntryRows::relayout() {
    for (Row* row : m_rows) {
        m_list->removeWidget(row->widget);
    }
    for (Row* row : m_rows) {
        m_list->addWidget(row->widget);
    }
}

void EntryRows::setFields(const std::vector<ContactDraft::Field>& fields) {
    while (count() > 0) {
        removeRow(0);
    }
    for (const auto& field : fields) {
        Row& row = makeRow(field.id, field.label, field.isNew);
        row.values[0]->setText(qt(field.value));
        row.originals = {field.value};
        row.shown = {row.values[0]->text()};
    }
    m_reordered = false;
}

void EntryRows::setAddresses(const std::vector<ContactDraft::Address>& addresses) {
    while (count() > 0) {
        removeRow(0);
    }
    for (const auto& address : addresses) {
        Row& row = makeRow(address.id, address.label, address.isNew);
        const QSignalBlocker blocker(row.street);
        row.street->setPlainText(qt(address.street));
        row.values[0]->setText(qt(address.city));
        row.values[1]->setText(qt(address.state));
        row.values[2]->setText(qt(address.postalCode));
        row.values[3]->setText(qt(address.country));
        row.originals = {address.street, address.city, address.state, address.postalCode, address.country};
        row.shown = {row.street->toPlainText(), row.values[0]->text(), row.values[1]->text(),
                     row.values[2]->text(), row.values[3]->text()};
    }
    m_reordered = false;
}

void EntryRows::setDates(const std::vector<ContactDraft::Date>& dates) {
    while (count() > 0) {
        removeRow(0);
    }
    for (const auto& date : dates) {
        makeRow(date.id, date.label, date.isNew).values[0]->setText(editorDateText(date.date));
    }
    m_reordered = false;
}

void EntryRows::setLinks(const std::vector<LinkedAccount>& links) {
    while (count() > 0) {
        removeRow(0);
    }
    for (const auto& link : links) {
        Row& row = makeRow(link.id, {}, link.isNew);
        row.label->setCurrentIndex(row.label->findData(static_cast<int>(link.service)));
        const QSignalBlocker blocker(row.values[0]);
        row.values[0]->setText(qt(link.handle));
    }
    m_reordered = false;
}

std::string EntryRows::rowLabel(int index) const {
    const Row& row = *m_rows.at(static_cast<std::size_t>(index));
    const QString text = row.label->currentText().trimmed();
    // An untouched label gives back exactly what the card said.
    if (text == qt(ContactDraft::labelDisplay(row.originalLabel))) {
        return row.originalLabel;
    }
    for (int item = 0; item < row.label->count(); ++item) {
        if (row.label->itemText(item) == text) {
            return utf8(row.label->itemData(item).toString());
        }
    }
    return labelFromDisplayName(utf8(text));
}

void EntryRows::setRowLabel(int index, const std::string& label) {
    m_rows.at(static_cast<std::size_t>(index))->label->setEditText(qt(ContactDraft::labelDisplay(label)));
}

std::vector<ContactDraft::Field> EntryRows::fields() const {
    std::vector<ContactDraft::Field> fields;
    for (int i = 0; i < count(); ++i) {
        const Row& row = *m_rows[static_cast<std::size_t>(i)];
        fields.push_back({row.id, rowLabel(i), keptText(row, 0, row.values[0]->text()), row.isNew});
    }
    return fields;
}

std::vector<ContactDraft::Address> EntryRows::addresses() const {
    std::vector<ContactDraft::Address> addresses;
    for (int i = 0; i < count(); ++i) {
        const Row& row = *m_rows[static_cast<std::size_t>(i)];
        addresses.push_back({row.id, rowLabel(i), utf8(row.street->toPlainText()),
                             utf8(row.values[0]->text()), utf8(row.values[1]->text()),
                             utf8(row.values[2]->text()), utf8(row.values[3]->text()), row.isNew});
    }
    return addresses;
}

std::vector<ContactDraft::Date> EntryRows::dates() const {
    std::vector<ContactDraft::Date> dates;
    for (int i = 0; i < count(); ++i) {
        const Row& row = *m_rows[static_cast<std::size_t>(i)];
        // A row left empty is no date; one that isn't a date is refused on save.
        if (const auto date = parseEditorDate(row.values[0]->text())) {
            dates.push_back({row.id, rowLabel(i), *date, row.isNew});
        }
    }
    return dates;
}

std::vector<LinkedAccount> EntryRows::links() const {
    std::vector<LinkedAccount> links;
    for (const Row* row : m_rows) {
        const auto service = static_cast<LinkService>(row->label->currentData().toInt());
        links.push_back({row->id, service, utf8(row->values[0]->text().trimmed()), row->isNew});
    }
    return links;
}

void EntryRows::addRow() {
    std::string label;
    const auto stock = stockLabels(m_kind);
    if (stock.size() > 1) {
        label = stock[1].second; // the usual first choice: mobile, home, homepage
    }
    Row& row = makeRow(makeUUID(), label, true);
    if (row.street != nullptr) {
        row.street->setFocus();
    } else {
        row.values[0]->setFocus();
    }
}

void EntryRows::moveRow(int index, int by) {
    const int target = index + by;
    if (index < 0 || index >= count() || target < 0 || target >= count()) {
        return;
    }
    std::swap(m_rows[static_cast<std::size_t>(index)], m_rows[static_cast<std::size_t>(target)]);
    m_reordered = true;
    relayout();
}

void EntryRows::requestRemove(int index) {
    if (index < 0 || index >= count()) {
        return;
    }
    const Row& row = *m_rows[static_cast<std::size_t>(index)];
    const bool hasValue = row.street != nullptr ? !row.street->toPlainText().trimmed().isEmpty()
                                                : !row.values[0]->text().trimmed().isEmpty();
    const std::string label = rowLabel(index);
    if (!markable() || row.isNew || !hasValue || ExLabel::isFormer(label)) {
        removeRow(index);
        return;
    }
    // An entry that is no longer used can be kept as a former one instead.
    m_question =
        new QMessageBox(QMessageBox::Question, "Delete this entry?",
                        "Delete this entry? " + qt(ExLabel::deletionHint), QMessageBox::NoButton, this);
    m_question->setObjectName("DeletionQuestion");
    m_question->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton* remove = m_question->addButton("Delete", QMessageBox::DestructiveRole);
    QPushButton* former =
        m_question->addButton(qt(ExLabel::markAsFormerTitle(label)), QMessageBox::AcceptRole);
    m_question->addButton(QMessageBox::Cancel);
    const Row* asked = m_rows[static_cast<std::size_t>(index)];
    connect(m_question, &QMessageBox::buttonClicked, this,
            [this, asked, remove, former, label](QAbstractButton* b) {
                m_question = nullptr;
                const auto at =
                    static_cast<int>(std::find(m_rows.begin(), m_rows.end(), asked) - m_rows.begin());
                if (at == count()) {
                    return;
                }
                if (b == remove) {
                    removeRow(at);
                } else if (b == former) {
                    setRowLabel(at, ExLabel::former(label));
                }
            });
    m_question->open();
}

void EntryRows::removeRow(int index) {
    if (index < 0 || index >= count()) {
        return;
    }
    Row* row = m_rows[static_cast<std::size_t>(index)];
    m_rows.erase(m_rows.begin() + index);
    m_list->removeWidget(row->widget);
    row->widget->hide();
    row->widget->deleteLater();
}

QLineEdit* EntryRows::valueEdit(int index, int part) const {
    const Row& row = *m_rows.at(static_cast<std::size_t>(index));
    if (row.street != nullptr) {
        return part == 0 ? nullptr : row.values.at(static_cast<std::size_t>(part - 1));
    }
    return row.values.at(static_cast<std::size_t>(part));
}

// ---------------------------------------------------------------------------
// ContactEditor

ContactEditor::ContactEditor(PeopleList& list, CardChoices cards, QWidget* parent)
    : QDialog(parent), m_list(list), m_cards(std::move(cards)) {
    setWindowTitle("Edit Contact");
    build();
    if (!m_cards.empty()) {
        load(m_cards.front().first);
    }
}

ContactEditor::ContactEditor(PeopleList& list, std::optional<std::string> accountID, QWidget* parent)
    : QDialog(parent), m_list(list), m_accountID(std::move(accountID)) {
    setWindowTitle("New Contact");
    build();
    setDraft(ContactDraft::empty(std::nullopt, m_accountID));
}

void ContactEditor::build() {
    setObjectName("ContactEditor");
    auto* outer = new QVBoxLayout(this);
    m_cardPicker = new QComboBox(this);
    m_cardPicker->setObjectName("CardPicker");
    for (const auto& [id, text] : m_cards) {
        m_cardPicker->addItem(text, qt(id));
    }
    m_cardPicker->setVisible(m_cards.size() > 1);
    connect(m_cardPicker, &QComboBox::activated, this,
            [this](int index) { load(utf8(m_cardPicker->itemData(index).toString())); });
    outer->addWidget(m_cardPicker);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    auto* body = new QWidget(scroll);
    auto* layout = new QVBoxLayout(body);
    auto* form = new QFormLayout();
    for (const auto& text : kTextFields) {
        auto* edit = new QLineEdit(body);
        edit->setObjectName(text.name);
        form->addRow(text.label, edit);
        m_texts.push_back(edit);
    }
    m_birthday = new QLineEdit(body);
    m_birthday->setObjectName("Birthday");
    m_birthday->setPlaceholderText("1987-03-14, or --03-14 without a year");
    form->addRow("Birthday", m_birthday);
    m_photoRow = new QWidget(body);
    auto* photo = new QHBoxLayout(m_photoRow);
    photo->setContentsMargins(0, 0, 0, 0);
    m_photoPreview = new QLabel(m_photoRow);
    m_photoPreview->setObjectName("PhotoPreview");
    m_photoPreview->setFixedSize(kPhotoPreview, kPhotoPreview);
    m_photoPreview->setAlignment(Qt::AlignCenter);
    auto* choose = new QPushButton("Choose Photo…", m_photoRow);
    choose->setObjectName("ChoosePhoto");
    connect(choose, &QPushButton::clicked, this, [this] {
        const QString file =
            QFileDialog::getOpenFileName(this, "Choose Photo", QString(),
                                         "Pictures (*.jpg *.jpeg *.png *.heic *.heif *.webp *.tif *.tiff)");
        if (!file.isEmpty()) {
            choosePhoto(file);
        }
    });
    photo->addWidget(m_photoPreview);
    photo->addWidget(choose, 0, Qt::AlignVCenter);
    photo->addStretch();
    form->addRow("Photo", m_photoRow);
    m_photoRow->setEnabled(false);
    m_photoRow->setToolTip("Contact photos need the sidecar folder.");
    layout->addLayout(form);
    if (!m_cards.empty()) {
        m_circles = new CirclePicker(body);
        layout->addWidget(m_circles);
    }

    struct List {
        EntryRows::Kind kind;
        const char* title;
        const char* add;
    };
    const List lists[] = {
        {EntryRows::Kind::phone, "Phones", "Add Phone"},
        {EntryRows::Kind::email, "Emails", "Add Email"},
        {EntryRows::Kind::url, "Web Addresses", "Add Web Address"},
        {EntryRows::Kind::address, "Addresses", "Add Address"},
        {EntryRows::Kind::date, "Dates", "Add Date"},
        {EntryRows::Kind::link, "Links", "Add Link"},
    };
    for (const auto& [kind, title, addText] : lists) {
        auto* rows = new EntryRows(kind, title, addText, body);
        rows->setObjectName(QString(title).remove(' '));
        layout->addWidget(rows);
        m_rows.push_back(rows);
    }
    m_jobs = new QWidget(body);
    auto* jobs = new QVBoxLayout(m_jobs);
    jobs->setContentsMargins(0, 0, 0, 0);
    jobs->addWidget(new QLabel("<b>Previously</b>", m_jobs));
    m_jobList = new QVBoxLayout();
    jobs->addLayout(m_jobList);
    auto* addJob = new QPushButton("Add Previous Job", m_jobs);
    addJob->setObjectName("AddPreviousJob");
    connect(addJob, &QPushButton::clicked, this, [this] { addPastJob(); });
    jobs->addWidget(addJob, 0, Qt::AlignLeft);
    m_jobs->hide();
    layout->addWidget(m_jobs);
    layout->addWidget(new QLabel("<b>Note</b>", body));
    m_note = new QPlainTextEdit(body);
    m_note->setObjectName("Note");
    m_note->setTabChangesFocus(true);
    layout->addWidget(m_note);
    scroll->setWidget(body);
    outer->addWidget(scroll, 1);

    m_error = new QLabel(this);
    m_error->setObjectName("EditorError");
    m_error->setWordWrap(true);
    m_error->hide();
    outer->addWidget(m_error);

    auto* buttons = new QDialogButtonBox(this);
    m_save = buttons->addButton("Save", QDialogButtonBox::AcceptRole);
    m_save->setObjectName("EditorSave");
    m_save->setDefault(true);
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName("EditorCancel");
    connect(m_save, &QPushButton::clicked, this, &ContactEditor::save);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    outer->addWidget(buttons);

    // Ctrl+S and Ctrl+Enter save from any field, though a text field takes
    // Enter for itself: the editor sees the keys before its fields do.
    qApp->installEventFilter(this);
    resize(560, 720);
}

bool ContactEditor::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        const auto* key = static_cast<QKeyEvent*>(event);
        auto* widget = qobject_cast<QWidget*>(watched);
        const bool saveKey =
            key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter || key->key() == Qt::Key_S;
        if (saveKey && (key->modifiers() & Qt::ControlModifier) && widget != nullptr &&
            widget->window() == this) {
            save();
            return true;
        }
    }
    return QDialog::eventFilter(watched, event);
}

void ContactEditor::load(const std::string& cardID) {
    m_loaded = false;
    m_save->setEnabled(false);
    m_list.editing().draft(cardID, [self = QPointer(this)](Result<ContactDraft, ActionError> read) {
        if (!self) {
            return;
        }
        if (!read.ok()) {
            self->showError(qt(read.error().description()));
            return;
        }
        self->setDraft(read.value());
    });
}

void ContactEditor::setDraft(const ContactDraft& draft) {
    m_original = draft;
    m_shownTexts.clear();
    for (std::size_t i = 0; i < std::size(kTextFields); ++i) {
        m_texts[i]->setText(qt(draft.*kTextFields[i].member));
        m_shownTexts << m_texts[i]->text();
    }
    m_birthday->setText(draft.birthday ? editorDateText(*draft.birthday) : QString());
    rows(EntryRows::Kind::phone)->setFields(ExLabel::formerLast(draft.phones));
    rows(EntryRows::Kind::email)->setFields(ExLabel::formerLast(draft.emails));
    rows(EntryRows::Kind::url)->setFields(draft.urls);
    rows(EntryRows::Kind::address)->setAddresses(ExLabel::formerLast(draft.addresses));
    rows(EntryRows::Kind::date)->setDates(draft.dates);
    rows(EntryRows::Kind::link)->setLinks(draft.links);
    m_note->setPlainText(qt(draft.note.value_or(std::string())));
    m_shownNote = m_note->toPlainText();
    m_error->hide();
    m_loaded = true;
    m_save->setEnabled(true);
    if (!m_texts.empty()) {
        m_texts[1]->setFocus();
    }
    Q_EMIT loaded();
}

ContactDraft ContactEditor::draft() const {
    ContactDraft draft = m_original;
    for (std::size_t i = 0; i < std::size(kTextFields); ++i) {
        // A text the user left alone is the card's own, spaces and all.
        if (m_texts[i]->text() != m_shownTexts.value(static_cast<qsizetype>(i))) {
            draft.*kTextFields[i].member = utf8(m_texts[i]->text());
        }
    }
    if (m_birthday->text().trimmed().isEmpty()) {
        draft.birthday.reset();
    } else if (const auto birthday = parseEditorDate(m_birthday->text())) {
        draft.birthday = birthday;
    }
    // Former entries are listed last; unless the user moved one, the card
    // keeps its own order.
    draft.phones =
        inCardOrder(rows(EntryRows::Kind::phone), rows(EntryRows::Kind::phone)->fields(), m_original.phones);
    draft.emails =
        inCardOrder(rows(EntryRows::Kind::email), rows(EntryRows::Kind::email)->fields(), m_original.emails);
    draft.urls = rows(EntryRows::Kind::url)->fields();
    draft.addresses = inCardOrder(rows(EntryRows::Kind::address), rows(EntryRows::Kind::address)->addresses(),
                                  m_original.addresses);
    draft.dates = rows(EntryRows::Kind::date)->dates();
    draft.links = rows(EntryRows::Kind::link)->links();
    if (m_note->toPlainText() != m_shownNote) {
        draft.note = utf8(m_note->toPlainText());
    }
    return draft;
}

void ContactEditor::setPastJobs(const std::vector<PastJob>& jobs) {
    for (const auto& row : m_jobRows) {
        row.title->parentWidget()->deleteLater();
    }
    m_jobRows.clear();
    for (const auto& job : jobs) {
        addPastJob(job);
    }
    m_shownJobs = pastJobs();
    m_jobs->show();
}

void ContactEditor::addPastJob(const PastJob& job) {
    auto* row = new QWidget(m_jobs);
    auto* line = new QHBoxLayout(row);
    line->setContentsMargins(0, 0, 0, 0);
    JobRow fields{job.id.empty() ? PastJob::make({}, {}).id : job.id, new QLineEdit(qt(job.title), row),
                  new QLineEdit(qt(job.company), row), new QLineEdit(qt(job.years), row)};
    fields.title->setPlaceholderText("Job title");
    fields.company->setPlaceholderText("Company");
    fields.years->setPlaceholderText("Years");
    fields.company->setObjectName("PastJobCompany");
    line->addWidget(fields.title, 2);
    line->addWidget(fields.company, 2);
    line->addWidget(fields.years, 1);
    m_jobList->addWidget(row);
    m_jobRows.push_back(fields);
    if (job.id.empty()) {
        fields.title->setFocus();
    }
}

std::vector<PastJob> ContactEditor::pastJobs() const {
    std::vector<PastJob> jobs;
    for (const auto& row : m_jobRows) {
        PastJob job{row.id, utf8(row.company->text().trimmed()), utf8(row.title->text().trimmed()),
                    utf8(row.years->text().trimmed())};
        if (!job.isEmpty()) {
            jobs.push_back(std::move(job));
        }
    }
    return jobs;
}

QLineEdit* ContactEditor::field(const QString& objectName) const {
    return findChild<QLineEdit*>(objectName);
}

EntryRows* ContactEditor::rows(EntryRows::Kind kind) const {
    return m_rows.at(static_cast<std::size_t>(kind));
}

QString ContactEditor::errorText() const {
    return m_error->isVisible() ? m_error->text() : QString();
}

void ContactEditor::showError(const QString& text) {
    m_error->setText(text);
    m_error->show();
}

void ContactEditor::save() {
    if (!m_loaded || m_saving || m_keepQuestion != nullptr) {
        return;
    }
    if (!m_birthday->text().trimmed().isEmpty() && !parseEditorDate(m_birthday->text())) {
        showError("The birthday isn't a date: write it as 1987-03-14, or --03-14 without a year.");
        m_birthday->setFocus();
        return;
    }
    ContactDraft draft = this->draft();
    const QString oldCompany = trimmedCompany(m_original.organization);
    if (!m_original.id || !m_shownJobs || oldCompany.isEmpty() ||
        trimmedCompany(draft.organization) == oldCompany) {
        write(std::move(draft));
        return;
    }
    // The company changed: the old one may be kept as a previous job.
    const auto isWork = [](const ContactDraft::Field& field) {
        return field.label == labelConstant(StockLabel::work);
    };
    const bool hasWorkEntries = std::any_of(draft.phones.begin(), draft.phones.end(), isWork) ||
                                std::any_of(draft.emails.begin(), draft.emails.end(), isWork);
    m_keepQuestion =
        new QMessageBox(QMessageBox::Question, "Keep Previous Job",
                        "Keep " + oldCompany + " as a previous job?", QMessageBox::NoButton, this);
    m_keepQuestion->setObjectName("KeepJobQuestion");
    m_keepQuestion->setAttribute(Qt::WA_DeleteOnClose);
    m_keepQuestion->setInformativeText("It goes under Previously on the contact, and searching for it still "
                                       "finds them.");
    QPushButton* keep = m_keepQuestion->addButton(keepJobButton, QMessageBox::AcceptRole);
    QPushButton* keepAndMark =
        hasWorkEntries ? m_keepQuestion->addButton(keepAndMarkButton, QMessageBox::AcceptRole) : nullptr;
    QPushButton* dontKeep = m_keepQuestion->addButton(dontKeepButton, QMessageBox::DestructiveRole);
    m_keepQuestion->addButton(QMessageBox::Cancel);
    connect(m_keepQuestion, &QMessageBox::buttonClicked, this,
            [this, draft, keep, keepAndMark, dontKeep, isWork](QAbstractButton* button) mutable {
                m_keepQuestion = nullptr;
                if (button != keep && button != keepAndMark && button != dontKeep) {
                    return; // Cancel: nothing is saved
                }
                if (button == keepAndMark) {
                    for (auto* list : {&draft.phones, &draft.emails}) {
                        for (auto& field : *list) {
                            if (isWork(field)) {
                                field.label = ExLabel::former(field.label);
                            }
                        }
                    }
                }
                if (button != dontKeep) {
                    addPastJob(PastJob::make(utf8(trimmedCompany(m_original.organization)),
                                             utf8(qt(m_original.jobTitle).trimmed())));
                }
                write(std::move(draft));
            });
    m_keepQuestion->open();
}

void ContactEditor::setSavePhoto(SavePhoto savePhoto) {
    m_savePhoto = std::move(savePhoto);
    m_photoRow->setEnabled(static_cast<bool>(m_savePhoto));
    m_photoRow->setToolTip(m_savePhoto ? QString() : QString("Contact photos need the sidecar folder."));
}

void ContactEditor::choosePhoto(const QString& file) {
    // Only a small preview is decoded here: the picture may be 50
    // megapixels, and the head crop runs after Save, off this thread.
    QImageReader reader(file);
    reader.setAutoTransform(true);
    const QSize size = reader.size();
    if (size.isValid()) {
        reader.setScaledSize(size.scaled(kPhotoPreview, kPhotoPreview, Qt::KeepAspectRatio));
    }
    const QImage preview = reader.read();
    if (preview.isNull()) {
        showError("That file isn't a picture Kinbook can read: " + reader.errorString());
        return;
    }
    m_chosenPhoto = file;
    m_photoPreview->setPixmap(QPixmap::fromImage(preview));
}

void ContactEditor::write(ContactDraft draft) {
    m_saving = true;
    m_save->setEnabled(false);
    m_list.editing().save(std::move(draft), [self = QPointer(this)](Result<SavedContact, ActionError> saved) {
        if (!self) {
            return;
        }
        self->m_saving = false;
        self->m_save->setEnabled(true);
        if (!saved.ok()) {
            self->showError(qt(saved.error().description()));
            return;
        }
        if (saved->cardID) {
            // The person's past jobs go with the card they were edited with.
            if (self->m_shownJobs && self->pastJobs() != *self->m_shownJobs && self->m_saveJobs) {
                self->m_saveJobs(*saved->cardID, self->pastJobs());
            }
            if (!self->m_chosenPhoto.isEmpty() && self->m_savePhoto) {
                self->m_savePhoto(*saved->cardID, self->m_chosenPhoto);
            }
            Q_EMIT self->saved(qt(saved->personID.value_or(*saved->cardID)), qt(*saved->cardID));
        }
        self->accept();
    });
}

} // namespace kinbook
