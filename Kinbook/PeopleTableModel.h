#pragma once

#include "KinbookKit/people/Sections.h"

#include <QAbstractListModel>
#include <QImage>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace kinbook {

// The shown sections as one flat list for the view: each section is a title
// row followed by its people. The people are shared with the list, not
// copied, and nothing is worked out per row in advance, so publishing 100,000
// people costs one pass over the section sizes.
class PeopleTableModel final : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        PersonIDRole = Qt::UserRole + 1, // QString; empty on a title row
        IsSectionRole,                   // bool
        SubtitleRole,                    // QString: the company, else the job title
        CircleBadgeRole,                 // QString: "5", "15", …, "A"; empty without a circle
        InitialsRole,                    // QString: for a person without a picture
    };

    // The person's small picture when it is ready, a null image otherwise
    // (none, or still being loaded: the source then repaints the view).
    using ThumbnailSource = std::function<QImage(const Person&)>;

    explicit PeopleTableModel(QObject* parent = nullptr);

    // The sections are shared with the list, which never changes them in
    // place: it publishes new ones. Holding them keeps their people alive;
    // a null list shows nothing.
    void setSections(SectionList sections);
    const std::vector<Section>& sections() const { return *m_sections; }
    void setThumbnailSource(ThumbnailSource source) { m_thumbnails = std::move(source); }

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    // The person on a row; null on a title row or outside the list.
    const Person* personAt(int row) const;
    bool isSectionRow(int row) const;
    // The row of the person with this id (the person's own id); none when not shown.
    std::optional<int> rowOf(std::string_view personID) const;
    // The first person's row at or after `row` (direction 1) or at or before
    // it (direction -1), passing over title rows; none past either end.
    std::optional<int> personRowFrom(int row, int direction) const;
    // The row of a section's title.
    std::optional<int> sectionRow(std::string_view title) const;
    int peopleCount() const { return m_peopleCount; }

private:
    struct Location {
        std::size_t section;
        int person; // -1: the section's title row
    };
    std::optional<Location> locate(int row) const;

    SectionList m_sections = SectionList({}, nullptr);
    std::vector<int> m_sectionRows; // the title row of each section, ascending
    int m_rowCount = 0;
    int m_peopleCount = 0;
    ThumbnailSource m_thumbnails;
};

// Two letters for a person without a picture: given and family name's
// first letters, else the first two letters of the display name.
QString initialsOf(const Person& person);

} // namespace kinbook
