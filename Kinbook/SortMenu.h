#pragma once

#include "KinbookKit/people/SortOrder.h"

#include <QMenu>
#include <vector>

class QAction;

namespace kinbook {

// The list's sort menu: the seven orders, then the two directions under the
// chosen order's own words ("A to Z" / "Z to A", "Closest First" /
// "Farthest First", …).
class SortMenu final : public QMenu {
    Q_OBJECT
public:
    explicit SortMenu(QWidget* parent = nullptr);

    // Shows the list's current order and direction, without announcing it.
    void setState(SortOrder order, bool descending);

    QAction* orderAction(SortOrder order) const;
    QAction* ascendingAction() const { return m_ascending; }
    QAction* descendingAction() const { return m_descending; }
    // "Last Name, A to Z": what the sort button says.
    QString summary() const;

Q_SIGNALS:
    void orderChosen(kinbook::SortOrder order);
    void directionChosen(bool descending);

private:
    std::vector<QAction*> m_orders; // in the order of allSortOrders()
    QAction* m_ascending;
    QAction* m_descending;
    SortOrder m_order = SortOrder::lastName;
    bool m_descendingState = false;
};

} // namespace kinbook
