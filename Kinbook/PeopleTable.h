#pragma once

#include <QStyledItemDelegate>
#include <QTableView>

class QMimeData;

namespace kinbook {

class PeopleTableModel;

// Draws one row of the people list: a title row as a band with the section's
// title, a person as picture (or initials), name, company and circle badge.
// Every row has the same height, so the view never measures rows one by one.
class PersonRowDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

// The people list. Up and down move the selection from person to person,
// passing over section titles; right asks to go into the selected person's
// page and left to go to the column beside the list.
//
// A table of one column with fixed row heights: unlike a list view, it lays
// nothing out per row, so 100,000 people cost no more to show than a dozen.
class PeopleTable final : public QTableView {
    Q_OBJECT
public:
    explicit PeopleTable(QWidget* parent = nullptr);

    void setPeopleModel(PeopleTableModel* model);
    PeopleTableModel* peopleModel() const { return m_model; }

    // Selects the person on `row` (a person's row) and scrolls to it.
    void selectPersonRow(int row);
    // Moves the selection by `steps` people (negative: up), as the arrow keys
    // do; from no selection, down starts at the first person.
    void moveSelection(int steps);
    // The selected person's id; empty when none.
    QString selectedID() const;
    // Every selected person's id, in row order (several for a merge).
    QStringList selectedIDs() const;
    // What dragging the selected people carries: a "kinbook-person:" line
    // each, which an account in the sidebar takes.
    QMimeData* dragData() const;

Q_SIGNALS:
    void selectedPersonChanged(const QString& personID);
    void enterPageRequested();
    void leaveLeftRequested();

protected:
    QModelIndex moveCursor(CursorAction cursorAction, Qt::KeyboardModifiers modifiers) override;
    void keyPressEvent(QKeyEvent* event) override;
    void startDrag(Qt::DropActions supportedActions) override;

private:
    PeopleTableModel* m_model = nullptr;
};

} // namespace kinbook
