#include "Kinbook/PeopleTableModel.h"

#include "Kinbook/QtText.h"

#include <algorithm>

namespace kinbook {

PeopleTableModel::PeopleTableModel(QObject* parent) : QAbstractListModel(parent) {}

void PeopleTableModel::setSections(SectionList sections) {
    beginResetModel();
    m_sections = sections ? std::move(sections) : SectionList({}, nullptr);
    m_sectionRows.clear();
    m_sectionRows.reserve(m_sections->size());
    int row = 0;
    int people = 0;
    for (const auto& section : *m_sections) {
        m_sectionRows.push_back(row);
        const int size = static_cast<int>(section.people.size());
        row += 1 + size;
        people += size;
    }
    m_rowCount = row;
    m_peopleCount = people;
    endResetModel();
}

int PeopleTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : m_rowCount;
}

std::optional<PeopleTableModel::Location> PeopleTableModel::locate(int row) const {
    if (row < 0 || row >= m_rowCount) {
        return std::nullopt;
    }
    // The last section whose title row is at or before `row`.
    const auto after = std::upper_bound(m_sectionRows.begin(), m_sectionRows.end(), row);
    const auto section = static_cast<std::size_t>(after - m_sectionRows.begin() - 1);
    return Location{section, row - m_sectionRows[section] - 1};
}

const Person* PeopleTableModel::personAt(int row) const {
    const auto location = locate(row);
    if (!location || location->person < 0) {
        return nullptr;
    }
    return (*m_sections)[location->section].people[static_cast<std::size_t>(location->person)];
}

bool PeopleTableModel::isSectionRow(int row) const {
    const auto location = locate(row);
    return location && location->person < 0;
}

std::optional<int> PeopleTableModel::rowOf(std::string_view personID) const {
    for (std::size_t s = 0; s < m_sections->size(); ++s) {
        const auto& people = (*m_sections)[s].people;
        for (std::size_t p = 0; p < people.size(); ++p) {
            if (people[p]->id == personID) {
                return m_sectionRows[s] + 1 + static_cast<int>(p);
            }
        }
    }
    return std::nullopt;
}

std::optional<int> PeopleTableModel::personRowFrom(int row, int direction) const {
    for (; row >= 0 && row < m_rowCount; row += direction) {
        if (!isSectionRow(row)) {
            return row;
        }
    }
    return std::nullopt;
}

std::optional<int> PeopleTableModel::sectionRow(std::string_view title) const {
    for (std::size_t s = 0; s < m_sections->size(); ++s) {
        if ((*m_sections)[s].letter == title) {
            return m_sectionRows[s];
        }
    }
    return std::nullopt;
}

Qt::ItemFlags PeopleTableModel::flags(const QModelIndex& index) const {
    if (!index.isValid() || isSectionRow(index.row())) {
        // Titles are read, never chosen: clicks and the keyboard pass over them.
        return Qt::NoItemFlags;
    }
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled;
}

QVariant PeopleTableModel::data(const QModelIndex& index, int role) const {
    const auto location = locate(index.row());
    if (!location) {
        return {};
    }
    const Section& section = (*m_sections)[location->section];
    if (location->person < 0) {
        switch (role) {
        case Qt::DisplayRole:
        case Qt::AccessibleTextRole:
            return qt(section.letter);
        case IsSectionRole:
            return true;
        default:
            return {};
        }
    }
    const Person& person = *section.people[static_cast<std::size_t>(location->person)];
    switch (role) {
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole:
        return qt(person.displayName());
    case PersonIDRole:
        return qt(person.id);
    case IsSectionRole:
        return false;
    case SubtitleRole:
        // A person listed by name shows the company; a company shows its
        // department or nothing.
        if (!person.organization.empty() && person.displayName() != person.organization) {
            return qt(person.organization);
        }
        return qt(person.jobTitle);
    case CircleBadgeRole:
        return person.circle ? qt(circleBadge(*person.circle)) : QString();
    case InitialsRole:
        return initialsOf(person);
    case Qt::DecorationRole:
        if (person.hasImage && m_thumbnails) {
            return m_thumbnails(person);
        }
        return {};
    default:
        return {};
    }
}

QString initialsOf(const Person& person) {
    auto first = [](const std::string& text) { return qt(text).left(1).toUpper(); };
    if (!person.givenName.empty() || !person.familyName.empty()) {
        return first(person.givenName) + first(person.familyName);
    }
    return qt(person.displayName()).left(2).toUpper();
}

} // namespace kinbook
