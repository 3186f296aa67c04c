#include "Kinbook/SortMenu.h"

#include "Kinbook/QtText.h"

#include <QActionGroup>

namespace kinbook {

SortMenu::SortMenu(QWidget* parent) : QMenu("Sort By", parent) {
    setObjectName("SortMenu");
    auto* orders = new QActionGroup(this);
    for (SortOrder order : allSortOrders()) {
        QAction* action = addAction(qt(sortOrderTitle(order)));
        action->setCheckable(true);
        action->setActionGroup(orders);
        connect(action, &QAction::triggered, this, [this, order] {
            if (order != m_order) {
                Q_EMIT orderChosen(order);
            }
        });
        m_orders.push_back(action);
    }
    addSeparator();
    auto* directions = new QActionGroup(this);
    m_ascending = addAction(QString());
    m_descending = addAction(QString());
    for (QAction* action : {m_ascending, m_descending}) {
        action->setCheckable(true);
        action->setActionGroup(directions);
    }
    connect(m_ascending, &QAction::triggered, this, [this] {
        if (m_descendingState) {
            Q_EMIT directionChosen(false);
        }
    });
    connect(m_descending, &QAction::triggered, this, [this] {
        if (!m_descendingState) {
            Q_EMIT directionChosen(true);
        }
    });
    setState(SortOrder::lastName, false);
}

void SortMenu::setState(SortOrder order, bool descending) {
    m_order = order;
    m_descendingState = descending;
    orderAction(order)->setChecked(true);
    m_ascending->setText(qt(ascendingLabel(order)));
    m_descending->setText(qt(descendingLabel(order)));
    (descending ? m_descending : m_ascending)->setChecked(true);
}

QAction* SortMenu::orderAction(SortOrder order) const {
    return m_orders[static_cast<std::size_t>(order)];
}

QString SortMenu::summary() const {
    return QString("%1, %2").arg(qt(sortOrderTitle(m_order)),
                                 qt(m_descendingState ? descendingLabel(m_order) : ascendingLabel(m_order)));
}

} // namespace kinbook
