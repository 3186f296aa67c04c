#include "Kinbook/HeadingsColumn.h"

#include "Kinbook/QtText.h"
#include "Kinbook/Sidebar.h"

#include <QKeyEvent>

namespace kinbook {

HeadingsColumn::HeadingsColumn(QWidget* parent) : QListWidget(parent) {
    setObjectName("HeadingsColumn");
    setAccessibleName("Headings");
    setSelectionMode(QAbstractItemView::SingleSelection);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    setUniformItemSizes(true);
    // Drawn like the sidebar's entries: the title, and the count at the right.
    setItemDelegate(new SidebarDelegate(this));
    setMinimumWidth(110);
    setMaximumWidth(170);
    connect(this, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        const std::string title = utf8(item->data(Qt::UserRole).toString());
        // Choosing the chosen heading again shows every section.
        choose(m_chosen == title ? std::nullopt : std::optional<std::string>(title));
    });
    // Moving through the column with the keys chooses as a click does. (A
    // click moves the current heading too, but is answered by itemClicked,
    // which may also take the choice back.)
    connect(this, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* current) {
        if (m_movingByKeys && current != nullptr) {
            // After the key is handled: choosing rebuilds the column.
            QMetaObject::invokeMethod(
                this, [this, title = utf8(current->data(Qt::UserRole).toString())] { choose(title); },
                Qt::QueuedConnection);
        }
    });
    connect(this, &QListWidget::itemActivated, this,
            [this](QListWidgetItem* item) { choose(utf8(item->data(Qt::UserRole).toString())); });
}

void HeadingsColumn::setHeadings(const std::vector<Heading>& headings,
                                 const std::optional<std::string>& chosen) {
    if (headings == m_headings && chosen == m_chosen && count() > 0) {
        return;
    }
    m_rebuilding = true;
    m_headings = headings;
    m_chosen = chosen;
    clear();
    for (const Heading& heading : headings) {
        auto* entry = new QListWidgetItem(qt(heading.title), this);
        entry->setData(Qt::UserRole, qt(heading.title));
        entry->setData(Sidebar::KindRole, 0);
        entry->setData(Sidebar::CountRole, heading.count);
        entry->setData(Qt::AccessibleTextRole,
                       QString("%1, %2 people").arg(qt(heading.title)).arg(heading.count));
        entry->setToolTip(QString("%1: %2").arg(qt(heading.title)).arg(heading.count));
        if (chosen == heading.title) {
            setCurrentItem(entry);
        }
    }
    if (!chosen) {
        clearSelection();
    }
    m_rebuilding = false;
}

void HeadingsColumn::choose(const std::optional<std::string>& title) {
    if (m_rebuilding || title == m_chosen) {
        return;
    }
    m_chosen = title;
    if (!title) {
        clearSelection();
    }
    Q_EMIT headingChosen(title);
}

void HeadingsColumn::keyPressEvent(QKeyEvent* event) {
    if (event->modifiers() == Qt::NoModifier) {
        if (event->key() == Qt::Key_Left) {
            Q_EMIT leaveLeftRequested();
            event->accept();
            return;
        }
        if (event->key() == Qt::Key_Right) {
            Q_EMIT leaveRightRequested();
            event->accept();
            return;
        }
        if (event->key() == Qt::Key_Escape) {
            choose(std::nullopt);
            event->accept();
            return;
        }
    }
    m_movingByKeys = true;
    QListWidget::keyPressEvent(event);
    m_movingByKeys = false;
}

} // namespace kinbook
