#include "Kinbook/Sidebar.h"

#include "Kinbook/QtText.h"

#include <QKeyEvent>
#include <QPainter>

namespace kinbook {

Sidebar::Sidebar(QWidget* parent) : QListWidget(parent) {
    setObjectName("Sidebar");
    setAccessibleName("Sidebar");
    setItemDelegate(new SidebarDelegate(this));
    setSelectionMode(QAbstractItemView::SingleSelection);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    setMinimumWidth(170);
    connect(this, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* current) {
        if (m_rebuilding || current == nullptr || current->data(KindRole).toInt() < 0) {
            return;
        }
        const SidebarChoice chosen = choiceOf(current);
        if (chosen != m_choice) {
            m_choice = chosen;
            Q_EMIT choiceChanged(m_choice);
        }
    });
    setCounts({});
}

void Sidebar::setCounts(const SidebarCounts& counts) {
    if (counts == m_counts && count() > 0) {
        return;
    }
    m_counts = counts;
    m_rebuilding = true;
    clear();
    addEntry("All", {}, counts.everyone);
    if (!counts.accounts.empty()) {
        addGroupTitle("Accounts");
        for (const Account& account : counts.accounts) {
            const auto found = counts.accountCounts.find(account.id);
            addEntry(qt(account.name), {SidebarChoice::Kind::account, account.id, std::nullopt},
                     found != counts.accountCounts.end() ? found->second : 0);
        }
    }
    addGroupTitle("Circles");
    // Each circle counts the people in it: the people the list shows when
    // it is chosen. How full it is counts the circles inside it too ("your
    // 15 includes your 5"), which the tooltip says.
    for (ContactCircle circle : allCircles()) {
        const auto found = counts.circleCounts.find(circle);
        const int own = found != counts.circleCounts.end() ? found->second : 0;
        QListWidgetItem* entry = addEntry(qt(circleTitle(circle)), {SidebarChoice::Kind::circle, {}, circle},
                                          own, qt(circleBadge(circle)));
        const int cumulative = cumulativeSize(counts.circleCounts, circle);
        const auto capacity = circleCapacity(circle);
        entry->setToolTip(capacity ? QString("%1 in %2; your %3 holds %4 of %3")
                                         .arg(own)
                                         .arg(qt(circleTitle(circle)))
                                         .arg(*capacity)
                                         .arg(cumulative)
                                   : QString("%1 in %2").arg(own).arg(qt(circleTitle(circle))));
    }
    addEntry("Hidden", {SidebarChoice::Kind::hidden, {}, std::nullopt}, counts.hidden);
    addEntry("Trash", {SidebarChoice::Kind::trash, {}, std::nullopt}, counts.trash);

    // An account that went away takes its choice with it.
    QListWidgetItem* chosen = itemFor(m_choice);
    if (chosen == nullptr) {
        m_choice = {};
        chosen = item(0);
    }
    setCurrentItem(chosen);
    m_rebuilding = false;
}

void Sidebar::showChoice(const SidebarChoice& choice) {
    if (QListWidgetItem* found = itemFor(choice)) {
        m_rebuilding = true;
        m_choice = choice;
        setCurrentItem(found);
        m_rebuilding = false;
    }
}

QListWidgetItem* Sidebar::addEntry(const QString& title, SidebarChoice choice, int count,
                                   const QString& badge) {
    auto* entry = new QListWidgetItem(title, this);
    entry->setData(KindRole, static_cast<int>(choice.kind));
    entry->setData(KeyRole, choice.kind == SidebarChoice::Kind::circle
                                ? QString::number(rawValue(*choice.circle))
                                : qt(choice.accountID));
    entry->setData(CountRole, count);
    entry->setData(BadgeRole, badge);
    entry->setData(Qt::AccessibleTextRole, QString("%1, %2").arg(title).arg(count));
    return entry;
}

void Sidebar::addGroupTitle(const QString& title) {
    auto* entry = new QListWidgetItem(title, this);
    entry->setData(KindRole, -1);
    entry->setFlags(Qt::NoItemFlags);
}

SidebarChoice Sidebar::choiceOf(const QListWidgetItem* item) {
    SidebarChoice choice;
    choice.kind = static_cast<SidebarChoice::Kind>(item->data(KindRole).toInt());
    const QString key = item->data(KeyRole).toString();
    if (choice.kind == SidebarChoice::Kind::account) {
        choice.accountID = utf8(key);
    } else if (choice.kind == SidebarChoice::Kind::circle) {
        choice.circle = circleFromRawValue(key.toInt());
    }
    return choice;
}

QListWidgetItem* Sidebar::itemFor(const SidebarChoice& choice) const {
    for (int row = 0; row < count(); ++row) {
        QListWidgetItem* entry = item(row);
        if (entry->data(KindRole).toInt() >= 0 && choiceOf(entry) == choice) {
            return entry;
        }
    }
    return nullptr;
}

void Sidebar::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Right && event->modifiers() == Qt::NoModifier) {
        Q_EMIT leaveRightRequested();
        event->accept();
        return;
    }
    QListWidget::keyPressEvent(event);
}

QSize SidebarDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const {
    const bool title = index.data(Sidebar::KindRole).toInt() < 0;
    return {option.rect.width(), title ? 30 : 26};
}

void SidebarDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                            const QModelIndex& index) const {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    const QPalette& palette = option.palette;
    QRect rect = option.rect.adjusted(10, 0, -10, 0);

    if (index.data(Sidebar::KindRole).toInt() < 0) {
        QFont font = option.font;
        font.setBold(true);
        font.setPointSizeF(font.pointSizeF() * 0.85);
        painter->setFont(font);
        painter->setPen(palette.color(QPalette::PlaceholderText));
        painter->drawText(rect.adjusted(0, 6, 0, 0), Qt::AlignVCenter | Qt::AlignLeft,
                          index.data(Qt::DisplayRole).toString().toUpper());
        painter->restore();
        return;
    }

    const bool selected = option.state & QStyle::State_Selected;
    if (selected) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(palette.color(QPalette::Highlight));
        painter->drawRoundedRect(option.rect.adjusted(4, 1, -4, -1), 5, 5);
    }
    const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    const QColor quiet = selected ? text : palette.color(QPalette::PlaceholderText);

    const QString badge = index.data(Sidebar::BadgeRole).toString();
    if (!badge.isEmpty()) {
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.75);
        painter->setFont(small);
        const QRect pill(rect.left(), rect.top() + (rect.height() - 16) / 2, 30, 16);
        painter->setPen(QPen(quiet, 1));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(pill, 8, 8);
        painter->drawText(pill, Qt::AlignCenter, badge);
        rect.setLeft(pill.right() + 8);
    }

    painter->setFont(option.font);
    const QString count = QString::number(index.data(Sidebar::CountRole).toInt());
    const int countWidth = painter->fontMetrics().horizontalAdvance(count);
    painter->setPen(quiet);
    painter->drawText(rect, Qt::AlignVCenter | Qt::AlignRight, count);
    painter->setPen(text);
    const QRect titleRect = rect.adjusted(0, 0, -countWidth - 8, 0);
    painter->drawText(titleRect, Qt::AlignVCenter | Qt::AlignLeft,
                      painter->fontMetrics().elidedText(index.data(Qt::DisplayRole).toString(),
                                                        Qt::ElideRight, titleRect.width()));
    painter->restore();
}

} // namespace kinbook
