#include "Kinbook/DuplicatesWindow.h"

#include "Kinbook/MergeSheet.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace kinbook {
namespace {

QString qt(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace

DuplicatesWindow::DuplicatesWindow(PeopleList& list, Executor& main, Executor& background,
                                   std::optional<std::filesystem::path> answersFile,
                                   MergePhotoKeeper keepPhotos, QWidget* parent)
    : QDialog(parent), m_list(list), m_main(main), m_background(background),
      m_answersFile(std::move(answersFile)), m_keepPhotos(std::move(keepPhotos)) {
    setObjectName("DuplicatesWindow");
    auto* layout = new QVBoxLayout(this);
    m_strongOnly = new QCheckBox("Phone or email matches only", this);
    m_strongOnly->setToolTip("Hide groups that only share a name");
    connect(m_strongOnly, &QCheckBox::toggled, this, [this] { rebuild(); });
    layout->addWidget(m_strongOnly);
    m_status = new QLabel(this);
    m_status->setAlignment(Qt::AlignCenter);
    layout->addWidget(m_status);
    m_statusText = new QLabel(this);
    m_statusText->setAlignment(Qt::AlignCenter);
    layout->addWidget(m_statusText);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    auto* content = new QWidget(scroll);
    m_rows = new QVBoxLayout(content);
    m_rows->addStretch();
    scroll->setWidget(content);
    layout->addWidget(scroll, 1);
    auto* buttons = new QDialogButtonBox(this);
    auto* done = buttons->addButton("Done", QDialogButtonBox::AcceptRole);
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    layout->addWidget(buttons);
    resize(560, 640);
    // The groups follow the list: a card changed anywhere may make or break one.
    m_observer = m_list.observe([this](PeopleChanges changes) {
        if (changes.contains(PeopleChange::people)) {
            refresh();
        }
    });
    refresh();
}

DuplicatesWindow::~DuplicatesWindow() {
    m_list.unobserve(m_observer);
}

void DuplicatesWindow::refresh() {
    m_searching = true;
    m_status->setText("Looking for duplicates…");
    m_statusText->clear();
    std::vector<PersonPtr> people;
    people.reserve(m_list.people().size());
    for (const auto& person : m_list.people()) {
        if (!person->hidden && person->detailed) {
            people.push_back(person);
        }
    }
    const auto search = ++m_search;
    // The finder is pure: it runs in the background over the people as they
    // are now, and a newer search wins.
    // The window's life is checked on the GUI thread, where it ends.
    m_background.post([main = &m_main, alive = std::weak_ptr<int>(m_alive), self = this,
                       people = std::move(people), search]() mutable {
        auto groups = std::make_shared<std::vector<DuplicateGroup>>(
            Duplicates::findGroups(std::span<const PersonPtr>(people)));
        main->post([alive, self, groups, search] {
            if (alive.lock() && self->m_search == search) {
                self->showGroups(std::move(*groups));
            }
        });
    });
}

void DuplicatesWindow::showGroups(std::vector<DuplicateGroup> groups) {
    m_searching = false;
    const auto answers =
        m_answersFile ? NotDuplicates::read(*m_answersFile, KinLog("sidecar")) : NotDuplicates();
    m_groups = answers.unanswered(std::move(groups));
    rebuild();
}

void DuplicatesWindow::rebuild() {
    if (m_searching) {
        return;
    }
    m_shown.clear();
    for (const auto& group : m_groups) {
        if (!m_strongOnly->isChecked() || group.isStrong()) {
            m_shown.push_back(group);
        }
    }
    setWindowTitle("Duplicates (" + QString::number(m_shown.size()) + ")");
    while (m_rows->count() > 1) {
        auto* item = m_rows->takeAt(0);
        delete item->widget();
        delete item;
    }
    if (m_shown.empty()) {
        m_status->setText("No Duplicates");
        m_statusText->setText("No two contacts share a name, phone or email.");
        return;
    }
    m_status->clear();
    m_statusText->clear();
    for (std::size_t i = 0; i < m_shown.size(); ++i) {
        const auto& group = m_shown[i];
        auto* row = new QFrame();
        row->setFrameShape(QFrame::StyledPanel);
        auto* rowLayout = new QVBoxLayout(row);
        QStringList names;
        std::size_t cards = 0;
        for (const auto& person : group.people) {
            names << qt(person.displayName());
            cards += person.memberIDs.empty() ? 1 : person.memberIDs.size();
        }
        rowLayout->addWidget(new QLabel("<b>" + names.join(", ").toHtmlEscaped() + "</b>", row));
        QStringList reasons;
        for (const auto& reason : group.reasons) {
            reasons << qt(reason);
        }
        rowLayout->addWidget(new QLabel(reasons.join(", "), row));
        auto* actions = new QHBoxLayout();
        auto* merge = new QPushButton("Merge " + QString::number(cards) + " Cards", row);
        connect(merge, &QPushButton::clicked, this, [this, i] { openMerge(i)->open(); });
        auto* notDuplicates = new QPushButton("Not Duplicates", row);
        notDuplicates->setEnabled(m_answersFile.has_value());
        connect(notDuplicates, &QPushButton::clicked, this, [this, i] { markNotDuplicates(i); });
        actions->addWidget(merge);
        actions->addWidget(notDuplicates);
        actions->addStretch();
        rowLayout->addLayout(actions);
        m_rows->insertWidget(m_rows->count() - 1, row);
    }
}

MergeSheet* DuplicatesWindow::openMerge(std::size_t group) {
    std::vector<std::string> ids;
    for (const auto& person : m_shown.at(group).people) {
        ids.push_back(person.id);
    }
    auto* sheet = new MergeSheet(m_list, std::move(ids), m_keepPhotos, this);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    connect(sheet, &MergeSheet::merged, this, [this] { refresh(); });
    return sheet;
}

void DuplicatesWindow::markNotDuplicates(std::size_t group) {
    if (!m_answersFile || group >= m_shown.size()) {
        return;
    }
    auto answers = NotDuplicates::read(*m_answersFile, KinLog("sidecar"));
    if (answers.remember(m_shown[group], *m_answersFile)) {
        m_groups = answers.unanswered(std::move(m_groups));
        rebuild();
    }
}

} // namespace kinbook
